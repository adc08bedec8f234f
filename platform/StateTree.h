// The state tree: the root directory of the state database and its path rules.
//
// A state path ("te/cspf/status/vrf/default/ipv4/rsvp") is relative to the
// root and names the file <root>/<path>. Every component is checked with the
// path component rules before it reaches the file system, so no state path
// climbs out of the root. Tables are regular files that start with the magic
// "CSPFTBL1"; names starting with '.' are a writer's temporary files and never
// tables. The table files themselves are written and read elsewhere; this
// class lists, removes and creates the directories around them, and gives
// their writer the modes to apply.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/TreeDir.h"

namespace Platform {

class DumpContext;

class StateTree {
  public:
    // Without a group, files are 0600 and directories 0700; with one, files
    // are 0640 and directories 0750, owned by that group.
    struct Permissions {
        std::optional<gid_t> group;
    };

    static constexpr char kTableMagic[] = "CSPFTBL1";
    static constexpr size_t kTableMagicSize = 8;

    // CSPF_STATE_ROOT when set and non-empty, else "/dev/shm/cspf".
    static std::string defaultRoot();

    // Creates the root and its missing parents. A relative root is made
    // absolute against the current directory.
    explicit StateTree( std::string root, Permissions permissions = {} );

    const std::string& root() const { return root_; }
    const Permissions& permissions() const { return permissions_; }
    mode_t fileMode() const { return permissions_.group ? 0640 : 0600; }
    mode_t dirMode() const { return permissions_.group ? 0750 : 0700; }

    // root + "/" + statePath after checking every component; throws NameError
    // naming the whole path.
    std::string filePath( std::string_view statePath ) const;
    // As filePath, but the empty path stands for the root itself.
    std::string directoryPath( std::string_view statePath ) const;

    // The directory opened as a TreeDir (never through a symlink, refused when
    // not ours); with `create` the missing directories are made.
    TreeDir directory( std::string_view statePath, bool create = false ) const;
    // Creates the missing directories of the path's parent.
    void makeParents( std::string_view statePath ) const;
    // Creates the directory and its missing parents ("" is the root).
    void makeDirectory( std::string_view statePath ) const;

    // State paths of every table under the directory `prefix` ("" is the
    // whole tree), recursively, sorted. A missing prefix gives an empty list,
    // a prefix that is a table gives itself. Symlinks are never followed.
    std::vector<std::string> listTables( std::string_view prefix ) const;
    // Names of the tables and subdirectories directly in a directory, sorted;
    // empty when the directory is missing.
    std::vector<std::string> listDirectory( std::string_view statePath ) const;
    // Unlinks a table file: false when absent, Error when the path is not a
    // table file. Readers learn it through inotify (IN_ATTRIB, no link left).
    bool removeTable( std::string_view statePath ) const;
    // Whether anything (a table, a directory, any file) is at the path.
    bool exists( std::string_view statePath ) const;

    // For the table writer: the file mode and group of a new table file, and
    // of a directory it made.
    void applyFileMode( int fd ) const;
    void applyDirMode( const std::string& path ) const;

    // Whether the file `name` of the open directory `dirFd` is a table: a
    // regular file (not followed when a symlink) starting with the magic.
    static bool isTableAt( int dirFd, const char* name );

    void dumpState( DumpContext& context, unsigned indent ) const;

  private:
    std::string doPath( std::string_view statePath, bool rootAllowed ) const;
    void doMakeDirs( const std::string& absolutePath ) const;
    void doListTables( int fd, const std::string& statePath,
                       std::vector<std::string>& out ) const;

    std::string root_;
    Permissions permissions_;
};

}  // namespace Platform

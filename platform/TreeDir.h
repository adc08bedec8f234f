// A directory of the state tree, reached from the root without following links.
//
// Every tree operation (create, open, list, remove, watch, rename into place)
// starts from one of these: the root is opened, then each component below it
// with openat(O_NOFOLLOW | O_DIRECTORY) relative to its parent, so no path
// under the root is ever resolved through a symlink, whatever another process
// puts in the tree meanwhile. Every directory opened, the root included, must
// be owned by this process's user and writable by nobody else; one that is not
// is refused: whoever could write in it could swap its entries under us.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace Platform {

class TreeDir {
  public:
    // How a missing directory is made: mode (set with fchmod, so the umask
    // never narrows it) and group.
    struct Create {
        mode_t mode = 0700;
        std::optional<gid_t> group;
    };

    TreeDir() = default;
    // Opens root/relative ("" is the root), as deep as it exists: a missing
    // component, a symlink or a non-directory stops the walk (`complete()`
    // false, `fd()` the deepest directory opened, -1 when the root is
    // missing). With `create`, missing directories below the root are made.
    // Throws Error naming the directory when one is not ours or cannot be
    // opened or made.
    TreeDir( const std::string& root, std::string_view relative,
             const Create* create = nullptr );
    ~TreeDir();
    TreeDir( TreeDir&& other ) noexcept;
    TreeDir& operator=( TreeDir&& other ) noexcept;

    bool complete() const { return complete_; }
    int fd() const { return fd_; }
    // Components of `relative` opened below the root.
    size_t depth() const { return depth_; }
    // The absolute path of the deepest directory opened, for messages.
    const std::string& path() const { return path_; }

    // Throws Error unless the directory open on `fd` (shown as `path`) is
    // owned by this process's user and not writable by group or others.
    static void checkOurs( int fd, const std::string& path );
    // Whether `name` in the open directory `dirFd` is a regular file (not
    // followed) owned by this process's user: a file the tree may remove.
    static bool isOurFileAt( int dirFd, const char* name );
    // "/proc/self/fd/N": names the object open on `fd` for the calls that take
    // only a path (inotify, socket addresses) without resolving the tree again.
    static std::string fdPath( int fd );

  private:
    void doWalk( std::string_view relative, const Create* create );

    int fd_ = -1;
    size_t depth_ = 0;
    bool complete_ = false;
    std::string path_;
};

}  // namespace Platform

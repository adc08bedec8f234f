// Mounts: how an agent attaches the entities of the state tree it works on.
//
// An EntityManager holds the mounted entities of a process by state path. A
// MountGroup declares mounts by path, type and mode and performs them as one
// batch, calling back once with a status on the event loop:
//
//   "r"   read: attach a table (an absent one is an empty view that fills when
//         it appears) or follow a directory; a table of another type or an
//         unsound file fails the group, naming the path and the reason. A
//         one-record table (SingletonReader) with an unsound file is mounted
//         as absent instead, and followed until its writer rewrites it.
//   "ri"  read, immediate: as "r", but a failure is reported in the status's
//         list of skipped mounts and does not fail the group.
//   "w"   write: create the table or directory (and its parents), or
//         re-attach to it as its only writer; a table another process writes
//         fails the group.
//   "wi"  write, immediate: as "w", but a failure does not fail the group.
//
// The type decides what a mount builds: a TableReader/SingletonReader
// (modes r, ri), a TableWriter/SingletonWriter (w, wi) or a DirectoryWatch
// (any mode; a written directory is created when missing).
#pragma once

#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/DirectoryWatch.h"
#include "platform/Entity.h"
#include "platform/Error.h"
#include "platform/Table.h"

namespace Platform {

class EventLoop;
class Inotify;
class StateTree;

enum class MountMode { read, readImmediate, write, writeImmediate };

// "r", "ri", "w" or "wi"; anything else raises Error naming the mode.
MountMode mountModeOf( const std::string& mode );
bool mountWrites( MountMode mode );
bool mountImmediate( MountMode mode );

struct MountStatus {
    bool ok = true;
    std::string failedPath;  // the first mount that failed the group
    std::string reason;
    // Immediate mounts that failed without failing the group: path, reason.
    std::vector<std::pair<std::string, std::string>> skipped;
};

class EntityManager {
  public:
    // `loop` may be null (tests driving the manager by hand).
    EntityManager( StateTree& tree, Inotify& inotify, EventLoop* loop );

    StateTree& tree() const { return tree_; }
    Inotify& inotify() const { return inotify_; }
    EventLoop* loop() const { return loop_; }

    Ptr<Entity> entity( const std::string& path ) const;
    template <typename T>
    Ptr<T> entity( const std::string& path ) const {
        return ptrDynamicCast<T>( entity( path ) );
    }
    void entityIs( const std::string& path, Ptr<Entity> e ) {
        entities_[path] = std::move( e );
    }
    // Unmounts: drops the manager's reference.
    void entityDel( const std::string& path ) { entities_.erase( path ); }
    const std::map<std::string, Ptr<Entity>>& entities() const { return entities_; }

    // Builds the entity of type T for `path` as `mode` says (see above);
    // throws Error when it cannot.
    template <typename T>
    Ptr<T> mount( const std::string& path, MountMode mode ) {
        Ptr<T> e;
        if constexpr ( std::is_base_of_v<DirectoryWatch, T> ) {
            e = create<T>( tree_, inotify_, path, mountWrites( mode ) );
        } else if constexpr ( std::is_base_of_v<TableReaderBase, T> ) {
            if ( mountWrites( mode ) ) {
                throw Error( "mount " + path +
                             ": a reader type cannot be mounted to write" );
            }
            e = create<T>( tree_, &inotify_, path );
        } else if constexpr ( std::is_base_of_v<TableWriterBase, T> ) {
            if ( !mountWrites( mode ) ) {
                throw Error( "mount " + path +
                             ": a writer type cannot be mounted to read" );
            }
            e = create<T>( tree_, loop_, path );
        } else {
            static_assert(
                std::is_base_of_v<DirectoryWatch, T>,
                "a mount builds a directory, a table reader or a table writer" );
        }
        entityIs( path, e );
        return e;
    }

  private:
    StateTree& tree_;
    Inotify& inotify_;
    EventLoop* loop_;
    std::map<std::string, Ptr<Entity>> entities_;
};

class MountGroup {
  public:
    explicit MountGroup( EntityManager& manager ) : manager_( manager ) {}

    // Declares a mount; performed by doMounts in declaration order. A bad
    // mode raises Error at once.
    template <typename T>
    void mount( const std::string& path, const std::string& mode ) {
        const MountMode m = mountModeOf( mode );
        mounts_.push_back(
            { path, m, [this, path, m] { manager_.mount<T>( path, m ); } } );
    }

    // Performs the mounts and calls `done` once with the outcome: at the end
    // of the loop's current round (before its next wait when called outside
    // one), or at once when the manager has no loop.
    void doMounts( std::function<void( const MountStatus& )> done );

  private:
    struct Mount {
        std::string path;
        MountMode mode;
        std::function<void()> perform;
    };
    EntityManager& manager_;
    std::vector<Mount> mounts_;
};

}  // namespace Platform

// One inotify instance shared by every directory watch and table reader of a
// process (or of one loop).
//
// What lives where:
//  - Inotify: the inotify fd, the table of kernel watches (one per wd) and the
//    dispatch of events to their callbacks; poll() reads what is pending.
//  - InotifyWatch: a handle on one callback; destroying it removes the
//    callback, and the kernel watch with the last callback of its wd.
//
// The kernel hands back the same wd for every watch of one inode, so several
// handles may share a wd: each keeps its own mask, the kernel mask is their
// union (it only grows while the wd lives), and a handle hears only the events
// of its own mask plus IN_IGNORED and IN_UNMOUNT. IN_Q_OVERFLOW goes to every
// handle so that each owner resynchronises. A callback may destroy any handle,
// its own included, and may add handles: a destroyed handle is never called
// again, and one added during a dispatch is not called for the event being
// dispatched. There is deliberately no process-wide instance: owners pass an
// Inotify& explicitly.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Platform {

class DumpContext;
class EventLoop;
class FdWatch;
class Inotify;

class InotifyWatch {
  public:
    ~InotifyWatch();
    InotifyWatch( const InotifyWatch& ) = delete;
    InotifyWatch& operator=( const InotifyWatch& ) = delete;

    const std::string& path() const { return path_; }
    uint32_t mask() const { return mask_; }
    // False once the kernel dropped the watch (IN_IGNORED: the file is gone)
    // or the Inotify was destroyed.
    bool active() const { return inotify_ != nullptr && wd_ >= 0; }

  private:
    friend class Inotify;
    InotifyWatch( Inotify* inotify, int wd, std::string path, uint32_t mask )
        : inotify_( inotify ), wd_( wd ), path_( std::move( path ) ), mask_( mask ) {}

    Inotify* inotify_;
    int wd_;
    std::string path_;
    uint32_t mask_;
};

class Inotify {
  public:
    using Callback = std::function<void( uint32_t mask, std::string_view name )>;

    // With a loop, the inotify fd is watched on it and events are dispatched
    // from its rounds; without one, the owner calls poll().
    explicit Inotify( EventLoop* loop );
    // Handles that outlive the instance become inert. Not from a callback.
    ~Inotify();
    Inotify( const Inotify& ) = delete;
    Inotify& operator=( const Inotify& ) = delete;

    int fd() const { return fd_; }

    // Reads every pending event without blocking and dispatches it; returns
    // the number of events read.
    size_t poll();

    // Calls `callback` for the events of `mask` (IN_* event bits and watch
    // flags such as IN_ONLYDIR or IN_DONT_FOLLOW) on `absolutePath`. Throws
    // Error naming the path and the system's reason when the kernel refuses.
    std::unique_ptr<InotifyWatch> watch( const std::string& absolutePath, uint32_t mask,
                                         Callback callback );
    // As watch, on what is open on `fd` (the very inode, whatever its path
    // names by now, and never reached through a symlink); `shownPath` names it.
    std::unique_ptr<InotifyWatch> watch( int fd, const std::string& shownPath,
                                         uint32_t mask, Callback callback );

    // Kernel watches (wds) held, and live handles on them.
    size_t watchedPaths() const;
    size_t handles() const;
    uint64_t events() const { return events_; }
    uint64_t overflows() const { return overflows_; }

    void dumpState( DumpContext& context, unsigned indent ) const;

  private:
    friend class InotifyWatch;

    std::unique_ptr<InotifyWatch> doWatch( const std::string& kernelPath,
                                           const std::string& shownPath, uint32_t mask,
                                           Callback callback );

    struct Entry {
        InotifyWatch* handle;  // null once destroyed; removed after the dispatch
        uint32_t mask;
        // On the heap so that a callback running when its handle goes keeps
        // living until the dispatch ends.
        std::unique_ptr<Callback> callback;
    };
    struct Wd {
        std::string path;
        std::vector<Entry> entries;
        size_t live = 0;
        bool kernelGone = false;  // removed by us or by the kernel
    };

    void doDispatch( int wd, uint32_t mask, std::string_view name );
    void doDispatchOverflow();
    void doCall( Wd& w, size_t count, uint32_t mask, std::string_view name );
    void doHandleDel( InotifyWatch* handle );
    void doDrop( int wd, Wd& w );
    void doCompact();

    int fd_ = -1;
    std::unique_ptr<FdWatch> fdWatch_;
    // Node-based, so a Wd stays where it is while callbacks add watches.
    std::unordered_map<int, Wd> wds_;
    std::vector<int> dirty_;
    int depth_ = 0;
    uint64_t events_ = 0;
    uint64_t overflows_ = 0;
};

}  // namespace Platform

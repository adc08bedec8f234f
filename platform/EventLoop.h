// The event loop: one epoll instance that runs every handler of the agent.
//
// What lives where:
//  - EventLoop: the epoll fd, the table of watches, runOnce()/run()/stop().
//  - FdWatch: a handle on one watched file descriptor; destroying it removes
//    the watch. eventsIs() changes the interest set.
//  - SignalWatch: a handle on one signal read through a signalfd; the signal
//    is blocked in the process mask for the life of the handle.
//
// Handlers may add and remove watches, their own included, while the loop
// dispatches. epoll hands back a batch of events; an event whose watch was
// removed earlier in the same batch is dropped. Each epoll entry carries a
// slot number and a generation instead of a pointer, so a stale entry, or one
// whose slot was reused by a newer watch, is recognised and skipped.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Platform {

class DumpContext;
class EventLoop;

class FdWatch {
  public:
    using Handler = std::function<void( uint32_t revents )>;

    ~FdWatch();
    FdWatch( const FdWatch& ) = delete;
    FdWatch& operator=( const FdWatch& ) = delete;

    int fd() const { return fd_; }
    uint32_t events() const { return events_; }
    // Changes the epoll interest set (EPOLLIN, EPOLLOUT, ...).
    void eventsIs( uint32_t events );

  private:
    friend class EventLoop;
    friend class SignalWatch;
    FdWatch( EventLoop* loop, int fd, uint32_t events, uint32_t slot, Handler handler );

    EventLoop* loop_;  // null once the loop is gone
    int fd_;
    uint32_t events_;
    uint32_t slot_;
    // On the heap so that a handler that destroys its own watch keeps running
    // on a live object: the loop parks it until the round ends.
    std::unique_ptr<Handler> handler_;
};

class SignalWatch {
  public:
    ~SignalWatch();
    SignalWatch( const SignalWatch& ) = delete;
    SignalWatch& operator=( const SignalWatch& ) = delete;

    int signo() const { return signo_; }
    int fd() const { return sfd_; }

  private:
    friend class EventLoop;
    explicit SignalWatch( int signo ) : signo_( signo ) {}

    int signo_;
    int sfd_ = -1;
    bool wasBlocked_ = false;
    std::unique_ptr<FdWatch> watch_;  // its loop_ tells whether the loop lives
};

class EventLoop {
  public:
    EventLoop();
    ~EventLoop();
    EventLoop( const EventLoop& ) = delete;
    EventLoop& operator=( const EventLoop& ) = delete;

    // Watches `fd` for `events`; the handler gets the returned events. The
    // caller keeps `fd` open for the life of the handle.
    std::unique_ptr<FdWatch> watchFd( int fd, uint32_t events, FdWatch::Handler handler );
    // Blocks `signo` and delivers it through a signalfd; the handler runs once
    // per delivery. One watch per signal and loop.
    std::unique_ptr<SignalWatch> watchSignal( int signo, std::function<void()> handler );

    // One epoll_wait of at most `timeoutMs` (-1: no bound, 0: poll) and the
    // dispatch of its batch. Returns the number of handlers run.
    int runOnce( int timeoutMs );
    // Runs rounds until stop(). A stop() made before run() makes it return at
    // once; the request is consumed either way.
    void run();
    // Runs `fn` once, after the handlers of the current round (or before the
    // next wait when queued outside a round). Table writers ring their
    // readers' bell this way once per round instead of once per change.
    void runAtRoundEnd( std::function<void()> fn ) {
        roundEnd_.push_back( std::move( fn ) );
    }
    // Runs what runAtRoundEnd queued; also called by runOnce.
    void doRoundEnd();
    void stop() { stopRequested_ = true; }
    bool stopRequested() const { return stopRequested_; }

    int epollFd() const { return epfd_; }
    size_t watchCount() const { return watchCount_; }
    uint64_t rounds() const { return rounds_; }
    uint64_t dispatched() const { return dispatched_; }

    void dumpState( DumpContext& context, unsigned indent ) const;

  private:
    friend class FdWatch;
    friend class SignalWatch;

    struct Slot {
        FdWatch* watch = nullptr;
        uint32_t generation = 0;
    };

    static uint64_t doToken( uint32_t slot, uint32_t generation ) {
        return ( static_cast<uint64_t>( generation ) << 32 ) | slot;
    }
    void doCtl( int op, int fd, uint32_t events, uint64_t token );
    void doWatchDel( FdWatch* watch );

    int epfd_ = -1;
    bool stopRequested_ = false;
    int dispatchDepth_ = 0;
    size_t watchCount_ = 0;
    uint64_t rounds_ = 0;
    uint64_t dispatched_ = 0;
    std::vector<Slot> slots_;
    std::vector<uint32_t> freeSlots_;
    // Handlers of watches destroyed during a dispatch, freed when it ends.
    std::vector<std::unique_ptr<FdWatch::Handler>> parked_;
    std::vector<int> signals_;
    std::vector<std::function<void()>> roundEnd_;
};

}  // namespace Platform

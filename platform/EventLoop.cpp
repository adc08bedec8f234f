// The epoll loop, its fd watches and its signal watches.
//
// Iteration order of one round (runOnce): one epoll_wait for a batch of at
// most kBatch events, then each event in the order epoll returned it, skipping
// events whose watch is gone. Handlers of watches destroyed during the round
// stay allocated until the outermost round ends.
#include "platform/EventLoop.h"

#include <errno.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "platform/Assert.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"

namespace Platform {

namespace {

constexpr int kBatch = 64;

[[noreturn]] void throwOsError( const std::string& what, int err ) {
    throw Error( what + ": " + std::strerror( err ) );
}

}  // namespace

// --- FdWatch ---------------------------------------------------------------

FdWatch::FdWatch( EventLoop* loop, int fd, uint32_t events, uint32_t slot,
                  Handler handler )
    : loop_( loop ),
      fd_( fd ),
      events_( events ),
      slot_( slot ),
      handler_( std::make_unique<Handler>( std::move( handler ) ) ) {}

FdWatch::~FdWatch() {
    if ( loop_ ) {
        loop_->doWatchDel( this );
    }
}

void FdWatch::eventsIs( uint32_t events ) {
    if ( events == events_ ) {
        return;
    }
    if ( loop_ ) {
        uint32_t generation = loop_->slots_[slot_].generation;
        loop_->doCtl( EPOLL_CTL_MOD, fd_, events,
                      EventLoop::doToken( slot_, generation ) );
    }
    events_ = events;
}

// --- SignalWatch -----------------------------------------------------------

SignalWatch::~SignalWatch() {
    if ( watch_ && watch_->loop_ ) {
        auto& signals = watch_->loop_->signals_;
        signals.erase( std::remove( signals.begin(), signals.end(), signo_ ),
                       signals.end() );
    }
    watch_.reset();
    if ( sfd_ >= 0 ) {
        ::close( sfd_ );
    }
    if ( !wasBlocked_ ) {
        // Restores the mask as it was; a delivery still pending now takes the
        // signal's own disposition.
        sigset_t set;
        sigemptyset( &set );
        sigaddset( &set, signo_ );
        pthread_sigmask( SIG_UNBLOCK, &set, nullptr );
    }
}

// --- EventLoop -------------------------------------------------------------

EventLoop::EventLoop() {
    epfd_ = epoll_create1( EPOLL_CLOEXEC );
    if ( epfd_ < 0 ) {
        throwOsError( "epoll_create1", errno );
    }
}

EventLoop::~EventLoop() {
    // Handles that outlive the loop become inert instead of dangling.
    for ( Slot& slot : slots_ ) {
        if ( slot.watch ) {
            slot.watch->loop_ = nullptr;
        }
    }
    ::close( epfd_ );
}

void EventLoop::doCtl( int op, int fd, uint32_t events, uint64_t token ) {
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = token;
    if ( epoll_ctl( epfd_, op, fd, &ev ) < 0 ) {
        const char* name = op == EPOLL_CTL_ADD   ? "ADD"
                           : op == EPOLL_CTL_MOD ? "MOD"
                                                 : "DEL";
        throwOsError( std::string( "epoll_ctl " ) + name + " fd " + std::to_string( fd ),
                      errno );
    }
}

std::unique_ptr<FdWatch> EventLoop::watchFd( int fd, uint32_t events,
                                             FdWatch::Handler handler ) {
    if ( !handler ) {
        throw Error( "watchFd: fd " + std::to_string( fd ) + " has no handler" );
    }
    uint32_t slot;
    if ( !freeSlots_.empty() ) {
        slot = freeSlots_.back();
        freeSlots_.pop_back();
    } else {
        slot = static_cast<uint32_t>( slots_.size() );
        slots_.emplace_back();
    }
    try {
        doCtl( EPOLL_CTL_ADD, fd, events, doToken( slot, slots_[slot].generation ) );
    } catch ( ... ) {
        freeSlots_.push_back( slot );
        throw;
    }
    std::unique_ptr<FdWatch> watch(
        new FdWatch( this, fd, events, slot, std::move( handler ) ) );
    slots_[slot].watch = watch.get();
    ++watchCount_;
    return watch;
}

void EventLoop::doWatchDel( FdWatch* watch ) {
    Slot& slot = slots_[watch->slot_];
    CSPF_ASSERT( slot.watch == watch );
    // Fails only when the fd was closed first, which already dropped it from
    // the epoll set; a destructor has nothing better to do than go on.
    epoll_event ev{};
    epoll_ctl( epfd_, EPOLL_CTL_DEL, watch->fd_, &ev );
    slot.watch = nullptr;
    ++slot.generation;  // events of this batch for the slot are now stale
    freeSlots_.push_back( watch->slot_ );
    --watchCount_;
    if ( dispatchDepth_ > 0 ) {
        parked_.push_back( std::move( watch->handler_ ) );
    }
}

std::unique_ptr<SignalWatch> EventLoop::watchSignal( int signo,
                                                     std::function<void()> handler ) {
    if ( signo <= 0 || signo > SIGRTMAX || signo == SIGKILL || signo == SIGSTOP ) {
        throw RangeError( "watchSignal: signal " + std::to_string( signo ) +
                          " cannot be watched" );
    }
    if ( !handler ) {
        throw Error( "watchSignal: signal " + std::to_string( signo ) +
                     " has no handler" );
    }
    if ( std::find( signals_.begin(), signals_.end(), signo ) != signals_.end() ) {
        throw Error( "watchSignal: signal " + std::to_string( signo ) +
                     " is already watched by this loop" );
    }
    sigset_t set;
    sigemptyset( &set );
    sigaddset( &set, signo );
    sigset_t old;
    int rc = pthread_sigmask( SIG_BLOCK, &set, &old );
    if ( rc != 0 ) {
        throwOsError( "pthread_sigmask", rc );
    }
    // From here on the destructor undoes whatever was done.
    std::unique_ptr<SignalWatch> sw( new SignalWatch( signo ) );
    sw->wasBlocked_ = sigismember( &old, signo ) == 1;
    sw->sfd_ = signalfd( -1, &set, SFD_NONBLOCK | SFD_CLOEXEC );
    if ( sw->sfd_ < 0 ) {
        throwOsError( "signalfd for signal " + std::to_string( signo ), errno );
    }
    // One siginfo per round: a handler that destroys the watch is then never
    // called again for deliveries already read.
    sw->watch_ = watchFd( sw->sfd_, EPOLLIN,
                          [sfd = sw->sfd_, fn = std::move( handler )]( uint32_t ) {
                              signalfd_siginfo info;
                              ssize_t n = ::read( sfd, &info, sizeof( info ) );
                              if ( n == static_cast<ssize_t>( sizeof( info ) ) ) {
                                  fn();
                              }
                          } );
    signals_.push_back( signo );
    return sw;
}

void EventLoop::doRoundEnd() {
    // Callbacks may queue more: run until none is left.
    while ( !roundEnd_.empty() ) {
        std::vector<std::function<void()>> batch;
        batch.swap( roundEnd_ );
        for ( auto& fn : batch ) {
            fn();
        }
    }
}

int EventLoop::runOnce( int timeoutMs ) {
    doRoundEnd();  // queued outside a round: before blocking
    epoll_event events[kBatch];
    int n = epoll_wait( epfd_, events, kBatch, timeoutMs );
    if ( n < 0 ) {
        if ( errno == EINTR ) {
            return 0;
        }
        throwOsError( "epoll_wait", errno );
    }
    ++rounds_;
    // Unwinds the dispatch depth even when a handler throws.
    struct Depth {
        EventLoop* loop;
        explicit Depth( EventLoop* l ) : loop( l ) { ++loop->dispatchDepth_; }
        ~Depth() {
            if ( --loop->dispatchDepth_ == 0 ) {
                loop->parked_.clear();
            }
        }
    } depth( this );
    int ran = 0;
    for ( int i = 0; i < n; ++i ) {
        uint64_t token = events[i].data.u64;
        uint32_t index = static_cast<uint32_t>( token );
        uint32_t generation = static_cast<uint32_t>( token >> 32 );
        if ( index >= slots_.size() ) {
            continue;
        }
        const Slot& slot = slots_[index];
        if ( !slot.watch || slot.generation != generation ) {
            continue;  // removed earlier in this round, maybe replaced
        }
        // The handler object outlives the call even if the watch does not.
        FdWatch::Handler* handler = slot.watch->handler_.get();
        ++ran;
        ++dispatched_;
        ( *handler )( events[i].events );
    }
    doRoundEnd();
    return ran;
}

void EventLoop::run() {
    while ( !stopRequested_ ) {
        runOnce( -1 );
    }
    stopRequested_ = false;
}

void EventLoop::dumpState( DumpContext& context, unsigned indent ) const {
    objDumpLine( context, indent,
                 "EventLoop epoll fd %d: %zu watches, %llu rounds, %llu handlers run%s\n",
                 epfd_, watchCount_, static_cast<unsigned long long>( rounds_ ),
                 static_cast<unsigned long long>( dispatched_ ),
                 stopRequested_ ? ", stop requested" : "" );
    for ( const Slot& slot : slots_ ) {
        if ( slot.watch ) {
            objDumpLine( context, indent + 2, "fd %d events 0x%x\n", slot.watch->fd_,
                         slot.watch->events_ );
        }
    }
    for ( int signo : signals_ ) {
        objDumpLine( context, indent + 2, "signal %d (%s)\n", signo, strsignal( signo ) );
    }
}

}  // namespace Platform

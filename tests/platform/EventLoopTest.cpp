// The epoll loop: fd watches, removal during dispatch (own and another's,
// with slot reuse in the same batch), signals through signalfd, stop, errors.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "platform/Error.h"
#include "platform/EventLoop.h"

using namespace Platform;

namespace {

// An eventfd that is readable once poked.
struct Bell {
    int fd = eventfd( 0, EFD_NONBLOCK | EFD_CLOEXEC );
    ~Bell() { close( fd ); }
    void poke() {
        uint64_t one = 1;
        EXPECT_EQ( write( fd, &one, sizeof( one ) ), 8 );
    }
    void drain() {
        uint64_t v;
        (void)!read( fd, &v, sizeof( v ) );
    }
};

TEST( EventLoop, WatchesFireAndFollowTheirInterest ) {
    EventLoop loop;
    Bell bell;
    uint32_t seen = 0;
    int calls = 0;
    auto watch = loop.watchFd( bell.fd, EPOLLIN, [&]( uint32_t ev ) {
        seen = ev;
        ++calls;
    } );
    EXPECT_EQ( loop.runOnce( 0 ), 0 );
    bell.poke();
    EXPECT_EQ( loop.runOnce( 0 ), 1 );
    EXPECT_EQ( seen, static_cast<uint32_t>( EPOLLIN ) );
    watch->eventsIs( EPOLLOUT );  // an eventfd is writable
    EXPECT_EQ( loop.runOnce( 0 ), 1 );
    EXPECT_EQ( seen, static_cast<uint32_t>( EPOLLOUT ) );
    watch.reset();
    EXPECT_EQ( loop.runOnce( 0 ), 0 );  // still readable, no longer watched
    EXPECT_EQ( calls, 2 );
    EXPECT_EQ( loop.watchCount(), 0u );
}

TEST( EventLoop, HandlersRemoveWatchesDuringARound ) {
    EventLoop loop;
    Bell a, b, c;
    std::unique_ptr<FdWatch> wa, wb, wc;
    int calls = 0, newCalls = 0;
    // Whichever runs first removes both and puts a new watch in a freed
    // slot: the other's event of this batch must not reach anyone.
    auto first = [&, kept = std::string( 100, 'x' )]( uint32_t ) {
        ++calls;
        wa.reset();
        wb.reset();
        EXPECT_EQ( kept.size(), 100u );  // own captures outlive the removal
        wc = loop.watchFd( c.fd, EPOLLIN, [&]( uint32_t ) {
            ++newCalls;
            c.drain();
        } );
    };
    wa = loop.watchFd( a.fd, EPOLLIN, first );
    wb = loop.watchFd( b.fd, EPOLLIN, first );
    a.poke();
    b.poke();
    c.poke();
    EXPECT_EQ( loop.runOnce( 0 ), 1 );
    EXPECT_EQ( calls, 1 );
    EXPECT_EQ( newCalls, 0 );
    EXPECT_EQ( loop.runOnce( 0 ), 1 );
    EXPECT_EQ( newCalls, 1 );

    EXPECT_EQ( loop.watchCount(), 1u );
}

TEST( EventLoop, SignalsArriveThroughTheLoop ) {
    sigset_t before;
    pthread_sigmask( SIG_SETMASK, nullptr, &before );
    ASSERT_FALSE( sigismember( &before, SIGUSR1 ) );
    {
        EventLoop loop;
        int got = 0;
        auto sw = loop.watchSignal( SIGUSR1, [&] {
            ++got;
            loop.stop();
        } );
        EXPECT_THROW( loop.watchSignal( SIGUSR1, [] {} ), Error );
        EXPECT_THROW( loop.watchSignal( SIGKILL, [] {} ), RangeError );
        raise( SIGUSR1 );  // blocked: stays pending for the signalfd
        loop.run();
        EXPECT_EQ( got, 1 );
    }
    sigset_t after;
    pthread_sigmask( SIG_SETMASK, nullptr, &after );
    EXPECT_FALSE( sigismember( &after, SIGUSR1 ) );
}

TEST( EventLoop, StopErrorsAndLifetimes ) {
    auto loop = std::make_unique<EventLoop>();
    loop->stop();
    loop->run();  // returns at once, consuming the request
    EXPECT_FALSE( loop->stopRequested() );

    Bell bell;
    try {
        loop->watchFd( -1, EPOLLIN, []( uint32_t ) {} );
        ADD_FAILURE() << "watching fd -1 succeeded";
    } catch ( const Error& e ) {
        EXPECT_NE( std::string( e.what() ).find( "Bad file descriptor" ),
                   std::string::npos )
            << e.what();
    }
    auto w = loop->watchFd( bell.fd, EPOLLIN, []( uint32_t ) {} );
    EXPECT_THROW( loop->watchFd( bell.fd, EPOLLIN, []( uint32_t ) {} ), Error );
    EXPECT_EQ( loop->watchCount(), 1u );
    loop.reset();
    w->eventsIs( EPOLLOUT );  // inert once the loop is gone
    w.reset();
}

}  // namespace

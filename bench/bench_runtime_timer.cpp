// Timer tasks: the cost of arming and firing on the manual clock, of
// cancel/re-arm churn over 10,000 armed tasks, and of the timerfd path
// through a real EventLoop. The eventfd round is the loop's own cost, the
// reference for the timerfd figure.
#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <vector>

#include "platform/EventLoop.h"
#include "platform/TaskScheduler.h"

using namespace Platform;

namespace {

// One task armed 1 ms ahead and fired by advancing the clock.
void BM_TimerScheduleAndFireManual( benchmark::State& state ) {
    ManualClock clock;
    TaskScheduler sched( nullptr, "Bench", clock );
    uint64_t runs = 0;
    TimerTask task( sched, 0, "t", [&runs] { ++runs; } );
    for ( auto _ : state ) {
        task.scheduleTaskDelay( 0.001 );
        clock.advance( 0.001 );
    }
    benchmark::DoNotOptimize( runs );
    state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_TimerScheduleAndFireManual );

// Fires range(0) tasks armed at distinct deadlines in one advance.
void BM_TimerFireManyManual( benchmark::State& state ) {
    const size_t n = static_cast<size_t>( state.range( 0 ) );
    ManualClock clock;
    TaskScheduler sched( nullptr, "Bench", clock );
    std::vector<std::unique_ptr<TimerTask>> tasks;
    for ( size_t i = 0; i < n; ++i ) {
        tasks.push_back( std::make_unique<TimerTask>( sched, 0, "t", [] {} ) );
    }
    std::mt19937 rng( 7 );
    std::uniform_real_distribution<double> delay( 0.0, 1.0 );
    for ( auto _ : state ) {
        for ( auto& t : tasks ) {
            t->scheduleTaskDelay( delay( rng ) );
        }
        clock.advance( 1.0 );
    }
    state.SetItemsProcessed( state.iterations() * static_cast<int64_t>( n ) );
}
BENCHMARK( BM_TimerFireManyManual )->Arg( 10000 );

// Cancel/re-arm churn: range(0) armed tasks, each cancelled and re-armed
// (arg 1) or re-armed in place (arg 0) at a new random delay.
void BM_TimerChurnManual( benchmark::State& state ) {
    const size_t n = static_cast<size_t>( state.range( 0 ) );
    const bool cancelFirst = state.range( 1 ) != 0;
    ManualClock clock;
    TaskScheduler sched( nullptr, "Bench", clock );
    std::vector<std::unique_ptr<TimerTask>> tasks;
    std::mt19937 rng( 11 );
    std::uniform_real_distribution<double> delay( 1.0, 100.0 );
    for ( size_t i = 0; i < n; ++i ) {
        tasks.push_back( std::make_unique<TimerTask>( sched, 0, "t", [] {} ) );
        tasks.back()->scheduleTaskDelay( delay( rng ) );
    }
    for ( auto _ : state ) {
        for ( auto& t : tasks ) {
            if ( cancelFirst ) {
                t->cancel();
            }
            t->scheduleTaskDelay( delay( rng ) );
        }
    }
    state.SetItemsProcessed( state.iterations() * static_cast<int64_t>( n ) );
}
BENCHMARK( BM_TimerChurnManual )->Args( { 10000, 1 } )->Args( { 10000, 0 } );

// The real path: arm for now, one loop round (timerfd arm, epoll_wait, read,
// the task).
void BM_TimerRealLoopRound( benchmark::State& state ) {
    SystemClock system;
    EventLoop loop;
    TaskScheduler sched( &loop, "Bench", system );
    uint64_t runs = 0;
    TimerTask task( sched, 0, "t", [&runs] { ++runs; } );
    for ( auto _ : state ) {
        task.scheduleTaskDelay( 0 );
        while ( task.scheduled() ) {
            loop.runOnce( -1 );
        }
    }
    state.counters["wakeups/run"] =
        static_cast<double>( loop.rounds() ) / static_cast<double>( runs ? runs : 1 );
    state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_TimerRealLoopRound );

// Reference: one loop round woken by an eventfd, without the scheduler.
void BM_EventLoopEventFdRound( benchmark::State& state ) {
    EventLoop loop;
    int fd = eventfd( 0, EFD_NONBLOCK | EFD_CLOEXEC );
    uint64_t v = 1;
    auto watch = loop.watchFd( fd, EPOLLIN, [fd]( uint32_t ) {
        uint64_t got;
        benchmark::DoNotOptimize( ::read( fd, &got, sizeof( got ) ) );
    } );
    for ( auto _ : state ) {
        benchmark::DoNotOptimize( ::write( fd, &v, sizeof( v ) ) );
        loop.runOnce( -1 );
    }
    watch.reset();
    ::close( fd );
    state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_EventLoopEventFdRound );

}  // namespace

// The task scheduler on the manual clock: run order, the all-due-first round,
// deletion from callbacks, re-arming, figures and their text; and one real
// timerfd path on an EventLoop.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/EventLoop.h"
#include "platform/TaskScheduler.h"
#include "tests/support/DumpText.h"

using namespace Platform;

namespace {

class TaskSchedulerTest : public ::testing::Test {
  protected:
    std::unique_ptr<TimerTask> task( const std::string& name, uint32_t priority = 0,
                                     std::function<void()> also = nullptr ) {
        return std::make_unique<TimerTask>( sched, priority, name, [this, name, also] {
            log.push_back( name );
            if ( also ) {
                also();
            }
        } );
    }
    std::string text( bool detail, bool taskDetail, bool debug, bool history ) {
        return TestKit::dumpWith( [&]( DumpContext& ctx ) {
            sched.printStats( ctx, detail, taskDetail, debug, history );
        } );
    }

    // The words of the stats line that starts with `name`.
    static std::vector<std::string> row( const std::string& text,
                                         const std::string& name ) {
        size_t at = text.find( "\n  " + name + " " );
        std::vector<std::string> words;
        if ( at == std::string::npos ) {
            return words;
        }
        std::istringstream line(
            text.substr( at + 1, text.find( '\n', at + 1 ) - at - 1 ) );
        for ( std::string w; line >> w; ) {
            words.push_back( w );
        }
        return words;
    }

    ManualClock clock{ 1000.0 };
    TaskScheduler sched{ nullptr, "Cspf", clock };
    std::vector<std::string> log;
};

using Log = std::vector<std::string>;

TEST_F( TaskSchedulerTest, OrderIsDeadlineThenPriorityThenArming ) {
    auto late = task( "late", 9 );
    auto b = task( "b", 0 );
    auto c = task( "c", 5 );
    auto e = task( "e", 0 );
    auto d = task( "d", 5 );
    late->scheduleTaskDelay( 2 );
    b->scheduleTaskDelay( 1 );
    c->scheduleTaskDelay( 1 );
    e->scheduleTaskDelay( 1 );
    d->scheduleTaskDelay( 1 );
    b->scheduleTaskDelay( 1 );  // re-arming puts b behind e
    clock.advance( 5 );
    EXPECT_EQ( log, ( Log{ "c", "d", "e", "b", "late" } ) );
    EXPECT_EQ( sched.stats( *late ).lastRunStart, 1002.0 );
    EXPECT_EQ( sched.totals().maxLateness, 0.0 );
}

TEST_F( TaskSchedulerTest, DueTasksAreCollectedBeforeAnyRuns ) {
    std::unique_ptr<TimerTask> victim, later, self;
    auto canceller = task( "canceller", 9, [&] {
        victim->cancel();
        later->scheduleTaskDelay( 0 );  // due now, but only next round
    } );
    victim = task( "victim" );
    later = task( "later" );
    int selfRuns = 0;
    self = task( "self", 0, [&] {
        if ( ++selfRuns < 3 ) {
            self->scheduleTaskDelay( 0 );
        }
    } );
    canceller->scheduleTaskDelay( 1 );
    victim->scheduleTaskDelay( 1 );
    later->scheduleTaskDelay( 1 );
    self->scheduleTaskDelay( 1 );
    clock.advance( 1 );
    // Round 1: canceller, self (victim cancelled, later pushed back);
    // round 2: later, self; round 3: self.
    EXPECT_EQ( log, ( Log{ "canceller", "self", "later", "self", "self" } ) );
    EXPECT_FALSE( victim->scheduled() );
    EXPECT_EQ( sched.stats( *victim ).runs, 0u );

    // A task that always re-arms itself for now runs once per round.
    log.clear();
    std::unique_ptr<TimerTask> spinner;
    spinner = task( "spinner", 0, [&] { spinner->scheduleTaskDelay( 0 ); } );
    spinner->scheduleTaskDelay( 0 );
    sched.runDue();
    sched.runDue();
    EXPECT_EQ( log, ( Log{ "spinner", "spinner" } ) );
    EXPECT_TRUE( spinner->scheduled() );
    EXPECT_EQ( sched.rounds(), 5u );
}

TEST_F( TaskSchedulerTest, CallbacksMayDeleteTasks ) {
    std::unique_ptr<TimerTask> self, other, spawned;
    self = task( "self", 5, [&] {
        self->scheduleTaskDelay( 0 );
        self.reset();  // armed then deleted: must not run again
        other.reset();
        spawned = task( "spawned" );
        spawned->scheduleTaskDelay( 0 );
    } );
    other = task( "other" );
    auto bystander = task( "bystander" );
    self->scheduleTaskDelay( 1 );
    other->scheduleTaskDelay( 1 );
    bystander->scheduleTaskDelay( 1 );
    sched.runDue();
    clock.advance( 1 );
    EXPECT_EQ( log, ( Log{ "self", "bystander", "spawned" } ) );
    EXPECT_EQ( sched.taskCount(), 2u );
    EXPECT_EQ( sched.deletedTasks(), 2u );
    EXPECT_EQ( sched.totals().runs, 3u );  // the deleted task's run is kept
    EXPECT_EQ( sched.pendingCount(), 0u );
}

TEST_F( TaskSchedulerTest, RearmCancelAndBadTimes ) {
    auto t = task( "t" );
    t->scheduleTaskDelay( 10 );
    t->scheduleTaskDelay( 2 );  // earlier
    EXPECT_EQ( sched.nextDeadline(), 1002.0 );
    clock.advance( 3 );
    EXPECT_EQ( sched.stats( *t ).lastRunStart, 1002.0 );
    t->scheduleTaskDelay( 1 );
    t->scheduleTaskAt( 1010 );  // later
    clock.advance( 5 );
    EXPECT_EQ( sched.stats( *t ).runs, 1u );
    EXPECT_TRUE( t->scheduled() );
    EXPECT_EQ( t->deadline(), 1010.0 );
    t->cancel();
    EXPECT_FALSE( t->scheduled() );
    EXPECT_LT( sched.nextDeadline(), 0.0 );
    clock.advance( 100 );
    EXPECT_EQ( sched.stats( *t ).runs, 1u );

    EXPECT_THROW( t->scheduleTaskDelay( std::nan( "" ) ), RangeError );
    EXPECT_THROW( t->scheduleTaskAt( HUGE_VAL ), RangeError );
    EXPECT_FALSE( t->scheduled() );
    t->scheduleTaskDelay( -3 );  // means now
    sched.runDue();
    EXPECT_EQ( sched.stats( *t ).runs, 2u );
    EXPECT_EQ( sched.stats( *t ).lateness, 0.0 );
}

TEST_F( TaskSchedulerTest, LatenessHistoryAndReset ) {
    auto a = task( "a" );
    auto b = task( "b" );
    a->scheduleTaskAt( clock.now() - 0.25 );
    b->scheduleTaskAt( clock.now() - 0.5 );
    sched.runDue();
    EXPECT_EQ( sched.stats( *a ).maxLateness, 0.25 );
    EXPECT_EQ( sched.totals().maxLateness, 0.5 );
    EXPECT_EQ( sched.totals().avgLateness(), 0.375 );

    for ( int i = 0; i < 20; ++i ) {
        a->scheduleTaskDelay( 1 );
        clock.advance( 1 );
    }
    TaskStats s = sched.stats( *a );
    EXPECT_EQ( s.runs, 21u );
    ASSERT_EQ( s.history.size(), 16u );
    EXPECT_EQ( s.history.back().start, s.lastRunStart );
    EXPECT_EQ( s.history.front().start, s.lastRunStart - 15 );
    EXPECT_GE( s.maxRunTime, s.lastRunTime );

    sched.resetStats();
    EXPECT_EQ( sched.totals().runs, 0u );
    EXPECT_EQ( sched.totals().maxLateness, 0.0 );
    EXPECT_TRUE( sched.stats( *a ).history.empty() );
    sched.historyEnabledIs( false );
    a->scheduleTaskDelay( 1 );
    clock.advance( 1 );
    EXPECT_EQ( sched.stats( *a ).runs, 1u );
    EXPECT_TRUE( sched.stats( *a ).history.empty() );
}

TEST_F( TaskSchedulerTest, PrintStatsShowsEachTask ) {
    auto beta = task( "beta", 3 );
    auto alpha = task( "alpha" );
    for ( int i = 0; i < 7; ++i ) {
        beta->scheduleTaskDelay( 1 );
        if ( i < 3 ) {
            alpha->scheduleTaskDelay( 1 );
        }
        clock.advance( 1 );
    }
    beta->scheduleTaskDelay( 2 );
    std::string out = text( true, true, true, true );
    EXPECT_NE( out.find( "Task scheduler Cspf: 2 tasks, 1 scheduled, 10 runs" ),
               std::string::npos )
        << out;
    std::vector<std::string> alphaRow = row( out, "alpha" ), betaRow = row( out, "beta" );
    ASSERT_EQ( alphaRow.size(), 11u ) << out;
    ASSERT_EQ( betaRow.size(), 11u ) << out;
    EXPECT_EQ( alphaRow[1], "3" );
    EXPECT_EQ( betaRow[1], "7" );
    EXPECT_EQ( betaRow[7], "3" );  // priority
    EXPECT_EQ( betaRow[8], "yes" );
    EXPECT_EQ( betaRow[9], "2000.000" );  // next in, ms
    EXPECT_LT( out.find( "\n  alpha " ), out.find( "\n  beta " ) );
    EXPECT_NE( out.find( "history of alpha (last 3 runs" ), std::string::npos ) << out;
    EXPECT_NE( out.find( "debug: manual clock" ), std::string::npos ) << out;

    beta.reset();
    out = text( false, false, false, false );
    EXPECT_EQ( out.find( '\n' ), out.size() - 1 ) << out;  // header only
    EXPECT_NE( out.find( "1 tasks, 0 scheduled, 10 runs" ), std::string::npos ) << out;
    EXPECT_NE( out.find( "(1 deleted tasks included)" ), std::string::npos ) << out;

    EXPECT_EQ(
        TestKit::dumpText( sched, 2 )
            .rfind( "  TaskScheduler Cspf: 1 tasks, 0 scheduled, driven by manual clock\n"
                    "    TimerTask alpha prio 0: idle\n",
                    0 ),
        0u );
}

TEST_F( TaskSchedulerTest, TasksOutlivingTheSchedulerAreInert ) {
    auto s = std::make_unique<TaskScheduler>( nullptr, "Other", clock );
    TimerTask t( *s, 0, "t", [] {} );
    t.scheduleTaskDelay( 1 );
    s.reset();
    EXPECT_FALSE( t.scheduled() );
    EXPECT_EQ( t.scheduler(), nullptr );
    clock.advance( 2 );  // the clock no longer knows the scheduler
}

// The timerfd path: a 1 ms task stops the loop; a task re-armed for "now"
// from its own callback fires again; a cancelled head leaves a stale arming
// that must not lose the next task. The guard only bounds a broken run.
TEST( TaskSchedulerRealTime, TimerFdFiresAndStopsTheLoop ) {
    SystemClock system;
    EventLoop loop;
    TaskScheduler sched( &loop, "Cspf", system );
    bool timedOut = false;
    int repeats = 0;
    TimerTask guard( sched, 0, "guard", [&] {
        timedOut = true;
        loop.stop();
    } );
    TimerTask stopper( sched, 0, "stopper", [&] { loop.stop(); } );
    TimerTask repeat( sched, 0, "repeat", [&] {
        if ( ++repeats < 3 ) {
            repeat.scheduleTaskDelay( 0 );
        }
    } );
    TimerTask cancelled( sched, 0, "cancelled", [] {} );
    guard.scheduleTaskDelay( 30 );
    cancelled.scheduleTaskDelay( 0.0005 );
    EXPECT_GE( sched.timerArmedFor(), 0.0 );
    cancelled.cancel();
    stopper.scheduleTaskDelay( 0.001 );
    repeat.scheduleTaskDelay( 0 );
    loop.run();
    EXPECT_FALSE( timedOut );
    EXPECT_EQ( sched.stats( stopper ).runs, 1u );
    EXPECT_EQ( repeats, 3 );
    EXPECT_EQ( sched.stats( cancelled ).runs, 0u );
}

}  // namespace

// The CSPF scheduler of one constraint on the manual clock: the initial wait
// after a quiet period, the back-off under topology churn, requests that
// find a run scheduled, and the operator's waits and their record.
// HopSelectionTest runs the reactor over topologies with paths.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "platform/StateTree.h"
#include "records/IpStatus.h"
#include "root/DedupConstraintTable.h"
#include "tests/support/RawRecord.h"
#include "tests/support/TempDir.h"
#include "tests/support/Traces.h"
#include "vrf/ConstraintInfoSm.h"

using namespace Cspf;
using Net::IpGenAddr;
using Platform::create;
using Platform::Ptr;

namespace {

class ConstraintInfoSmTest : public ::testing::Test {
  protected:
    void SetUp() override {
        configWriter_ =
            create<CspfCliConfigWriter>( tmp_.tree, nullptr, kCspfCliConfigPath );
        configWriter_->valueIs( { 50, 200, 1000 } );
        config_ = create<CspfCliConfig>( tmp_.tree, nullptr, kCspfCliConfigPath );
        handle_ = dedupTable_->dedup( DedupConstraintContent() );
        auto notifier = create<DedupConstraintLifeTimeNotifier>( handle_.get() );
        info_ = create<ConstraintInfo>( handle_.get(), notifier );
        stats_ = create<ConstraintStats>( handle_.get(), notifier );
        info_->pathIs( path_, true );
        caches_->pathStatusCacheIs( path_ );
        // An empty topology: every run finds no path, which is all the
        // throttle needs.
        auto status = create<AllTopoDbStatus>( nullptr );
        status->ourTeRouterIdIs( IpGenAddr( "10.255.0.1" ) );
        sm_ = create<ConstraintInfoSm>(
            info_, config_, stats_, caches_, scheduler_,
            std::make_shared<const AllTopoDbView>( create<AllTopoDb>(), status, nullptr,
                                                   nullptr, nullptr ) );
        traces_.clear();
    }
    void TearDown() override { sm_ = nullptr; }

    void advanceMs( double ms ) { clock_->advance( ms / 1000.0 ); }
    void request() { info_->cspfRequestCountInc( 1 ); }
    void topoChange() { info_->topoChangedAtIs( Platform::now() ); }
    // Steps a millisecond at a time to the next run; when it ran.
    double nextRun() {
        const uint32_t runs = stats_->cspfCount();
        for ( int ms = 0; ms < 10000 && stats_->cspfCount() == runs; ++ms ) {
            advanceMs( 1 );
        }
        EXPECT_EQ( stats_->cspfCount(), runs + 1 );
        return stats_->cspfLastRanAt();
    }
    size_t count( const std::string& text ) const { return traces_.count( text ); }
    std::string state() const { return sm_->throttleState(); }

    TestKit::TempTree tmp_{ "constraintinfosmtest" };
    TestKit::TraceCapture traces_;
    Platform::ManualClockScope clock_;
    Platform::TaskScheduler scheduler_{ nullptr, "Cspf", *clock_ };
    Ptr<CspfCliConfigWriter> configWriter_;
    Ptr<CspfCliConfig> config_;
    Ptr<DedupConstraintTable> dedupTable_ = create<DedupConstraintTable>();
    Ptr<DedupConstraint> handle_;
    Ptr<ConstraintInfo> info_;
    Ptr<ConstraintStats> stats_;
    Ptr<PathStatusCacheTable> caches_ = create<PathStatusCacheTable>();
    const PathInfoKey path_{ "te1", PathKey( IpGenAddr( "9.9.9.9" ), 2 ) };
    Ptr<ConstraintInfoSm> sm_;
};

TEST_F( ConstraintInfoSmTest, AQuietPeriodEndsWithOneRunAfterTheInitialWait ) {
    char handle[32];
    std::snprintf( handle, sizeof( handle ), "%p",
                   static_cast<const void*>( info_->handle() ) );
    EXPECT_EQ( sm_->timerTask()->name(), std::string( "CSPF timer for " ) + handle );
    EXPECT_EQ( state(), "Idle" );
    request();
    request();
    request();
    EXPECT_EQ( state(), "Scheduled" );
    EXPECT_EQ( count( "CSPF already scheduled for constraint: " ), 2u );
    advanceMs( 49 );
    EXPECT_EQ( stats_->cspfCount(), 0u );
    advanceMs( 1 );
    EXPECT_EQ( stats_->cspfCount(), 1u );
    EXPECT_EQ( state(), "Holding" );
    // No topology change since the last run: the delay stays the initial one.
    EXPECT_EQ( stats_->cspfCurrentDelay(), 50.0 );
    // A path with no owner is refreshed all the same, with no hops.
    const Ptr<PathStatusCache> cache = caches_->pathStatusCache( path_ );
    EXPECT_EQ( cache->refreshedCount(), 1u );
    ASSERT_TRUE( cache->path() );
    EXPECT_EQ( cache->hopCount(), 0u );
    EXPECT_EQ( count( "no path found for tep 9.9.9.9\n" ), 1u );

    // Holding: a request waits for the running timer, which keeps its deadline.
    const double deadline = sm_->timerTask()->deadline();
    advanceMs( 10 );
    request();
    EXPECT_EQ( state(), "Scheduled" );
    EXPECT_EQ( sm_->timerTask()->deadline(), deadline );
    advanceMs( 40 );
    EXPECT_EQ( stats_->cspfCount(), 2u );
    EXPECT_EQ( count( "run cspf, cspfRequestCount 4\n" ), 1u );
    // A window without a request stops the timer.
    advanceMs( 50 );
    EXPECT_EQ( state(), "Idle" );
    EXPECT_EQ( count( "in the last 50throttle window. Stopping timer\n" ), 1u );
}

// The reset after a quiet window is PathManagementScenarioTest's.
TEST_F( ConstraintInfoSmTest, ChurnDoublesTheDelayUpToTheCap ) {
    // A change seen in the quiet period: the initial wait, then the hold wait.
    topoChange();
    request();
    EXPECT_EQ( count( "Topology changed in a quiescent period. Next hold int: 200\n" ),
               1u );
    double last = Platform::now();
    const std::vector<double> expected{ 50, 200, 400, 800, 1000, 1000, 1000 };
    for ( size_t i = 0; i < expected.size(); ++i ) {
        const double ran = nextRun();
        EXPECT_NEAR( ( ran - last ) * 1000.0, expected[i], 1e-6 ) << "run " << i;
        last = ran;
        if ( i + 1 < expected.size() ) {
            // Changes keep coming in every hold-down interval.
            advanceMs( 1 );
            topoChange();
            request();
        }
    }
    EXPECT_EQ(
        count( "Topology changed during the hold down interval. Next hold int: 1000\n" ),
        4u );
}

TEST_F( ConstraintInfoSmTest,
        TheOperatorsWaitsApplyAtOnceAndTheTimerEndsWithTheReactor ) {
    configWriter_->valueIs( { 20, 100, 400 } );
    config_->sync();
    EXPECT_EQ( stats_->cspfCurrentDelay(), 20.0 );
    EXPECT_EQ( count( "CSPF throttle timer current delay set to 20ms\n" ), 1u );
    request();
    const double requested = Platform::now();
    EXPECT_NEAR( nextRun() - requested, 0.020, 1e-9 );

    request();
    EXPECT_EQ( scheduler_.taskCount(), 1u );
    sm_ = nullptr;
    EXPECT_EQ( scheduler_.taskCount(), 0u );
    advanceMs( 1000 );
    EXPECT_EQ( stats_->cspfCount(), 1u );
}

TEST( CspfCliConfigTest, NonsenseIsRefusedByTheWriterAndReadAsTheDefaults ) {
    TestKit::TempTree tmp( "cspfcliconfigtest" );
    Platform::StateTree& tree = tmp.tree;
    auto writer = create<CspfCliConfigWriter>( tree, nullptr, kCspfCliConfigPath );
    auto reader = create<CspfCliConfig>( tree, nullptr, kCspfCliConfigPath );
    const CspfCliConfigValue defaults{ 50, 200, 5000 };
    EXPECT_EQ( reader->value(), defaults );
    for ( const auto& [value, text] : std::map<std::vector<uint32_t>, std::string>{
              { { 6000, 200, 5000 }, "initialWaitMs 6000 ms is above maxWaitMs 5000 ms" },
              { { 50, 300, 250 }, "holdWaitMs 300 ms is above maxWaitMs 250 ms" },
              { { 0, 0, 0 }, "maxWaitMs must not be 0" },
              { { 0, 0, 600001 },
                "maxWaitMs 600001 ms is above the largest cap, 600000 ms" } } ) {
        try {
            writer->valueIs( { value[0], value[1], value[2] } );
            ADD_FAILURE() << text;
        } catch ( const Platform::RangeError& e ) {
            EXPECT_EQ( e.what(), "te/cspf/cliConfig: " + text );
        }
    }
    EXPECT_FALSE( writer->exists() );
    int changes = 0;
    auto sub =
        Platform::subscribe( reader.get(), CspfCliConfig::valueTag, [&] { ++changes; } );
    writer->valueIs( { 0, 0, 1 } );
    reader->sync();
    EXPECT_EQ( changes, 1 );
    EXPECT_EQ( reader->value(), ( CspfCliConfigValue{ 0, 0, 1 } ) );

    std::string reported;
    reader->corruptionHandlerIs(
        [&]( const Platform::Error& e ) { reported += e.what(); } );
    writer = nullptr;
    auto raw = create<Platform::SingletonWriter<TestKit::RawRecord<CspfCliConfigRecord>>>(
        tree, nullptr, kCspfCliConfigPath );
    const uint32_t bad[3] = { 100, 50, 60 };
    const auto* bytes = reinterpret_cast<const uint8_t*>( bad );
    raw->valueIs( std::vector<uint8_t>( bytes, bytes + sizeof( bad ) ) );
    reader->sync();
    EXPECT_EQ( changes, 2 );
    EXPECT_EQ( reader->value(), defaults );
    EXPECT_NE( reported.find( "initialWaitMs 100 ms is above maxWaitMs 60 ms" ),
               std::string::npos )
        << reported;
}

}  // namespace

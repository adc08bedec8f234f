// Path management of one VRF end to end, on the manual clock (VrfScenario):
// throttling, equal-cost hops, constraint and refresh changes, start-up over
// old results, interface addresses and runs that fail.
//
//   r1 (source) --E1-- r2 --E2-- r4      all metrics 10; r4 is reached at
//   r1 --E2-- r3 --E2-- r4               equal cost through r2 or r3
//   r1 --E3-- r5
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "tests/support/DumpText.h"
#include "tests/support/ScenarioTopology.h"
#include "tests/support/ShmTableKit.h"
#include "tests/support/VrfScenario.h"
#include "topo/TopoDb.h"

using namespace Cspf;
using Net::IpGenAddr;
using Platform::Ptr;
using TestKit::hops;

namespace {

const std::string kTopology = TestKit::ScenarioTopology()
                                  .link( 2, "r1:Ethernet1", "r2:Ethernet1", "10.1.12.0" )
                                  .link( 2, "r1:Ethernet2", "r3:Ethernet1", "10.1.13.0" )
                                  .link( 2, "r2:Ethernet2", "r4:Ethernet1", "10.1.24.0" )
                                  .link( 2, "r3:Ethernet2", "r4:Ethernet2", "10.1.34.0" )
                                  .link( 2, "r1:Ethernet3", "r5:Ethernet1", "10.1.15.0" )
                                  .json();

// Link indexes in kTopology.
constexpr size_t kR1R2 = 0, kR3R4 = 3, kR1R5 = 4;

const IpGenAddr r2( "10.0.0.2" ), r4( "10.0.0.4" ), r5( "10.0.0.5" );

class PathManagementScenarioTest : public TestKit::VrfScenario {
  protected:
    void SetUp() override {
        setUp( kTopology.c_str(), { { "Ethernet1", "10.1.12.0" },
                                    { "Ethernet2", "10.1.13.0" },
                                    { "Ethernet3", "10.1.15.0" } } );
    }
    void metricIs( size_t link, uint32_t metric ) {
        for ( auto& end : topology.links[link].ends ) {
            end.metric = metric;
        }
        publishTopology();
    }
    Ptr<ConstraintInfo> constraintOf( const PathInfoKey& key ) {
        auto info = root->pathStatusInfoTable()->pathStatusInfo( key );
        return root->constraintInfoTable()->constraintInfo( info->constraint().get() );
    }
    // Rewrites in place, unannounced, the neighbor count of our own router's
    // record: what a run reads when the IS-IS side writes under it.
    void ourNeighborCountIs( uint32_t from, uint32_t to ) {
        const std::string file =
            tree.filePath( Routing::Topology::topoDbPath( 2, vrf ) + "/router" );
        const std::vector<uint8_t> bytes = TestKit::readFile( file );
        const IpGenAddr ours( "10.0.0.1" );
        size_t patched = 0;
        for ( size_t at = 0; at + 28 <= bytes.size(); ++at ) {
            if ( std::memcmp( bytes.data() + at, &ours, sizeof( ours ) ) == 0 &&
                 TestKit::load<uint32_t>( bytes, at + 24 ) == from ) {
                patched += TestKit::patchFile( file, at + 24, &to, sizeof( to ) );
            }
        }
        ASSERT_EQ( patched, 1u );
    }
    // Steps a millisecond at a time until the constraint of `key` runs again;
    // the milliseconds since the call.
    long msToNextRun( const PathInfoKey& key ) {
        const Ptr<ConstraintStats> stats = statsOf( key );
        const uint32_t runs = stats->cspfCount();
        const double since = Platform::now();
        for ( int ms = 0; ms < 10000 && stats->cspfCount() == runs; ++ms ) {
            advanceMs( 1 );
        }
        EXPECT_EQ( stats->cspfCount(), runs + 1 );
        return std::lround( ( stats->cspfLastRanAt() - since ) * 1000 );
    }
};

}  // namespace

TEST_F( PathManagementScenarioTest,
        OneRequestAfterAQuietPeriodRunsOnceAfterInitialWait ) {
    start();
    const std::string clientEntry = "routing/export/topodb/client/cspf/default";
    EXPECT_TRUE( tree.exists( clientEntry ) );
    EXPECT_TRUE( tree.exists( intfIpToRouterIdPath( vrf ) ) );

    const PathInfoKey key = request( r5, 1, 1 );
    EXPECT_TRUE( root->pathStatusUpdateSmHas( key ) );
    advanceMs( 49 );
    EXPECT_FALSE( results->pathStatusHas( key.pathKey() ) );
    advanceMs( 1 );
    EXPECT_EQ( statsOf( key )->cspfCount(), 1u );
    EXPECT_NE( TestKit::dumpText( *root ).find( "Constraint timer running: Yes\n" ),
               std::string::npos );
    const PathStatus first = result( key );
    EXPECT_EQ( resultHops( key ), hops( { "10.1.15.1" } ) );
    EXPECT_EQ( first.changeCount, 1u );
    EXPECT_EQ( first.refreshRespSeq, 1u );
    advanceMs( 5000 );
    EXPECT_EQ( statsOf( key )->cspfCount(), 1u );

    // The client leaves: every reactor of the path goes, then the constraint.
    root->pathConfigInfoTable()->pathConfigInfoDel( key );
    root->pathStatusInfoTable()->pathStatusInfoDel( key );
    EXPECT_FALSE( root->pathConfigInfoSmHas( key ) );
    EXPECT_FALSE( root->pathStatusUpdateSmHas( key ) );
    EXPECT_FALSE( root->pathStatusCacheTable()->pathStatusCacheHas( key ) );
    EXPECT_EQ( root->constraintInfoSms(), 0u );
    EXPECT_EQ( root->constraintStatsTable()->constraintStatsCount(), 0u );

    stop();
    EXPECT_FALSE( tree.exists( clientEntry ) );
    EXPECT_FALSE( tree.exists( intfIpToRouterIdPath( vrf ) ) );
}

TEST_F( PathManagementScenarioTest, TopologyChurnBacksOffToTheCapAndQuietResetsIt ) {
    start();
    const PathInfoKey key = request( r5, 1, 1 );
    EXPECT_EQ( msToNextRun( key ), 50 );
    advanceMs( 200 );  // the hold window passes with nothing to do
    // The first run waits the initial wait from the change; each later one
    // follows the run before it by the doubled delay.
    const std::vector<long> expected{ 50, 200, 400, 800, 1000, 1000 };
    for ( size_t i = 0; i < expected.size(); ++i ) {
        const double from = i == 0 ? Platform::now() : statsOf( key )->cspfLastRanAt();
        metricIs( kR3R4, 10 + ( i % 2 ) + 1 );
        msToNextRun( key );
        EXPECT_EQ( std::lround( ( statsOf( key )->cspfLastRanAt() - from ) * 1000 ),
                   expected[i] )
            << "run " << i;
    }
    // A quiet window: the timer stops and the next change waits the initial
    // wait again.
    advanceMs( 1000 );
    EXPECT_EQ( statsOf( key )->cspfCurrentDelay(), 50.0 );
    metricIs( kR3R4, 10 );
    EXPECT_EQ( msToNextRun( key ), 50 );
    // Same hops every time: written once.
    EXPECT_EQ( result( key ).changeCount, 1u );
}

TEST_F( PathManagementScenarioTest, EqualCostPathKeepsItsHopAcrossRecomputations ) {
    start();
    const PathInfoKey key = request( r4, 1, 1 );
    advanceMs( 50 );
    const std::vector<IpGenAddr> chosen = resultHops( key );
    ASSERT_TRUE( chosen == hops( { "10.1.12.1", "10.1.24.1" } ) ||
                 chosen == hops( { "10.1.13.1", "10.1.34.1" } ) );
    for ( int i = 0; i < 30; ++i ) {
        metricIs( kR1R5, 10 + ( i % 2 ) + 1 );
        msToNextRun( key );
        EXPECT_EQ( resultHops( key ), chosen ) << "run " << i;
    }
    EXPECT_EQ( statsOf( key )->cspfCount(), 31u );
    EXPECT_EQ( result( key ).changeCount, 1u );
}

TEST_F( PathManagementScenarioTest, ConstraintChangeMovesThePathToTheNewComputation ) {
    start();
    const PathInfoKey key = request( r4, 1, 1 );
    advanceMs( 50 );
    const Ptr<ConstraintInfo> before = constraintOf( key );

    request( r4, 1, 1, "Ethernet1" );
    const Ptr<ConstraintInfo> after = constraintOf( key );
    ASSERT_NE( after, before );
    EXPECT_EQ( root->constraintInfoTable()->constraintInfos(), 1u );  // old one released
    EXPECT_EQ( root->constraintInfoSms(), 1u );
    EXPECT_TRUE( after->path( key ) );
    EXPECT_EQ( root->pathStatusUpdateSm( key )->constraintInfo(), after );
    advanceMs( 50 );
    EXPECT_EQ( statsOf( key )->cspfCount(), 1u );
    EXPECT_EQ( resultHops( key ), hops( { "10.1.13.1", "10.1.34.1" } ) );
}

TEST_F( PathManagementScenarioTest, RefreshSequencesRaisedLoweredAndUnchanged ) {
    start();
    const PathInfoKey key = request( r5, 1, 1 );
    advanceMs( 50 );
    EXPECT_EQ( result( key ).changeCount, 1u );

    // Raised: answered at once from the cache, without a run.
    request( r5, 1, 2 );
    PathStatus s = result( key );
    EXPECT_EQ( s.refreshRespSeq, 2u );
    EXPECT_EQ( s.changeCount, 2u );
    EXPECT_EQ( resultHops( key ), hops( { "10.1.15.1" } ) );
    advanceMs( 500 );
    EXPECT_EQ( statsOf( key )->cspfCount(), 1u );

    // Lowered, then unchanged: nothing to answer, nothing written.
    request( r5, 1, 1 );
    request( r5, 1, 1 );
    advanceMs( 500 );
    s = result( key );
    EXPECT_EQ( s.refreshRespSeq, 2u );
    EXPECT_EQ( s.changeCount, 2u );
    EXPECT_EQ( statsOf( key )->cspfCount(), 1u );

    // Raised again past the old answer: answered with the new sequence.
    request( r5, 1, 3 );
    EXPECT_EQ( result( key ).refreshRespSeq, 3u );
    EXPECT_EQ( result( key ).changeCount, 3u );
    EXPECT_EQ( statsOf( key )->cspfCount(), 1u );
}

TEST_F( PathManagementScenarioTest, StartUpOverExistingResultsRewritesOnlyWhatDiffers ) {
    // Left by an earlier agent: r4 through r3, and a stale path to r5.
    PathStatus kept;
    kept.key = PathKey( r4, 1 );
    kept.refreshRespSeq = 1;
    kept.changeCount = 5;
    for ( const IpGenAddr& hop : hops( { "10.1.13.1", "10.1.34.1" } ) ) {
        kept.hops.append( hop );
    }
    status->pathStatusIs( kept );
    PathStatus stale;
    stale.key = PathKey( r5, 1 );
    stale.refreshRespSeq = 1;
    stale.changeCount = 3;
    stale.hops.append( IpGenAddr( "10.9.9.9" ) );
    status->pathStatusIs( stale );

    start();
    const PathInfoKey k4 = request( r4, 1, 1 );
    const PathInfoKey k5 = request( r5, 1, 1 );
    // Until the first run the cache is what the client holds.
    EXPECT_EQ( root->pathStatusCacheTable()->pathStatusCache( k4 )->hopCount(), 2u );
    advanceMs( 50 );
    EXPECT_EQ( statsOf( k4 )->cspfCount(), 1u );
    EXPECT_EQ( result( k4 ), kept );  // equal cost keeps the held hops
    const PathStatus s5 = result( k5 );
    EXPECT_EQ( s5.changeCount, 4u );
    EXPECT_EQ( resultHops( k5 ), hops( { "10.1.15.1" } ) );
}

TEST_F( PathManagementScenarioTest,
        InterfaceAddressChangeRecomputesOnlyConstraintsExcludingIt ) {
    start();
    const PathInfoKey plain = request( r5, 1, 1 );
    const PathInfoKey e1 = request( r4, 1, 1, "Ethernet1" );
    const PathInfoKey e3 = request( r2, 1, 1, "Ethernet3" );
    advanceMs( 1000 );
    const double marked = Platform::now();

    intfIs( "Ethernet1", "10.1.12.2" );
    inotify.poll();
    EXPECT_EQ( constraintOf( e1 )->topoChangedAt(), marked );
    EXPECT_EQ( constraintOf( e1 )->ipIntfStatusChangedAt(), marked );
    EXPECT_EQ( constraintOf( plain )->topoChangedAt(), 0.0 );
    EXPECT_EQ( constraintOf( e3 )->topoChangedAt(), 0.0 );

    // A removed entry and an entry without addresses mark nothing.
    advanceMs( 10 );
    ipWriter->intfAddrsDel( Net::IntfId( "Ethernet3" ) );
    inotify.poll();
    EXPECT_EQ( constraintOf( e3 )->topoChangedAt(), 0.0 );
    ipWriter->intfAddrsIs( Net::IntfId( "Ethernet3" ), Ip::IntfAddrs() );
    inotify.poll();
    EXPECT_EQ( constraintOf( e3 )->topoChangedAt(), 0.0 );
    // Its first address does, and is what the path avoids from then on; the
    // plain constraint does not run.
    intfIs( "Ethernet3", "10.1.12.0" );
    inotify.poll();
    EXPECT_EQ( constraintOf( e3 )->topoChangedAt(), Platform::now() );
    EXPECT_EQ( constraintOf( e1 )->topoChangedAt(), marked );
    const uint32_t plainRuns = statsOf( plain )->cspfCount();
    advanceMs( 1000 );
    EXPECT_EQ( resultHops( e3 ), hops( { "10.1.13.1", "10.1.34.1", "10.1.24.0" } ) );
    EXPECT_EQ( statsOf( plain )->cspfCount(), plainRuns );

    // A topology change marks every constraint, the plain one included.
    metricIs( kR3R4, 15 );
    EXPECT_EQ( constraintOf( plain )->topoChangedAt(), Platform::now() );
    EXPECT_EQ( constraintOf( e3 )->topoChangedAt(), Platform::now() );
}

// A run that reads a corrupt record fails; it is retried with the back-off
// until one succeeds, and the path is then served.
TEST_F( PathManagementScenarioTest, AFailedRunIsRetriedWithTheBackOffUntilOneSucceeds ) {
    start();
    const PathInfoKey key = request( r2, 1, 1 );
    EXPECT_EQ( msToNextRun( key ), 50 );
    EXPECT_EQ( resultHops( key ), hops( { "10.1.12.1" } ) );

    // r2 is now best reached round r3 and r4, but our router reads as corrupt.
    metricIs( kR1R2, 50 );
    ourNeighborCountIs( 3, 501 );
    // Failed runs, each after twice the wait of the one before.
    std::vector<double> ranAt;
    for ( int i = 0; i < 4; ++i ) {
        msToNextRun( key );
        ranAt.push_back( statsOf( key )->cspfLastRanAt() );
    }
    const long first = std::lround( ( ranAt[1] - ranAt[0] ) * 1000 );
    for ( size_t i = 2; i < ranAt.size(); ++i ) {
        EXPECT_EQ( std::lround( ( ranAt[i] - ranAt[i - 1] ) * 1000 ),
                   std::min( first << ( i - 1 ), 1000L ) )
            << "retry " << i;
    }
    EXPECT_EQ( resultHops( key ), hops( { "10.1.12.1" } ) );
    EXPECT_EQ( result( key ).changeCount, 1u );

    ourNeighborCountIs( 501, 3 );
    msToNextRun( key );
    EXPECT_EQ( resultHops( key ), hops( { "10.1.13.1", "10.1.34.1", "10.1.24.0" } ) );
    EXPECT_EQ( result( key ).changeCount, 2u );
    // Served: the throttle goes quiet again.
    advanceMs( 2000 );
    EXPECT_EQ( statsOf( key )->cspfScheduled(), false );
}

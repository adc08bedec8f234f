// The level database in the state tree: the IS-IS side writes, the agent's
// TopoDb reads and tells per key; its dump; the interface-address table.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "tests/support/DumpText.h"
#include "tests/support/RawRecord.h"
#include "tests/support/TempDir.h"
#include "topo/IntfIpToRouterId.h"
#include "topo/TopoDb.h"

using namespace Routing::Topology;
using Mpls::RouterId;
using Net::IpGenAddr;

namespace {

RouterId sys( const char* text ) {
    return RouterId::fromSystemId( text );
}

class TopoDbTest : public ::testing::Test {
  protected:
    void pump() {
        for ( int i = 0; i < 20 && loop_.runOnce( 20 ) > 0; ++i ) {
        }
    }

    TestKit::TempTree tmp_{ "topodbtest" };
    Platform::StateTree& tree_ = tmp_.tree;
    Platform::EventLoop loop_;
    Platform::Inotify inotify_{ &loop_ };
};

// Two routers over one point-to-point link and one LAN of theirs.
void writeTinyTopology( TopoDbWriter& writer ) {
    RouterId a = sys( "0000.0000.0001" ), b = sys( "0000.0000.0002" );
    NetworkId lan( b, 1 );
    NeighborKey ab = NeighborKey::toRouter( a, b, 1 );
    Router ra( a );
    ra.teRouterIdIs( IpGenAddr( "1.1.1.1" ) );
    ra.neighborIs( NeighborIndex( 0 ), ab );
    ra.neighborIs( NeighborIndex( 1 ), NeighborKey::toNetwork( a, lan ) );
    Router rb( b );
    rb.overloadIs( true );
    writer.routerIs( ra );
    writer.routerIs( rb );
    Network net( lan );
    net.routerIs( RouterIndex( 0 ), b );
    net.routerIs( RouterIndex( 1 ), a );
    writer.networkIs( net );
    Neighbor n( ab );
    n.adminGroupIs( 5 );
    n.interfaceAddrIs( AddrIndex( 0 ), IpGenAddr( "10.0.0.1" ) );
    n.interfaceAddrIs( AddrIndex( 1 ), IpGenAddr( "2001:db8::1" ) );
    n.neighborAddrIs( AddrIndex( 0 ), IpGenAddr( "10.0.0.2" ) );
    n.igpMetricIs( 10 );
    n.teMetricIs( 30 );
    n.teMetricPresentIs( true );
    n.maxLinkBwIs( 1250000000 );
    n.maxReservableBwIs( 1000000000 );
    for ( uint32_t p = 0; p < 8; ++p ) {
        n.unreservedBwIs( BwPriority( p ), 125000.5f * float( p ) );
    }
    writer.neighborIs( n );
}

}  // namespace

TEST( TopoDbPaths, LevelAndVrfNameTheDirectory ) {
    EXPECT_EQ( topoDbPath( 2, L3::VrfName( "red" ) ), "routing/isis/topodb/ip/2/red" );
    EXPECT_EQ( topoDbPath( 1, L3::VrfName() ), "routing/isis/topodb/ip/1/default" );
    EXPECT_THROW( topoDbPath( 3, L3::VrfName() ), Platform::RangeError );
    EXPECT_EQ( Cspf::intfIpToRouterIdPath( L3::VrfName( "red" ) ),
               "te/cspf/intfIpToRouterId/vrf/red" );
}

TEST_F( TopoDbTest, ReaderStartedFirstHearsEveryKeyOfEachCollection ) {
    // The agent may start before the IS-IS side: its tables fill later.
    auto db = Platform::create<TopoDb>( tree_, &inotify_, 2, L3::VrfName() );
    std::vector<RouterId> routers;
    std::vector<NetworkId> networks;
    std::vector<NeighborKey> neighbors;
    auto s1 = Platform::subscribe( db.get(), TopoDb::routerTag,
                                   [&]( const RouterId& k ) { routers.push_back( k ); } );
    auto s2 =
        Platform::subscribe( db.get(), TopoDb::networkTag,
                             [&]( const NetworkId& k ) { networks.push_back( k ); } );
    auto s3 =
        Platform::subscribe( db.get(), TopoDb::neighborTag,
                             [&]( const NeighborKey& k ) { neighbors.push_back( k ); } );

    TopoDbWriter writer( tree_, &loop_, 2, L3::VrfName() );
    writeTinyTopology( writer );
    // Level 1 is another database: the reader of level 2 never hears it.
    TopoDbWriter level1( tree_, &loop_, 1, L3::VrfName() );
    level1.routerIs( Router( sys( "0000.0000.0009" ) ) );
    pump();

    RouterId a = sys( "0000.0000.0001" ), b = sys( "0000.0000.0002" );
    std::sort( routers.begin(), routers.end() );
    EXPECT_EQ( routers, ( std::vector<RouterId>{ a, b } ) );
    EXPECT_EQ( networks, ( std::vector<NetworkId>{ NetworkId( b, 1 ) } ) );
    EXPECT_EQ( neighbors,
               ( std::vector<NeighborKey>{ NeighborKey::toRouter( a, b, 1 ) } ) );
    EXPECT_EQ( db->routers().size(), 2u );
    EXPECT_EQ( db->routers().begin()->first, a );

    Router ra = db->router( a );
    EXPECT_EQ( ra.routerId(), a );  // the key comes back with the value
    EXPECT_EQ( ra.neighborKeyCount(), 2u );
    std::vector<uint8_t> buffer;
    RouterView view = db->routerView( a, buffer );
    EXPECT_EQ( view.teRouterId(), IpGenAddr( "1.1.1.1" ) );
    EXPECT_TRUE( routerHasNeighbor( view, NeighborKey::toRouter( a, b, 1 ) ) );
    EXPECT_TRUE( db->routerView( b, buffer ).overload() );
    EXPECT_EQ( db->network( NetworkId( b, 1 ) ).routerCount(), 2u );
    EXPECT_EQ( db->neighbor( NeighborKey::toRouter( a, b, 1 ) ).igpMetric(), 10u );
    // A buffer that last held a router record reads a link as well.
    EXPECT_EQ( db->neighbor( NeighborKey::toRouter( a, b, 1 ), buffer ),
               db->neighbor( NeighborKey::toRouter( a, b, 1 ) ) );
    EXPECT_FALSE( db->routerHas( sys( "0000.0000.0009" ) ) );

    // A change and a removal are told per key; what went reads as absent.
    routers.clear();
    neighbors.clear();
    Router rb( b );
    writer.routerIs( rb );
    EXPECT_FALSE( writer.routerIs( rb ) );  // unchanged: nobody is told
    writer.neighborDel( NeighborKey::toRouter( a, b, 1 ) );
    pump();
    EXPECT_EQ( routers, ( std::vector<RouterId>{ b } ) );
    EXPECT_EQ( neighbors,
               ( std::vector<NeighborKey>{ NeighborKey::toRouter( a, b, 1 ) } ) );
    EXPECT_FALSE( db->routerView( b, buffer ).overload() );
    EXPECT_FALSE( db->neighborHas( NeighborKey::toRouter( a, b, 1 ) ) );
    EXPECT_EQ( db->neighbor( NeighborKey::toRouter( a, b, 1 ) ), Neighbor() );
    EXPECT_EQ( db->neighbor( NeighborKey::toRouter( a, b, 1 ), buffer ), Neighbor() );
}

TEST_F( TopoDbTest, BadRecordIsReportedAndReadsAsAbsent ) {
    auto db = Platform::create<TopoDb>( tree_, &inotify_, 1, L3::VrfName() );
    std::vector<std::string> reports;
    db->corruptionHandlerIs(
        [&]( const Platform::Error& e ) { reports.push_back( e.what() ); } );
    // Same type and layout as the router table, bytes of the writer's choosing.
    auto raw = Platform::create<Platform::TableWriter<TestKit::RawRecord<RouterRecord>>>(
        tree_, &loop_, topoDbPath( 1, L3::VrfName() ) + "/router" );
    RouterId a = sys( "0000.0000.0001" );
    raw->set( a, std::vector<uint8_t>( 28 + 36, 0 ) );  // count 0, one key's bytes
    pump();
    EXPECT_TRUE( db->routerHas( a ) );
    EXPECT_EQ( db->router( a ), Router() );
    std::vector<uint8_t> buffer;
    EXPECT_EQ( db->routerView( a, buffer ).neighborCount(), 0u );
    ASSERT_EQ( reports.size(), 2u );
    EXPECT_NE( reports[0].find( "routing/isis/topodb/ip/1/default/router" ),
               std::string::npos );
    EXPECT_NE( reports[0].find( "'router'" ), std::string::npos );
}

TEST_F( TopoDbTest, DumpOfATinyDatabase ) {
    TopoDbWriter writer( tree_, nullptr, 1, L3::VrfName( "red" ) );
    writeTinyTopology( writer );
    auto db = Platform::create<TopoDb>( tree_, nullptr, 1, L3::VrfName( "red" ) );
    EXPECT_EQ( TestKit::dumpText( *db, 2 ),
               "  ---Routers---\n"
               "   Router ID: 0000.0000.0001\n"
               "   TE Router ID: 1.1.1.1\n"
               "   Overloaded?: No\n"
               "   Index: 0 NeighborKey 0000.0000.0001 -> 0000.0000.0002 link 1\n"
               "   Index: 1 NeighborKey 0000.0000.0001 -> 0000.0000.0002.01\n"
               "   \n"
               "   Router ID: 0000.0000.0002\n"
               "   TE Router ID: 0.0.0.0\n"
               "   Overloaded?: Yes\n"
               "  ---Networks---\n"
               "   Network ID: 0000.0000.0002.01\n"
               "   Routers in network:\n"
               "   Index: 0 RouterId 0000.0000.0002\n"
               "   Index: 1 RouterId 0000.0000.0001\n"
               "  ---Neighbors---\n"
               "   Neighbor key: 0000.0000.0001 -> 0000.0000.0002 link 1\n"
               "   Admin Group: 5\n"
               "   Interface Addresses (2): 10.0.0.1 2001:db8::1\n"
               "   TE Metric: 30\n"
               "   Max link BW: 1250000000.00 Bps\n"
               "   Max reservable link BW: 1000000000.00 Bps\n"
               "   Unreserved BW:\n"
               "   TE class: 0 BW: 0.00 Bps\n"
               "   TE class: 1 BW: 125000.50 Bps\n"
               "   TE class: 2 BW: 250001.00 Bps\n"
               "   TE class: 3 BW: 375001.50 Bps\n"
               "   TE class: 4 BW: 500002.00 Bps\n"
               "   TE class: 5 BW: 625002.50 Bps\n"
               "   TE class: 6 BW: 750003.00 Bps\n"
               "   TE class: 7 BW: 875003.50 Bps\n"
               "   Neighbor Addresses (1): 10.0.0.2\n"
               "   Metric: 10\n" );
}

TEST_F( TopoDbTest, InterfaceAddressTableMapsAddressesToRouterIds ) {
    std::string path = Cspf::intfIpToRouterIdPath( L3::VrfName() );
    auto writer = Platform::create<Cspf::IntfIpToRouterIdWriter>( tree_, nullptr, path );
    auto reader = Platform::create<Cspf::IntfIpToRouterIdReader>( tree_, nullptr, path );
    writer->intfIpToRouterIdIs( IpGenAddr( "10.0.0.1" ), IpGenAddr( "1.1.1.1" ) );
    writer->intfIpToRouterIdIs( IpGenAddr( "2001:db8::1" ), IpGenAddr( "1.1.1.1" ) );
    writer->intfIpToRouterIdDel( IpGenAddr( "10.0.0.1" ) );
    reader->sync();
    EXPECT_EQ( reader->intfIpToRouterIds(), 1u );
    EXPECT_EQ( reader->intfIpToRouterId( IpGenAddr( "2001:db8::1" ) ),
               IpGenAddr( "1.1.1.1" ) );
    EXPECT_FALSE( reader->intfIpToRouterIdHas( IpGenAddr( "10.0.0.1" ) ) );
    uint8_t bad[20] = { 9 };
    EXPECT_THROW( Cspf::IntfIpToRouterIdRecord::decodeValue( bad, 20 ),
                  Platform::DeserializationError );
    EXPECT_THROW( Cspf::IntfIpToRouterIdRecord::decodeValue( bad, 19 ),
                  Platform::DeserializationError );
}

// The level-qualified model: the keys' order, equality and hash, the
// accessors of one neighbor type, the string forms and the status dump. The
// dump of every level's database is golden in AgentScenarioTest.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Error.h"
#include "tests/support/DumpText.h"
#include "tests/support/ErrorOf.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/AllTopoKeys.h"
#include "topo/AllTopoViews.h"

using namespace Cspf;
using Mpls::RouterId;
using Net::IpGenAddr;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkId;

namespace {

RouterId sys( const char* text ) {
    return RouterId::fromSystemId( text );
}

NeighborKey p2p( const char* from, const char* to, uint32_t link ) {
    return NeighborKey::toRouter( sys( from ), sys( to ), link );
}

NeighborKey lan( const char* from, const char* dr, uint32_t pseudonode ) {
    return NeighborKey::toNetwork( sys( from ), NetworkId( sys( dr ), pseudonode ) );
}

const IpGenAddr kTe1( "1.1.1.1" );
const IpGenAddr kTe2( "2.2.2.2" );

}  // namespace

TEST( AllTopoModelTest, NeighborKeyOrderLevelThenKeyThenTeIds ) {
    const NeighborKey low = p2p( "0000.0000.0001", "0000.0000.0002", 1 );
    const NeighborKey high = p2p( "0000.0000.0001", "0000.0000.0002", 2 );
    // The level outranks everything after it.
    EXPECT_LT( AllTopoNeighborKey( TopoId::isisL1, high, kTe2 ),
               AllTopoNeighborKey( TopoId::isisL2, low, kTe1 ) );
    // Then the neighbor key outranks teNeighborOf.
    EXPECT_LT( AllTopoNeighborKey( TopoId::isisL1, low, kTe2 ),
               AllTopoNeighborKey( TopoId::isisL1, high, kTe1 ) );
    EXPECT_LT( AllTopoNeighborKey( TopoId::isisL1, low, kTe1 ),
               AllTopoNeighborKey( TopoId::isisL1, low, kTe2 ) );

    // Type 1: teNeighborId decides last.
    AllTopoNeighborKey a( TopoId::isisL1, low, kTe1 );
    AllTopoNeighborKey b = a;
    a.teNeighborIdIs( kTe1 );
    b.teNeighborIdIs( kTe2 );
    EXPECT_LT( a, b );
    EXPECT_FALSE( b < a );
    EXPECT_FALSE( a == b );

    // Type 2 keys equal up to there are never less than each other.
    const AllTopoNeighborKey n1( TopoId::isisL1,
                                 lan( "0000.0000.0001", "0000.0000.0003", 2 ), kTe1 );
    const AllTopoNeighborKey n2 = n1;
    EXPECT_FALSE( n1 < n2 );
    EXPECT_FALSE( n2 < n1 );
}

TEST( AllTopoModelTest, EqualityOverFourFieldsHashOverTwo ) {
    const NeighborKey key = p2p( "0000.0000.0001", "0000.0000.0002", 1 );
    AllTopoNeighborKey a( TopoId::isisL1, key, kTe1 );
    AllTopoNeighborKey b( TopoId::isisL1, key, kTe2 );
    AllTopoNeighborKey c = a;
    c.teNeighborIdIs( kTe2 );
    EXPECT_FALSE( a == b );
    EXPECT_FALSE( a == c );
    EXPECT_EQ( a.hash(), b.hash() );
    EXPECT_EQ( a.hash(), c.hash() );
    // The level and the key do reach the hash.
    EXPECT_NE( a.hash(), AllTopoNeighborKey( TopoId::isisL2, key, kTe1 ).hash() );
    EXPECT_NE( a.hash(),
               AllTopoNeighborKey( TopoId::isisL1,
                                   p2p( "0000.0000.0001", "0000.0000.0002", 2 ), kTe1 )
                   .hash() );

    const NetworkId net( sys( "0000.0000.0003" ), 2 );
    EXPECT_NE( AllTopoNetworkId( TopoId::isisL1, net ).hash(),
               AllTopoNetworkId( TopoId::isisL2, net ).hash() );
    EXPECT_NE( AllTopoNetworkId( TopoId::isisL1, net ).hash(),
               AllTopoNetworkId( TopoId::isisL1, NetworkId( net.dr, 3 ) ).hash() );
    EXPECT_LT( AllTopoNetworkId( TopoId::isisL1, NetworkId( net.dr, 3 ) ),
               AllTopoNetworkId( TopoId::isisL2, net ) );
}

TEST( AllTopoModelTest, AccessorsOfOneNeighborTypeOnly ) {
    const AllTopoNeighborKey router( TopoId::isisL2,
                                     p2p( "0000.0000.0001", "0000.0000.0002", 1 ), kTe1 );
    const AllTopoNeighborKey network(
        TopoId::isisL2, lan( "0000.0000.0001", "0000.0000.0003", 2 ), kTe1 );

    EXPECT_EQ( TestKit::errorOf( [&] { network.teNeighborId(); } ),
               "NeighborType 2 and teNeighborId are not compatible" );
    EXPECT_EQ( TestKit::errorOf( [&] { router.allTopoNetworkId(); } ),
               "NeighborType 1 and allTopoNetworkId are not compatible" );
    EXPECT_EQ(
        network.allTopoNetworkId(),
        AllTopoNetworkId( TopoId::isisL2, NetworkId( sys( "0000.0000.0003" ), 2 ) ) );
    // Only a point-to-point link has a far-end router to fill in.
    AllTopoNeighborKey copy = network;
    EXPECT_EQ( TestKit::errorOf( [&] { copy.teNeighborIdIs( kTe2 ); } ),
               "NeighborType 2 and teNeighborId are not compatible" );
}

TEST( AllTopoModelTest, StringForms ) {
    AllTopoNeighborKey key( TopoId::isisL1, p2p( "0000.0000.0001", "0000.0000.0002", 3 ),
                            kTe1 );
    key.teNeighborIdIs( kTe2 );
    EXPECT_EQ( key.toString(),
               "Value('Cspf::AllTopoNeighborKey', ** {'topoId': isisL1, 'neighborKey': "
               "0000.0000.0001 -> 0000.0000.0002 link 3, 'teNeighborOf': 1.1.1.1, "
               "'teNeighborId': 2.2.2.2})" );
    const AllTopoNetworkId net( TopoId::isisL2, NetworkId( sys( "0000.0000.0003" ), 2 ) );
    EXPECT_EQ( net.toString(),
               "Value('Cspf::AllTopoNetworkId', ** {'topoId': isisL2, 'networkId': "
               "0000.0000.0003.02})" );

    AllTopoRouter router( kTe1 );
    EXPECT_EQ( router.toString(),
               "Value('Cspf::AllTopoRouter', ** {'teRouterId': 1.1.1.1, 'neighbor': [], "
               "'tep': []})" );
    router.tepIs( IpGenAddr( "9.9.9.9" ) );
    router.tepIs( kTe2 );
    router.tepIs( kTe2 );
    EXPECT_EQ( router.toString(),
               "Value('Cspf::AllTopoRouter', ** {'teRouterId': 1.1.1.1, 'neighbor': [], "
               "'tep': [2.2.2.2, 9.9.9.9]})" );

    AllTopoNetwork network( net );
    network.routerIs( kTe2 );
    network.routerIs( kTe1 );
    EXPECT_EQ( network.toString(),
               "Value('Cspf::AllTopoNetwork', ** {'allTopoNetworkId': " + net.toString() +
                   ", 'router': [1.1.1.1, 2.2.2.2]})" );

    EXPECT_EQ(
        TestKit::errorOf( [&] { AllTopoRouter::fromString( router.toString() ); } ),
        "No String constructor for AllTopoRouter - has collection" );
    EXPECT_EQ(
        TestKit::errorOf( [&] { AllTopoNetwork::fromString( network.toString() ); } ),
        "No String constructor for AllTopoNetwork - has collection" );

    // Set members print in their own order, whatever the insertion order.
    AllTopoNeighborKey other( TopoId::isisL1,
                              p2p( "0000.0000.0001", "0000.0000.0002", 1 ), kTe1 );
    router.neighborIs( key );
    router.neighborIs( other );
    EXPECT_NE( router.toString().find( "'neighbor': [" + other.toString() + ", " +
                                       key.toString() + "]" ),
               std::string::npos );
}

TEST( AllTopoModelTest, StatusDump ) {
    AllTopoDbStatus status( nullptr );
    status.ourTeRouterIdIs( kTe1 );
    auto l1 = status.routerIdMapIs( TopoId::isisL1 );
    l1->teRouterIdIs( sys( "0000.0000.0002" ), kTe2 );
    l1->teRouterIdIs( sys( "0000.0000.0001" ), kTe1 );
    l1->teRouterIdIs( sys( "0000.0000.0009" ), kTe2 );
    l1->duplicateRoutersIs( kTe2 )->routerIs( sys( "0000.0000.0009" ), true );
    auto table = status.intfIpToNeighborTableIs();
    EXPECT_EQ( status.intfIpToNeighborTableIs(), table );
    auto intf = table->intfIpToNeighborIs( IpGenAddr( "10.0.0.1" ) );
    intf->neighborIs(
        AllTopoNeighborKey( TopoId::isisL2, p2p( "0000.0000.0001", "0000.0000.0002", 1 ),
                            kTe1 ),
        true );
    intf->neighborIs(
        AllTopoNeighborKey( TopoId::isisL1, lan( "0000.0000.0001", "0000.0000.0003", 2 ),
                            kTe1 ),
        true );

    EXPECT_EQ(
        TestKit::dumpText( status ),
        "Our TE Router ID: 1.1.1.1\n"
        "Per-topology Router ID maps\n"
        "  Topology isisL1\n"
        "      IGP Router ID          TE Router ID\n"
        "     0000.0000.0001   >           1.1.1.1\n"
        "     0000.0000.0002   >           2.2.2.2\n"
        "     0000.0000.0009   >           2.2.2.2\n"
        "    TE Router ID:         2.2.2.2\n"
        "      Duplicate routers\n"
        "         0000.0000.0009\n"
        "Neighbor to Interface-IP Table\n"
        "     Interface IP                                   Neighbor Keys (1)\n"
        "         10.0.0.1   >      isisL1 0000.0000.0001 -> 0000.0000.0003.02\n"
        "                    >   isisL2 0000.0000.0001 -> 0000.0000.0002 link 1\n" );
}

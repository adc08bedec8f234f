// The records of a CSPF run: the tent order of link keys, the router-link and
// equal-cost rules with their type errors, hashing against equality, the
// string forms and their parsers, and the last-link set of a settled path.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "cspf/CspfLinkInfo.h"
#include "cspf/CspfLinkInfoKey.h"
#include "cspf/CspfPath.h"
#include "platform/Error.h"
#include "tests/support/ErrorOf.h"
#include "topo/AllTopoKeys.h"
#include "topo/RouterId.h"
#include "topo/TopoKeys.h"

using namespace Cspf;
using Mpls::RouterId;
using Net::IpGenAddr;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkId;

namespace {

RouterId sys( const char* text ) {
    return RouterId::fromSystemId( text );
}

// A link of 9.9.9.9 into one of its own LANs.
AllTopoNeighborKey lan( uint32_t pseudonode ) {
    RouterId dr = sys( "9999.0000.0009" );
    return AllTopoNeighborKey( TopoId::isisL2,
                               NeighborKey::toNetwork( dr, NetworkId( dr, pseudonode ) ),
                               IpGenAddr( "9.9.9.9" ) );
}

AllTopoNeighborKey p2p() {
    AllTopoNeighborKey key(
        TopoId::isisL2,
        NeighborKey::toRouter( sys( "0000.0000.0001" ), sys( "0000.0000.0002" ), 1 ),
        IpGenAddr( "1.1.1.1" ) );
    key.teNeighborIdIs( IpGenAddr( "2.2.2.2" ) );
    return key;
}

CspfLinkInfoKey behindLan( uint32_t cost, const char* router, uint32_t pseudonode = 1 ) {
    CspfLinkInfoKey key( lan( pseudonode ), cost );
    key.routerInNetworkIs( IpGenAddr( router ) );
    return key;
}

// The LAN's link key sorts after the point-to-point one, so only the kind can
// put it first.
const AllTopoNeighborKey kLan = lan( 1 );
const AllTopoNeighborKey kP2p = p2p();

}  // namespace

TEST( CspfRecordsTest, TentOrder ) {
    ASSERT_TRUE( kP2p < kLan );
    CspfLinkInfoKey network( kLan, 10 );
    CspfLinkInfoKey router( kP2p, 10 );
    // Inserted out of order; the set must come out in tent order: cost first
    // (unsigned), then LAN, point-to-point, router in LAN, then the router
    // behind the LAN, then the link.
    const std::vector<CspfLinkInfoKey> expected{
        behindLan( 1, "3.3.3.3" ),
        network,
        router,
        behindLan( 10, "3.3.3.3" ),
        behindLan( 10, "3.3.3.3", 2 ),
        behindLan( 10, "4.4.4.4" ),
        CspfLinkInfoKey( kP2p, 0x80000000u ),
        CspfLinkInfoKey( kLan, 4261412863u ),
    };
    std::set<CspfLinkInfoKey> tent( expected.rbegin(), expected.rend() );
    EXPECT_EQ( std::vector<CspfLinkInfoKey>( tent.begin(), tent.end() ), expected );
    for ( size_t i = 0; i + 1 < expected.size(); ++i ) {
        EXPECT_FALSE( expected[i + 1] < expected[i] ) << i;
    }
    EXPECT_FALSE( router < router );
}

TEST( CspfRecordsTest, EqualityHashAndRouterInNetwork ) {
    CspfLinkInfoKey a = behindLan( 10, "3.3.3.3" );
    std::unordered_set<CspfLinkInfoKey> hashed{ a, behindLan( 10, "4.4.4.4" ),
                                                CspfLinkInfoKey( kLan, 10 ) };
    EXPECT_EQ( hashed.size(), 3u );
    // Equal keys built apart hash alike and are found by value.
    CspfLinkInfoKey again = behindLan( 10, "3.3.3.3" );
    EXPECT_EQ( again.hash(), a.hash() );
    EXPECT_EQ( std::hash<CspfLinkInfo>()( CspfLinkInfo( again ) ), a.hash() );
    EXPECT_TRUE( hashed.count( again ) );
    EXPECT_FALSE( hashed.count( CspfLinkInfoKey( kLan, 11 ) ) );

    CspfLinkInfoKey key( kP2p, 5 );
    EXPECT_EQ(
        TestKit::errorOf( [&] { key.routerInNetworkIs( IpGenAddr( "3.3.3.3" ) ); } ),
        "Link with neighborType 1 and routerInNetwork are not compatible" );
    EXPECT_EQ( key, CspfLinkInfoKey( kP2p, 5 ) );
}

TEST( CspfRecordsTest, RouterLinkAndEqualCost ) {
    CspfLinkInfoKey network( kLan, 10 );
    CspfLinkInfoKey zeroInLan = behindLan( 10, "0.0.0.0" );
    CspfLinkInfoKey router( kP2p, 10 );
    CspfLinkInfoKey inLan = behindLan( 10, "2001:db8::3" );
    EXPECT_TRUE( router.routerLink() );
    EXPECT_TRUE( inLan.routerLink() );
    EXPECT_FALSE( network.routerLink() );
    EXPECT_FALSE( zeroInLan.routerLink() );
    // Any zero is the one zero, so such a LAN key still sorts before its routers.
    EXPECT_EQ( behindLan( 10, "::" ), network );

    for ( const auto& bad : { network, zeroInLan } ) {
        EXPECT_EQ( TestKit::errorOf( [&] { bad.equalCost( router ); } ),
                   "Only router links are comparable" );
        EXPECT_EQ( TestKit::errorOf( [&] { router.equalCost( bad ); } ),
                   "Only router links are comparable" );
    }
    EXPECT_TRUE( router.equalCost( inLan ) );
    EXPECT_FALSE( router.equalCost( CspfLinkInfoKey( kP2p, 11 ) ) );
}

TEST( CspfRecordsTest, StringFormsRoundTrip ) {
    CspfLinkInfoKey inLan = behindLan( 20, "10.0.0.3" );
    EXPECT_EQ( inLan.toString(),
               "Value('Cspf::CspfLinkInfoKey', ** {'allTopoNeighborKey': " +
                   kLan.toString() + ", 'routerInNetwork': 10.0.0.3, 'cost': 20})" );
    EXPECT_EQ(
        CspfLinkInfo( inLan ).toString(),
        "Value('Cspf::CspfLinkInfo', ** {'cspfLinkInfoKey': " + inLan.toString() + "})" );

    // A router id of no protocol prints in its dotted form.
    AllTopoNeighborKey dotted(
        TopoId::isisL1,
        NeighborKey::toRouter( RouterId( Mpls::Protocol::none, 0x0a000001, 7 ),
                               sys( "0000.0000.0002" ), 4 ),
        IpGenAddr( "2001:db8::1" ) );
    dotted.teNeighborIdIs( IpGenAddr( "2001:db8::2" ) );
    for ( const auto& key :
          { CspfLinkInfoKey(), CspfLinkInfoKey( kP2p, 4261412863u ),
            CspfLinkInfoKey( kLan, 0 ), inLan, behindLan( 7, "2001:db8::9" ),
            CspfLinkInfoKey( dotted, 3 ) } ) {
        std::string text = key.toString();
        EXPECT_EQ( CspfLinkInfoKey( text ), key ) << text;
        EXPECT_EQ( CspfLinkInfoKey( text.begin(), text.end() ), key ) << text;
        EXPECT_EQ( CspfLinkInfo( CspfLinkInfo( key ).toString() ), CspfLinkInfo( key ) );
    }

    auto replaced = []( std::string text, const std::string& from,
                        const std::string& to ) {
        return text.replace( text.find( from ), from.size(), to );
    };
    std::string good = inLan.toString();
    for ( const auto& text :
          { replaced( good, "Cspf::CspfLinkInfoKey", "Cspf::CspfLinkInfo" ),
            replaced( good, "'cost': 20", "'cost': 4294967296" ),
            replaced( good, "'cost': 20", "'cost': 20, 'extra': 1" ),
            replaced( good, "10.0.0.3", "10.0.0" ), replaced( good, "isisL2", "isisL3" ),
            replaced( good, ".01, 'teNeighborOf'", ".1x, 'teNeighborOf'" ),
            // Only a point-to-point link has a far-end router, and only a
            // link into a LAN has routers behind it.
            replaced( good, "'teNeighborId': 0.0.0.0", "'teNeighborId': 1.2.3.4" ),
            replaced( CspfLinkInfoKey( kP2p, 1 ).toString(), "'routerInNetwork': 0.0.0.0",
                      "'routerInNetwork': 3.3.3.3" ),
            good.substr( 0, good.size() - 1 ) } ) {
        EXPECT_THROW( CspfLinkInfoKey{ text }, Platform::DeserializationError ) << text;
    }
    EXPECT_THROW( CspfLinkInfo{ good }, Platform::DeserializationError );
}

TEST( CspfRecordsTest, PathLastLinks ) {
    CspfLinkInfo viaP2p( CspfLinkInfoKey( kP2p, 10 ) );
    CspfLinkInfo viaLan( behindLan( 10, "3.3.3.3" ) );
    CspfPath path( IpGenAddr( "3.3.3.3" ) );
    path.lastLinkIs( viaP2p );
    path.lastLinkIs( viaLan );
    EXPECT_EQ( path.lastLink( viaLan.cspfLinkInfoKey() ), viaLan );
    EXPECT_TRUE( !path.lastLink( CspfLinkInfoKey( kP2p, 11 ) ) );

    // Equality and the string form do not depend on the order of insertion.
    CspfPath other( IpGenAddr( "3.3.3.3" ) );
    other.lastLinkIs( viaLan );
    other.lastLinkIs( viaP2p );
    EXPECT_EQ( other, path );
    EXPECT_EQ( other.toString(), path.toString() );
    EXPECT_EQ( path.toString(),
               "Value('Cspf::CspfPath', ** {'teRouterId': 3.3.3.3, 'lastLink': {" +
                   viaP2p.cspfLinkInfoKey().toString() + ": " + viaP2p.toString() + ", " +
                   viaLan.cspfLinkInfoKey().toString() + ": " + viaLan.toString() +
                   "}})" );

    other.lastLinkDel( viaLan.cspfLinkInfoKey() );
    EXPECT_FALSE( other == path );
    EXPECT_FALSE( CspfPath( IpGenAddr( "3.3.3.3" ) ) ==
                  CspfPath( IpGenAddr( "4.4.4.4" ) ) );
    EXPECT_EQ( TestKit::errorOf( [&] { CspfPath::fromString( path.toString() ); } ),
               "!\"No String constructor for CspfPath - has collection\"" );
}

// The working data of one run: empty answers for what was never settled or
// found, and the tent's order as the run relies on it.
#include <gtest/gtest.h>

#include "cspf/CspfData.h"
#include "topo/TopoKeys.h"

using namespace Cspf;
using Net::IpGenAddr;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkId;

namespace {

Mpls::RouterId sys( const char* text ) {
    return Mpls::RouterId::fromSystemId( text );
}

TEST( CspfDataTest, UnknownRoutersAndTepsReadEmpty ) {
    const auto data = cspfDataFactory( nullptr, IpGenAddr( "10.0.0.1" ) );
    EXPECT_EQ( data->shortestPath( IpGenAddr( "10.0.0.2" ) ), CspfPath() );
    EXPECT_TRUE( !data->shortestPath( IpGenAddr( "10.0.0.2" ) ) );
    EXPECT_TRUE( data->routerWithTep( IpGenAddr( "10.9.9.9" ) ).isAddrZero() );
    EXPECT_EQ( data->shortestPathForNetwork( AllTopoNetworkId() ), 0u );
    data->tepIs( IpGenAddr( "10.9.9.9" ), true );
    data->routerWithTepIs( IpGenAddr( "10.9.9.9" ), IpGenAddr( "10.0.0.3" ) );
    EXPECT_EQ( data->routerWithTep( IpGenAddr( "10.9.9.9" ) ), IpGenAddr( "10.0.0.3" ) );
    EXPECT_EQ( data->teps(), 1u );
}

TEST( CspfDataTest, TheTentGivesTheCheapestAndLansFirst ) {
    const auto data = cspfDataFactory( nullptr, IpGenAddr( "10.0.0.1" ) );
    const IpGenAddr a( "10.0.0.1" );
    const AllTopoNeighborKey p2p(
        TopoId::isisL2,
        NeighborKey::toRouter( sys( "0000.0000.0001" ), sys( "0000.0000.0002" ), 1 ), a );
    const AllTopoNeighborKey lan(
        TopoId::isisL2,
        NeighborKey::toNetwork( sys( "0000.0000.0001" ),
                                NetworkId( sys( "0000.0000.0009" ), 1 ) ),
        a );
    data->tentIs( CspfLinkInfo( CspfLinkInfoKey( p2p, 20 ) ) );
    data->tentIs( CspfLinkInfo( CspfLinkInfoKey( p2p, 10 ) ) );
    EXPECT_TRUE( data->tentAdd( CspfLinkInfo( CspfLinkInfoKey( lan, 10 ) ) ) );
    EXPECT_FALSE( data->tentAdd( CspfLinkInfo( CspfLinkInfoKey( lan, 10 ) ) ) );
    EXPECT_EQ( data->tentFirst().cspfLinkInfoKey(), CspfLinkInfoKey( lan, 10 ) );
    // Keys that differ only in the router reached across the LAN are kept apart.
    CspfLinkInfoKey behind( lan, 10 );
    behind.routerInNetworkIs( IpGenAddr( "10.0.0.7" ) );
    CspfLinkInfoKey other( lan, 10 );
    other.routerInNetworkIs( IpGenAddr( "10.0.0.8" ) );
    data->tentIs( CspfLinkInfo( behind ) );
    data->tentIs( CspfLinkInfo( other ) );
    EXPECT_EQ( data->tents(), 5u );
    std::vector<CspfLinkInfoKey> order;
    for ( const CspfLinkInfo& info : data->tentInOrder() ) {
        order.push_back( info.cspfLinkInfoKey() );
    }
    EXPECT_EQ( order, ( std::vector<CspfLinkInfoKey>{
                          CspfLinkInfoKey( lan, 10 ), CspfLinkInfoKey( p2p, 10 ), behind,
                          other, CspfLinkInfoKey( p2p, 20 ) } ) );
}

}  // namespace

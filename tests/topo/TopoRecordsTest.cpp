// Router, Network and Neighbor values: layouts, in-place views, and decoders
// that refuse what shared memory might hold.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "tests/support/ErrorOf.h"
#include "topo/TopoRecords.h"

using namespace Routing::Topology;
using Mpls::RouterId;
using Net::IpGenAddr;

namespace {

const char* const kNeighborIndexText =
    "NeighborIndex::value < NeighborIndex::min or > NeighborIndex::max not allowed";
const char* const kRouterIndexText =
    "RouterIndex::value < RouterIndex::min or > RouterIndex::max not allowed";
const char* const kAddrIndexText =
    "AddrIndex::value < AddrIndex::min or > AddrIndex::max not allowed";

RouterId rid( uint16_t n ) {
    return RouterId( Mpls::Protocol::isis, 0x19216800, n );
}

Router routerWithKeys( uint32_t n ) {
    Router router( rid( 1 ) );
    router.teRouterIdIs( IpGenAddr( "10.0.0.1" ) );
    router.overloadIs( true );
    for ( uint32_t i = 0; i < n; ++i ) {
        router.neighborIs( NeighborIndex( i ),
                           i % 2 ? NeighborKey::toRouter( rid( 1 ), rid( 2 ), i )
                                 : NeighborKey::toNetwork(
                                       rid( 1 ), NetworkId( rid( 3 ), 1 + i % 255 ) ) );
    }
    return router;
}

Neighbor sampleNeighbor() {
    Neighbor n( NeighborKey::toRouter( rid( 1 ), rid( 2 ), 4 ) );
    n.adminGroupIs( 0x11 );
    n.interfaceAddrIs( AddrIndex( 0 ), IpGenAddr( "10.1.2.1" ) );
    n.interfaceAddrIs( AddrIndex( 1 ), IpGenAddr( "2001:db8::1" ) );
    n.neighborAddrIs( AddrIndex( 0 ), IpGenAddr( "10.1.2.2" ) );
    n.igpMetricIs( 10 );
    n.teMetricIs( 20 );
    n.teMetricPresentIs( true );
    n.maxLinkBwIs( 1.25e9f );
    n.maxReservableBwIs( 1e9f );
    for ( uint32_t p = 0; p < 8; ++p ) {
        n.unreservedBwIs( BwPriority( p ), 1e8f * float( p ) );
    }
    return n;
}

template <typename T>
std::vector<uint8_t> encoded( const T& value,
                              void ( *encode )( const T&, std::vector<uint8_t>& ) ) {
    std::vector<uint8_t> out;
    encode( value, out );
    return out;
}

void putU32( std::vector<uint8_t>& buf, size_t offset, uint32_t v ) {
    std::memcpy( buf.data() + offset, &v, 4 );
}

}  // namespace

TEST( Router, RecordLayoutAndRoundTrip ) {
    Router router = routerWithKeys( 2 );
    std::vector<uint8_t> buf = encoded( router, encodeRouter );
    ASSERT_EQ( buf.size(), 28u + 2 * 36 );
    std::vector<uint8_t> head( buf.begin(), buf.begin() + 28 );
    EXPECT_EQ( head, ( std::vector<uint8_t>{ 1, 0, 0, 0, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0,
                                             0, 0, 0, 0, 0,  1, 0, 0, 0, 2, 0, 0, 0 } ) );
    EXPECT_EQ(
        std::memcmp( buf.data() + 64, &router.neighborKey( NeighborIndex( 1 ) ), 36 ),
        0 );
    // One byte off alignment: nothing may be read in place as a struct.
    std::vector<uint8_t> shifted( buf.size() + 1 );
    std::memcpy( shifted.data() + 1, buf.data(), buf.size() );
    Router back = decodeRouter( shifted.data() + 1, buf.size() );
    EXPECT_EQ( back.routerId(), RouterId() );  // the id is the table's key
    back.routerIdIs( rid( 1 ) );
    EXPECT_EQ( back, router );

    // neighborIs appends at the count, replaces below it, refuses above it.
    back.neighborIs( NeighborIndex( 0 ), NeighborKey() );
    EXPECT_EQ( back.neighborKey( NeighborIndex( 0 ) ), NeighborKey() );
    EXPECT_THROW( back.neighborIs( NeighborIndex( 3 ), NeighborKey() ),
                  Platform::RangeError );
    EXPECT_EQ( back.neighborKeyCount(), 2u );
}

TEST( Router, ViewReadsAFullRouterInPlaceAndRefusesMore ) {
    Router full = routerWithKeys( 500 );
    std::vector<uint8_t> buf = encoded( full, encodeRouter );
    EXPECT_EQ( buf.size(), 18028u );
    RouterView view( buf.data(), buf.size() );
    EXPECT_EQ( view.neighborCount(), 500u );
    EXPECT_TRUE( view.overload() );
    EXPECT_EQ( view.teRouterId(), IpGenAddr( "10.0.0.1" ) );
    EXPECT_EQ( view.neighborKey( NeighborIndex( 499 ) ),
               full.neighborKey( NeighborIndex( 499 ) ) );
    EXPECT_TRUE( routerHasNeighbor( view, full.neighborKey( NeighborIndex( 499 ) ) ) );
    EXPECT_FALSE(
        routerHasNeighbor( view, NeighborKey::toRouter( rid( 1 ), rid( 2 ), 500 ) ) );

    EXPECT_EQ( TestKit::errorOf( [] { routerWithKeys( 501 ); } ), kNeighborIndexText );
    buf.resize( buf.size() + 36 );
    putU32( buf, 24, 501 );
    EXPECT_EQ( TestKit::errorOf( [&] { RouterView( buf.data(), buf.size() ); } ),
               kNeighborIndexText );
    putU32( buf, 24, 0xffffffff );
    EXPECT_EQ( TestKit::errorOf( [&] { RouterView( buf.data(), buf.size() ); } ),
               kNeighborIndexText );
    putU32( buf, 24, 500 );
    EXPECT_EQ( TestKit::errorOf( [&] { RouterView( buf.data(), buf.size() ); } ),
               "router" );

    std::vector<uint8_t> two = encoded( routerWithKeys( 2 ), encodeRouter );
    RouterView small( two.data(), two.size() );
    EXPECT_THROW( small.neighborKey( NeighborIndex( 2 ) ), Platform::RangeError );
    EXPECT_EQ( TestKit::errorOf( [&] { RouterView( two.data(), 27 ); } ), "router" );
    two[20] = 2;  // overload is a flag
    EXPECT_EQ( TestKit::errorOf( [&] { RouterView( two.data(), two.size() ); } ),
               "router" );
    two[20] = 1;
    putU32( two, 0, 7 );  // TE router id of family 7
    EXPECT_EQ( TestKit::errorOf( [&] { RouterView( two.data(), two.size() ); } ),
               "router" );
    putU32( two, 0, 1 );
    putU32( two, 28 + 12, 9 );  // first key of type 9: the view holds, the key fails
    RouterView lying( two.data(), two.size() );
    EXPECT_EQ( TestKit::errorOf( [&] { lying.neighborKey( NeighborIndex( 0 ) ); } ),
               "neighborKey" );
    EXPECT_EQ( TestKit::errorOf( [&] { decodeRouter( two.data(), two.size() ); } ),
               "neighborKey" );
}

TEST( Network, RoundTripAndRouterBound ) {
    Network lan( NetworkId( rid( 3 ), 1 ) );
    for ( uint32_t i = 0; i < 30; ++i ) {
        lan.routerIs( RouterIndex( i ), rid( uint16_t( 10 + i ) ) );
    }
    EXPECT_EQ( TestKit::errorOf( [&] { lan.routerIs( RouterIndex( 30 ), rid( 1 ) ); } ),
               kRouterIndexText );
    std::vector<uint8_t> buf = encoded( lan, encodeNetwork );
    ASSERT_EQ( buf.size(), 364u );
    EXPECT_EQ( std::memcmp( buf.data() + 4 + 12 * 29, &lan.routers().data()[29], 12 ),
               0 );
    Network back = decodeNetwork( buf.data(), buf.size() );
    back.networkIdIs( lan.networkId() );
    EXPECT_EQ( back, lan );
    EXPECT_EQ( NetworkView( buf.data(), buf.size() ).router( RouterIndex( 29 ) ),
               rid( 39 ) );

    buf.resize( buf.size() + 12 );
    putU32( buf, 0, 31 );
    EXPECT_EQ( TestKit::errorOf( [&] { NetworkView( buf.data(), buf.size() ); } ),
               kRouterIndexText );
    putU32( buf, 0, 30 );
    EXPECT_EQ( TestKit::errorOf( [&] { NetworkView( buf.data(), buf.size() ); } ),
               "network" );
    EXPECT_EQ( TestKit::errorOf( [&] { NetworkView( buf.data(), 3 ); } ), "network" );
}

TEST( Neighbor, RecordRoundTrip ) {
    Neighbor n = sampleNeighbor();
    std::vector<uint8_t> buf = encoded( n, encodeNeighbor );
    ASSERT_EQ( buf.size(), 464u );
    Neighbor back = decodeNeighbor( buf.data(), buf.size() );
    EXPECT_EQ( back.neighborKey(), NeighborKey() );  // the key is the table's
    back.neighborKeyIs( n.neighborKey() );
    EXPECT_EQ( back, n );
}

TEST( Neighbor, DecodeRefusesBadCountsAddressesAndNumbers ) {
    const std::vector<uint8_t> good = encoded( sampleNeighbor(), encodeNeighbor );
    auto with = [&]( size_t offset, uint32_t v ) {
        std::vector<uint8_t> buf = good;
        putU32( buf, offset, v );
        return TestKit::errorOf( [&] { decodeNeighbor( buf.data(), buf.size() ); } );
    };
    EXPECT_EQ( with( 4, 11 ), kAddrIndexText );
    EXPECT_EQ( with( 208, 11 ), kAddrIndexText );
    EXPECT_EQ( with( 4, 1 ), "neighbor" );        // slot 1 is now past the count
    EXPECT_EQ( with( 8, 3 ), "neighbor" );        // family 3
    EXPECT_EQ( with( 420, 2 ), "neighbor" );      // TE metric flag
    EXPECT_EQ( with( 420, 0x101 ), "neighbor" );  // padding
    float nan = std::numeric_limits<float>::quiet_NaN(), inf = INFINITY, neg = -1;
    for ( float bad : { nan, inf, neg } ) {
        uint32_t bits;
        std::memcpy( &bits, &bad, 4 );
        EXPECT_EQ( with( 424, bits ), "neighbor" );
        EXPECT_EQ( with( 456, bits ), "neighbor" );
    }
    EXPECT_EQ( TestKit::errorOf( [&] { decodeNeighbor( good.data(), 463 ); } ),
               "neighbor" );
    EXPECT_THROW( sampleNeighbor().maxLinkBwIs( nan ), Platform::RangeError );
}

TEST( Neighbor, InterfaceAddressMatchScansOnlyWhatIsThere ) {
    Neighbor none;
    EXPECT_FALSE( neighborHasInterfaceAddr( none, IpGenAddr() ) );
    EXPECT_FALSE( neighborHasInterfaceAddr( none, IpGenAddr( "0.0.0.0" ) ) );
    Neighbor n = sampleNeighbor();
    EXPECT_TRUE( neighborHasInterfaceAddr( n, IpGenAddr( "2001:db8::1" ) ) );
    EXPECT_FALSE( neighborHasInterfaceAddr( n, IpGenAddr( "10.1.2.2" ) ) );  // far end
    for ( uint32_t i = 2; i < 10; ++i ) {
        n.interfaceAddrIs( AddrIndex( i ), IpGenAddr::v4( 0x0a090000 + i ) );
    }
    EXPECT_TRUE( neighborHasInterfaceAddr( n, IpGenAddr( "10.9.0.9" ) ) );
    EXPECT_EQ(
        TestKit::errorOf( [&] { n.interfaceAddrIs( AddrIndex( 10 ), IpGenAddr() ); } ),
        kAddrIndexText );
}

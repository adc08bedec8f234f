#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "records/PathStatus.h"
#include "tests/support/ErrorOf.h"

using namespace Cspf;
using Net::IpGenAddr;

namespace {

const char* const kHopIndexText =
    "HopIndex::value < HopIndex::min or > HopIndex::max not allowed";

PathStatus statusWithHops( uint32_t n ) {
    PathStatus status;
    status.key = PathKey( IpGenAddr( "2001:db8::9" ), 42 );
    status.refreshRespSeq = 5;
    status.changeCount = 6;
    status.lastUpdated = 1234.5;
    for ( uint32_t i = 0; i < n; ++i ) {
        status.hops.append( i % 3 == 0   ? IpGenAddr::v4( 0x0a000000 + i )
                            : i % 3 == 1 ? IpGenAddr( "fe80::" + std::to_string( i ) )
                                         : IpGenAddr() );
    }
    return status;
}

std::vector<uint8_t> encode( const PathStatus& status ) {
    std::vector<uint8_t> buf( pathStatusRecordSize( uint32_t( status.hops.size() ) ) );
    EXPECT_EQ( encodePathStatus( status, buf.data(), buf.size() ), buf.size() );
    return buf;
}

void putU32( std::vector<uint8_t>& buf, size_t offset, uint32_t v ) {
    std::memcpy( buf.data() + offset, &v, sizeof( v ) );
}

}  // namespace

TEST( PathStatus, RecordRoundTripsWithAnyHopCount ) {
    for ( uint32_t n : { 0u, 3u, 1024u } ) {
        PathStatus status = statusWithHops( n );
        std::vector<uint8_t> buf = encode( status );
        EXPECT_EQ( buf.size(), 44 + 20 * n );
        // One byte off alignment: the codec must not read fields in place.
        std::vector<uint8_t> shifted( buf.size() + 1 );
        std::memcpy( shifted.data() + 1, buf.data(), buf.size() );
        PathStatus back = decodePathStatus( shifted.data() + 1, buf.size() );
        EXPECT_EQ( back, status ) << n;
        EXPECT_EQ( back.hops.size(), n );
    }
    std::vector<uint8_t> small( 44 + 20 * 2 );
    EXPECT_THROW( encodePathStatus( statusWithHops( 3 ), small.data(), small.size() ),
                  Platform::InvalidSizeError );
}

TEST( PathStatus, EqualityCoversEveryHop ) {
    PathStatus a = statusWithHops( 3 ), b = statusWithHops( 3 );
    EXPECT_EQ( a, b );
    b.hops[HopIndex( 2 )] = IpGenAddr( "10.9.9.9" );
    EXPECT_NE( a, b );
    EXPECT_NE( a, statusWithHops( 4 ) );
    b = a;
    b.lastUpdated += 0.25;
    EXPECT_NE( a, b );
    EXPECT_EQ(
        statusWithHops( 2 ).toString(),
        "Value('Cspf::PathStatus', ** {'key': Value('Cspf::PathKey', ** "
        "{'destination': 2001:db8::9, 'id': 42}), 'refreshRespSeq': 5, 'changeCount': 6, "
        "'lastUpdated': 1234.5, 'hops': [10.0.0.0, fe80::1]})" );
}

TEST( PathStatus, HopBoundsAreTheIndexTypeErrors ) {
    EXPECT_EQ( TestKit::errorOf( [] { HopIndex( 1024 ); } ), kHopIndexText );
    PathStatus full = statusWithHops( 1024 );
    EXPECT_EQ( TestKit::errorOf( [&] { full.hops.append( IpGenAddr() ); } ),
               kHopIndexText );
    EXPECT_THROW( statusWithHops( 3 ).hops.at( HopIndex( 3 ) ), Platform::RangeError );

    std::vector<IpGenAddr> many( 1025, IpGenAddr( "10.0.0.1" ) );
    HopArray hops;
    try {
        hops.set( many.data(), many.size() );
        ADD_FAILURE();
    } catch ( const Platform::InvalidSizeError& e ) {
        std::string text = e.what();
        std::string prefix =
            "PodArray::set expected size <= 1024, instead got 1025. Buffer is at "
            "address: ";
        ASSERT_EQ( text.substr( 0, prefix.size() ), prefix );
        char address[32];
        std::snprintf( address, sizeof( address ), "%p",
                       static_cast<void*>( many.data() ) );
        std::string rest = text.substr( prefix.size() );
        ASSERT_EQ( rest.substr( 0, std::strlen( address ) ), address );
        std::string dump;
        for ( int i = 0; i < 1025; ++i ) {
            dump += "010000000a000001000000000000000000000000";
        }
        EXPECT_EQ( rest.substr( std::strlen( address ) ), " with contents: " + dump );
    }
    EXPECT_TRUE( hops.empty() );
}

TEST( PathStatus, DecodeRefusesRecordsThatLie ) {
    std::vector<uint8_t> buf = encode( statusWithHops( 3 ) );
    auto attributeOf = [&]( size_t len ) {
        return TestKit::errorOf( [&] { decodePathStatus( buf.data(), len ); } );
    };
    EXPECT_EQ( attributeOf( buf.size() - 1 ), "pathStatus" );
    EXPECT_EQ( attributeOf( 43 ), "pathStatus" );
    putU32( buf, 40, 1025 );
    EXPECT_EQ( attributeOf( buf.size() ), kHopIndexText );
    putU32( buf, 40, 0xffffffff );
    EXPECT_EQ( attributeOf( buf.size() ), kHopIndexText );
    putU32( buf, 40, 2 );
    EXPECT_EQ( attributeOf( buf.size() ), "pathStatus" );
    putU32( buf, 40, 3 );
    putU32( buf, 44 + 20, 3 );
    EXPECT_EQ( attributeOf( buf.size() ), "hops" );
    putU32( buf, 44 + 20, 2 );
    putU32( buf, 0, 7 );
    EXPECT_EQ( attributeOf( buf.size() ), "key" );
}

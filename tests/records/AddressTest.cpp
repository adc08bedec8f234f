#include <gtest/gtest.h>

#include <cstring>
#include <unordered_set>
#include <vector>

#include "platform/Error.h"
#include "records/AddressFamily.h"
#include "records/IpGenAddr.h"

using Net::AddressFamily;
using Net::IpGenAddr;

TEST( AddressFamily, TextFormsRoundTripAndOthersAreRefused ) {
    for ( auto af : { AddressFamily::ipv4, AddressFamily::ipv6 } ) {
        EXPECT_EQ( Net::parseAddressFamily( toString( af ) ), af );
    }
    for ( const char* bad : { "IPv4", "ipv5", "", "ipv4 " } ) {
        try {
            Net::parseAddressFamily( bad );
            ADD_FAILURE() << bad;
        } catch ( const Platform::DeserializationError& e ) {
            EXPECT_EQ( e.attribute(), "addressFamily" );
        }
    }
}

TEST( IpGenAddr, TextFormsAreCanonical ) {
    struct Case {
        const char* in;
        const char* out;
    };
    for ( auto [in, out] : std::initializer_list<Case>{
              { "10.0.0.1", "10.0.0.1" },
              { "0.0.0.0", "0.0.0.0" },
              { "255.255.255.255", "255.255.255.255" },
              { "2001:DB8:0000::0001", "2001:db8::1" },
              { "::", "::" },
              { "::1", "::1" },
              { "1::", "1::" },
              { "2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1" },     // first of equal runs
              { "1:0:0:2:0:0:0:3", "1:0:0:2::3" },                 // longest run
              { "2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1" },  // one zero stays
              { "::ffff:192.0.2.1", "::ffff:192.0.2.1" },
              { "::102:304", "::102:304" },  // not the deprecated mixed form
          } ) {
        IpGenAddr addr( in );
        EXPECT_EQ( addr.toString(), out ) << in;
        EXPECT_EQ( IpGenAddr( addr.toString() ), addr ) << in;
    }
}

TEST( IpGenAddr, BadTextIsRefused ) {
    for ( std::string bad : std::vector<std::string>{
              "", "10.0.0", "10.0.0.256", "010.0.0.1", "10.0.0.1 ", "2001:db8:::1",
              "host", "1.2.3.4/32", "fe80::1%eth0", std::string( "10.0.0.1\0", 9 ),
              std::string( 100, '1' ) } ) {
        try {
            IpGenAddr addr( bad );
            ADD_FAILURE() << bad << " read as " << addr;
        } catch ( const Platform::DeserializationError& e ) {
            EXPECT_EQ( e.attribute(), "ipGenAddr" );
        }
    }
}

TEST( IpGenAddr, NotSetIsDistinctButPrintsAsZero ) {
    IpGenAddr unset;
    EXPECT_FALSE( unset.isSet() );
    EXPECT_EQ( unset.toString(), "0.0.0.0" );
    EXPECT_TRUE( unset.isAddrZero() );
    EXPECT_NE( unset, IpGenAddr( "0.0.0.0" ) );
    EXPECT_TRUE( IpGenAddr( "0.0.0.0" ).isAddrZero() );
    EXPECT_TRUE( IpGenAddr( "::" ).isAddrZero() );
    EXPECT_FALSE( IpGenAddr( "::1" ).isAddrZero() );
    EXPECT_FALSE( IpGenAddr( "0.0.0.1" ).isAddrZero() );
    EXPECT_THROW( unset.v4Value(), Platform::TypeError );
    EXPECT_THROW( IpGenAddr( "::1" ).v4Value(), Platform::TypeError );
}

TEST( IpGenAddr, HostOrderValueAndRecordBytes ) {
    IpGenAddr addr = IpGenAddr::v4( 0x0a000001 );
    EXPECT_EQ( addr, IpGenAddr( "10.0.0.1" ) );
    EXPECT_EQ( addr.v4Value(), 0x0a000001u );
    uint8_t raw[20];
    std::memcpy( raw, &addr, sizeof( raw ) );
    const uint8_t expected[20] = { 1, 0, 0, 0, 10, 0, 0, 1 };
    EXPECT_EQ( 0, std::memcmp( raw, expected, sizeof( raw ) ) );
    EXPECT_EQ( IpGenAddr::fromRecord( raw, "x" ), addr );

    raw[8] = 1;  // a byte IPv4 does not use
    EXPECT_THROW( IpGenAddr::fromRecord( raw, "x" ), Platform::DeserializationError );
    raw[8] = 0;
    raw[0] = 3;
    EXPECT_THROW( IpGenAddr::fromRecord( raw, "x" ), Platform::DeserializationError );
}

TEST( IpGenAddr, OrderIsFamilyThenNumericAndHashFollowsEquality ) {
    std::vector<IpGenAddr> sorted = { IpGenAddr(),
                                      IpGenAddr( "10.0.0.2" ),
                                      IpGenAddr( "10.0.0.10" ),
                                      IpGenAddr( "192.0.2.1" ),
                                      IpGenAddr( "::1" ),
                                      IpGenAddr( "2001:db8::1" ) };
    for ( size_t i = 0; i + 1 < sorted.size(); ++i ) {
        EXPECT_TRUE( sorted[i] < sorted[i + 1] ) << sorted[i] << " " << sorted[i + 1];
        EXPECT_FALSE( sorted[i + 1] < sorted[i] );
    }
    std::unordered_set<IpGenAddr> set( sorted.begin(), sorted.end() );
    for ( const char* text : { "10.0.0.2", "2001:0db8::0:1", "::0.0.0.1" } ) {
        EXPECT_EQ( IpGenAddr( text ).hash(),
                   IpGenAddr( IpGenAddr( text ).toString() ).hash() );
        EXPECT_TRUE( set.count( IpGenAddr( text ) ) ) << text;
    }
    EXPECT_NE( IpGenAddr( "0.0.0.1" ).hash(), IpGenAddr( "::1" ).hash() );
}

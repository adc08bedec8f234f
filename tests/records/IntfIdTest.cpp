#include <gtest/gtest.h>

#include <random>
#include <string_view>

#include "platform/Error.h"
#include "records/IntfId.h"

using Net::IntfId;

namespace {

constexpr uint64_t kTextBit = uint64_t{ 1 } << 63;

// A text-form value laid out by hand from docs/records.md, whatever the name.
uint64_t textValue( std::string_view name ) {
    constexpr std::string_view alphabet =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    uint64_t v = kTextBit | uint64_t{ name.size() } << 59;
    for ( size_t i = 0; i < name.size(); ++i ) {
        v |= uint64_t{ alphabet.find( name[i] ) } << ( 53 - 6 * i );
    }
    return v;
}

std::string refusal( std::string_view name ) {
    try {
        IntfId id( name );
        ADD_FAILURE() << name << " encoded as " << id.value();
    } catch ( const Platform::NameError& e ) {
        return e.what();
    }
    return {};
}

}  // namespace

TEST( IntfId, RouterAndLinuxNamesRoundTripExactly ) {
    const auto roundTrips = []( const char* name ) {
        IntfId id( name );
        EXPECT_EQ( id.name(), name );
        EXPECT_EQ( IntfId::fromValue( id.value() ), id ) << name;
        EXPECT_FALSE( id.empty() );
    };
    // Every structured kind, at the bounds of each component.
    for ( const char* name :
          { "Ethernet1", "Ethernet3/1", "Ethernet3/1.100", "Ethernet1/2/3",
            "Port-Channel10", "Port-Channel10.20", "Vlan100", "Vlan4094", "Loopback0",
            "Tunnel7", "Management1", "Vxlan1", "Recirc-Channel1", "Switch1/1", "Fabric2",
            "Ethernet65535", "Ethernet1/1023/255.4194303", "Ethernet0.0" } ) {
        roundTrips( name );
    }
    // Text names, structured-looking ones among them.
    for ( const char* name : { "eth0", "swp12", "lo", "enp3s0f1", "Ethernet", "Vlan01",
                               "Vlan65536", "Vlan", "a_-Z9" } ) {
        roundTrips( name );
    }
    EXPECT_EQ( IntfId( "" ).value(), 0u );
    EXPECT_EQ( IntfId().name(), "" );
}

TEST( IntfId, EncodingIsTheDocumentedOne ) {
    // Golden values: records in shared memory outlive any one build.
    EXPECT_EQ( IntfId( "Ethernet1" ).value(), 0x0800020000000000u );
    EXPECT_EQ( IntfId( "Ethernet3/1.100" ).value(), 0x0a00060080400064u );
    EXPECT_EQ( IntfId( "eth0" ).value(), textValue( "eth0" ) );
    // Out-of-range or zero-padded numbers are not structured, so they fall to
    // the text form; a structured-looking name never does.
    EXPECT_EQ( IntfId( "Vlan01" ).value(), textValue( "Vlan01" ) );
    EXPECT_EQ( IntfId( "Vlan65536" ).value(), textValue( "Vlan65536" ) );
    EXPECT_EQ( IntfId( "Vlan100" ).value() & kTextBit, 0u );
}

TEST( IntfId, NamesThatCannotBeEncodedAreRefused ) {
    EXPECT_EQ(
        refusal( "averyveryverylongname" ),
        "interface name 'averyveryverylongname' cannot be encoded: too long for a text "
        "name (21 characters, at most 9)" );
    EXPECT_EQ(
        refusal( "eth 0" ),
        "interface name 'eth 0' cannot be encoded: ' ' is not allowed in a text name "
        "(a-z A-Z 0-9 - _)" );
    EXPECT_EQ(
        refusal( "Ethernet3/1024" ),
        "interface name 'Ethernet3/1024' cannot be encoded: not a structured Ethernet "
        "name (component 2 1024 is above 1023) and too long for a text name (14 "
        "characters, at most 9)" );
    for ( const char* name : { "Ethernet99999999", "Ethernet01", "Ethernet1/2/3/4",
                               "Ethernet1.", "Ethernet1/", "Port-Channel1.4194304",
                               "Ethernet1/2/256", "eth0.100", "Et\nh0", "é" } ) {
        EXPECT_NE( refusal( name ), "" );
    }
    EXPECT_EQ(
        refusal( "Et\th" ),
        "interface name 'Et\\x09h' cannot be encoded: '\\x09' is not allowed in a text "
        "name (a-z A-Z 0-9 - _)" );
}

TEST( IntfId, FromValueRefusesAnythingButTheOneEncodingOfAName ) {
    uint64_t ethernet1 = IntfId( "Ethernet1" ).value();
    for ( uint64_t bad : {
              uint64_t{ 1 },                               // kind 0 with bits set
              uint64_t{ 15 } << 59,                        // unknown kind
              uint64_t{ 11 } << 59 | uint64_t{ 1 } << 41,  // first kind past the table
              ethernet1 | uint64_t{ 3 } << 57,             // four components
              ethernet1 | uint64_t{ 1 } << 31,  // component 2 of a one-component name
              ethernet1 | 5u,                   // subinterface without its flag
              kTextBit,                         // text of length 0
              kTextBit | uint64_t{ 10 } << 59,  // text longer than 9
              textValue( "eth0" ) | 1u,         // spare low bits
              textValue( "eth0" ) | uint64_t{ 1 } << 29,  // character past the length
              textValue( "Vlan100" ),  // structured name stored as text
          } ) {
        try {
            IntfId id = IntfId::fromValue( bad );
            ADD_FAILURE() << std::hex << bad << " accepted as " << id;
        } catch ( const Platform::DeserializationError& e ) {
            EXPECT_EQ( e.attribute(), "intfId" );
        }
    }
}

TEST( IntfId, RandomValuesDecodeOnlyToNamesThatEncodeBackToThem ) {
    std::mt19937_64 rng( 7 );
    int accepted = 0;
    for ( int i = 0; i < 50000; ++i ) {
        uint64_t v = rng();
        // Thin out the random bits so that valid values turn up too.
        v &= rng() | rng() | ( i % 2 ? kTextBit : 0 );
        try {
            IntfId id = IntfId::fromValue( v );
            ++accepted;
            ASSERT_EQ( IntfId( id.name() ).value(), v ) << id.name();
        } catch ( const Platform::DeserializationError& ) {
        }
    }
    EXPECT_GT( accepted, 100 );
}

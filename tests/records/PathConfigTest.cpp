#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "platform/Error.h"
#include "records/PathConfig.h"

using namespace Cspf;
using Net::IntfId;
using Net::IpGenAddr;

namespace {

PathConfig example() {
    return PathConfig( PathKey( IpGenAddr( "10.0.0.1" ), 7 ), 3, true,
                       PathConstraint( IntfId( "Ethernet1" ) ) );
}

std::string hex( const void* p, size_t n ) {
    std::string out;
    char buf[3];
    for ( size_t i = 0; i < n; ++i ) {
        std::snprintf( buf, sizeof( buf ), "%02x", static_cast<const uint8_t*>( p )[i] );
        out += buf;
    }
    return out;
}

template <typename T>
std::string attributeOfFailure( std::string_view text ) {
    try {
        T value( text );
        ADD_FAILURE() << text << " read as " << value.toString();
    } catch ( const Platform::DeserializationError& e ) {
        return e.attribute();
    }
    return {};
}

}  // namespace

TEST( PathConfig, RecordBytesOfAKnownExample ) {
    PathConfig config = example();
    // family | address | id | refreshReqSeq | autoUpdate + pad | IntfId, little-endian
    EXPECT_EQ( hex( &config, sizeof( config ) ),
               "01000000"
               "0a000001000000000000000000000000"
               "07000000"
               "03000000"
               "01000000"
               "0000000000020008" );
    EXPECT_EQ( decodePathConfig( &config, sizeof( config ) ), config );
}

TEST( PathConfig, DecodeRefusesBytesThatAreNoConfig ) {
    auto attributeOf = []( const uint8_t* raw, size_t len ) -> std::string {
        try {
            decodePathConfig( raw, len );
        } catch ( const Platform::DeserializationError& e ) {
            return e.attribute();
        }
        return "accepted";
    };
    PathConfig config = example();
    uint8_t raw[41];
    std::memcpy( raw + 1, &config, 40 );  // unaligned on purpose
    EXPECT_EQ( attributeOf( raw + 1, 40 ), "accepted" );
    EXPECT_EQ( attributeOf( raw + 1, 39 ), "pathConfig" );
    raw[1 + 28] = 2;
    EXPECT_EQ( attributeOf( raw + 1, 40 ), "autoUpdate" );
    raw[1 + 28] = 0;
    raw[1 + 30] = 1;
    EXPECT_EQ( attributeOf( raw + 1, 40 ), "autoUpdate" );
    raw[1 + 30] = 0;
    raw[1 + 0] = 9;
    EXPECT_EQ( attributeOf( raw + 1, 40 ), "key" );
    raw[1 + 0] = 1;
    raw[1 + 39] = 0x7f;  // kind 15
    EXPECT_EQ( attributeOf( raw + 1, 40 ), "intfId" );
}

TEST( PathRecords, StringFormsAreExactAndReadBack ) {
    PathConfig config = example();
    EXPECT_EQ( PathConstraint().toString(),
               "Value('Cspf::PathConstraint', ** {'excludeInterface': })" );
    EXPECT_EQ(
        config.toString(),
        "Value('Cspf::PathConfig', ** {'key': Value('Cspf::PathKey', ** "
        "{'destination': 10.0.0.1, 'id': 7}), 'refreshReqSeq': 3, 'autoUpdate': true, "
        "'constraint': Value('Cspf::PathConstraint', ** {'excludeInterface': "
        "Ethernet1})})" );

    std::string text = config.toString();
    EXPECT_EQ( PathConfig( text.begin(), text.end() ), config );
    PathConfig other( PathKey( IpGenAddr( "2001:db8::1" ), 4294967295u ), 0, false,
                      PathConstraint() );
    EXPECT_EQ( PathConfig( other.toString() ), other );
    text = config.key.toString();
    EXPECT_EQ( PathKey( text.cbegin(), text.cend() ), config.key );
    text = PathConstraint( IntfId( "Port-Channel10.20" ) ).toString();
    EXPECT_EQ( PathConstraint( text.begin(), text.end() ).excludeInterface.name(),
               "Port-Channel10.20" );
    EXPECT_EQ( PathConstraint( PathConstraint().toString() ), PathConstraint() );
}

TEST( PathRecords, MalformedStringFormsAreRefused ) {
    using Cases = std::vector<std::pair<std::string, std::string>>;
    // What follows the type in a PathKey's text form, and the attribute that
    // refuses it.
    for ( const auto& [rest, attribute] :
          Cases{ { "'destination': 10.0.0.1, 'id': 7}", "pathKey" },
                 { "'destination': 10.0.0.1})", "pathKey" },
                 { "'destination': 10.0.0.1, 'id': 7, 'x': 1})", "pathKey" },
                 { "'destination': 10.0.0.300, 'id': 7})", "destination" },
                 { "'destination': 10.0.0.1, 'id': -1})", "id" },
                 { "'destination': 10.0.0.1, 'id': 4294967296})", "id" },
                 { "'destination': 10.0.0.1, 'id': 7x})", "id" },
                 { "'destination': 10.0.0.1, 'id': })", "id" },
                 { "'destination': 10.0.0.1, 'id':  7})", "id" } } ) {
        EXPECT_EQ( attributeOfFailure<PathKey>( "Value('Cspf::PathKey', ** {" + rest ),
                   attribute )
            << rest;
    }
    EXPECT_EQ( attributeOfFailure<PathKey>( "" ), "pathKey" );
    EXPECT_EQ(
        attributeOfFailure<PathConstraint>(
            "Value('Cspf::PathConstraint', ** {'excludeInterface': Ethernet99999999})" ),
        "pathConstraint" );
    EXPECT_EQ( attributeOfFailure<PathConstraint>( example().key.toString() ),
               "pathConstraint" );

    const std::string good = example().toString();
    // A part of a PathConfig's text form, its replacement, and the attribute
    // that refuses the result.
    for ( const auto& [from, to, attribute] :
          std::vector<std::tuple<std::string, std::string, std::string>>{
              { "true", "yes", "autoUpdate" },
              { "'refreshReqSeq': 3", "'refreshReqSeq': 3.5", "refreshReqSeq" },
              { "Ethernet1", "Ethernet1/", "pathConstraint" },
              { "})})", "})}", "pathConfig" } } ) {
        std::string bad = good;
        bad.replace( bad.find( from ), from.size(), to );
        EXPECT_EQ( attributeOfFailure<PathConfig>( bad ), attribute ) << bad;
    }
}

TEST( PathRecords, OrderingAndHashes ) {
    PathKey k7( IpGenAddr( "10.0.0.1" ), 7 ), k8( IpGenAddr( "10.0.0.1" ), 8 );
    PathKey far( IpGenAddr( "10.0.0.2" ), 1 ), v6( IpGenAddr( "::1" ), 0 );
    std::set<PathKey> ordered = { v6, far, k8, k7 };
    EXPECT_EQ( std::vector<PathKey>( ordered.begin(), ordered.end() ),
               ( std::vector<PathKey>{ k7, k8, far, v6 } ) );
    std::unordered_set<PathKey> keys = { k7, k8, far, v6 };
    EXPECT_EQ( keys.size(), 4u );
    EXPECT_TRUE( keys.count( PathKey( IpGenAddr( "10.0.0.1" ), 7 ) ) );

    // Constraint hashes are stored by other processes: fixed values.
    EXPECT_EQ( PathConstraint().hash(), 0u );
    EXPECT_EQ( example().constraint.hash(), 0x08000200u );
}

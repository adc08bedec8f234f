// Router ids, network ids and neighbor keys: text forms, record bytes, order.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "topo/RouterId.h"
#include "topo/TopoKeys.h"

using namespace Routing::Topology;
using Mpls::Protocol;
using Mpls::RouterId;

namespace {

template <typename T>
std::string hexOf( const T& record ) {
    static constexpr char kHex[] = "0123456789abcdef";
    const auto* bytes = reinterpret_cast<const uint8_t*>( &record );
    std::string out;
    for ( size_t i = 0; i < sizeof( T ); ++i ) {
        out += kHex[bytes[i] >> 4];
        out += kHex[bytes[i] & 0xf];
    }
    return out;
}

std::string attributeOf( const std::function<void()>& fn ) {
    try {
        fn();
    } catch ( const Platform::DeserializationError& e ) {
        return e.attribute();
    }
    return "accepted";
}

RouterId sys( const char* text ) {
    return RouterId::fromSystemId( text );
}

}  // namespace

TEST( RouterId, SystemIdMapsToBigEndianWordsAndBack ) {
    RouterId id = sys( "1921.6800.10aF" );
    EXPECT_EQ( id.toString(), "1921.6800.10af" );
    EXPECT_EQ( hexOf( id ), "0100000000682119af100000" );
    EXPECT_EQ( RouterId::fromRecord( &id, "x" ), id );

    EXPECT_TRUE( RouterId().empty() );
    EXPECT_EQ( RouterId().toString(), "0000.0000.0000" );
    EXPECT_TRUE( sys( "0000.0000.0000" ).empty() );
    EXPECT_EQ( RouterId( Protocol::none, 0x0a000001, 7 ).toString(), "10.0.0.1/7" );

    for ( const char* bad : { "", "1921.6800.100", "1921.6800.10011", "1921-6800-1001",
                              "1921.68g0.1001", "19216.800.1001", "1921.6800.1001 " } ) {
        EXPECT_EQ( attributeOf( [&] { sys( bad ); } ), "systemId" ) << bad;
    }
}

TEST( NetworkId, TextRecordAndBounds ) {
    NetworkId lan( sys( "1921.6800.1003" ), 2 );
    EXPECT_EQ( lan.stringValue(), "1921.6800.1003.02" );
    EXPECT_EQ( NetworkId::fromString( "1921.6800.1003.02" ), lan );
    EXPECT_EQ( hexOf( lan ),
               "010000000068211903100000"
               "02000000" );
    EXPECT_EQ( NetworkId::fromRecord( &lan, "n" ), lan );
    lan.pseudonode = 256;
    EXPECT_EQ( attributeOf( [&] { NetworkId::fromRecord( &lan, "n" ); } ), "n" );
    for ( const char* bad : { "1921.6800.1003", "1921.6800.1003.2", "1921.6800.1003.0x",
                              "1921.6800.100x.02" } ) {
        EXPECT_EQ( attributeOf( [&] { NetworkId::fromString( bad ); } ), "networkId" )
            << bad;
    }
    EXPECT_TRUE( NetworkId( sys( "0000.0000.0001" ), 9 ) <
                 NetworkId( sys( "0000.0000.0002" ), 1 ) );
}

TEST( NeighborKey, BothTypesHaveTheirTextAndBytes ) {
    RouterId a = sys( "0000.0000.0001" ), b = sys( "0000.0000.0002" );
    NeighborKey p2p = NeighborKey::toRouter( a, b, 7 );
    EXPECT_EQ( p2p.stringValue(), "0000.0000.0001 -> 0000.0000.0002 link 7" );
    EXPECT_EQ( hexOf( p2p ),
               "010000000000000001000000"
               "01000000"
               "010000000000000002000000"
               "00000000"
               "07000000" );
    EXPECT_EQ( p2p.neighborRouterId(), b );
    EXPECT_THROW( p2p.networkId(), Platform::TypeError );

    NeighborKey lan = NeighborKey::toNetwork( a, NetworkId( b, 0x1f ) );
    EXPECT_EQ( lan.stringValue(), "0000.0000.0001 -> 0000.0000.0002.1f" );
    EXPECT_EQ( lan.networkId(), NetworkId( b, 0x1f ) );
    EXPECT_THROW( lan.neighborRouterId(), Platform::TypeError );

    EXPECT_EQ( NeighborKey::fromRecord( &p2p, "k" ), p2p );
    EXPECT_EQ( NeighborKey::fromRecord( &lan, "k" ), lan );
}

TEST( NeighborKey, RecordRefusesWhatNoKeyHolds ) {
    RouterId a = sys( "0000.0000.0001" ), b = sys( "0000.0000.0002" );
    auto patched = [&]( NeighborKey key, size_t offset, uint32_t v ) {
        uint8_t bytes[36];
        std::memcpy( bytes, &key, 36 );
        std::memcpy( bytes + offset, &v, 4 );
        return attributeOf( [&] { NeighborKey::fromRecord( bytes, "k" ); } );
    };
    NeighborKey p2p = NeighborKey::toRouter( a, b, 7 );
    NeighborKey lan = NeighborKey::toNetwork( a, NetworkId( b, 3 ) );
    EXPECT_EQ( patched( p2p, 12, 0 ), "k" );    // type 0
    EXPECT_EQ( patched( p2p, 12, 3 ), "k" );    // type 3
    EXPECT_EQ( patched( p2p, 28, 1 ), "k" );    // pseudonode on a router key
    EXPECT_EQ( patched( lan, 32, 1 ), "k" );    // link id on a network key
    EXPECT_EQ( patched( lan, 28, 256 ), "k" );  // pseudonode past one byte
    EXPECT_EQ( patched( p2p, 16, 5 ), "k" );    // far router of protocol 5
    EXPECT_EQ( patched( p2p, 32, 99 ), "accepted" );
}

// Orders are those of the fields in record order, and hashes are fixed
// numbers (FNV-1a of the record bytes) that every process agrees on.
TEST( TopoKeys, OrderAndStableHash ) {
    std::vector<RouterId> ids = { RouterId(), RouterId( Protocol::none, 9, 9 ),
                                  sys( "0000.0001.ffff" ), sys( "0000.0002.0000" ),
                                  sys( "0000.0002.0001" ) };
    RouterId a = sys( "0000.0000.0001" ), b = sys( "0000.0000.0002" );
    std::vector<NeighborKey> keys = {
        NeighborKey::toRouter( a, b, 1 ),
        NeighborKey::toRouter( a, b, 2 ),
        NeighborKey::toNetwork( a, NetworkId( a, 9 ) ),  // type before far router
        NeighborKey::toNetwork( a, NetworkId( b, 1 ) ),
        NeighborKey::toRouter( b, a, 0 ),
    };
    for ( size_t i = 0; i + 1 < ids.size(); ++i ) {
        EXPECT_TRUE( ids[i] < ids[i + 1] && !( ids[i + 1] < ids[i] ) ) << i;
        EXPECT_TRUE( keys[i] < keys[i + 1] && !( keys[i + 1] < keys[i] ) ) << i;
    }
    std::set<NeighborKey> sorted( keys.rbegin(), keys.rend() );
    EXPECT_EQ( std::vector<NeighborKey>( sorted.begin(), sorted.end() ), keys );
    EXPECT_EQ( sys( "1921.6800.1001" ).hash(), 0x38cfe8abu );
    EXPECT_EQ( NeighborKey::toRouter( a, b, 7 ).hash(), 0x84e74950u );
}

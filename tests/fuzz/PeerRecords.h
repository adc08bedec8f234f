// The record types the agent reads from its peers' tables, and what a fuzz
// target checks on bytes that claim to be one of them.
//
//   PeerRecords       client requests and registrations, the TE configuration,
//                     the CSPF settings, interface status, the IS-IS topology
//                     records, and the results a client may have scribbled on
//   forEachPeerRecord visits each type with its position in that list
//   decodeRecord<R>   decodes as the agent does, then checks what decoded
#pragma once

#include <cstring>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Error.h"
#include "platform/Table.h"
#include "records/Client.h"
#include "records/CspfCliConfig.h"
#include "records/IpStatus.h"
#include "records/PathTables.h"
#include "records/TeConfig.h"
#include "tests/fuzz/FuzzCheck.h"
#include "topo/TopoDb.h"

namespace Fuzz {

using PeerRecords =
    std::tuple<Cspf::PathConfigRecord, Cspf::ClientEntryRecord,
               Platform::SingletonRecord<TrafficEngineering::ConfigRecord>,
               Platform::SingletonRecord<Cspf::CspfCliConfigRecord>, Ip::IntfAddrsRecord,
               Routing::Topology::RouterRecord, Routing::Topology::NetworkRecord,
               Routing::Topology::NeighborRecord, Cspf::PathStatusRecord>;

template <typename Fn>
void forEachPeerRecord( Fn&& fn ) {
    [&]<size_t... I>( std::index_sequence<I...> ) {
        ( fn.template operator()<std::tuple_element_t<I, PeerRecords>>( I ), ... );
    }
    ( std::make_index_sequence<std::tuple_size_v<PeerRecords>>() );
}

// The in-place views of the topology records must agree with the decoders:
// the computation reads the first, the dumps and tools the second.
inline void checkView( const uint8_t* bytes, size_t len,
                       const Routing::Topology::Router& decoded ) {
    using namespace Routing::Topology;
    const RouterView view( bytes, len );
    check( view.neighborCount() == decoded.neighborKeyCount() &&
               view.teRouterId() == decoded.teRouterId() &&
               view.overload() == decoded.overload(),
           "a router's view disagrees with its decoding" );
    for ( uint32_t i = 0; i < view.neighborCount(); ++i ) {
        check( view.neighborKey( NeighborIndex( i ) ) ==
                   decoded.neighborKey( NeighborIndex( i ) ),
               "a router's view reads another neighbor key" );
    }
}

inline void checkView( const uint8_t* bytes, size_t len,
                       const Routing::Topology::Network& decoded ) {
    using namespace Routing::Topology;
    const NetworkView view( bytes, len );
    check( view.routerCount() == decoded.routerCount(),
           "a network's view disagrees with its decoding" );
    for ( uint32_t i = 0; i < view.routerCount(); ++i ) {
        check( view.router( RouterIndex( i ) ) == decoded.router( RouterIndex( i ) ),
               "a network's view reads another router" );
    }
}

template <typename V>
void checkView( const uint8_t*, size_t, const V& ) {}

// A view is read without a full decoding first; it must refuse with an Error
// or read within the bytes, whatever they hold.
template <typename Fn>
void readEach( uint32_t count, Fn item ) {
    for ( uint32_t i = 0; i < count; ++i ) {
        try {
            item( i );
        } catch ( const Platform::Error& ) {
        }
    }
}

template <typename R>
void readView( const uint8_t* bytes, size_t len ) {
    using namespace Routing::Topology;
    if constexpr ( std::is_same_v<R, RouterRecord> ) {
        const RouterView view( bytes, len );
        readEach( view.neighborCount(),
                  [&]( uint32_t i ) { view.neighborKey( NeighborIndex( i ) ); } );
    } else if constexpr ( std::is_same_v<R, NetworkRecord> ) {
        const NetworkView view( bytes, len );
        readEach( view.routerCount(),
                  [&]( uint32_t i ) { view.router( RouterIndex( i ) ); } );
    }
}

// Decodes a key and a value as the agent does: only Platform::Error may come
// out. What decodes must encode back to the very same bytes, because equal
// records are equal bytes (readers compare keys as bytes, the writer skips a
// value whose bytes did not change).
template <typename R>
void decodeRecord( const uint8_t* key, const uint8_t* value, size_t len ) {
    const std::string type = R::typeName;
    std::optional<typename R::Key> k;
    try {
        k = R::decodeKey( key );
    } catch ( const Platform::Error& ) {
    }
    if ( k ) {
        uint8_t again[R::keySize];
        R::encodeKey( *k, again );
        check( std::memcmp( again, key, R::keySize ) == 0,
               type + ": a key decodes but encodes to other bytes" );
    }
    try {
        readView<R>( value, len );
    } catch ( const Platform::Error& ) {
    }
    std::optional<typename R::Value> v;
    try {
        v = R::decodeValue( value, len );
    } catch ( const Platform::Error& ) {
    }
    if ( !v ) {
        return;
    }
    std::vector<uint8_t> again;
    try {
        R::encodeValue( *v, again );
    } catch ( const Platform::Error& e ) {
        check( false, type + ": a value decodes but cannot be encoded: " + e.what() );
    }
    check( again.size() == len &&
               ( len == 0 || std::memcmp( again.data(), value, len ) == 0 ),
           type + ": a value decodes but encodes to other bytes" );
    try {
        checkView( value, len, *v );
    } catch ( const Platform::Error& e ) {
        check( false, type + ": a value decodes but its view refuses it: " + e.what() );
    }
}

}  // namespace Fuzz

// The keys of the IS-IS topology tables besides the router's own RouterId.
//
//  - NetworkId names a LAN by its designated router and pseudonode number
//    (16 bytes: dr RouterId, pseudonode u32).
//  - NeighborKey names one adjacency as one router advertises it (36 bytes):
//      0  routerId      RouterId, the advertising router
//      12 neighborType  u32: 1 a router (point-to-point), 2 a LAN pseudonode
//      16 farRouterId   RouterId: type 1 the neighbor, type 2 the LAN's DR
//      28 pseudonode    u32: type 2 the LAN's pseudonode, type 1 zero
//      32 linkId        u32: type 1 tells parallel adjacencies apart (the
//                       local circuit id, say), type 2 zero
// Both classes are their own records, so equal keys are equal bytes and a
// table key is a plain copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "topo/RouterId.h"

namespace Routing::Topology {

constexpr uint32_t neighborTypeRouter() {
    return 1;
}
constexpr uint32_t neighborTypeNetwork() {
    return 2;
}

// IS-IS pseudonode numbers are one byte.
constexpr uint32_t kMaxPseudonode = 255;

class NetworkId {
  public:
    Mpls::RouterId dr;
    uint32_t pseudonode = 0;

    NetworkId() = default;
    NetworkId( const Mpls::RouterId& designatedRouter, uint32_t pseudonodeId )
        : dr( designatedRouter ), pseudonode( pseudonodeId ) {}

    // Reads "xxxx.xxxx.xxxx.pp" back; raises DeserializationError naming
    // "networkId".
    static NetworkId fromString( std::string_view text );
    // Reads a 16-byte record that may hold anything; raises
    // DeserializationError naming `attribute` for a bad router id or a
    // pseudonode above 255.
    static NetworkId fromRecord( const void* record, std::string_view attribute );

    bool operator==( const NetworkId& other ) const = default;
    bool operator<( const NetworkId& other ) const;  // dr, then pseudonode
    uint32_t hash() const;

    // "1921.6800.1001.02": the DR's system id and two hex digits.
    std::string stringValue() const;
};

static_assert( sizeof( NetworkId ) == 16 );
static_assert( alignof( NetworkId ) == 4 );
static_assert( offsetof( NetworkId, dr ) == 0 );
static_assert( offsetof( NetworkId, pseudonode ) == 12 );
static_assert( std::is_standard_layout_v<NetworkId> );
static_assert( std::is_trivially_copyable_v<NetworkId> );

std::ostream& operator<<( std::ostream& os, const NetworkId& id );

class NeighborKey {
  public:
    // Where the type word and the far router id sit in the 36-byte record,
    // for scans that look at many keys before decoding one.
    static constexpr size_t kTypeOffset = 12;
    static constexpr size_t kFarRouterIdOffset = 16;

    // A router-type key between two empty ids: what an absent record holds.
    NeighborKey() = default;
    // A point-to-point adjacency of `router` to `neighbor`.
    static NeighborKey toRouter( const Mpls::RouterId& router,
                                 const Mpls::RouterId& neighbor, uint32_t linkId );
    // An adjacency of `router` to the LAN `network`.
    static NeighborKey toNetwork( const Mpls::RouterId& router,
                                  const NetworkId& network );

    // Reads a 36-byte record that may hold anything; raises
    // DeserializationError naming `attribute` for a type other than 1 or 2,
    // a bad router id, or a field that the type leaves at zero not being zero.
    static NeighborKey fromRecord( const void* record, std::string_view attribute );

    const Mpls::RouterId& routerId() const { return routerId_; }
    uint32_t neighborType() const { return neighborType_; }
    bool isRouter() const { return neighborType_ == neighborTypeRouter(); }
    bool isNetwork() const { return neighborType_ == neighborTypeNetwork(); }
    // The far end of a router-type key; TypeError for a network-type key.
    Mpls::RouterId neighborRouterId() const;
    // The LAN of a network-type key; TypeError for a router-type key.
    NetworkId networkId() const;
    const Mpls::RouterId& farRouterId() const { return farRouterId_; }
    uint32_t pseudonode() const { return pseudonode_; }
    uint32_t linkId() const { return linkId_; }

    bool operator==( const NeighborKey& other ) const = default;
    // Lexicographic over routerId, neighborType, farRouterId, pseudonode, linkId.
    bool operator<( const NeighborKey& other ) const;
    // Stable across processes: FNV-1a over the 36 record bytes.
    uint32_t hash() const;

    // "1921.6800.1001 -> 1921.6800.1002 link 3" or
    // "1921.6800.1001 -> 1921.6800.1003.02".
    std::string stringValue() const;

  private:
    Mpls::RouterId routerId_;
    uint32_t neighborType_ = neighborTypeRouter();
    Mpls::RouterId farRouterId_;
    uint32_t pseudonode_ = 0;
    uint32_t linkId_ = 0;
};

static_assert( sizeof( NeighborKey ) == 36 );
static_assert( alignof( NeighborKey ) == 4 );
static_assert( std::is_standard_layout_v<NeighborKey> );
static_assert( std::is_trivially_copyable_v<NeighborKey> );

std::ostream& operator<<( std::ostream& os, const NeighborKey& key );

}  // namespace Routing::Topology

template <>
struct std::hash<Routing::Topology::NetworkId> {
    size_t operator()( const Routing::Topology::NetworkId& id ) const {
        return id.hash();
    }
};

template <>
struct std::hash<Routing::Topology::NeighborKey> {
    size_t operator()( const Routing::Topology::NeighborKey& key ) const {
        return key.hash();
    }
};

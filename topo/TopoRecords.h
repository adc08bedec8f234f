// The values of the IS-IS topology tables: Router, Network and Neighbor.
//
// Each has an in-memory class (what a reader gets and a writer gives), a
// record layout with its encoder and decoder, and, for the two with a list,
// a view that reads a record in place. The table key (a router's RouterId,
// a LAN's NetworkId, an adjacency's NeighborKey) is not inside the value: a
// decoded value gets it from the table. Layouts (docs/topology-records.md):
//
//   Router   0 teRouterId IpGenAddr (20; not set when absent)
//            20 overload u8, 3 zero bytes
//            24 neighborCount u32, at most 500
//            28 neighborCount x NeighborKey (36)        28 + 36n, <= 18028
//   Network  0 routerCount u32, at most 30
//            4 routerCount x RouterId (12)              4 + 12n, <= 364
//   Neighbor NeighborValue below, 464 bytes
//
// Decoders copy with memcpy (a record may sit at any address) and check
// every count, word and unused byte, so equal values are equal bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/BoundedIndex.h"
#include "platform/DumpContext.h"
#include "platform/PodArray.h"
#include "records/IpGenAddr.h"
#include "topo/RouterId.h"
#include "topo/TopoKeys.h"

namespace Routing::Topology {

constexpr uint32_t kMaxNeighbors = 500;
constexpr uint32_t kMaxNetworkRouters = 30;
constexpr uint32_t kMaxNeighborAddrs = 10;
constexpr uint32_t kBwPriorities = 8;

using NeighborIndex = Platform::BoundedIndex<"NeighborIndex", 0, kMaxNeighbors - 1>;
using RouterIndex = Platform::BoundedIndex<"RouterIndex", 0, kMaxNetworkRouters - 1>;
using AddrIndex = Platform::BoundedIndex<"AddrIndex", 0, kMaxNeighborAddrs - 1>;
using BwPriority = Platform::BoundedIndex<"BwPriority", 0, kBwPriorities - 1>;

using NeighborKeyArray = Platform::PodArray<NeighborKey, kMaxNeighbors, NeighborIndex>;
using RouterIdArray = Platform::PodArray<Mpls::RouterId, kMaxNetworkRouters, RouterIndex>;
using AddrArray = Platform::PodArray<Net::IpGenAddr, kMaxNeighborAddrs, AddrIndex>;

// ---- Router ----

struct RouterValueHeader {
    Net::IpGenAddr teRouterId;
    uint8_t overload = 0;
    uint8_t pad[3] = {};
    uint32_t neighborCount = 0;
};

static_assert( offsetof( RouterValueHeader, teRouterId ) == 0 );
static_assert( offsetof( RouterValueHeader, overload ) == 20 );
static_assert( offsetof( RouterValueHeader, neighborCount ) == 24 );
static_assert( sizeof( RouterValueHeader ) == 28 );
static_assert( std::is_standard_layout_v<RouterValueHeader> );
static_assert( std::is_trivially_copyable_v<RouterValueHeader> );

constexpr size_t routerRecordSize( uint32_t neighborCount ) {
    return sizeof( RouterValueHeader ) + sizeof( NeighborKey ) * neighborCount;
}
static_assert( routerRecordSize( kMaxNeighbors ) == 18028 );

class Router {
  public:
    Router() = default;
    explicit Router( const Mpls::RouterId& id ) : routerId_( id ) {}

    const Mpls::RouterId& routerId() const { return routerId_; }
    void routerIdIs( const Mpls::RouterId& id ) { routerId_ = id; }
    const Net::IpGenAddr& teRouterId() const { return teRouterId_; }
    void teRouterIdIs( const Net::IpGenAddr& addr ) { teRouterId_ = addr; }
    bool overload() const { return overload_; }
    void overloadIs( bool overload ) { overload_ = overload; }

    uint32_t neighborKeyCount() const { return uint32_t( neighborKeys_.size() ); }
    // RangeError for an index at or past the count.
    const NeighborKey& neighborKey( NeighborIndex index ) const {
        return neighborKeys_.at( index );
    }
    // Appends at index == count, replaces below it; RangeError above it.
    void neighborIs( NeighborIndex index, const NeighborKey& key );
    void neighborDelAll() { neighborKeys_.clear(); }
    const NeighborKeyArray& neighborKeys() const { return neighborKeys_; }

    bool operator==( const Router& other ) const = default;

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    Mpls::RouterId routerId_;
    Net::IpGenAddr teRouterId_;
    bool overload_ = false;
    NeighborKeyArray neighborKeys_;
};

// Reads a router record in place: only the fixed part is checked and kept, a
// neighbor key is decoded when asked for. The bytes must outlive the view.
class RouterView {
  public:
    // A router with no neighbors.
    RouterView() = default;
    // RangeError (the NeighborIndex text) for a count above 500;
    // DeserializationError naming "router" for a length that does not match
    // the count, a bad TE router id, an overload byte other than 0 or 1, or
    // non-zero padding.
    RouterView( const uint8_t* bytes, size_t len );

    const Net::IpGenAddr& teRouterId() const { return teRouterId_; }
    bool overload() const { return overload_; }
    uint32_t neighborCount() const { return neighborCount_; }
    // RangeError past the count; DeserializationError naming "neighborKey"
    // for a key that fails its checks.
    NeighborKey neighborKey( NeighborIndex index ) const;
    // The 36 bytes of a key, unchecked; RangeError past the count.
    const uint8_t* neighborKeyRecord( NeighborIndex index ) const;

  private:
    const uint8_t* bytes_ = nullptr;
    Net::IpGenAddr teRouterId_;
    bool overload_ = false;
    uint32_t neighborCount_ = 0;
};

void encodeRouter( const Router& router, std::vector<uint8_t>& out );
// The router's id is the table key and is left empty. Raises what RouterView
// raises, and DeserializationError naming "neighborKey" for a bad key.
Router decodeRouter( const uint8_t* bytes, size_t len );

// Whether the router advertises `key`: a byte compare of each of its keys,
// which is exact because equal keys are equal bytes.
bool routerHasNeighbor( const RouterView& router, const NeighborKey& key );

// ---- Network ----

constexpr size_t kNetworkCountSize = sizeof( uint32_t );
constexpr size_t networkRecordSize( uint32_t routerCount ) {
    return kNetworkCountSize + sizeof( Mpls::RouterId ) * routerCount;
}
static_assert( networkRecordSize( kMaxNetworkRouters ) == 364 );

class Network {
  public:
    Network() = default;
    explicit Network( const NetworkId& id ) : networkId_( id ) {}

    const NetworkId& networkId() const { return networkId_; }
    void networkIdIs( const NetworkId& id ) { networkId_ = id; }

    uint32_t routerCount() const { return uint32_t( routers_.size() ); }
    const Mpls::RouterId& router( RouterIndex index ) const {
        return routers_.at( index );
    }
    // Appends at index == count, replaces below it; RangeError above it.
    void routerIs( RouterIndex index, const Mpls::RouterId& id );
    void routerDelAll() { routers_.clear(); }
    const RouterIdArray& routers() const { return routers_; }

    bool operator==( const Network& other ) const = default;

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    NetworkId networkId_;
    RouterIdArray routers_;
};

class NetworkView {
  public:
    // A LAN with no routers.
    NetworkView() = default;
    // RangeError (the RouterIndex text) for a count above 30;
    // DeserializationError naming "network" for a length that does not match.
    NetworkView( const uint8_t* bytes, size_t len );

    uint32_t routerCount() const { return routerCount_; }
    // RangeError past the count; DeserializationError naming "network" for a
    // bad router id.
    Mpls::RouterId router( RouterIndex index ) const;

  private:
    const uint8_t* bytes_ = nullptr;
    uint32_t routerCount_ = 0;
};

void encodeNetwork( const Network& network, std::vector<uint8_t>& out );
// The network's id is the table key and is left empty.
Network decodeNetwork( const uint8_t* bytes, size_t len );

// ---- Neighbor ----

// The neighbor record, fixed in size. Bandwidths are bytes per second.
struct NeighborValue {
    uint32_t adminGroup = 0;
    uint32_t interfaceAddrCount = 0;
    Net::IpGenAddr interfaceAddrs[kMaxNeighborAddrs];
    uint32_t neighborAddrCount = 0;
    Net::IpGenAddr neighborAddrs[kMaxNeighborAddrs];
    uint32_t igpMetric = 0;
    uint32_t teMetric = 0;
    uint8_t teMetricPresent = 0;
    uint8_t pad[3] = {};
    float maxLinkBw = 0;
    float maxReservableBw = 0;
    float unreservedBw[kBwPriorities] = {};
};

static_assert( sizeof( float ) == 4 );
static_assert( offsetof( NeighborValue, interfaceAddrCount ) == 4 );
static_assert( offsetof( NeighborValue, interfaceAddrs ) == 8 );
static_assert( offsetof( NeighborValue, neighborAddrCount ) == 208 );
static_assert( offsetof( NeighborValue, neighborAddrs ) == 212 );
static_assert( offsetof( NeighborValue, igpMetric ) == 412 );
static_assert( offsetof( NeighborValue, teMetric ) == 416 );
static_assert( offsetof( NeighborValue, teMetricPresent ) == 420 );
static_assert( offsetof( NeighborValue, maxLinkBw ) == 424 );
static_assert( offsetof( NeighborValue, maxReservableBw ) == 428 );
static_assert( offsetof( NeighborValue, unreservedBw ) == 432 );
static_assert( sizeof( NeighborValue ) == 464 );
static_assert( alignof( NeighborValue ) == 4 );
static_assert( std::is_standard_layout_v<NeighborValue> );
static_assert( std::is_trivially_copyable_v<NeighborValue> );

class Neighbor {
  public:
    Neighbor() = default;
    explicit Neighbor( const NeighborKey& key ) : neighborKey_( key ) {}

    const NeighborKey& neighborKey() const { return neighborKey_; }
    void neighborKeyIs( const NeighborKey& key ) { neighborKey_ = key; }

    uint32_t adminGroup() const { return adminGroup_; }
    void adminGroupIs( uint32_t group ) { adminGroup_ = group; }

    // The addresses of the local end of the link. An index at the count
    // appends, below it replaces, above it is a RangeError.
    uint32_t interfaceAddrCount() const { return uint32_t( interfaceAddrs_.size() ); }
    const Net::IpGenAddr& interfaceAddr( AddrIndex index ) const {
        return interfaceAddrs_.at( index );
    }
    void interfaceAddrIs( AddrIndex index, const Net::IpGenAddr& addr );
    const AddrArray& interfaceAddrs() const { return interfaceAddrs_; }
    // The addresses of the far end, same rules.
    uint32_t neighborAddrCount() const { return uint32_t( neighborAddrs_.size() ); }
    const Net::IpGenAddr& neighborAddr( AddrIndex index ) const {
        return neighborAddrs_.at( index );
    }
    void neighborAddrIs( AddrIndex index, const Net::IpGenAddr& addr );
    const AddrArray& neighborAddrs() const { return neighborAddrs_; }

    uint32_t igpMetric() const { return igpMetric_; }
    void igpMetricIs( uint32_t metric ) { igpMetric_ = metric; }
    uint32_t teMetric() const { return teMetric_; }
    void teMetricIs( uint32_t metric ) { teMetric_ = metric; }
    bool teMetricPresent() const { return teMetricPresent_; }
    void teMetricPresentIs( bool present ) { teMetricPresent_ = present; }

    // Bandwidths in bytes per second. A setter refuses a value that is not a
    // finite, non-negative number with RangeError: readers would refuse it.
    float maxLinkBw() const { return maxLinkBw_; }
    void maxLinkBwIs( float bw );
    float maxReservableBw() const { return maxReservableBw_; }
    void maxReservableBwIs( float bw );
    float unreservedBw( BwPriority priority ) const {
        return unreservedBw_[priority.value()];
    }
    void unreservedBwIs( BwPriority priority, float bw );

    bool operator==( const Neighbor& other ) const = default;

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    NeighborKey neighborKey_;
    uint32_t adminGroup_ = 0;
    AddrArray interfaceAddrs_;
    AddrArray neighborAddrs_;
    uint32_t igpMetric_ = 0;
    uint32_t teMetric_ = 0;
    bool teMetricPresent_ = false;
    float maxLinkBw_ = 0;
    float maxReservableBw_ = 0;
    std::array<float, kBwPriorities> unreservedBw_ = {};
};

void encodeNeighbor( const Neighbor& neighbor, std::vector<uint8_t>& out );
// The neighbor's key is the table key and is left at its default. Raises
// RangeError (the AddrIndex text) for an address count above 10, and
// DeserializationError naming "neighbor" for a length other than 464, a bad
// address, a used byte past an address count, a TE-metric flag other than 0
// or 1, non-zero padding, or a bandwidth that is negative or not finite.
Neighbor decodeNeighbor( const uint8_t* bytes, size_t len );

// Whether `addr` is one of the neighbor's interface addresses; a neighbor
// without any matches nothing.
bool neighborHasInterfaceAddr( const Neighbor& neighbor, const Net::IpGenAddr& addr );

}  // namespace Routing::Topology

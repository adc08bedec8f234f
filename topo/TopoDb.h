// The IS-IS topology database of one level and VRF in the state tree.
//
// The IS-IS side (TopoDbWriter) publishes, under
// "routing/isis/topodb/ip/<level>/<vrf>", three tables: "router" (Router
// keyed by RouterId), "network" (Network keyed by NetworkId) and "neighbor"
// (Neighbor keyed by NeighborKey). The agent reads them through TopoDb, an
// entity with one collection per table and a per-key notification for each.
// A record that fails its checks is reported to the corruption handler and
// reads as absent.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Table.h"
#include "records/VrfName.h"
#include "topo/RouterId.h"
#include "topo/TopoKeys.h"
#include "topo/TopoRecords.h"

namespace Platform {
class EventLoop;
class Inotify;
class StateTree;
}  // namespace Platform

namespace Routing::Topology {

// "routing/isis/topodb/ip/<level>/<vrf>"; RangeError for a level other than
// 1 or 2.
std::string topoDbPath( int level, const L3::VrfName& vrf );

constexpr const char* kRouterTableName = "router";
constexpr const char* kNetworkTableName = "network";
constexpr const char* kNeighborTableName = "neighbor";

struct RouterRecord {
    using Key = Mpls::RouterId;
    using Value = Router;
    static constexpr const char* typeName = "Routing::Topology::Router";
    static constexpr const char* layout =
        "key RouterId 12; value Router 28+36n NeighborKey 36; v1";
    static constexpr uint32_t keySize = sizeof( Mpls::RouterId );
    static constexpr uint32_t maxValueSize = routerRecordSize( kMaxNeighbors );
    static void encodeKey( const Key& k, uint8_t* out ) {
        std::memcpy( out, &k, keySize );
    }
    static Key decodeKey( const uint8_t* in ) {
        return Mpls::RouterId::fromRecord( in, "routerId" );
    }
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        encodeRouter( v, out );
    }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return decodeRouter( in, len );
    }
};

struct NetworkRecord {
    using Key = NetworkId;
    using Value = Network;
    static constexpr const char* typeName = "Routing::Topology::Network";
    static constexpr const char* layout =
        "key NetworkId 16; value Network 4+12n RouterId 12; v1";
    static constexpr uint32_t keySize = sizeof( NetworkId );
    static constexpr uint32_t maxValueSize = networkRecordSize( kMaxNetworkRouters );
    static void encodeKey( const Key& k, uint8_t* out ) {
        std::memcpy( out, &k, keySize );
    }
    static Key decodeKey( const uint8_t* in ) {
        return NetworkId::fromRecord( in, "networkId" );
    }
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        encodeNetwork( v, out );
    }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return decodeNetwork( in, len );
    }
};

struct NeighborRecord {
    using Key = NeighborKey;
    using Value = Neighbor;
    static constexpr const char* typeName = "Routing::Topology::Neighbor";
    static constexpr const char* layout = "key NeighborKey 36; value Neighbor 464; v1";
    static constexpr uint32_t keySize = sizeof( NeighborKey );
    static constexpr uint32_t maxValueSize = sizeof( NeighborValue );
    static void encodeKey( const Key& k, uint8_t* out ) {
        std::memcpy( out, &k, keySize );
    }
    static Key decodeKey( const uint8_t* in ) {
        return NeighborKey::fromRecord( in, "neighborKey" );
    }
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        encodeNeighbor( v, out );
    }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return decodeNeighbor( in, len );
    }
};

// A table reader that also hands out a record's raw bytes, for the values
// that get their key from the table and for in-place views.
template <typename R>
class TopoTableReader : public Platform::TableReader<R> {
  public:
    using Platform::TableReader<R>::TableReader;

    // Copies the record's bytes: false when absent or unreadable (reported).
    bool valueBytes( const typename R::Key& k, std::vector<uint8_t>& bytes ) const {
        uint8_t key[R::keySize];
        R::encodeKey( k, key );
        try {
            return this->core_.get( key, bytes );
        } catch ( const Platform::Error& e ) {
            this->doCorruption( e );
            return false;
        }
    }
};

class TopoDb : public Platform::Entity {
  public:
    using RouterTable = TopoTableReader<RouterRecord>;
    using NetworkTable = TopoTableReader<NetworkRecord>;
    using NeighborTable = TopoTableReader<NeighborRecord>;

    static constexpr Platform::KeyTag<Mpls::RouterId> routerTag{};
    static constexpr Platform::KeyTag<NetworkId> networkTag{};
    static constexpr Platform::KeyTag<NeighborKey> neighborTag{};

    // Attaches the level's three tables; absent ones read empty and fill
    // when they appear. Without an Inotify, sync() takes changes in.
    TopoDb( Platform::StateTree& tree, Platform::Inotify* inotify, int level,
            const L3::VrfName& vrf );

    int level() const { return level_; }
    const L3::VrfName& vrf() const { return vrf_; }
    const std::string& statePath() const { return statePath_; }

    // The router with its id; a default Router (empty id) when absent or
    // corrupt.
    Router router( const Mpls::RouterId& id ) const;
    // As taken in at the last sync, like the notifications: the records
    // themselves may be newer.
    bool routerHas( const Mpls::RouterId& id ) const {
        return routers_->keys().count( id ) != 0;
    }
    // Copies the record once into `buffer` and reads it in place; an absent
    // or corrupt router reads as one with no neighbors.
    RouterView routerView( const Mpls::RouterId& id, std::vector<uint8_t>& buffer ) const;
    // In key order, with record versions, as of the last sync.
    const std::map<Mpls::RouterId, uint64_t>& routers() const { return routers_->keys(); }

    Network network( const NetworkId& id ) const;
    bool networkHas( const NetworkId& id ) const {
        return networks_->keys().count( id ) != 0;
    }
    NetworkView networkView( const NetworkId& id, std::vector<uint8_t>& buffer ) const;
    const std::map<NetworkId, uint64_t>& networks() const { return networks_->keys(); }

    Neighbor neighbor( const NeighborKey& key ) const;
    // As above, reading the record through `buffer`, which a caller that reads
    // many records keeps from one to the next.
    Neighbor neighbor( const NeighborKey& key, std::vector<uint8_t>& buffer ) const;
    bool neighborHas( const NeighborKey& key ) const {
        return neighbors_->keys().count( key ) != 0;
    }
    const std::map<NeighborKey, uint64_t>& neighbors() const {
        return neighbors_->keys();
    }

    // The tables themselves, for computations that read records in place
    // (Platform::RecordRef): find, then check `unchanged` after reading.
    const RouterTable& routerTable() const { return *routers_; }
    const NetworkTable& networkTable() const { return *networks_; }
    const NeighborTable& neighborTable() const { return *neighbors_; }

    // Takes in the tables' changes now (tests and tools without an Inotify).
    void sync();
    void corruptionHandlerIs( const Platform::CorruptionHandler& handler );

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    int level_;
    L3::VrfName vrf_;
    std::string statePath_;
    Platform::Ptr<RouterTable> routers_;
    Platform::Ptr<NetworkTable> networks_;
    Platform::Ptr<NeighborTable> neighbors_;
    std::vector<Platform::SubscriptionPtr> subs_;
};

// The IS-IS side of a level's database: the only writer of its three tables.
class TopoDbWriter {
  public:
    // Creates the tables (and directories) or re-attaches to them; Error when
    // another process writes one. With a loop, readers are woken once at the
    // end of the loop's round, else after every change.
    TopoDbWriter( Platform::StateTree& tree, Platform::EventLoop* loop, int level,
                  const L3::VrfName& vrf );
    TopoDbWriter( const TopoDbWriter& ) = delete;
    TopoDbWriter& operator=( const TopoDbWriter& ) = delete;

    const std::string& statePath() const { return statePath_; }

    // Each returns whether the table changed.
    bool routerIs( const Router& router );
    bool routerDel( const Mpls::RouterId& id );
    void routerDelAll();
    // Deletes every router that `keep` does not hold; returns how many.
    size_t routerDelAllBut( const std::set<Mpls::RouterId>& keep );
    bool routerHas( const Mpls::RouterId& id ) const { return routers_->has( id ); }

    bool networkIs( const Network& network );
    bool networkDel( const NetworkId& id );
    void networkDelAll();
    // Deletes every network that `keep` does not hold; returns how many.
    size_t networkDelAllBut( const std::set<NetworkId>& keep );
    bool networkHas( const NetworkId& id ) const { return networks_->has( id ); }

    bool neighborIs( const Neighbor& neighbor );
    bool neighborDel( const NeighborKey& key );
    void neighborDelAll();
    // Deletes every neighbor that `keep` does not hold; returns how many.
    size_t neighborDelAllBut( const std::set<NeighborKey>& keep );
    bool neighborHas( const NeighborKey& key ) const { return neighbors_->has( key ); }

    // Wakes the readers now.
    void flush();

  private:
    std::string statePath_;
    Platform::Ptr<Platform::TableWriter<RouterRecord>> routers_;
    Platform::Ptr<Platform::TableWriter<NetworkRecord>> networks_;
    Platform::Ptr<Platform::TableWriter<NeighborRecord>> neighbors_;
};

}  // namespace Routing::Topology

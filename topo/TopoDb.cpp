#include "topo/TopoDb.h"

#include "platform/Error.h"

namespace Routing::Topology {

namespace {

// An absent router or network reads as an empty record of its type.
const std::vector<uint8_t> kEmptyRouter( routerRecordSize( 0 ), 0 );
const std::vector<uint8_t> kEmptyNetwork( networkRecordSize( 0 ), 0 );

// Decodes the record, read through `bytes`, into `out`: false, with `out`
// untouched, when it is absent or fails its checks (reported as a corruption
// of the table).
template <typename Table, typename Key, typename Decode, typename Value>
bool readValue( const Table& table, const Key& key, Decode decode, Value& out,
                std::vector<uint8_t>& bytes ) {
    if ( !table.valueBytes( key, bytes ) ) {
        return false;
    }
    try {
        out = decode( bytes.data(), bytes.size() );
        return true;
    } catch ( const Platform::Error& e ) {
        table.doCorruption( Platform::CorruptionError( table.statePath(), e.what() ) );
        return false;
    }
}

// Reads the record into `buffer` and builds the view over it; falls back to
// `empty` when the record is absent or fails the view's checks.
template <typename View, typename Table, typename Key>
View readView( const Table& table, const Key& key, std::vector<uint8_t>& buffer,
               const std::vector<uint8_t>& empty ) {
    if ( table.valueBytes( key, buffer ) ) {
        try {
            return View( buffer.data(), buffer.size() );
        } catch ( const Platform::Error& e ) {
            table.doCorruption(
                Platform::CorruptionError( table.statePath(), e.what() ) );
        }
    }
    buffer = empty;
    return View( buffer.data(), buffer.size() );
}

}  // namespace

std::string topoDbPath( int level, const L3::VrfName& vrf ) {
    if ( level != 1 && level != 2 ) {
        throw Platform::RangeError( "IS-IS level must be 1 or 2, not " +
                                    std::to_string( level ) );
    }
    return "routing/isis/topodb/ip/" + std::to_string( level ) + "/" + vrf.name();
}

TopoDb::TopoDb( Platform::StateTree& tree, Platform::Inotify* inotify, int level,
                const L3::VrfName& vrf )
    : level_( level ), vrf_( vrf ), statePath_( topoDbPath( level, vrf ) ) {
    routers_ = Platform::create<RouterTable>( tree, inotify,
                                              statePath_ + "/" + kRouterTableName );
    networks_ = Platform::create<NetworkTable>( tree, inotify,
                                                statePath_ + "/" + kNetworkTableName );
    neighbors_ = Platform::create<NeighborTable>( tree, inotify,
                                                  statePath_ + "/" + kNeighborTableName );
    // Watchers of the database need not know its tables: each table's
    // per-key notification is told again on the database's own tag.
    subs_.push_back( Platform::subscribe(
        routers_.get(), RouterTable::recordTag,
        [this]( const Mpls::RouterId& id ) { notify( &routerTag, &id ); } ) );
    subs_.push_back( Platform::subscribe(
        networks_.get(), NetworkTable::recordTag,
        [this]( const NetworkId& id ) { notify( &networkTag, &id ); } ) );
    subs_.push_back( Platform::subscribe(
        neighbors_.get(), NeighborTable::recordTag,
        [this]( const NeighborKey& key ) { notify( &neighborTag, &key ); } ) );
}

Router TopoDb::router( const Mpls::RouterId& id ) const {
    Router router;
    std::vector<uint8_t> bytes;
    if ( readValue( *routers_, id, decodeRouter, router, bytes ) ) {
        router.routerIdIs( id );
    }
    return router;
}

RouterView TopoDb::routerView( const Mpls::RouterId& id,
                               std::vector<uint8_t>& buffer ) const {
    return readView<RouterView>( *routers_, id, buffer, kEmptyRouter );
}

Network TopoDb::network( const NetworkId& id ) const {
    Network network;
    std::vector<uint8_t> bytes;
    if ( readValue( *networks_, id, decodeNetwork, network, bytes ) ) {
        network.networkIdIs( id );
    }
    return network;
}

NetworkView TopoDb::networkView( const NetworkId& id,
                                 std::vector<uint8_t>& buffer ) const {
    return readView<NetworkView>( *networks_, id, buffer, kEmptyNetwork );
}

Neighbor TopoDb::neighbor( const NeighborKey& key ) const {
    std::vector<uint8_t> bytes;
    return neighbor( key, bytes );
}

Neighbor TopoDb::neighbor( const NeighborKey& key, std::vector<uint8_t>& buffer ) const {
    Neighbor neighbor;
    if ( readValue( *neighbors_, key, decodeNeighbor, neighbor, buffer ) ) {
        neighbor.neighborKeyIs( key );
    }
    return neighbor;
}

void TopoDb::sync() {
    routers_->sync();
    networks_->sync();
    neighbors_->sync();
}

void TopoDb::corruptionHandlerIs( const Platform::CorruptionHandler& handler ) {
    routers_->corruptionHandlerIs( handler );
    networks_->corruptionHandlerIs( handler );
    neighbors_->corruptionHandlerIs( handler );
}

void TopoDb::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    // Entries are separated by a line holding one blank.
    auto separate = [&]( bool& first ) {
        if ( !first ) {
            Platform::objDumpLine( context, indent, " \n" );
        }
        first = false;
    };
    Platform::objDumpLine( context, indent, "---Routers---\n" );
    bool first = true;
    for ( const auto& entry : routers() ) {
        separate( first );
        router( entry.first ).dumpState( context, indent );
    }
    Platform::objDumpLine( context, indent, "---Networks---\n" );
    first = true;
    for ( const auto& entry : networks() ) {
        separate( first );
        network( entry.first ).dumpState( context, indent );
    }
    Platform::objDumpLine( context, indent, "---Neighbors---\n" );
    first = true;
    for ( const auto& entry : neighbors() ) {
        separate( first );
        neighbor( entry.first ).dumpState( context, indent );
    }
}

TopoDbWriter::TopoDbWriter( Platform::StateTree& tree, Platform::EventLoop* loop,
                            int level, const L3::VrfName& vrf )
    : statePath_( topoDbPath( level, vrf ) ) {
    routers_ = Platform::create<Platform::TableWriter<RouterRecord>>(
        tree, loop, statePath_ + "/" + kRouterTableName );
    networks_ = Platform::create<Platform::TableWriter<NetworkRecord>>(
        tree, loop, statePath_ + "/" + kNetworkTableName );
    neighbors_ = Platform::create<Platform::TableWriter<NeighborRecord>>(
        tree, loop, statePath_ + "/" + kNeighborTableName );
}

bool TopoDbWriter::routerIs( const Router& router ) {
    return routers_->set( router.routerId(), router );
}

bool TopoDbWriter::routerDel( const Mpls::RouterId& id ) {
    return routers_->del( id );
}

void TopoDbWriter::routerDelAll() {
    routers_->delAll();
}

bool TopoDbWriter::networkIs( const Network& network ) {
    return networks_->set( network.networkId(), network );
}

bool TopoDbWriter::networkDel( const NetworkId& id ) {
    return networks_->del( id );
}

void TopoDbWriter::networkDelAll() {
    networks_->delAll();
}

bool TopoDbWriter::neighborIs( const Neighbor& neighbor ) {
    return neighbors_->set( neighbor.neighborKey(), neighbor );
}

bool TopoDbWriter::neighborDel( const NeighborKey& key ) {
    return neighbors_->del( key );
}

void TopoDbWriter::neighborDelAll() {
    neighbors_->delAll();
}

void TopoDbWriter::flush() {
    routers_->flush();
    networks_->flush();
    neighbors_->flush();
}

size_t TopoDbWriter::routerDelAllBut( const std::set<Mpls::RouterId>& keep ) {
    return routers_->delAllBut( keep );
}

size_t TopoDbWriter::networkDelAllBut( const std::set<NetworkId>& keep ) {
    return networks_->delAllBut( keep );
}

size_t TopoDbWriter::neighborDelAllBut( const std::set<NeighborKey>& keep ) {
    return neighbors_->delAllBut( keep );
}

}  // namespace Routing::Topology

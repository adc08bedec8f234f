#include "topo/AllTopoDbReader.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "platform/Table.h"
#include "records/IpStatus.h"
#include "root/DedupConstraint.h"
#include "topo/TopoDb.h"

namespace Cspf {

using Routing::Topology::AddrIndex;
using Routing::Topology::Neighbor;
using Routing::Topology::NeighborIndex;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkView;
using Routing::Topology::RouterIndex;
using Routing::Topology::RouterView;
using Routing::Topology::TopoDb;

namespace {

// A record changed under a reader: the call starts over.
struct TornRead {};

// Enough for any writer that is not broken; one that rewrites a record
// faster than it can be read is one.
constexpr int kMaxAttempts = 1000;

// Every line is written under the signature of the view operation whose
// rule it reports, which logs are searched by, whatever computes it now. The
// router's lines keep the name they have always been written under.
constexpr const char* kRouterCallName =
    "Cspf::AllTopoRouter Cspf::AllTopoDbView::doRouterCall(const Net::IpGenAddr&) const";
constexpr const char* kNetworkName =
    "Cspf::AllTopoNetwork Cspf::AllTopoDbView::network(const Cspf::AllTopoNetworkId&) "
    "const";
constexpr const char* kTwoWayCheckP2PName =
    "bool Cspf::AllTopoDbView::twoWayCheckP2P(const Cspf::AllTopoNeighborKey&) const";
constexpr const char* kTwoWayCheckLanName =
    "bool Cspf::AllTopoDbView::twoWayCheckLan(const Cspf::AllTopoNeighborKey&) const";
constexpr const char* kNeighborAllowedName =
    "bool Cspf::AllTopoDbView::neighborAllowed(const Routing::Topology::Neighbor&) const";

// Net::IpGenAddr::fromRecord, with the common case checked here: a family
// word of 0, 1 or 2 and zero in the bytes the family leaves unused make the
// record the address itself (its own record). Anything else goes to
// fromRecord, which names the fault.
Net::IpGenAddr addrFromRecord( const uint8_t* record, std::string_view attribute ) {
    uint32_t af;
    uint32_t mid;
    uint64_t tail;
    std::memcpy( &af, record, sizeof( af ) );
    std::memcpy( &mid, record + 8, sizeof( mid ) );
    std::memcpy( &tail, record + 12, sizeof( tail ) );
    uint32_t head;
    std::memcpy( &head, record + 4, sizeof( head ) );
    const bool sound = af == 2 || ( af == 1 && ( mid | tail ) == 0 ) ||
                       ( af == 0 && ( head | mid | tail ) == 0 );
    if ( !sound ) {
        return Net::IpGenAddr::fromRecord( record, attribute );
    }
    Net::IpGenAddr addr;
    static_assert( sizeof( addr ) == 20 && std::is_trivially_copyable_v<Net::IpGenAddr> );
    std::memcpy( static_cast<void*>( &addr ), record, sizeof( addr ) );
    return addr;
}

// Asks for the cache lines of a record that are read next, so that their
// misses overlap rather than follow one another: records lie in shared
// memory well beyond the caches.
void prefetchLines( const Platform::RecordRef& ref, size_t from, size_t to ) {
    constexpr size_t kLine = 64;
    to = std::min<size_t>( to, ref.len );
    for ( size_t at = from; at < to; at += kLine ) {
        __builtin_prefetch( ref.bytes + at );
    }
}

}  // namespace

AllTopoDbReader::AllTopoDbReader(
    Platform::Ptr<AllTopoDb> allTopoDb, Platform::Ptr<AllTopoDbStatus> allTopoDbStatus,
    Platform::Ptr<Ip::Status> ipStatus, Platform::Ptr<Ip6::Status> ip6Status,
    Platform::Ptr<DedupConstraintLifeTimeNotifier> constraint )
    : allTopoDb_( std::move( allTopoDb ) ),
      allTopoDbStatus_( std::move( allTopoDbStatus ) ),
      ipStatus_( std::move( ipStatus ) ),
      ip6Status_( std::move( ip6Status ) ),
      constraint_( std::move( constraint ) ) {}

AllTopoDbReader::~AllTopoDbReader() = default;

// ---- snapshot reads

template <typename F>
auto AllTopoDbReader::doStable( F&& call ) const {
    if ( depth_ > 0 ) {
        return call();  // the outer call checks our reads too
    }
    for ( int attempt = 1;; ++attempt ) {
        reads_.clear();
        ++depth_;
        try {
            auto result = call();
            --depth_;
            if ( doReadsUnchanged( 0 ) ) {
                reads_.clear();
                return result;
            }
        } catch ( const TornRead& ) {
            --depth_;
        } catch ( ... ) {
            --depth_;
            reads_.clear();
            throw;
        }
        if ( attempt == kMaxAttempts ) {
            reads_.clear();
            throw Platform::CorruptionError(
                "topology", "records kept changing while being read; gave up after " +
                                std::to_string( kMaxAttempts ) + " attempts" );
        }
    }
}

bool AllTopoDbReader::doReadsUnchanged( size_t from ) const {
    for ( size_t i = from; i < reads_.size(); ++i ) {
        if ( !reads_[i].table->unchanged( reads_[i].ref ) ) {
            return false;
        }
    }
    return true;
}

bool AllTopoDbReader::doFind( const Platform::TableReaderBase& table, bool found,
                              const Platform::RecordRef& ref ) const {
    if ( found ) {
        reads_.push_back( { &table, ref } );
    }
    return found;
}

void AllTopoDbReader::doBadRecord( const Platform::TableReaderBase& table,
                                   const Platform::RecordRef& ref,
                                   const std::exception& error ) const {
    if ( !doReported( table, ref, error ) ) {
        throw TornRead();
    }
    throw Platform::CorruptionError( table.statePath(), error.what() );
}

bool AllTopoDbReader::doReported( const Platform::TableReaderBase& table,
                                  const Platform::RecordRef& ref,
                                  const std::exception& error ) const {
    if ( !table.unchanged( ref ) ) {
        return false;
    }
    table.doCorruption( Platform::CorruptionError( table.statePath(), error.what() ) );
    return true;
}

bool AllTopoDbReader::doRouter( const TopoDb& db, const Mpls::RouterId& id,
                                RouterView* view, bool strict ) const {
    Platform::RecordRef ref;
    if ( !doFind( db.routerTable(), db.routerTable().find( id, ref ), ref ) ) {
        return false;
    }
    // The neighbor keys follow the header: scanned next.
    prefetchLines( ref, 64, 64 * 8 );
    try {
        *view = RouterView( ref.bytes, ref.len );
    } catch ( const Platform::Error& e ) {
        if ( strict ) {
            doBadRecord( db.routerTable(), ref, e );
        }
        // A router that cannot be read confirms no link.
        if ( !doReported( db.routerTable(), ref, e ) ) {
            throw TornRead();
        }
        *view = RouterView();
        return false;
    }
    return true;
}

bool AllTopoDbReader::doNetwork( const TopoDb& db, const Routing::Topology::NetworkId& id,
                                 NetworkView* view ) const {
    Platform::RecordRef ref;
    if ( !doFind( db.networkTable(), db.networkTable().find( id, ref ), ref ) ) {
        return false;
    }
    try {
        *view = NetworkView( ref.bytes, ref.len );
    } catch ( const Platform::Error& e ) {
        doBadRecord( db.networkTable(), ref, e );
    }
    return true;
}

bool AllTopoDbReader::doNeighbor( const TopoDb& db, const NeighborKey& key,
                                  Neighbor* neighbor ) const {
    Platform::RecordRef ref;
    if ( !doFind( db.neighborTable(), db.neighborTable().find( key, ref ), ref ) ) {
        return false;
    }
    try {
        *neighbor = Routing::Topology::decodeNeighbor( ref.bytes, ref.len );
    } catch ( const Platform::Error& e ) {
        // A bad link record hides that link only, as a missing one does.
        if ( !doReported( db.neighborTable(), ref, e ) ) {
            throw TornRead();
        }
        return false;
    }
    neighbor->neighborKeyIs( key );
    return true;
}

bool AllTopoDbReader::LinkAddrs::interfaceHas( const uint8_t* addr ) const {
    for ( uint32_t i = 0; i < interfaceCount; ++i ) {
        if ( std::memcmp( interfaces + i * kAddrSize, addr, kAddrSize ) == 0 ) {
            return true;
        }
    }
    return false;
}

bool AllTopoDbReader::LinkAddrs::crosses( const LinkAddrs& other ) const {
    for ( uint32_t i = 0; i < neighborCount; ++i ) {
        if ( other.interfaceHas( neighbors + i * kAddrSize ) ) {
            return true;
        }
    }
    return false;
}

bool AllTopoDbReader::doLinkAddrs( const TopoDb& db, const NeighborKey& key,
                                   LinkAddrs* addrs ) const {
    Platform::RecordRef ref;
    if ( !doFind( db.neighborTable(), db.neighborTable().find( key, ref ), ref ) ) {
        return false;
    }
    using Routing::Topology::NeighborValue;
    // The neighbor addresses and the metrics lie far from the interface
    // addresses: ask for them together.
    prefetchLines( ref, offsetof( NeighborValue, neighborAddrCount ),
                   offsetof( NeighborValue, neighborAddrs ) + 2 * LinkAddrs::kAddrSize );
    prefetchLines( ref, offsetof( NeighborValue, igpMetric ),
                   offsetof( NeighborValue, igpMetric ) + 1 );
    uint32_t interfaceCount = 0;
    uint32_t neighborCount = 0;
    if ( ref.len == sizeof( NeighborValue ) ) {
        std::memcpy( &interfaceCount,
                     ref.bytes + offsetof( NeighborValue, interfaceAddrCount ),
                     sizeof( interfaceCount ) );
        std::memcpy( &neighborCount,
                     ref.bytes + offsetof( NeighborValue, neighborAddrCount ),
                     sizeof( neighborCount ) );
    }
    if ( ref.len != sizeof( NeighborValue ) ||
         interfaceCount > Routing::Topology::kMaxNeighborAddrs ||
         neighborCount > Routing::Topology::kMaxNeighborAddrs ) {
        // A bad link record hides that link only, as a missing one does.
        if ( !doReported( db.neighborTable(), ref,
                          Platform::DeserializationError(
                              "neighbor", "length or address count out of range" ) ) ) {
            throw TornRead();
        }
        return false;
    }
    addrs->interfaces = ref.bytes + offsetof( NeighborValue, interfaceAddrs );
    addrs->interfaceCount = interfaceCount;
    addrs->neighbors = ref.bytes + offsetof( NeighborValue, neighborAddrs );
    addrs->neighborCount = neighborCount;
    return true;
}

const TopoDb* AllTopoDbReader::doTopoDb( TopoId topoId ) const {
    const auto* db = allTopoDb_->topoDbColl().find( topoId );
    return db ? db->get() : nullptr;
}

const RouterIdMap* AllTopoDbReader::doRouterIdMap( TopoId topoId ) const {
    const auto* map = allTopoDbStatus_->routerIdMapColl().find( topoId );
    return map ? map->get() : nullptr;
}

// ---- routers

AllTopoRouter AllTopoDbReader::router( const Net::IpGenAddr& teRouterId ) const {
    RouterLinks found;
    doStable( [&] {
        doRouterCall( teRouterId, found, false );
        return true;
    } );
    return allTopoRouter( found.teRouterId, found.links, found.teps );
}

AllTopoRouter AllTopoDbReader::allTopoRouter( const Net::IpGenAddr& teRouterId,
                                              std::span<const RouterLink> links,
                                              std::span<const Net::IpGenAddr> teps ) {
    AllTopoRouter result( teRouterId );
    for ( const RouterLink& link : links ) {
        result.neighborIs( link.key );
    }
    for ( const Net::IpGenAddr& tep : teps ) {
        result.tepIs( tep );
    }
    return result;
}

void AllTopoDbReader::routerLinks( const Net::IpGenAddr& teRouterId,
                                   RouterLinks& out ) const {
    doStable( [&] {
        doRouterCall( teRouterId, out, true );
        return true;
    } );
}

void AllTopoDbReader::doRouterCall( const Net::IpGenAddr& teRouterId, RouterLinks& out,
                                    bool metrics ) const {
    // Sets, in the order their members came: a router record may list a key
    // twice, and several links may carry one address.
    out.teRouterId = Net::IpGenAddr();
    out.links.clear();
    out.teps.clear();
    out.addrs.clear();
    auto tepIs = [&]( const Net::IpGenAddr& tep ) {
        for ( const Net::IpGenAddr& known : out.teps ) {
            // Equal addresses are equal bytes.
            if ( std::memcmp( &known, &tep, sizeof( tep ) ) == 0 ) {
                return;
            }
        }
        out.teps.push_back( tep );
    };
    bool found = false;
    const Net::IpGenAddr& ourTeRouterId = allTopoDbStatus_->ourTeRouterId();
    const bool ourselves = teRouterId == ourTeRouterId;
    const bool constrained = ourselves && this->constrained();
    for ( const auto& [level, topoDb] : allTopoDb_->topoDbColl() ) {
        const RouterIdMap* routerIdMap = doRouterIdMap( level );
        if ( !routerIdMap ) {
            continue;
        }
        const Mpls::RouterId* igp = routerIdMap->igpRouterIdColl().find( teRouterId );
        if ( !igp ) {
            continue;
        }
        found = true;
        const Mpls::RouterId igpRouterId = *igp;
        RouterView routerView;
        if ( !doRouter( *topoDb, igpRouterId, &routerView, true ) ) {
            // The id map follows the database as taken in; the record may
            // have gone from the table since, which the next change tells.
            CSPF_ASSERT( topoDb->routerHas( igpRouterId ) );
            continue;
        }
        const size_t routerRead = reads_.size() - 1;
        for ( uint32_t i = 0; i < routerView.neighborCount(); ++i ) {
            NeighborKey k;
            try {
                k = routerView.neighborKey( NeighborIndex( i ) );
            } catch ( const Platform::Error& e ) {
                doBadRecord( topoDb->routerTable(), reads_[routerRead].ref, e );
            }
            // Looked up first, though needed last: the id map's misses then
            // overlap those of the link record.
            const Net::IpGenAddr* far =
                k.isRouter() ? routerIdMap->teRouterIdColl().find( k.neighborRouterId() )
                             : nullptr;
            LinkAddrs link;
            if ( !doLinkAddrs( *topoDb, k, &link ) ) {
                const auto topoId = level;  // clang 14 cannot capture a binding
                TRACE_FOR( 7, kRouterCallName,
                           "Neighbor object missing, skipping NeighborKey "
                               << k << " in topoId " << topoId );
                continue;
            }
            const size_t linkRead = reads_.size() - 1;
            if ( constrained ) {
                Neighbor record;
                if ( !doNeighbor( *topoDb, k, &record ) || !neighborAllowed( record ) ) {
                    continue;
                }
            }
            AllTopoNeighborKey key( level, k, teRouterId );
            if ( far ) {
                key.teNeighborIdIs( *far );
            }
            // This router lists the key: the checks need only the far side.
            if ( k.isNetwork() ? !doTwoWayCheckLan( key, topoDb.get(), true )
                               : !doTwoWayCheckP2P( key, topoDb.get(), &link ) ) {
                continue;
            }
            const uint32_t intfFirst = static_cast<uint32_t>( out.addrs.size() );
            for ( uint32_t a = 0; a < link.interfaceCount; ++a ) {
                try {
                    const Net::IpGenAddr addr = addrFromRecord(
                        link.interfaces + a * LinkAddrs::kAddrSize, "interfaceAddr" );
                    tepIs( addr );
                    out.addrs.push_back( addr );
                } catch ( const Platform::Error& e ) {
                    if ( !doReported( topoDb->neighborTable(), reads_[linkRead].ref,
                                      e ) ) {
                        throw TornRead();
                    }
                }
            }
            if ( routerView.overload() && !ourselves ) {
                TRACE_FOR( 7, kRouterCallName,
                           "Overload bit set for router "
                               << teRouterId << ", so ignoring neighbor " << k );
                continue;
            }
            bool listed = false;
            for ( const RouterLink& known : out.links ) {
                if ( known.key == key ) {
                    listed = true;
                    break;
                }
            }
            if ( listed ) {
                continue;
            }
            RouterLink& added = out.links.emplace_back();
            added.key = key;
            added.intfFirst = intfFirst;
            added.intfCount = static_cast<uint32_t>( out.addrs.size() ) - intfFirst;
            if ( !metrics ) {
                continue;
            }
            added.metric = doLinkMetric( topoDb->neighborTable(), reads_[linkRead].ref );
            if ( link.neighborCount ) {
                try {
                    added.nbrAddr =
                        Net::IpGenAddr::fromRecord( link.neighbors, "neighborAddr" );
                } catch ( const Platform::Error& e ) {
                    if ( !doReported( topoDb->neighborTable(), reads_[linkRead].ref,
                                      e ) ) {
                        throw TornRead();
                    }
                    added.nbrAddrBad = true;
                }
            }
        }
    }
    if ( !found ) {
        out.links.clear();
        out.teps.clear();
        out.addrs.clear();
        return;
    }
    tepIs( teRouterId );
    out.teRouterId = teRouterId;
}

AllTopoDbReader::LinkMetric AllTopoDbReader::doLinkMetric(
    const Platform::TableReaderBase& table, const Platform::RecordRef& ref ) const {
    using Routing::Topology::NeighborValue;
    LinkMetric metric;
    const uint8_t present = ref.len == sizeof( NeighborValue )
                                ? ref.bytes[offsetof( NeighborValue, teMetricPresent )]
                                : 2;
    if ( present > 1 ) {
        if ( !doReported( table, ref,
                          Platform::DeserializationError(
                              "neighbor", "bad length or TE-metric flag" ) ) ) {
            throw TornRead();
        }
        return metric;
    }
    metric.teMetricPresent = present == 1;
    std::memcpy( &metric.teMetric, ref.bytes + offsetof( NeighborValue, teMetric ),
                 sizeof( metric.teMetric ) );
    std::memcpy( &metric.igpMetric, ref.bytes + offsetof( NeighborValue, igpMetric ),
                 sizeof( metric.igpMetric ) );
    return metric;
}

// ---- networks

AllTopoNetwork AllTopoDbReader::network(
    const AllTopoNetworkId& allTopoNetworkId ) const {
    return doStable( [&] { return doNetworkCall( allTopoNetworkId ); } );
}

AllTopoNetwork AllTopoDbReader::doNetworkCall(
    const AllTopoNetworkId& allTopoNetworkId ) const {
    const TopoId level = allTopoNetworkId.topoId();
    const TopoDb* topoDb = doTopoDb( level );
    NetworkView lan;
    if ( !topoDb || !doNetwork( *topoDb, allTopoNetworkId.networkId(), &lan ) ) {
        return AllTopoNetwork();
    }
    const size_t lanRead = reads_.size() - 1;
    const Platform::Ptr<RouterIdMap> routerIdMap = allTopoDbStatus_->routerIdMap( level );
    AllTopoNetwork result( allTopoNetworkId );
    for ( uint32_t i = 0; i < lan.routerCount(); ++i ) {
        Mpls::RouterId r;
        try {
            r = lan.router( RouterIndex( i ) );
        } catch ( const Platform::Error& e ) {
            doBadRecord( topoDb->networkTable(), reads_[lanRead].ref, e );
        }
        const Net::IpGenAddr* te =
            routerIdMap ? routerIdMap->teRouterIdColl().find( r ) : nullptr;
        if ( !te ) {
            TRACE_FOR(
                7, kNetworkName,
                "No TE router id for " << r << " in network " << allTopoNetworkId );
            continue;
        }
        const Net::IpGenAddr teRouterId = *te;
        const NeighborKey k = NeighborKey::toNetwork( r, allTopoNetworkId.networkId() );
        Platform::RecordRef ref;
        if ( !doFind( topoDb->neighborTable(), topoDb->neighborTable().find( k, ref ),
                      ref ) ) {
            TRACE_FOR( 7, kNetworkName,
                       "No neighbor object found for "
                           << k << " in network " << allTopoNetworkId << " from topoId "
                           << level << ", skipping this router" );
            continue;
        }
        if ( twoWayCheckPassed( AllTopoNeighborKey( level, k, teRouterId ) ) ) {
            result.routerIs( teRouterId );
        }
    }
    return result;
}

// ---- links

Neighbor AllTopoDbReader::neighbor( const AllTopoNeighborKey& key ) const {
    return doStable( [&] {
        Neighbor link( key.neighborKey() );
        const TopoDb* topoDb = doTopoDb( key.topoId() );
        if ( !topoDb || !doNeighbor( *topoDb, key.neighborKey(), &link ) ) {
            return Neighbor( key.neighborKey() );
        }
        return link;
    } );
}

AllTopoDbReader::LinkMetric AllTopoDbReader::neighborMetric(
    const AllTopoNeighborKey& key ) const {
    return doStable( [&] {
        const TopoDb* topoDb = doTopoDb( key.topoId() );
        Platform::RecordRef ref;
        if ( !topoDb ||
             !doFind( topoDb->neighborTable(),
                      topoDb->neighborTable().find( key.neighborKey(), ref ), ref ) ) {
            return LinkMetric();
        }
        return doLinkMetric( topoDb->neighborTable(), ref );
    } );
}

AllTopoDbReader::LinkFirstAddr AllTopoDbReader::neighborFirstAddr(
    const AllTopoNeighborKey& key, AddrList list ) const {
    return doStable( [&] {
        LinkFirstAddr first;
        const TopoDb* topoDb = doTopoDb( key.topoId() );
        LinkAddrs link;
        if ( !topoDb || !doLinkAddrs( *topoDb, key.neighborKey(), &link ) ) {
            return first;
        }
        const bool interfaces = list == AddrList::interfaceAddrs;
        first.count = interfaces ? link.interfaceCount : link.neighborCount;
        if ( first.count ) {
            try {
                first.addr =
                    interfaces
                        ? Net::IpGenAddr::fromRecord( link.interfaces, "interfaceAddr" )
                        : Net::IpGenAddr::fromRecord( link.neighbors, "neighborAddr" );
            } catch ( const Platform::Error& e ) {
                // A bad link record hides that link only, as a missing one does.
                if ( !doReported( topoDb->neighborTable(), reads_.back().ref, e ) ) {
                    throw TornRead();
                }
                return LinkFirstAddr();
            }
        }
        first.found = true;
        return first;
    } );
}

bool AllTopoDbReader::routerListsNeighbor( TopoId topoId,
                                           const NeighborKey& neighborKey ) const {
    return doStable( [&] {
        const TopoDb* topoDb = doTopoDb( topoId );
        RouterView router;
        return topoDb && doRouter( *topoDb, neighborKey.routerId(), &router, false ) &&
               routerHasNeighbor( router, neighborKey );
    } );
}

bool AllTopoDbReader::twoWayCheckPassed( const AllTopoNeighborKey& key ) const {
    return key.neighborType() == Routing::Topology::neighborTypeNetwork()
               ? twoWayCheckLan( key )
               : twoWayCheckP2P( key );
}

bool AllTopoDbReader::twoWayCheckP2P( const AllTopoNeighborKey& key ) const {
    return doStable(
        [&] { return doTwoWayCheckP2P( key, doTopoDb( key.topoId() ), nullptr ); } );
}

bool AllTopoDbReader::doTwoWayCheckP2P( const AllTopoNeighborKey& key,
                                        const TopoDb* topoDb,
                                        const LinkAddrs* listed ) const {
    const NeighborKey& neighborKey = key.neighborKey();
    CSPF_ASSERT( neighborKey.neighborType() == Routing::Topology::neighborTypeRouter() );
    LinkAddrs forward;
    if ( listed ) {
        forward = *listed;
    } else {
        RouterView a;
        if ( topoDb ) {
            doLinkAddrs( *topoDb, neighborKey, &forward );
            doRouter( *topoDb, neighborKey.routerId(), &a, false );
        }
        if ( !topoDb || !routerHasNeighbor( a, neighborKey ) ) {
            TRACE_FOR( 8, kTwoWayCheckP2PName,
                       "Neighbor's router doesn't have neighborKey "
                           << key << ", returning false" );
            return false;
        }
    }
    const Mpls::RouterId& aId = neighborKey.routerId();
    RouterView b;
    bool peerFound = false;
    if ( doRouter( *topoDb, neighborKey.neighborRouterId(), &b, false ) ) {
        const size_t bRead = reads_.size() - 1;
        // The keys follow one another in the record (routerRecordSize).
        const uint8_t* keys =
            b.neighborCount() ? b.neighborKeyRecord( NeighborIndex( 0 ) ) : nullptr;
        for ( uint32_t i = 0; i < b.neighborCount(); ++i ) {
            // Most of B's keys lead elsewhere: look at the raw far end first.
            const uint8_t* raw = keys + size_t{ i } * sizeof( NeighborKey );
            uint32_t type;
            std::memcpy( &type, raw + NeighborKey::kTypeOffset, sizeof( type ) );
            if ( type != Routing::Topology::neighborTypeRouter() ||
                 std::memcmp( raw + NeighborKey::kFarRouterIdOffset, &aId,
                              sizeof( aId ) ) != 0 ) {
                continue;
            }
            NeighborKey candidate;
            try {
                candidate = NeighborKey::fromRecord( raw, "neighborKey" );
            } catch ( const Platform::Error& e ) {
                if ( !doReported( topoDb->routerTable(), reads_[bRead].ref, e ) ) {
                    throw TornRead();
                }
                continue;
            }
            LinkAddrs reverse;
            if ( !doLinkAddrs( *topoDb, candidate, &reverse ) ) {
                continue;
            }
            peerFound = true;
            if ( forward.crosses( reverse ) && reverse.crosses( forward ) ) {
                return true;
            }
        }
    }
    if ( !peerFound ) {
        TRACE_FOR( 8, kTwoWayCheckP2PName,
                   "Peer neighbor for neighborKey " << key << " not found, "
                                                    << "returning false" );
    } else {
        TRACE_FOR( 8, kTwoWayCheckP2PName,
                   "Address mismatch for neighbor with neighborKey "
                       << key << ", returning false" );
    }
    return false;
}

bool AllTopoDbReader::twoWayCheckLan( const AllTopoNeighborKey& key ) const {
    return doStable(
        [&] { return doTwoWayCheckLan( key, doTopoDb( key.topoId() ), false ); } );
}

bool AllTopoDbReader::doTwoWayCheckLan( const AllTopoNeighborKey& key,
                                        const TopoDb* topoDb, bool listed ) const {
    const NeighborKey& neighborKey = key.neighborKey();
    CSPF_ASSERT( neighborKey.neighborType() == Routing::Topology::neighborTypeNetwork() );
    RouterView a;
    if ( topoDb && !listed ) {
        doRouter( *topoDb, neighborKey.routerId(), &a, false );
    }
    if ( !topoDb || ( !listed && !routerHasNeighbor( a, neighborKey ) ) ) {
        TRACE_FOR(
            8, kTwoWayCheckLanName,
            "Neighbor's router doesn't have neighborKey " << key << ", returning false" );
        return false;
    }
    NetworkView lan;
    if ( doNetwork( *topoDb, neighborKey.networkId(), &lan ) ) {
        const size_t lanRead = reads_.size() - 1;
        for ( uint32_t i = 0; i < lan.routerCount(); ++i ) {
            Mpls::RouterId member;
            try {
                member = lan.router( RouterIndex( i ) );
            } catch ( const Platform::Error& e ) {
                doBadRecord( topoDb->networkTable(), reads_[lanRead].ref, e );
            }
            if ( member == neighborKey.routerId() ) {
                return true;
            }
        }
    }
    TRACE_FOR( 8, kTwoWayCheckLanName,
               "Router for neighbor with neighborKey " << key << " not found in"
                                                       << " network, returning false" );
    return false;
}

// ---- the constraint

bool AllTopoDbReader::constrained() const {
    return constraint_ && !( constraint_->pathConstraint() == PathConstraint() );
}

bool AllTopoDbReader::neighborAllowed( const Neighbor& neighbor ) const {
    const auto& addrs = neighbor.interfaceAddrs();
    return neighborAllowed(
        std::span<const Net::IpGenAddr>( addrs.data(), addrs.size() ) );
}

bool AllTopoDbReader::neighborAllowed(
    std::span<const Net::IpGenAddr> interfaceAddrs ) const {
    const PathConstraint constraint =
        constraint_ ? constraint_->pathConstraint() : PathConstraint();
    if ( constraint == PathConstraint() ) {
        return true;
    }
    TRACE_FOR( 6, kNeighborAllowedName,
               " Applying constraint : " << constraint.excludeInterface );
    return ip6Status_
               ? doNeighborAllowedV6( interfaceAddrs, constraint.excludeInterface )
               : doNeighborAllowedV4( interfaceAddrs, constraint.excludeInterface );
}

bool AllTopoDbReader::doNeighborAllowedV4( std::span<const Net::IpGenAddr> interfaceAddrs,
                                           const Net::IntfId& intfId ) const {
    CSPF_ASSERT( !ip6Status() );
    const Platform::Ptr<Ip::IntfStatus> intf =
        ipStatus_ ? ipStatus_->intfStatus( intfId ) : nullptr;
    if ( !intf ) {
        TRACE_FOR( 6, kNeighborAllowedName,
                   "Interface:" << intfId << " is non exsistent" );
        return true;
    }
    const Net::IpGenAddr primary = intf->activeAddr();
    for ( const Net::IpGenAddr& addr : interfaceAddrs ) {
        if ( !primary.isAddrZero() && addr == primary ) {
            TRACE_FOR( 6, kNeighborAllowedName,
                       "Matched primary interface address: " << addr );
            return false;
        }
        if ( intf->secondaryAddrHas( addr ) ) {
            TRACE_FOR( 6, kNeighborAllowedName,
                       "Matched secondary interface address: " << addr );
            return false;
        }
    }
    return true;
}

bool AllTopoDbReader::doNeighborAllowedV6( std::span<const Net::IpGenAddr> interfaceAddrs,
                                           const Net::IntfId& intfId ) const {
    CSPF_ASSERT( !ipStatus() );
    const Platform::Ptr<Ip6::IntfStatus> intf = ip6Status_->intf( intfId );
    if ( !intf ) {
        TRACE_FOR( 6, kNeighborAllowedName,
                   "Interface:" << intfId << " is non exsistent" );
        return true;
    }
    for ( const Net::IpGenAddr& addr : interfaceAddrs ) {
        if ( intf->addrHas( addr ) ) {
            TRACE_FOR( 6, kNeighborAllowedName,
                       "Matched ipv6 interface address: " << addr );
            return false;
        }
    }
    return true;
}

}  // namespace Cspf

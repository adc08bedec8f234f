#include "topo/TopoDbSm.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"

namespace Cspf {

using Mpls::RouterId;
using Net::IpGenAddr;
using Routing::Topology::Neighbor;
using Routing::Topology::NeighborIndex;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkId;
using Routing::Topology::RouterView;

namespace {

template <typename Coll>
auto sortedKeys( const Coll& coll ) {
    auto keys = coll.keys();
    std::sort( keys.begin(), keys.end() );
    return keys;
}

}  // namespace

// ---- The interface-address maps ----

void addIntfIpToRouterId( IntfIpToRouterIdWriter* table, const IpGenAddr& intfIp,
                          const IpGenAddr& routerId ) {
    if ( !table ) {
        return;
    }
    // The writer compares before it writes: an equal record stays as it is
    // and its readers hear nothing.
    if ( table->intfIpToRouterIdIs( intfIp, routerId ) ) {
        TRACE4( routerId << ": adding intfIpToRouterId entry for ip:" << intfIp );
    }
}

void deleteIntfIpToRouterId( IntfIpToRouterIdWriter* table, const IpGenAddr& intfIp ) {
    if ( table && table->intfIpToRouterIdDel( intfIp ) ) {
        TRACE4( table->statePath()
                << ": deleting intfIpToRouterId entry for ip:" << intfIp );
    }
}

void addNeighborKeyToIntfIp( AllTopoDbStatus& status, const AllTopoNeighborKey& key,
                             const IpGenAddr& intfIp ) {
    Platform::Ptr<IntfIpToNeighbor> entry =
        status.intfIpToNeighborTableIs()->intfIpToNeighborIs( intfIp );
    if ( !entry->neighborHas( key ) ) {
        entry->neighborIs( key, true );
        TRACE4( key << ": adding intfIpToNeighborKey entry for ip:" << intfIp );
    }
    addIntfIpToRouterId( status.intfIpToRouterIdTable().get(), intfIp,
                         key.teNeighborOf() );
}

void deleteNeighborKeyFromIntfIp( AllTopoDbStatus& status, const AllTopoNeighborKey& key,
                                  const IpGenAddr& intfIp ) {
    const Platform::Ptr<IntfIpToNeighborTable>& table = status.intfIpToNeighborTable();
    Platform::Ptr<IntfIpToNeighbor> entry =
        table ? table->intfIpToNeighbor( intfIp ) : nullptr;
    if ( !entry || !entry->neighborHas( key ) ) {
        TRACE5( key << " is already deleted from intfIpToNeighbor entry for ip:"
                    << intfIp );
        return;
    }
    entry->neighborDel( key );
    TRACE4( key << " deleted from intfIpToNeighbor entry for ip:" << intfIp );
    IntfIpToRouterIdWriter* published = status.intfIpToRouterIdTable().get();
    if ( !entry->neighbors() ) {
        TRACE4( "No neighbor keys associated with ip:" << intfIp );
        table->intfIpToNeighborDel( intfIp );
        deleteIntfIpToRouterId( published, intfIp );
        return;
    }
    if ( !published || !published->intfIpToRouterIdHas( intfIp ) ) {
        return;
    }
    try {
        if ( !( published->intfIpToRouterId( intfIp ) == key.teNeighborOf() ) ) {
            return;
        }
    } catch ( const Platform::Error& ) {
        // Our own record reads badly: rewriting it is the repair.
    }
    // Another link of the same router keeps the record true as it stands;
    // otherwise the smallest remaining link decides, so that the outcome does
    // not depend on hash order.
    const AllTopoNeighborKey* successor = nullptr;
    for ( const auto& [remaining, present] : entry->neighborColl() ) {
        if ( remaining.teNeighborOf() == key.teNeighborOf() ) {
            return;
        }
        if ( !successor || remaining < *successor ) {
            successor = &remaining;
        }
    }
    TRACE4( "Modifying intfIpToNeighbor for ip:" << intfIp );
    addIntfIpToRouterId( published, intfIp, successor->teNeighborOf() );
}

// ---- TopoDbSm ----

TopoDbSm::TopoDbSm( TopoId topoId, Platform::Ptr<Routing::Topology::TopoDb> topoDb,
                    Platform::Ptr<AllTopoDbStatus> allTopoDbStatus )
    : topoId_( topoId ),
      topoDb_( std::move( topoDb ) ),
      allTopoDbStatus_( std::move( allTopoDbStatus ) ) {
    CSPF_ASSERT( topoDb_ && allTopoDbStatus_ );
    watch( topoDb_.get(), Routing::Topology::TopoDb::routerTag, &TopoDbSm::handleRouter );
    watch( topoDb_.get(), Routing::Topology::TopoDb::neighborTag,
           &TopoDbSm::handleNeighbor );
    watch( topoDb_.get(), Routing::Topology::TopoDb::networkTag,
           &TopoDbSm::handleNetwork );
    listed_.reserve( Routing::Topology::kMaxNeighbors );
}

TopoDbSm::~TopoDbSm() {
    handleDestruction();
}

void TopoDbSm::handleInitialized() {
    routerIdMap_ = allTopoDbStatus_->routerIdMapIs( topoId_ );
    // A map left by a predecessor may hold duplicates already; the first list
    // in TE router id order wins, as a scan of the lists would find it.
    listedUnder_.clear();
    for ( const auto& [te, duplicates] : routerIdMap_->duplicateRoutersColl() ) {
        for ( const auto& [igp, present] : duplicates->routerColl() ) {
            listedUnder_.try_emplace( igp, te );
        }
    }
    watch( routerIdMap_.get(), RouterIdMap::igpRouterIdTag,
           &TopoDbSm::handleTeRouterIdChange );
    TRACE1( "TopoDb:" << topoId_ << " replaying " << topoDb_->routers().size()
                      << " routers and " << topoDb_->neighbors().size() << " links" );
    // Routers first, so that each link finds its router's ownership settled.
    // The keys are copied: a handler may make the database take changes in.
    std::vector<RouterId> routers;
    routers.reserve( topoDb_->routers().size() );
    for ( const auto& [id, version] : topoDb_->routers() ) {
        routers.push_back( id );
    }
    for ( const RouterId& id : routers ) {
        handleRouter( id );
    }
    std::vector<NeighborKey> neighbors;
    neighbors.reserve( topoDb_->neighbors().size() );
    for ( const auto& [key, version] : topoDb_->neighbors() ) {
        neighbors.push_back( key );
    }
    for ( const NeighborKey& key : neighbors ) {
        handleNeighbor( key );
    }
}

void TopoDbSm::handleRouter( const RouterId& key ) {
    // A handler downstream may let go of this reactor: it lives until the end.
    const Platform::Ptr<TopoDbSm> self( this );
    doHandleRouter( key );
    while ( pendingRouterToHandle_ && !destroyed_ ) {
        const RouterId pending = *pendingRouterToHandle_;
        const IpGenAddr freed = pendingTeRouterId_;
        pendingRouterToHandle_.reset();
        TRACE3( "processing pendingRouterToHandle " << pending );
        doHandleRouter( pending );
        // The resurrected router may advertise another TE router id by now:
        // the next router in line then takes the freed one.
        if ( !pendingRouterToHandle_ && !routerIdMap_->igpRouterIdHas( freed ) &&
             routerIdMap_->duplicateRoutersHas( freed ) ) {
            handleTeRouterIdChange( freed );
        }
    }
}

void TopoDbSm::doHandleRouter( const RouterId& key ) {
    CSPF_ASSERT( allTopoDbStatus()->routerIdMapHas( topoId() ) );
    allTopoDbStatus_->topoChangeIs( TopoChange::router( topoId_, key ) );
    const bool present = topoDb_->routerHas( key );
    TRACE3( "for TopoDb:" << topoId_ << "), router:" << key
                          << ( present ? " is set" : " is deleted" ) );
    IpGenAddr newTe;
    if ( present ) {
        // The list is taken at once: handling notifies, and the buffer is shared.
        const RouterView view = topoDb_->routerView( key, routerBuffer_ );
        newTe = view.teRouterId();
        doReadListedNeighbors( key, view );
    }
    // A router without a TE router id takes no part in traffic engineering:
    // it is handled as one that is gone.
    if ( !present || newTe.isAddrZero() ) {
        doHandleRouterGone( key );
        return;
    }
    RouterIdMap& routerIdMap = *routerIdMap_;
    if ( routerIdMap.teRouterIdHas( key ) ) {
        const IpGenAddr old = routerIdMap.teRouterId( key );
        if ( old == newTe ) {
            doTakeTeRouterId( key, newTe );
            return;
        }
        TRACE2( "for TopoDb:" << topoId_ << ", router:" << key
                              << ". teRouterId changed from " << old << " to " << newTe
                              << ". Deleting the mapping" );
        routerIdMap.teRouterIdDel( key );
        routerIdMap.igpRouterIdDel( old );
        doHandleRouterDeletion( key, old );
        doUpdateAllTopoDbStatus();
    }
    // A new router, or one that was set aside: it leaves any duplicate list,
    // and goes back on one when the TE router id is held by another router.
    const IpGenAddr listedUnder = doFindDuplicateRouter( key );
    if ( listedUnder.isSet() ) {
        doDelDuplicateRouter( key, listedUnder );
    }
    if ( routerIdMap.igpRouterIdHas( newTe ) ) {
        doAddDuplicateRouter( key, newTe );
        return;
    }
    doTakeTeRouterId( key, newTe );
}

void TopoDbSm::doReadListedNeighbors( const RouterId& key, const RouterView& view ) {
    listed_.clear();
    for ( uint32_t i = 0; i < view.neighborCount(); ++i ) {
        NeighborKey neighborKey;
        try {
            neighborKey = view.neighborKey( NeighborIndex( i ) );
        } catch ( const Platform::Error& e ) {
            TRACE0( "for TopoDb:" << topoId_ << ", router:" << key
                                  << " skipping a bad neighbor key: " << e.what() );
            continue;
        }
        // A router speaks for its own links only.
        if ( !( neighborKey.routerId() == key ) ) {
            TRACE0( "for TopoDb:" << topoId_ << ", router:" << key
                                  << " skipping neighbor key of another router: "
                                  << neighborKey );
            continue;
        }
        listed_.push_back( neighborKey );
    }
    std::sort( listed_.begin(), listed_.end() );
    listed_.erase( std::unique( listed_.begin(), listed_.end() ), listed_.end() );
}

void TopoDbSm::doHandleRouterGone( const RouterId& key ) {
    RouterIdMap& routerIdMap = *routerIdMap_;
    if ( routerIdMap.teRouterIdHas( key ) ) {
        const IpGenAddr te = routerIdMap.teRouterId( key );
        routerIdMap.teRouterIdDel( key );
        routerIdMap.igpRouterIdDel( te );
        doHandleRouterDeletion( key, te );
        doUpdateAllTopoDbStatus();
        return;
    }
    const IpGenAddr listedUnder = doFindDuplicateRouter( key );
    if ( listedUnder.isSet() ) {
        doDelDuplicateRouter( key, listedUnder );
    }
}

void TopoDbSm::doTakeTeRouterId( const RouterId& key, const IpGenAddr& teRouterId ) {
    RouterIdMap* routerIdMap = routerIdMap_.get();
    CSPF_ASSERT( !routerIdMap->igpRouterIdHas( teRouterId ) ||
                 key == routerIdMap->igpRouterId( teRouterId ) );
    routerIdMap->teRouterIdIs( key, teRouterId );
    routerIdMap->igpRouterIdIs( teRouterId, key );

    // Reconcile the links the router lists now with those it listed before;
    // both sides work from recorded addresses (see the invariant in the header).
    const Platform::Ptr<RouterToNeighbor> entry = routerToNeighborIs( key );
    unlisted_.clear();
    for ( const auto& [neighborKey, present] : entry->neighborColl() ) {
        if ( !std::binary_search( listed_.begin(), listed_.end(), neighborKey ) ) {
            unlisted_.push_back( neighborKey );
        }
    }
    for ( const NeighborKey& neighborKey : unlisted_ ) {
        doWithdrawNeighbor( neighborKey, teRouterId );
        entry->neighborDel( neighborKey );
    }
    for ( const NeighborKey& neighborKey : listed_ ) {
        if ( !entry->neighborHas( neighborKey ) ) {
            entry->neighborIs( neighborKey, true );
            doPublishNeighbor( neighborKey, teRouterId );
        }
    }
    doUpdateAllTopoDbStatus();
}

void TopoDbSm::doHandleRouterDeletion( const RouterId& igpRouterId,
                                       const IpGenAddr& teRouterId ) {
    CSPF_ASSERT( routerToNeighborHas( igpRouterId ) );
    const Platform::Ptr<RouterToNeighbor> entry = routerToNeighbor( igpRouterId );
    for ( const auto& [neighborKey, present] : entry->neighborColl() ) {
        doWithdrawNeighbor( neighborKey, teRouterId );
    }
    entry->neighborDelAll();
    routerToNeighborDel( igpRouterId );
}

void TopoDbSm::doPublishNeighbor( const NeighborKey& key, const IpGenAddr& teRouterId ) {
    const Platform::Ptr<NeighborToIntfIp> addrs = neighborToIntfIp( key );
    if ( !addrs ) {
        // Its link record is not in yet: handleNeighbor publishes it then.
        TRACE5( "for TopoDb:" << topoId_ << ", no link record yet for " << key );
        return;
    }
    const AllTopoNeighborKey link( topoId_, key, teRouterId );
    for ( const auto& [addr, present] : addrs->intfIpColl() ) {
        addNeighborKeyToIntfIp( *allTopoDbStatus_, link, addr );
    }
}

void TopoDbSm::doWithdrawNeighbor( const NeighborKey& key, const IpGenAddr& teRouterId ) {
    const Platform::Ptr<NeighborToIntfIp> addrs = neighborToIntfIp( key );
    if ( !addrs ) {
        return;
    }
    const AllTopoNeighborKey link( topoId_, key, teRouterId );
    for ( const auto& [addr, present] : addrs->intfIpColl() ) {
        deleteNeighborKeyFromIntfIp( *allTopoDbStatus_, link, addr );
    }
}

// ---- Duplicate TE router ids: the first claimant wins ----

void TopoDbSm::doAddDuplicateRouter( const RouterId& igpRouterId,
                                     const IpGenAddr& teRouterId ) {
    TRACE2( "adding IGP router id " << igpRouterId );
    CSPF_ASSERT( topoDb()->routerHas( igpRouterId ) );
    const RouterId holder = routerIdMap_->igpRouterId( teRouterId );
    const std::string te = teRouterId.toString();
    const std::string igp = igpRouterId.toString();
    const std::string other = holder.toString();
    Syslog::send( CSPF_DUPLICATE_TE_ROUTER_ID,
                  "TE router ID %s for IS-IS router %s conflicts with IS-IS router %s, "
                  "IS-IS router %s ignored",
                  te.c_str(), igp.c_str(), other.c_str(), igp.c_str() );
    routerIdMap_->duplicateRoutersIs( teRouterId )->routerIs( igpRouterId, true );
    listedUnder_[igpRouterId] = teRouterId;
}

void TopoDbSm::doDelDuplicateRouter( const RouterId& igpRouterId,
                                     const IpGenAddr& teRouterId ) {
    TRACE2( "deleting IGP router id " << igpRouterId << " with TE router id "
                                      << teRouterId );
    CSPF_ASSERT(
        routerIdMap()->duplicateRouters( teRouterId )->routerHas( igpRouterId ) );
    const Platform::Ptr<DuplicateRouters> duplicates =
        routerIdMap_->duplicateRouters( teRouterId );
    duplicates->routerDel( igpRouterId );
    listedUnder_.erase( igpRouterId );
    if ( !duplicates->routers() ) {
        routerIdMap_->duplicateRoutersDel( teRouterId );
    }
}

IpGenAddr TopoDbSm::doFindDuplicateRouter( const RouterId& igpRouterId ) const {
    // Every router handled asks: a scan of all the lists would make a replay
    // with many duplicates quadratic.
    const auto it = listedUnder_.find( igpRouterId );
    if ( it != listedUnder_.end() ) {
        TRACE4( "found TE router id " << it->second << " for IGP router id "
                                      << igpRouterId );
        return it->second;
    }
    TRACE5( "did not find TE router id for IGP router id " << igpRouterId );
    return IpGenAddr();
}

void TopoDbSm::handleTeRouterIdChange( const IpGenAddr& teRouterId ) {
    if ( routerIdMap_->igpRouterIdHas( teRouterId ) ) {
        TRACE4( "TE router id " << teRouterId << " got added, used by "
                                << routerIdMap_->igpRouterId( teRouterId ) );
        return;
    }
    TRACE4( "TE router id " << teRouterId << " got deleted" );
    if ( !routerIdMap_->duplicateRoutersHas( teRouterId ) ) {
        return;
    }
    CSPF_ASSERT( routerIdMap()->duplicateRouters( teRouterId )->routers() );
    const RouterId firstDuplicateRouter =
        routerIdMap_->duplicateRouters( teRouterId )->routerColl().begin()->first;
    CSPF_ASSERT( topoDb()->routerHas( firstDuplicateRouter ) );
    // Copied first: the key may live in the map entry that the deletion frees.
    const IpGenAddr freed = teRouterId;
    doDelDuplicateRouter( firstDuplicateRouter, freed );
    TRACE2( "schedule resurrection of old duplicate router with IGP router id "
            << firstDuplicateRouter );
    // The map is being notified: handling the router here would change it
    // under the notification, so handleRouter takes it up when it is done.
    CSPF_ASSERT( !pendingRouterToHandle() );
    pendingRouterToHandle_ = firstDuplicateRouter;
    pendingTeRouterId_ = freed;
}

// ---- Links and LANs ----

void TopoDbSm::handleNeighbor( const NeighborKey& key ) {
    const Platform::Ptr<TopoDbSm> self( this );
    allTopoDbStatus_->topoChangeIs( TopoChange::neighbor( topoId_, key ) );
    const bool present = topoDb_->neighborHas( key );
    TRACE3( "for TopoDb:" << topoId_ << "), neighbor:" << key
                          << ( present ? " is set" : " is deleted" ) );
    const RouterId& igp = key.routerId();
    // The owner's TE router id; none for a router that is absent or set aside.
    const IpGenAddr te = routerIdMap_->teRouterId( igp );
    const AllTopoNeighborKey link( topoId_, key, te );
    if ( present ) {
        TRACE4( "TE router id:" << te );
        TRACE4( "IGP router ID for the added neighbor:" << igp );
        const Platform::Ptr<NeighborToIntfIp> addrs = neighborToIntfIpIs( key );
        const Neighbor record = topoDb_->neighbor( key, neighborBuffer_ );
        const Platform::Ptr<RouterToNeighbor> listedBy = routerToNeighbor( igp );
        const bool published = listedBy && listedBy->neighborHas( key );
        unlistedAddrs_.clear();
        for ( const auto& [addr, recorded] : addrs->intfIpColl() ) {
            if ( !Routing::Topology::neighborHasInterfaceAddr( record, addr ) ) {
                unlistedAddrs_.push_back( addr );
            }
        }
        for ( const IpGenAddr& addr : unlistedAddrs_ ) {
            deleteNeighborKeyFromIntfIp( *allTopoDbStatus_, link, addr );
            addrs->intfIpDel( addr );
        }
        // Only addresses new to the link are published: a recorded one already
        // is (or waits for its router), so an unchanged link rewrites nothing.
        for ( const IpGenAddr& addr : record.interfaceAddrs() ) {
            if ( addr.isAddrZero() || addrs->intfIpHas( addr ) ) {
                continue;
            }
            addrs->intfIpIs( addr, true );
            if ( published ) {
                addNeighborKeyToIntfIp( *allTopoDbStatus_, link, addr );
            }
        }
    } else {
        CSPF_ASSERT( neighborToIntfIpHas( key ) );
        TRACE4( "IGP router ID for the deleted neighbor:" << igp );
        const Platform::Ptr<NeighborToIntfIp> addrs = neighborToIntfIp( key );
        for ( const auto& [addr, recorded] : addrs->intfIpColl() ) {
            deleteNeighborKeyFromIntfIp( *allTopoDbStatus_, link, addr );
        }
        addrs->intfIpDelAll();
        neighborToIntfIpDel( key );
    }
    doUpdateAllTopoDbStatus();
}

void TopoDbSm::handleNetwork( const NetworkId& key ) {
    allTopoDbStatus_->topoChangeIs( TopoChange::network( topoId_, key ) );
    TRACE3( "for TopoDb:" << topoId_ << "), network:" << key
                          << ( topoDb_->networkHas( key ) ? " is set" : " is deleted" ) );
    doUpdateAllTopoDbStatus();
}

void TopoDbSm::doUpdateAllTopoDbStatus() {
    TRACE5( "topoChangedAt stamped for TopoDb:" << topoId_ );
    allTopoDbStatus_->topoChangedAtIsNow();
}

void TopoDbSm::handleDestruction() {
    if ( destroyed_ ) {
        return;
    }
    destroyed_ = true;
    unwatchAll();
    pendingRouterToHandle_.reset();
    listedUnder_.clear();
    // Only our own map: a successor for the level may have made its own.
    if ( routerIdMap_ && allTopoDbStatus_->routerIdMap( topoId_ ) == routerIdMap_ ) {
        TRACE1( "TopoDb:" << topoId_ << " deleting its RouterIdMap" );
        allTopoDbStatus_->routerIdMapDel( topoId_ );
    }
}

void TopoDbSm::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Topo DB SM: %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent + 2, "Router to Neighbor Table\n" );
    for ( const RouterId& id : sortedKeys( routerToNeighborColl() ) ) {
        Platform::ObjDumpChild( routerToNeighbor( id ), context, indent + 4 );
    }
    Platform::objDumpLine( context, indent + 2, "Neighbor to Interface-IP Table\n" );
    for ( const NeighborKey& key : sortedKeys( neighborToIntfIpColl() ) ) {
        Platform::ObjDumpChild( neighborToIntfIp( key ), context, indent + 4 );
    }
    Platform::objDumpLine(
        context, indent + 2, "Pending router: %s\n",
        pendingRouterToHandle_.value_or( RouterId() ).toString().c_str() );
}

}  // namespace Cspf

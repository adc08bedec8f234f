#include "topo/AllTopoDbSm.h"

#include <string>
#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"

namespace Cspf {

using Net::IpGenAddr;

AllTopoDbSm::AllTopoDbSm( Platform::Ptr<AllTopoDb> allTopoDb,
                          Platform::Ptr<AllTopoDbStatus> allTopoDbStatus,
                          Platform::Ptr<TrafficEngineering::Config> config )
    : allTopoDb_( std::move( allTopoDb ) ),
      allTopoDbStatus_( std::move( allTopoDbStatus ) ),
      config_( std::move( config ) ) {
    CSPF_ASSERT( allTopoDb_ && allTopoDbStatus_ );
    watch( allTopoDb_.get(), AllTopoDb::topoDbTag,
           static_cast<void ( AllTopoDbSm::* )( const TopoId& )>(
               &AllTopoDbSm::handleTopoDb ) );
    if ( config_ ) {
        watch( config_.get(), TrafficEngineering::Config::valueTag,
               &AllTopoDbSm::handleTeRouterId );
    }
}

AllTopoDbSm::~AllTopoDbSm() {
    unwatchAll();
    for ( const TopoId topoId : topoDbSmColl().keys() ) {
        doDelTopoDbSm( topoId );
    }
}

Platform::Ptr<TopoDbSm> AllTopoDbSm::topoDbSmIs(
    TopoId topoId, const Platform::Ptr<Routing::Topology::TopoDb>& topoDb,
    const Platform::Ptr<AllTopoDbStatus>& status ) {
    if ( Platform::Ptr<TopoDbSm> existing = topoDbSm( topoId ) ) {
        if ( !( existing->topoDb() == topoDb ) ) {
            throw Platform::Error(
                "Reinstantiating the pointer interface where constructor parameter "
                "attribute _topoDb has a different value of TopoDbSm " +
                toString( topoId ) );
        }
        if ( !( existing->allTopoDbStatus() == status ) ) {
            throw Platform::Error(
                "Reinstantiating the pointer interface where constructor parameter "
                "attribute _allTopoDbStatus has a different value of TopoDbSm " +
                toString( topoId ) );
        }
        return existing;
    }
    // Its start-up creates the level's RouterIdMap and replays the database.
    Platform::Ptr<TopoDbSm> sm = Platform::create<TopoDbSm>( topoId, topoDb, status );
    topoDbSmIs( topoId, sm );
    return sm;
}

void AllTopoDbSm::handleInitialized() {
    allTopoDbStatus_->intfIpToNeighborTableIs();
    doSetOurTeRouterId();
    handleTopoDb();
}

void AllTopoDbSm::handleTopoDb() {
    for ( const TopoId topoId : topoDbSmColl().keys() ) {
        if ( !allTopoDb_->topoDbHas( topoId ) ) {
            handleTopoDb( topoId );
        }
    }
    for ( const TopoId topoId : allTopoDb_->topoDbColl().keys() ) {
        handleTopoDb( topoId );
    }
    // After the levels are replayed: a record they still back has been
    // rewritten to what it already held (no change), so the clean-up touches
    // only what no level backs any more.
    doCleanupStaleIntfIpToRouterIdEntries();
}

void AllTopoDbSm::handleTopoDb( const TopoId& key ) {
    const TopoId topoId = key;
    const Platform::Ptr<Routing::Topology::TopoDb> topoDb = allTopoDb_->topoDb( topoId );
    if ( topoDb ) {
        TRACE1( "TopoDb:" << topoId << ") is set" );
        const Platform::Ptr<TopoDbSm> existing = topoDbSm( topoId );
        if ( existing && !( existing->topoDb() == topoDb ) ) {
            doDelTopoDbSm( topoId );
        }
        topoDbSmIs( topoId, topoDb, allTopoDbStatus_ );
    } else {
        TRACE1( "TopoDb:" << topoId << " is deleted" );
        doDelTopoDbSm( topoId );
    }
    allTopoDbStatus_->topoVersionInc();
    doUpdateAllTopoDbStatus();
}

void AllTopoDbSm::doDelTopoDbSm( TopoId topoId ) {
    if ( const Platform::Ptr<TopoDbSm> sm = topoDbSm( topoId ) ) {
        // Whoever else holds the reactor, it stops here.
        sm->handleDestruction();
        topoDbSmDel( topoId );
    }
}

void AllTopoDbSm::handleTeRouterId() {
    const IpGenAddr before = allTopoDbStatus_->ourTeRouterId();
    doSetOurTeRouterId();
    // The record tells of every change; only the router id moves paths.
    if ( !( allTopoDbStatus_->ourTeRouterId() == before ) ) {
        allTopoDbStatus_->topoChangeIs( TopoChange::ourTeRouterId() );
        doUpdateAllTopoDbStatus();
    }
}

void AllTopoDbSm::doSetOurTeRouterId() {
    IpGenAddr teRouterId;
    if ( config_ && config_->exists() ) {
        teRouterId = config_->routerId();
    }
    // 0.0.0.0 configured and no configuration are the same: not set.
    if ( teRouterId.isAddrZero() ) {
        teRouterId = IpGenAddr();
    }
    allTopoDbStatus_->ourTeRouterIdIs( teRouterId );
    TRACE1( "teRouterId:" << teRouterId );
}

void AllTopoDbSm::doUpdateAllTopoDbStatus() {
    TRACE5( "topoChangedAt stamped" );
    allTopoDbStatus_->topoChangedAtIsNow();
}

void AllTopoDbSm::doCleanupStaleIntfIpToRouterIdEntries() {
    TRACE1( "Deleting stale intfIpToRouterId entries" );
    IntfIpToRouterIdWriter* table = allTopoDbStatus_->intfIpToRouterIdTable().get();
    if ( !table ) {
        return;
    }
    std::vector<IpGenAddr> stale;
    for ( const IpGenAddr& intfIp : table->keys() ) {
        bool backed = false;
        try {
            backed = doIsBacked( intfIp, table->intfIpToRouterId( intfIp ) );
        } catch ( const Platform::Error& e ) {
            // Our own record, damaged: it goes like any other stale one.
            TRACE0( "unreadable intfIpToRouterId entry for ip:" << intfIp << ": "
                                                                << e.what() );
        }
        if ( !backed ) {
            stale.push_back( intfIp );
        }
    }
    for ( const IpGenAddr& intfIp : stale ) {
        deleteIntfIpToRouterId( table, intfIp );
    }
}

bool AllTopoDbSm::doIsBacked( const IpGenAddr& intfIp, const IpGenAddr& routerId ) const {
    // A present level backs the record when it maps routerId to an IGP router
    // of its database one of whose listed links carries intfIp. The level
    // reactors keep exactly those (level, link, routerId) under intfIp in the
    // IntfIpToNeighborTable (the invariant of TopoDbSm.h), so one look there
    // answers; keys of a level that went since are not counted.
    const Platform::Ptr<IntfIpToNeighborTable>& table =
        allTopoDbStatus_->intfIpToNeighborTable();
    const Platform::Ptr<IntfIpToNeighbor> links =
        table ? table->intfIpToNeighbor( intfIp ) : nullptr;
    if ( !links ) {
        return false;
    }
    for ( const auto& [key, present] : links->neighborColl() ) {
        if ( key.teNeighborOf() == routerId && topoDbSmHas( key.topoId() ) ) {
            return true;
        }
    }
    return false;
}

void AllTopoDbSm::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "AllTopoDbSM: %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent + 2, "topoDbs:\n" );
    for ( const auto& [topoId, sm] : topoDbSmColl() ) {
        Platform::ObjDumpChild( sm, context, indent + 4 );
    }
}

}  // namespace Cspf

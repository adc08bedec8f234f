#include "vrf/VrfRootSm.h"

#include <optional>
#include <utility>

#include "platform/Assert.h"
#include "platform/Clock.h"
#include "platform/Mivlog.h"
#include "records/PathStatus.h"
#include "vrf/PathArray.h"

namespace Cspf {

using Platform::create;
using Platform::Ptr;

VrfRootSm::VrfRootSm( const L3::VrfName& vrfName, Ptr<VrfRoot> vrfRoot )
    : vrfName_( vrfName ), vrfRoot_( std::move( vrfRoot ) ) {
    CSPF_ASSERT( vrfRoot_ );
    watch( vrfRoot_->pathStatusInfoTable().get(), PathStatusInfoTable::pathStatusInfoTag,
           &VrfRootSm::handlePathStatusInfo );
    // Intake makes both records of a path; whichever comes second completes it.
    watch( vrfRoot_->pathConfigInfoTable().get(), PathConfigInfoTable::pathConfigInfoTag,
           &VrfRootSm::handlePathStatusInfo );
    watch( vrfRoot_->constraintInfoTable().get(), ConstraintInfoTable::constraintInfoTag,
           &VrfRootSm::handleConstraintInfo );
    if ( vrfRoot_->allTopoDbStatus() ) {
        watch( vrfRoot_->allTopoDbStatus().get(), AllTopoDbStatus::topoChangedAtTag,
               &VrfRootSm::handleTopoChanged );
    }
    if ( vrfRoot_->ipStatus() ) {
        watch( vrfRoot_->ipStatus().get(), Ip::Status::intfStatusTag,
               &VrfRootSm::handleIpIntfStatus );
    }
    if ( vrfRoot_->ip6Status() ) {
        watch( vrfRoot_->ip6Status().get(), Ip6::Status::intfTag,
               &VrfRootSm::handleIp6Status );
    }
}

VrfRootSm::~VrfRootSm() {
    unwatchAll();
    constraintWatch_.clear();
    intfWatch_.clear();
}

void VrfRootSm::handleInitialized() {
    TRACE4( "Initializing VrfRootSm" );
    if ( const auto& status = vrfRoot_->ipStatus() ) {
        for ( const Net::IntfId& intfId : status->intfStatusColl().keys() ) {
            handleIpIntfStatus( intfId );
        }
    }
    if ( const auto& status = vrfRoot_->ip6Status() ) {
        for ( const Net::IntfId& intfId : status->intfColl().keys() ) {
            handleIp6Status( intfId );
        }
    }
    // Constraints first, so that the paths' publishers find their schedulers.
    for ( ConstraintHandleKey handle :
          vrfRoot_->constraintInfoTable()->constraintInfoColl().keys() ) {
        handleConstraintInfo( handle );
    }
    for ( const PathInfoKey& key :
          vrfRoot_->pathStatusInfoTable()->pathStatusInfoColl().keys() ) {
        handlePathStatusInfo( key );
    }
    updateConstraintTopoChanged();
}

void VrfRootSm::handlePathStatusInfo( const PathInfoKey& key ) {
    const bool configured = vrfRoot_->pathConfigInfoTable()->pathConfigInfoHas( key );
    const bool present = vrfRoot_->pathStatusInfoTable()->pathStatusInfoHas( key );
    if ( configured && present ) {
        if ( !vrfRoot_->pathConfigInfoSmHas( key ) ) {
            doCreatePathSms( key );
        }
        return;
    }
    if ( vrfRoot_->pathConfigInfoSmHas( key ) || vrfRoot_->pathStatusInfoSmHas( key ) ||
         vrfRoot_->pathStatusCacheTable()->pathStatusCacheHas( key ) ) {
        doDeletePathSms( key );
    }
}

void VrfRootSm::doCreatePathSms( const PathInfoKey& key ) {
    const Ptr<PathConfigInfo> config =
        vrfRoot_->pathConfigInfoTable()->pathConfigInfo( key );
    const Ptr<PathStatusInfo> status =
        vrfRoot_->pathStatusInfoTable()->pathStatusInfo( key );
    TRACE4( "Creating Path SMs for dst: " << key.pathKey().destination
                                          << " client: " << key.clientName() );
    vrfRoot_->pathConfigInfoSmIs(
        key,
        create<PathConfigInfoSm>( config, status, vrfRoot_->dedupConstraintTable() ) );
    vrfRoot_->pathStatusInfoSmIs(
        key, create<PathStatusInfoSm>( status, vrfRoot_->constraintInfoTable() ) );
    const Ptr<PathStatusCache> cache =
        vrfRoot_->pathStatusCacheTable()->pathStatusCacheIs( key );
    initializePathStatusCache( status, cache );
    // Attached once the cache exists, and run for the constraint the first
    // read may already have set.
    constraintWatch_[key] =
        Platform::subscribe( status.get(), PathStatusInfo::constraintTag,
                             [this, key] { handleNewConstraint( key ); } );
    handleNewConstraint( key );
}

void VrfRootSm::doDeletePathSms( const PathInfoKey& key ) {
    TRACE4( "Deleting Path SMs for dst: " << key.pathKey().destination
                                          << " client: " << key.clientName() );
    constraintWatch_.erase( key );
    vrfRoot_->pathSmsDel( key );
}

void VrfRootSm::initializePathStatusCache( const Ptr<PathStatusInfo>& pathStatusInfo,
                                           const Ptr<PathStatusCache>& pathStatusCache ) {
    const Ptr<Status>& table = pathStatusInfo->cspfStatus();
    const PathKey& pathKey = pathStatusInfo->pathInfoKey().pathKey();
    if ( !table || !table->pathStatusHas( pathKey ) ) {
        return;
    }
    // An unreadable record (the table's handler traces it) is as good as
    // none: the first computation rewrites it.
    const std::optional<PathStatus> record = table->lookup( pathKey );
    if ( !record ) {
        return;
    }
    CSPF_ASSERT( !pathStatusCache->path() );
    TRACE4( "Initializing pathStatusCache with pathStatus for destination "
            << pathKey.destination << " id " << pathKey.id << ", hopCount "
            << record->hops.size() );
    const Ptr<PathArray> path = create<PathArray>();
    for ( size_t i = 0; i < record->hops.size(); ++i ) {
        const HopIndex index = HopIndex::fromWide( i );
        path->pathIs( index, record->hops[index] );
    }
    pathStatusCache->pathIs( path );
}

void VrfRootSm::handleNewConstraint( const PathInfoKey& key ) {
    const Ptr<PathStatusInfo> status =
        vrfRoot_->pathStatusInfoTable()->pathStatusInfo( key );
    const Net::IpGenAddr& dst = key.pathKey().destination;
    if ( vrfRoot_->pathRefreshSmHas( key ) ) {
        TRACE4( "Deleting PathRefreshSm for dst: " << dst
                                                   << " client: " << key.clientName() );
        vrfRoot_->pathRefreshSmDel( key );
    }
    if ( vrfRoot_->pathStatusUpdateSmHas( key ) ) {
        TRACE4( "Deleting PathStatusUpdateSm for dst: " << dst << " client: "
                                                        << key.clientName() );
        vrfRoot_->pathStatusUpdateSmDel( key );
    }
    if ( !status ) {
        return;
    }
    const Ptr<PathStatusCache> cache =
        vrfRoot_->pathStatusCacheTable()->pathStatusCache( key );
    const Ptr<DedupConstraint>& constraint = status->constraint();
    const Ptr<ConstraintInfo> constraintInfo =
        constraint ? vrfRoot_->constraintInfoTable()->constraintInfo( constraint.get() )
                   : nullptr;
    if ( !constraintInfo || !cache ) {
        return;
    }
    TRACE4( "Creating PathRefreshSm and PathStatusUpdateSm for dst: "
            << dst << " client: " << key.clientName() );
    // The publisher first: it acts on what is pending before the refresh
    // reactor drops a stale topology mark.
    vrfRoot_->pathStatusUpdateSmIs(
        key, create<PathStatusUpdateSm>( status, cache, constraintInfo ) );
    vrfRoot_->pathRefreshSmIs( key, create<PathRefreshSm>( constraintInfo, status ) );
}

void VrfRootSm::handleConstraintInfo( const ConstraintHandleKey& handle ) {
    const Ptr<ConstraintInfo> info =
        vrfRoot_->constraintInfoTable()->constraintInfo( handle );
    if ( info ) {
        if ( vrfRoot_->constraintInfoSmHas( handle ) ) {
            return;
        }
        const Ptr<ConstraintStats> stats =
            vrfRoot_->constraintStatsTable()->constraintStatsIs( handle,
                                                                 info->constraint() );
        // Each constraint reads the topology through its own view, which
        // applies its exclusion.
        auto constraint = create<DedupConstraintLifeTimeNotifier>(
            info->constraint() ? info->constraint()->dedupConstraint() : nullptr );
        auto view = std::make_shared<const AllTopoDbView>(
            vrfRoot_->allTopoDb(), vrfRoot_->allTopoDbStatus(), vrfRoot_->ipStatus(),
            vrfRoot_->ip6Status(), std::move( constraint ) );
        vrfRoot_->constraintInfoSmIs(
            handle, create<ConstraintInfoSm>( info, vrfRoot_->cliConfig(), stats,
                                              vrfRoot_->pathStatusCacheTable(),
                                              vrfRoot_->taskScheduler(), view ) );
        return;
    }
    TRACE4( "Deleting the constraintInfoSm" );
    vrfRoot_->constraintInfoSmDel( handle );
    vrfRoot_->constraintStatsTable()->constraintStatsDel( handle );
}

void VrfRootSm::handleTopoChanged() {
    updateConstraintTopoChanged();
}

void VrfRootSm::updateConstraintTopoChanged() {
    if ( !vrfRoot_->allTopoDbStatus() ) {
        return;
    }
    const double changedAt = vrfRoot_->allTopoDbStatus()->topoChangedAt();
    // Marking wakes the paths' reactors: the walk goes over a copy.
    for ( ConstraintHandleKey handle :
          vrfRoot_->constraintInfoTable()->constraintInfoColl().keys() ) {
        if ( const auto info =
                 vrfRoot_->constraintInfoTable()->constraintInfo( handle ) ) {
            info->topoChangedAtIs( changedAt );
        }
    }
}

void VrfRootSm::updateConstraintTopoChanged( const Net::IntfId& intfId ) {
    TRACE4( "Updating topoChangedAt for constraints using intf " << intfId );
    const double now = Platform::now();
    for ( ConstraintHandleKey handle :
          vrfRoot_->constraintInfoTable()->constraintInfoColl().keys() ) {
        const auto info = vrfRoot_->constraintInfoTable()->constraintInfo( handle );
        if ( !info || !info->constraint() ||
             !( info->constraint()->pathConstraint().excludeInterface == intfId ) ) {
            continue;
        }
        info->ipIntfStatusChangedAtIs( now );
        info->topoChangedAtIs( now );
    }
}

void VrfRootSm::handleIpIntfStatus( const Net::IntfId& intfId ) {
    TRACE4( "for interface: " << intfId );
    const Ptr<Ip::IntfStatus> face = vrfRoot_->ipStatus()->intfStatus( intfId );
    if ( !face ) {
        TRACE4( "Removal of interface: " << intfId << " Not scheduling SPF" );
        intfWatch_.erase( intfId );
        return;
    }
    auto& subs = intfWatch_[intfId];
    if ( subs.empty() ) {
        subs.push_back( Platform::subscribe(
            face.get(), Ip::IntfStatus::activeAddrTag,
            [this, intfId] { handleIpIntfStatusActiveAddr( intfId ); } ) );
        subs.push_back(
            Platform::subscribe( face.get(), Ip::IntfStatus::secondaryAddrTag,
                                 [this, intfId]( const Net::IpGenAddr& addr ) {
                                     handleSecondaryChange( intfId, addr );
                                 } ) );
    }
    if ( !face->activeAddr().isAddrZero() || face->secondaryAddrs() > 0 ) {
        TRACE4( "Addresses exist for interface: " << intfId );
        updateConstraintTopoChanged( intfId );
    }
}

void VrfRootSm::handleIpIntfStatusActiveAddr( const Net::IntfId& intfId ) {
    const Ptr<Ip::IntfStatus> face = vrfRoot_->ipStatus()->intfStatus( intfId );
    const Net::IpGenAddr addr = face ? face->activeAddr() : Net::IpGenAddr::v4( 0 );
    TRACE4( "Active address changed to " << addr << " for interface " << intfId );
    updateConstraintTopoChanged( intfId );
}

void VrfRootSm::handleSecondaryChange( const Net::IntfId& intfId,
                                       const Net::IpGenAddr& addr ) {
    TRACE4( "Change in secondary address " << addr << " for interface " << intfId );
    updateConstraintTopoChanged( intfId );
}

void VrfRootSm::handleIp6Status( const Net::IntfId& intfId ) {
    TRACE4( "for interface: " << intfId );
    const Ptr<Ip6::IntfStatus> face = vrfRoot_->ip6Status()->intf( intfId );
    if ( !face ) {
        TRACE4( "Removal of interface: " << intfId << " Not scheduling SPF" );
        intfWatch_.erase( intfId );
        return;
    }
    auto& subs = intfWatch_[intfId];
    if ( subs.empty() ) {
        subs.push_back(
            Platform::subscribe( face.get(), Ip6::IntfStatus::addrTag,
                                 [this, intfId]( const Net::IpGenAddr& addr ) {
                                     handleIp6AddressChange( intfId, addr );
                                 } ) );
    }
    if ( face->addrs() > 0 ) {
        TRACE4( "Addresses exist for interface: " << intfId );
        updateConstraintTopoChanged( intfId );
    }
}

void VrfRootSm::handleIp6AddressChange( const Net::IntfId& intfId,
                                        const Net::IpGenAddr& addr ) {
    TRACE4( "Change in ipv6 address " << addr << " for interface " << intfId );
    updateConstraintTopoChanged( intfId );
}

void VrfRootSm::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "VrfRootSm %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent, " VRF: %s\n", vrfName_.name().c_str() );
    Platform::objDumpLine( context, indent, " Paths watched: %zu\n",
                           constraintWatch_.size() );
    Platform::objDumpLine( context, indent, " Interfaces watched: %zu\n",
                           intfWatch_.size() );
}

}  // namespace Cspf

#include "vrf/VrfRoot.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "platform/StateTree.h"

namespace Routing::Topology {

void ClientRecord::encodeValue( const Value& v, std::vector<uint8_t>& out ) {
    out.assign( maxValueSize, 0 );
    out[0] = static_cast<uint8_t>( v.af );
}

ClientValue ClientRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( len != maxValueSize ) {
        throw Platform::DeserializationError(
            "client", "length " + std::to_string( len ) + ", expected 4" );
    }
    if ( in[1] || in[2] || in[3] ) {
        throw Platform::DeserializationError( "client", "non-zero padding" );
    }
    const auto af = static_cast<Net::AddressFamily>( in[0] );
    if ( af != Net::AddressFamily::ipv4 && af != Net::AddressFamily::ipv6 ) {
        throw Platform::DeserializationError(
            "client", "unknown address family " + std::to_string( in[0] ) );
    }
    return ClientValue{ af };
}

std::string topoDbClientPath( const std::string& clientDir, const L3::VrfName& vrf ) {
    return clientDir + "/" + kTopoDbClientName + "/" + vrf.name();
}

}  // namespace Routing::Topology

namespace Cspf {

using Platform::create;
using Platform::Ptr;

VrfRoot::VrfRoot( const L3::VrfName& vrfName, Net::AddressFamily af,
                  Platform::EntityManager& entityMgr,
                  Ptr<TrafficEngineering::Config> teConfig,
                  Ptr<Platform::DirectoryWatch> parentDir,
                  Platform::TaskScheduler& taskScheduler )
    : vrfName_( vrfName ),
      af_( af ),
      entityMgr_( &entityMgr ),
      teConfig_( std::move( teConfig ) ),
      parentDir_( std::move( parentDir ) ),
      taskScheduler_( &taskScheduler ),
      dedupConstraintTable_( create<DedupConstraintTable>() ),
      pathConfigInfoTable_( create<PathConfigInfoTable>() ),
      pathStatusInfoTable_( create<PathStatusInfoTable>() ),
      pathStatusCacheTable_( create<PathStatusCacheTable>() ),
      constraintInfoTable_( create<ConstraintInfoTable>() ),
      constraintStatsTable_( create<ConstraintStatsTable>() ) {
    if ( af_ != Net::AddressFamily::ipv4 && af_ != Net::AddressFamily::ipv6 ) {
        throw Platform::RangeError( "VrfRoot: unknown address family " +
                                    std::to_string( static_cast<uint32_t>( af_ ) ) );
    }
    constraintInfoTableNotifiee_ =
        create<ConstraintInfoTableNotifiee>( constraintInfoTable_ );
    dedupConstraintTable_->dedupTableNotifieeIs( constraintInfoTableNotifiee_.get() );
}

VrfRoot::~VrfRoot() {
    doLetGo( false );
}

template <typename T, typename Make>
Ptr<T> VrfRoot::doSharedEntity( const std::string& path, Make make ) {
    if ( Ptr<T> present = entityMgr_->entity<T>( path ) ) {
        return present;
    }
    Ptr<T> made = make();
    entityMgr_->entityIs( path, made );
    return made;
}

bool VrfRoot::doReleaseEntity( const std::string& path ) {
    const Ptr<Platform::Entity> entity = entityMgr_->entity( path );
    // This reference and the manager's: nobody else uses it.
    if ( !entity || entity->refCount() > 2 ) {
        return false;
    }
    entityMgr_->entityDel( path );
    return true;
}

void VrfRoot::handleInitialized() {
    const std::string routerIdPath = intfIpToRouterIdPath( vrfName_ );
    intfIpToRouterIdTable_ = doSharedEntity<IntfIpToRouterIdWriter>( routerIdPath, [&] {
        return entityMgr_->mount<IntfIpToRouterIdWriter>( routerIdPath,
                                                          Platform::MountMode::write );
    } );
    // The agent mounts the settings; without them every constraint uses the
    // default waits.
    cliConfig_ = entityMgr_->entity<CspfCliConfig>( kCspfCliConfigPath );
    allTopoDb_ = create<AllTopoDb>();
    allTopoDbStatus_ = create<AllTopoDbStatus>( intfIpToRouterIdTable_ );
    doMountTopoDb();
    doSetIpStatus();
    enableTopoDbClient();
    // Made after the levels are in, so that its start-up clean-up of the
    // published table sees them replayed.
    allTopoDbSm_ = create<AllTopoDbSm>( allTopoDb_, allTopoDbStatus_, teConfig_ );
    allTopoDbView_ = std::make_shared<const AllTopoDbView>(
        allTopoDb_, allTopoDbStatus_, ipStatus_, ip6Status_, nullptr );
    TRACE4( "VrfRoot for vrf " << vrfName_ << ", af " << Net::toString( af_ )
                               << " initialized" );
}

void VrfRoot::doMountTopoDb() {
    for ( int level = 1; level <= 2; ++level ) {
        const std::string path = Routing::Topology::topoDbPath( level, vrfName_ );
        Ptr<Routing::Topology::TopoDb> db =
            doSharedEntity<Routing::Topology::TopoDb>( path, [&] {
                return create<Routing::Topology::TopoDb>(
                    entityMgr_->tree(), &entityMgr_->inotify(), level, vrfName_ );
            } );
        ( level == 1 ? isisL1TopoDb_ : isisL2TopoDb_ ) = db;
        allTopoDb_->topoDbIs( level == 1 ? TopoId::isisL1 : TopoId::isisL2, db );
    }
}

void VrfRoot::enableTopoDbClient() {
    if ( !parentDir_ || topoDbClient_ ) {
        return;
    }
    topoDbClientPath_ =
        Routing::Topology::topoDbClientPath( parentDir_->statePath(), vrfName_ );
    topoDbClient_ = create<Routing::Topology::ClientWriter>(
        entityMgr_->tree(), entityMgr_->loop(), topoDbClientPath_ );
    topoDbClient_->valueIs( Routing::Topology::ClientValue{ af_ } );
    TRACE4( "Registered as topology client " << Routing::Topology::kTopoDbClientName
                                             << " for vrf " << vrfName_ );
}

void VrfRoot::disableTopoDbClient() {
    if ( !topoDbClient_ ) {
        return;
    }
    topoDbClient_ = nullptr;
    try {
        entityMgr_->tree().removeTable( topoDbClientPath_ );
    } catch ( const Platform::Error& e ) {
        // Something else took the name: not ours to remove.
        TRACE0( "cannot remove topology client entry " << topoDbClientPath_ << ": "
                                                       << e.what() );
    }
    TRACE4( "Unregistered as topology client for vrf " << vrfName_ );
}

void VrfRoot::doSetIpStatus() {
    const Ptr<Ip::Status> status = entityMgr_->entity<Ip::Status>( Ip::kStatusPath );
    if ( af_ == Net::AddressFamily::ipv4 ) {
        ipStatus_ = status;
        return;
    }
    CSPF_ASSERT( af_ == Net::AddressFamily::ipv6 );
    ip6Status_ = status ? status->ip6Status() : nullptr;
}

void VrfRoot::pathSmsDel( const PathInfoKey& key ) {
    pathConfigInfoSmDel( key );
    if ( const Ptr<PathStatusInfoSm> sm = pathStatusInfoSm( key ) ) {
        // Out of its constraint's path set before the publisher goes.
        sm->handleDestruction();
        pathStatusInfoSmDel( key );
    }
    pathStatusUpdateSmDel( key );
    pathRefreshSmDel( key );
    pathStatusCacheTable_->pathStatusCacheDel( key );
}

void VrfRoot::handleDestruction() {
    doLetGo( true );
}

void VrfRoot::doLetGo( bool vrfEnds ) {
    if ( destroyed_ ) {
        return;
    }
    destroyed_ = true;
    std::set<PathInfoKey> keys;
    for ( const auto& [key, sm] : pathConfigInfoSmColl() ) {
        keys.insert( key );
    }
    for ( const auto& [key, sm] : pathStatusInfoSmColl() ) {
        keys.insert( key );
    }
    for ( const PathInfoKey& key : keys ) {
        pathSmsDel( key );
    }
    pathStatusUpdateSmDelAll();
    pathRefreshSmDelAll();
    constraintInfoSmDelAll();
    constraintStatsTable_->constraintStatsDelAll();
    // Handles still held by the paths outlive the table, unannounced.
    dedupConstraintTable_->dedupTableNotifieeIs( nullptr );
    allTopoDbView_.reset();
    allTopoDbSm_ = nullptr;
    if ( vrfEnds ) {
        disableTopoDbClient();
    }
    topoDbClient_ = nullptr;
    if ( allTopoDb_ ) {
        allTopoDb_->topoDbDelAll();
    }
    isisL1TopoDb_ = nullptr;
    isisL2TopoDb_ = nullptr;
    for ( int level = 1; level <= 2; ++level ) {
        doReleaseEntity( Routing::Topology::topoDbPath( level, vrfName_ ) );
    }
    // The router-id table goes with the VRF, unless the other family of the
    // VRF still publishes into it.
    allTopoDbStatus_ = nullptr;
    if ( intfIpToRouterIdTable_ ) {
        const std::string path = intfIpToRouterIdPath( vrfName_ );
        intfIpToRouterIdTable_ = nullptr;
        if ( doReleaseEntity( path ) && vrfEnds ) {
            try {
                entityMgr_->tree().removeTable( path );
            } catch ( const Platform::Error& e ) {
                TRACE0( "cannot remove " << path << ": " << e.what() );
            }
        }
    }
    TRACE4( "VrfRoot for vrf " << vrfName_ << ", af " << Net::toString( af_ )
                               << " destroyed" );
}

void VrfRoot::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    using Platform::objDumpLine;
    objDumpLine( context, indent, "VRF %s\n", vrfName_.name().c_str() );

    objDumpLine( context, indent, "----Path specific tables----\n" );
    std::vector<PathInfoKey> keys = pathStatusInfoTable_->pathStatusInfoColl().keys();
    for ( const auto& [key, info] : pathConfigInfoTable_->pathConfigInfoColl() ) {
        if ( !pathStatusInfoTable_->pathStatusInfoHas( key ) ) {
            keys.push_back( key );
        }
    }
    std::sort( keys.begin(), keys.end() );
    for ( const PathInfoKey& key : keys ) {
        const PathKey& pathKey = key.pathKey();
        objDumpLine( context, indent, "Desination IP: %s Path ID: %u Client: %s\n",
                     pathKey.destination.toString().c_str(), pathKey.id,
                     key.clientName().c_str() );
        Platform::ObjDumpChild( pathConfigInfoTable_->pathConfigInfo( key ), context,
                                indent + 2 );
        Platform::ObjDumpChild( pathStatusInfoTable_->pathStatusInfo( key ), context,
                                indent + 2 );
        Platform::ObjDumpChild( pathStatusCacheTable_->pathStatusCache( key ), context,
                                indent + 2 );
        const Ptr<PathStatusInfoSm> statusSm = pathStatusInfoSm( key );
        objDumpLine( context, indent, "PathConfigInfo SM: %p\n",
                     static_cast<const void*>( pathConfigInfoSm( key ).get() ) );
        objDumpLine( context, indent, "PathStatusInfo SM: %p\n",
                     static_cast<const void*>( statusSm.get() ) );
        objDumpLine( context, indent, "Old path constraint: %p\n",
                     static_cast<const void*>( statusSm ? statusSm->oldConstraint().get()
                                                        : nullptr ) );
        objDumpLine( context, indent, "PathRefresh SM: %p\n",
                     static_cast<const void*>( pathRefreshSm( key ).get() ) );
        objDumpLine( context, indent, "PathStatusUpdate SM: %p\n",
                     static_cast<const void*>( pathStatusUpdateSm( key ).get() ) );
        objDumpLine( context, indent, "\n" );
    }

    objDumpLine( context, indent, "----Constraint specific tables----\n" );
    // In the order of the constraints' string forms: handles differ from run
    // to run.
    std::vector<std::pair<std::string, ConstraintHandleKey>> handles;
    for ( const auto& [handle, info] : constraintInfoTable_->constraintInfoColl() ) {
        handles.emplace_back(
            info->constraint() ? info->constraint()->content().toString() : "", handle );
    }
    std::sort( handles.begin(), handles.end() );
    for ( const auto& [text, handle] : handles ) {
        objDumpLine( context, indent, "Constraint Handle: %p\n",
                     static_cast<const void*>( handle ) );
        Platform::ObjDumpChild( constraintInfoTable_->constraintInfo( handle ), context,
                                indent + 2 );
        Platform::ObjDumpChild( constraintStatsTable_->constraintStats( handle ), context,
                                indent + 2 );
        const Ptr<ConstraintInfoSm> sm = constraintInfoSm( handle );
        objDumpLine( context, indent, "Constraint SM: %p\n",
                     static_cast<const void*>( sm.get() ) );
        objDumpLine( context, indent, "Constraint timer running: %s\n",
                     sm && sm->timerRunning() ? "Yes" : "No" );
    }

    objDumpLine( context, indent, "----Topology DB----\n" );
    Platform::ObjDumpChild( allTopoDb_, context, indent + 2 );
    objDumpLine( context, indent, "----Topology Status----\n" );
    Platform::ObjDumpChild( allTopoDbStatus_, context, indent + 2 );
    objDumpLine( context, indent, "AllTopoDbSM: %p\n",
                 static_cast<const void*>( allTopoDbSm_.get() ) );
    if ( allTopoDbSm_ ) {
        for ( const auto& [topoId, sm] : allTopoDbSm_->topoDbSmColl() ) {
            objDumpLine( context, indent, "Topo ID: %u\n",
                         static_cast<unsigned>( topoId ) );
            Platform::ObjDumpChild( sm, context, indent + 2 );
        }
    }
}

Ptr<VrfRoot> vrfRootFactory( const L3::VrfName& vrfName, Net::AddressFamily af,
                             Platform::EntityManager& entityMgr,
                             Ptr<TrafficEngineering::Config> teConfig,
                             Ptr<Platform::DirectoryWatch> parentDir,
                             Platform::TaskScheduler& taskScheduler ) {
    return create<VrfRoot>( vrfName, af, entityMgr, std::move( teConfig ),
                            std::move( parentDir ), taskScheduler );
}

}  // namespace Cspf

#include "agent/ClientVrfSm.h"

#include <utility>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "platform/StateTree.h"
#include "records/PathTables.h"

namespace Cspf {

using Platform::Ptr;

ClientVrfSm::ClientVrfSm( const L3::VrfName& vrfName, std::string clientName,
                          Ptr<Client> client, Platform::EntityManager& entityMgr,
                          Ptr<AllClientInfo> v4AllClientInfo,
                          Ptr<AllClientInfo> v6AllClientInfo,
                          Ptr<ClientRefusals> clientRefusals )
    : vrfName_( vrfName ),
      clientName_( std::move( clientName ) ),
      client_( std::move( client ) ),
      entityMgr_( entityMgr ),
      v4AllClientInfo_( std::move( v4AllClientInfo ) ),
      v6AllClientInfo_( std::move( v6AllClientInfo ) ),
      clientRefusals_( std::move( clientRefusals ) ) {
    CSPF_ASSERT( client_ && clientRefusals_ );
    watch( client_.get(), Client::recordTag, &ClientVrfSm::handleClientEntry );
}

// Lets go of the tables without the teardown of doCleanupPathSm, which is for
// a family or VRF the client dropped: the end of the agent leaves the
// client's requests and results in place. The path reactors go before the
// handles (members in that order).
ClientVrfSm::~ClientVrfSm() {
    pathSm_.clear();
    for ( const auto& [af, handle] : vrfDedupHandle_ ) {
        entityMgr_.entityDel( pathConfigTablePath( vrfName_, af, clientName_ ) );
        entityMgr_.entityDel( pathStatusTablePath( vrfName_, af, clientName_ ) );
    }
}

void ClientVrfSm::handleInitialized() {
    for ( Net::AddressFamily af : client_->addressFamilys() ) {
        handleAddressFamily( af );
    }
}

void ClientVrfSm::handleClientEntry( const ClientEntry& entry ) {
    if ( entry.kind == ClientEntry::Kind::addressFamily ) {
        handleAddressFamily( entry.af );
    }
}

const Ptr<AllClientInfo>& ClientVrfSm::allClientInfo( Net::AddressFamily af ) const {
    return af == Net::AddressFamily::ipv6 ? v6AllClientInfo_ : v4AllClientInfo_;
}

void ClientVrfSm::handleAddressFamily( Net::AddressFamily af ) {
    if ( client_->addressFamily( af ) ) {
        if ( vrfDedupHandle_.count( af ) ) {
            return;
        }
        TRACE4( "Grabbing dedup handle for af " << af << " client " << clientName_
                                                << ", vrf " << vrfName_ );
        try {
            vrfDedupHandle_[af] =
                allClientInfo( af )->activeVrfsDedupTable()->dedupFromVrfName( vrfName_ );
        } catch ( const Platform::Error& e ) {
            // The VRF could not be brought up (its topology tables, its
            // published table): refused like tables that cannot be attached.
            vrfDedupHandle_.erase( af );
            doRefused( af, e );
            return;
        }
        TRACE4( "Creating PathSm for af " << af << " client " << clientName_ << ", vrf "
                                          << vrfName_ );
        doInitPathSm( af );
        return;
    }
    retryAf_.erase( af );
    clientRefusals_->servedIs( clientName_, doPart( af ) );
    if ( !vrfDedupHandle_.count( af ) ) {
        return;
    }
    TRACE4( "Deleting PathSm for af " << af << " client " << clientName_ << ", vrf "
                                      << vrfName_ );
    doCleanupPathSm( af );
    TRACE4( "Releasing dedup handle for af " << af << " client " << clientName_
                                             << ", vrf " << vrfName_ );
    vrfDedupHandleDel( af );
}

void ClientVrfSm::doInitPathSm( Net::AddressFamily af ) {
    const std::string configPath = pathConfigTablePath( vrfName_, af, clientName_ );
    const std::string statusPath = pathStatusTablePath( vrfName_, af, clientName_ );
    Ptr<Config> config;
    Ptr<Status> status;
    try {
        config = entityMgr_.mount<Config>( configPath, Platform::MountMode::read );
        status = entityMgr_.mount<Status>( statusPath, Platform::MountMode::write );
    } catch ( const Platform::Error& e ) {
        // A table of another type, an unsound file, another writer: this
        // client is not served in this VRF and family, every other one is.
        entityMgr_.entityDel( configPath );
        doRefused( af, e );
        return;
    }
    retryAf_.erase( af );
    clientRefusals_->servedIs( clientName_, doPart( af ) );
    const std::string client = clientName_;
    config->corruptionHandlerIs( [client]( const Platform::Error& e ) {
        TRACE0( "corrupt request of client " << client << ": " << e.what() );
    } );
    status->corruptionHandlerIs( [client]( const Platform::Error& e ) {
        TRACE0( "corrupt result of client " << client << ", written anew: " << e.what() );
    } );
    const Ptr<AllClientInfo>& info = allClientInfo( af );
    Ptr<PathConfigInfoTable> configInfo = info->pathConfigInfoTable( vrfName_ );
    Ptr<PathStatusInfoTable> statusInfo = info->pathStatusInfoTable( vrfName_ );
    CSPF_ASSERT( configInfo && statusInfo );
    pathSm_[af] = Platform::create<PathSm>( af, vrfName_, clientName_, config, status,
                                            configInfo, statusInfo );
}

std::string ClientVrfSm::doPart( Net::AddressFamily af ) const {
    return "vrf " + vrfName_.name() + " " + Net::toString( af );
}

void ClientVrfSm::doRefused( Net::AddressFamily af, const Platform::Error& e ) {
    // Short of descriptors or memory, it is tried again.
    const bool retry = ClientRefusals::retryable( e );
    TRACE0( "cannot attach the tables of client " << clientName_ << ", vrf " << vrfName_
                                                  << ", af " << af << ": " << e.what()
                                                  << ( retry ? ", retrying" : "" ) );
    if ( retry ) {
        retryAf_.insert( af );
    }
    clientRefusals_->refusedIs( clientName_, doPart( af ),
                                std::string( "cannot attach: " ) + e.what(), retry );
}

void ClientVrfSm::doRetryAttach() {
    const std::set<Net::AddressFamily> families = std::move( retryAf_ );
    retryAf_.clear();
    for ( Net::AddressFamily af : families ) {
        if ( !vrfDedupHandle_.count( af ) ) {
            handleAddressFamily( af );
        } else if ( !pathSm_.count( af ) ) {
            TRACE4( "Creating PathSm for af " << af << " client " << clientName_
                                              << ", vrf " << vrfName_ );
            doInitPathSm( af );
        }
    }
}

void ClientVrfSm::doCleanupPathSm( Net::AddressFamily af ) {
    auto it = pathSm_.find( af );
    if ( it != pathSm_.end() ) {
        const Ptr<PathSm> sm = std::move( it->second );
        pathSm_.erase( it );
        sm->doPrepareToDie();
    }
    const std::string configPath = pathConfigTablePath( vrfName_, af, clientName_ );
    const std::string statusPath = pathStatusTablePath( vrfName_, af, clientName_ );
    entityMgr_.entityDel( configPath );
    entityMgr_.entityDel( statusPath );
    // A departed client leaves no results behind.
    try {
        entityMgr_.tree().removeTable( statusPath );
    } catch ( const Platform::Error& e ) {
        TRACE0( "cannot remove " << statusPath << ": " << e.what() );
    }
}

void ClientVrfSm::doPrepareToDie() {
    retryAf_.clear();
    for ( Net::AddressFamily af :
          { Net::AddressFamily::ipv4, Net::AddressFamily::ipv6 } ) {
        clientRefusals_->servedIs( clientName_, doPart( af ) );
    }
    while ( !vrfDedupHandle_.empty() ) {
        const Net::AddressFamily af = vrfDedupHandle_.begin()->first;
        TRACE4( "Deleting PathSm for af " << af << " client " << clientName_ << ", vrf "
                                          << vrfName_ );
        doCleanupPathSm( af );
        TRACE4( "Releasing dedup handle for af " << af << " client " << clientName_
                                                 << ", vrf " << vrfName_ );
        vrfDedupHandleDel( af );
    }
}

Ptr<PathSm> ClientVrfSm::pathSm( Net::AddressFamily af ) const {
    auto it = pathSm_.find( af );
    return it == pathSm_.end() ? nullptr : it->second;
}

Ptr<DedupVrfHandle> ClientVrfSm::vrfDedupHandle( Net::AddressFamily af ) const {
    auto it = vrfDedupHandle_.find( af );
    return it == vrfDedupHandle_.end() ? nullptr : it->second;
}

void ClientVrfSm::vrfDedupHandleDel( Net::AddressFamily af ) {
    auto it = vrfDedupHandle_.find( af );
    if ( it == vrfDedupHandle_.end() ) {
        return;
    }
    // The last release ends the VRF in the family, from inside this call.
    const Ptr<DedupVrfHandle> handle = std::move( it->second );
    vrfDedupHandle_.erase( it );
}

void ClientVrfSm::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Vrf: %s\n", vrfName_.name().c_str() );
    for ( const auto& [af, sm] : pathSm_ ) {
        Platform::ObjDumpChild( sm, context, indent + 2 );
    }
}

}  // namespace Cspf

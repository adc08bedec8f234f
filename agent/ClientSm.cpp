#include "agent/ClientSm.h"

#include <utility>

#include "platform/Assert.h"
#include "platform/Mivlog.h"

namespace Cspf {

using Platform::Ptr;

ClientSm::ClientSm( std::string name, Ptr<Client> client,
                    Platform::EntityManager& entityMgr,
                    Ptr<AllClientInfo> v4AllClientInfo,
                    Ptr<AllClientInfo> v6AllClientInfo,
                    Ptr<ClientRefusals> clientRefusals )
    : name_( std::move( name ) ),
      client_( std::move( client ) ),
      entityMgr_( entityMgr ),
      v4AllClientInfo_( std::move( v4AllClientInfo ) ),
      v6AllClientInfo_( std::move( v6AllClientInfo ) ),
      clientRefusals_( std::move( clientRefusals ) ) {
    CSPF_ASSERT( client_ && clientRefusals_ );
    watch( client_.get(), Client::recordTag, &ClientSm::handleClientEntry );
}

// Lets go of the VRFs without their teardown, as ~ClientVrfSm says.
ClientSm::~ClientSm() = default;

void ClientSm::handleInitialized() {
    for ( const L3::VrfName& vrfName : client_->vrfs() ) {
        handleVrf( vrfName );
    }
}

void ClientSm::handleClientEntry( const ClientEntry& entry ) {
    if ( entry.kind == ClientEntry::Kind::vrf ) {
        handleVrf( entry.vrf );
    }
}

void ClientSm::handleVrf( const L3::VrfName& vrfName ) {
    const std::string part = "vrf " + vrfName.name();
    if ( client_->vrf( vrfName ) ) {
        if ( clientVrfSm_.count( vrfName ) ) {
            return;
        }
        if ( clientVrfSm_.size() >= kMaxClientVrfs ) {
            TRACE0( "refusing vrf " << vrfName << " of client " << name_
                                    << ": a client may have at most " << kMaxClientVrfs
                                    << " VRFs served" );
            clientRefusals_->refusedIs( name_, part,
                                        "beyond the " + std::to_string( kMaxClientVrfs ) +
                                            " VRFs a client may have served",
                                        false );
            return;
        }
        TRACE4( "Creating ClientVrfSm for client " << name_ << ", vrf " << vrfName );
        clientVrfSmIs( vrfName );
        return;
    }
    clientRefusals_->servedIs( name_, part );
    if ( !clientVrfSm_.count( vrfName ) ) {
        return;
    }
    TRACE4( "Deleting ClientVrfSm for client " << name_ << ", vrf " << vrfName );
    clientVrfSmDel( vrfName );
    // Room for a VRF refused before.
    for ( const L3::VrfName& waiting : client_->vrfs() ) {
        if ( clientVrfSm_.size() >= kMaxClientVrfs ) {
            break;
        }
        if ( !clientVrfSm_.count( waiting ) ) {
            clientRefusals_->servedIs( name_, "vrf " + waiting.name() );
            handleVrf( waiting );
        }
    }
}

void ClientSm::doRetryAttach() {
    for ( const auto& [vrfName, sm] : std::map( clientVrfSm_ ) ) {
        sm->doRetryAttach();
    }
}

void ClientSm::clientVrfSmIs( const L3::VrfName& vrfName ) {
    if ( clientVrfSm_.count( vrfName ) ) {
        return;
    }
    // Stored before its families are taken in, so that a dump from inside
    // start-up sees it.
    Ptr<ClientVrfSm> sm( new ClientVrfSm( vrfName, name_, client_, entityMgr_,
                                          v4AllClientInfo_, v6AllClientInfo_,
                                          clientRefusals_ ) );
    clientVrfSm_[vrfName] = sm;
    sm->handleInitialized();
}

void ClientSm::clientVrfSmDel( const L3::VrfName& vrfName ) {
    auto it = clientVrfSm_.find( vrfName );
    if ( it == clientVrfSm_.end() ) {
        return;
    }
    const Ptr<ClientVrfSm> sm = std::move( it->second );
    clientVrfSm_.erase( it );
    sm->doPrepareToDie();
}

Ptr<ClientVrfSm> ClientSm::clientVrfSm( const L3::VrfName& vrfName ) const {
    auto it = clientVrfSm_.find( vrfName );
    return it == clientVrfSm_.end() ? nullptr : it->second;
}

void ClientSm::doPrepareToDie() {
    while ( !clientVrfSm_.empty() ) {
        const L3::VrfName vrfName = clientVrfSm_.begin()->first;  // the entry goes
        clientVrfSmDel( vrfName );
    }
}

void ClientSm::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "%s\n", name_.c_str() );
    for ( const auto& [vrfName, sm] : clientVrfSm_ ) {
        Platform::ObjDumpChild( sm, context, indent + 2 );
    }
}

}  // namespace Cspf

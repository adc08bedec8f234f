#include "agent/ClientDirSm.h"

#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "platform/StateTree.h"
#include "records/Client.h"

namespace Cspf {

using Platform::Ptr;

namespace {

constexpr const char* kStatusDir = "te/cspf/status";

std::string lastComponent( const std::string& path ) {
    return path.substr( path.rfind( '/' ) + 1 );
}

// The reasons of clients not served, started afresh: those of an earlier
// agent are not ours to keep. Without it the agent serves all the same.
Ptr<ClientStatusWriter> doMountClientStatus( Platform::EntityManager& entityMgr ) {
    try {
        const auto status = entityMgr.mount<ClientStatusWriter>(
            kClientStatusPath, Platform::MountMode::write );
        status->delAll();
        return status;
    } catch ( const Platform::Error& e ) {
        TRACE0( "cannot publish why clients are not served: " << e.what() );
        return nullptr;
    }
}

}  // namespace

ClientDirSm::ClientDirSm( Platform::EntityManager& entityMgr,
                          Ptr<Platform::DirectoryWatch> clientDir,
                          Ptr<TrafficEngineering::Config> teConfig,
                          Ptr<AgentStatus> agentStatus,
                          Ptr<AllClientInfo> v4AllClientInfo,
                          Ptr<AllClientInfo> v6AllClientInfo,
                          Platform::TaskScheduler& taskScheduler )
    : entityMgr_( entityMgr ),
      clientDir_( std::move( clientDir ) ),
      teConfig_( std::move( teConfig ) ),
      agentStatus_( std::move( agentStatus ) ),
      v4AllClientInfo_( std::move( v4AllClientInfo ) ),
      v6AllClientInfo_( std::move( v6AllClientInfo ) ),
      clientRefusals_( Platform::create<ClientRefusals>(
          taskScheduler, doMountClientStatus( entityMgr ) ) ) {
    CSPF_ASSERT( clientDir_ && agentStatus_ );
    clientRefusals_->retryHandlerIs( [this] { handleRetry(); } );
    watch( clientDir_.get(), Platform::DirectoryWatch::entryTag,
           &ClientDirSm::handleClientDirEntry );
    if ( teConfig_ ) {
        watch( teConfig_.get(), TrafficEngineering::Config::valueTag,
               &ClientDirSm::handleEnabled );
    }
}

// Lets go of the clients without their teardown (doPrepareToDie): the end of
// the agent leaves every client's tables and results in place.
ClientDirSm::~ClientDirSm() = default;

void ClientDirSm::handleInitialized() {
    TRACE4( "clientDirSm getting initialized" );
    doCleanupStaleClientMounts();
    handleEnabled();
}

bool ClientDirSm::doShouldEnable() const {
    return clientDir_->entries() > 0 && teConfig_ && teConfig_->exists() &&
           teConfig_->enabled() && !teConfig_->routerId().isAddrZero();
}

void ClientDirSm::handleEnabled() {
    if ( doShouldEnable() ) {
        TRACE4( "enabling agent" );
        for ( const std::string& name : clientDir_->entryColl().keys() ) {
            handleClientDir( name );
        }
        // Only clients count: entries that are not, or could not be
        // attached, leave the agent disabled.
        if ( !clientSm_.empty() ) {
            agentStatus_->agentEnabledIs( true );
            return;
        }
        TRACE0( "no entry of " << kClientDirPath << " is a client that can be served" );
    }
    TRACE4( "stopping agent" );
    doPrepareToDie();
    agentStatus_->agentEnabledIs( false );
}

void ClientDirSm::handleClientDirEntry( const std::string& name ) {
    // While disabled, a new client may be the one the agent was waiting for.
    if ( !agentEnabled() ) {
        if ( clientDir_->entryHas( name ) ) {
            handleEnabled();
        } else {
            retryClient_.erase( name );
            clientRefusals_->clientDel( name );
        }
        return;
    }
    handleClientDir( name );
}

void ClientDirSm::handleClientDir( const std::string& name ) {
    if ( clientDir_->entryHas( name ) ) {
        if ( clientSm_.count( name ) ) {
            return;
        }
        TRACE4( "Creating ClientSm for client " << name );
        clientSmIs( name );
        return;
    }
    TRACE4( "Deleting ClientSm for client " << name );
    clientSmDel( name );
    retryClient_.erase( name );
    clientRefusals_->clientDel( name );
    if ( clientSm_.empty() ) {
        TRACE4( "No client present, disabling the agent" );
        handleEnabled();
    }
}

void ClientDirSm::handleRetry() {
    if ( !agentEnabled() ) {
        handleEnabled();
        return;
    }
    const std::set<std::string> names = std::move( retryClient_ );
    retryClient_.clear();
    for ( const std::string& name : names ) {
        handleClientDir( name );
    }
    for ( const auto& [name, sm] : std::map( clientSm_ ) ) {
        sm->doRetryAttach();
    }
}

void ClientDirSm::clientSmIs( const std::string& name ) {
    Ptr<Client> client;
    std::string path;
    try {
        path = clientPath( name );
        client = entityMgr_.mount<Client>( path, Platform::MountMode::read );
    } catch ( const Platform::Error& e ) {
        // A name that cannot be a path component, or a registration that is
        // not one: that client is not served, every other one is. Short of
        // descriptors or memory, it is tried again.
        const bool retry = ClientRefusals::retryable( e );
        TRACE0( "refusing client " << name << ": " << e.what()
                                   << ( retry ? ", retrying" : "" ) );
        if ( retry ) {
            retryClient_.insert( name );
        }
        clientRefusals_->refusedIs(
            name, "",
            ( retry ? "cannot attach: " : "not a client: " ) + std::string( e.what() ),
            retry );
        return;
    }
    CSPF_ASSERT( client );
    retryClient_.erase( name );
    clientRefusals_->servedIs( name, "" );
    client->corruptionHandlerIs( [name]( const Platform::Error& e ) {
        TRACE0( "corrupt registration of client " << name << ": " << e.what() );
    } );
    Ptr<ClientSm> sm( new ClientSm( name, client, entityMgr_, v4AllClientInfo_,
                                    v6AllClientInfo_, clientRefusals_ ) );
    clientSm_[name] = sm;
    sm->handleInitialized();
}

void ClientDirSm::clientSmDel( const std::string& name ) {
    auto it = clientSm_.find( name );
    if ( it == clientSm_.end() ) {
        return;
    }
    const Ptr<ClientSm> sm = std::move( it->second );
    clientSm_.erase( it );
    sm->doPrepareToDie();
    clientRefusals_->clientDel( name );
    entityMgr_.entityDel( clientPath( name ) );
}

Ptr<ClientSm> ClientDirSm::clientSm( const std::string& name ) const {
    auto it = clientSm_.find( name );
    return it == clientSm_.end() ? nullptr : it->second;
}

void ClientDirSm::doPrepareToDie() {
    while ( !clientSm_.empty() ) {
        const std::string name = clientSm_.begin()->first;  // the entry goes
        clientSmDel( name );
    }
}

void ClientDirSm::doBuildExpectedPathList() {
    Platform::StateTree& tree = entityMgr_.tree();
    for ( const std::string& name : clientDir_->entryColl().keys() ) {
        try {
            const Ptr<Client> client =
                Platform::create<Client>( tree, nullptr, clientPath( name ) );
            for ( const L3::VrfName& vrf : client->vrfs() ) {
                for ( Net::AddressFamily af : client->addressFamilys() ) {
                    expectedStatusPath_.insert( pathStatusTablePath( vrf, af, name ) );
                }
            }
        } catch ( const Platform::Error& e ) {
            // An unreadable registration: keep every result of that name
            // rather than lose one the client may still expect.
            TRACE0( "cannot read the registration of client " << name << ": "
                                                              << e.what() );
            for ( const std::string& path : tree.listTables( kStatusDir ) ) {
                if ( lastComponent( path ) == name ) {
                    expectedStatusPath_.insert( path );
                }
            }
        }
    }
}

void ClientDirSm::doCleanupStaleClientMounts() {
    TRACE4( "cleaning up stale client mounts" );
    doBuildExpectedPathList();
    Platform::StateTree& tree = entityMgr_.tree();
    for ( const std::string& path : tree.listTables( kStatusDir ) ) {
        if ( expectedStatusPath_.count( path ) ) {
            continue;
        }
        TRACE4( "Deleting path : " << path );
        try {
            tree.removeTable( path );
        } catch ( const Platform::Error& e ) {
            TRACE0( "cannot remove " << path << ": " << e.what() );
        }
    }
    expectedStatusPath_.clear();
}

void ClientDirSm::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "-----CSPF client config and status-----\n" );
    for ( const auto& [name, sm] : clientSm_ ) {
        Platform::ObjDumpChild( sm, context, indent + 2 );
    }
    Platform::objDumpPrintf( context, "\n" );
}

}  // namespace Cspf

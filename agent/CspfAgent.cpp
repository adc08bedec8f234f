#include "agent/CspfAgent.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "agent/CspfCommandCallback.h"
#include "platform/Assert.h"
#include "platform/Clock.h"
#include "platform/Mivlog.h"
#include "platform/ShmTable.h"
#include "platform/StateTree.h"
#include "records/Client.h"
#include "records/CspfCliConfig.h"
#include "records/IpStatus.h"

namespace Cspf {

using Platform::Ptr;

namespace {

Agent* theAgent = nullptr;

constexpr const char* kTopoDbClientDir = "routing/export/topodb/client";
constexpr const char* kTopoDb6ClientDir = "routing6/export/topodb/client";

std::string joinStatePath( const std::string& root, const char* path ) {
    return root.empty() ? path : root + "/" + path;
}

}  // namespace

Agent* cspfAgent() {
    return theAgent;
}

Agent::Agent( const std::string& name )
    : CAgent( name ), scheduler_( eventLoop(), "Cspf" ) {}

Agent::~Agent() {
    if ( theAgent == this ) {
        theAgent = nullptr;
    }
    // The channel first: no command may run into a half-gone agent.
    cliRequestDirSm_.reset();
    // The end of the agent is not the end of its clients: every client's
    // tables and results stay as they are, for the next run to take over;
    // only the agent status says that this run stopped. The roots go before
    // the clients, so their VRFs are let go without the end of a VRF (whose
    // clean-up is for the last client leaving it); then the client reactors
    // let go of their tables without their per-client teardown.
    if ( agentStatus_ ) {
        agentStatus_->runningDel();
        agentStatus_->flush();  // the loop runs no more rounds
    }
    v4CspfRoot_ = nullptr;
    v6CspfRoot_ = nullptr;
    clientDirSm_ = nullptr;
}

void Agent::doClaimAgentStatus() {
    // The agent status has one writer, the running agent: a second agent on
    // the tree stops here, before it touched anything of the first one's.
    const Platform::TablePath file( stateTree().root(), kAgentStatusPath );
    auto claim = [&] {
        agentStatus_ = entityManager().mount<AgentStatus>( kAgentStatusPath,
                                                           Platform::MountMode::write );
    };
    try {
        claim();
    } catch ( const Platform::Error& e ) {
        if ( Platform::tableWriterAlive( file ) ) {
            std::string pid = "not known";
            try {
                const AgentStatusValue running =
                    Platform::create<AgentStatusReader>( stateTree(), nullptr,
                                                         kAgentStatusPath )
                        ->value();
                if ( running.running && running.pid ) {
                    pid = std::to_string( running.pid );
                }
            } catch ( const Platform::Error& ) {
                // An agent of another record layout: its pid cannot be read.
            }
            throw Platform::Error( "state tree " + stateTree().root() +
                                   " already has a running agent, pid " + pid );
        }
        // Nobody writes it: our own table, left by an agent of another record
        // layout. It starts again; a second failure is a local one.
        stateTree().removeTable( kAgentStatusPath );
        claim();
    }
    agentStatus_->runningIs( static_cast<uint32_t>( getpid() ), Platform::clock().now() );
}

void Agent::doInit() {
    framework().epollWaitIs( true );
    doClaimAgentStatus();
    if ( !getenv( "MIVLOG_DISABLE" ) ) {
        Mivlog::initFromEnvironment( name() );
    }
    Platform::MountGroup& group = mountGroup();
    group.mount<Platform::DirectoryWatch>( kClientDirPath, "ri" );
    group.mount<TrafficEngineering::Config>( TrafficEngineering::kConfigPath, "r" );
    group.mount<CspfCliConfig>( kCspfCliConfigPath, "ri" );
    group.mount<Ip::Status>( Ip::kStatusPath, "r" );
    group.mount<Platform::DirectoryWatch>( kTopoDbClientDir, "wi" );
    group.mount<Platform::DirectoryWatch>( kTopoDb6ClientDir, "wi" );
    group.mount<Platform::DirectoryWatch>(
        joinStatePath( agentRoot(), kCommandRequestDir ), "ri" );
}

void Agent::doMountsComplete( const Platform::MountStatus& mountStatus,
                              Platform::EntityManager& entityManager ) {
    if ( !mountStatus.ok ) {
        // Said plainly before the assertion: the agent cannot run without it.
        std::fprintf( stderr, "%s: mount of %s failed: %s\n", name().c_str(),
                      mountStatus.failedPath.c_str(), mountStatus.reason.c_str() );
    }
    CSPF_ASSERT( mountStatus.ok );
    const auto clientDir =
        entityManager.entity<Platform::DirectoryWatch>( kClientDirPath );
    const auto teConfig = entityManager.entity<TrafficEngineering::Config>(
        TrafficEngineering::kConfigPath );
    topoDbClientDir_ = entityManager.entity<Platform::DirectoryWatch>( kTopoDbClientDir );
    topoDb6ClientDir_ =
        entityManager.entity<Platform::DirectoryWatch>( kTopoDb6ClientDir );

    v4CspfRootIs( Net::AddressFamily::ipv4, entityManager, teConfig, topoDbClientDir_,
                  scheduler_ );
    v6CspfRootIs( Net::AddressFamily::ipv6, entityManager, teConfig, topoDb6ClientDir_,
                  scheduler_ );
    if ( teConfig ) {
        // A peer's broken configuration: the agent takes it as absent (so
        // disabled) and follows the table until it is rewritten.
        teConfig->corruptionHandlerIs( []( const Platform::Error& e ) {
            TRACE0( "TE configuration taken as absent: " << e.what() );
        } );
    }
    clientDirSmIs( entityManager, clientDir, teConfig, agentStatus_,
                   v4CspfRoot_->allClientInfo(), v6CspfRoot_->allClientInfo() );

    cliRequestDir_ = entityManager.entity<Platform::DirectoryWatch>(
        joinStatePath( agentRoot(), kCommandRequestDir ) );
    cliRequestDirSmIs();

    theAgent = this;
    revive_ = false;
    cspfCommandCallbackRegister( *this, cliRequestDirSm_.get() );
}

void Agent::v4CspfRootIs( Net::AddressFamily af, Platform::EntityManager& entityMgr,
                          Ptr<TrafficEngineering::Config> teConfig,
                          Ptr<Platform::DirectoryWatch> topoDbClientDir,
                          Platform::TaskScheduler& taskScheduler ) {
    v4CspfRoot_ =
        Platform::create<CspfRoot>( af, entityMgr, std::move( teConfig ),
                                    std::move( topoDbClientDir ), taskScheduler );
}

void Agent::v6CspfRootIs( Net::AddressFamily af, Platform::EntityManager& entityMgr,
                          Ptr<TrafficEngineering::Config> teConfig,
                          Ptr<Platform::DirectoryWatch> topoDbClientDir,
                          Platform::TaskScheduler& taskScheduler ) {
    v6CspfRoot_ =
        Platform::create<CspfRoot>( af, entityMgr, std::move( teConfig ),
                                    std::move( topoDbClientDir ), taskScheduler );
}

void Agent::clientDirSmIs( Platform::EntityManager& entityMgr,
                           Ptr<Platform::DirectoryWatch> clientDir,
                           Ptr<TrafficEngineering::Config> teConfig,
                           Ptr<AgentStatus> agentStatus,
                           Ptr<AllClientInfo> v4AllClientInfo,
                           Ptr<AllClientInfo> v6AllClientInfo ) {
    CSPF_ASSERT( clientDir );
    clientDirSm_ = Platform::create<ClientDirSm>(
        entityMgr, std::move( clientDir ), std::move( teConfig ),
        std::move( agentStatus ), std::move( v4AllClientInfo ),
        std::move( v6AllClientInfo ), scheduler_ );
}

void Agent::cliRequestDirSmIs() {
    if ( !eventLoop() ) {
        return;  // tests call the handlers directly
    }
    // Made through the tree, which checks every directory on the way is ours:
    // the socket is then bound by its path below them.
    const std::string dir = joinStatePath( agentRoot(), kCommandRequestDir );
    stateTree().makeDirectory( dir );
    cliRequestDirSm_ = std::make_unique<Platform::CommandChannel>(
        *eventLoop(), stateTree().directoryPath( dir ) );
}

Ptr<Platform::AgentCommandCallback> Agent::commandCallback(
    const std::string& name ) const {
    auto it = commandCallback_.find( name );
    return it == commandCallback_.end() ? nullptr : it->second;
}

void Agent::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::ObjDumpChild( clientDirSm_, context, indent + 2 );
    Platform::ObjDumpChild( v4CspfRoot_, context, indent + 2 );
    Platform::ObjDumpChild( v6CspfRoot_, context, indent + 2 );
}

}  // namespace Cspf

AgentBase::CAgent* agentFactory( const char* name ) {
    return new Cspf::Agent( name ? name : "Cspf" );
}

void dumpStateCallback() {
    Cspf::Agent* agent = Cspf::cspfAgent();
    if ( !agent ) {
        std::fputs( "Cspf Agent addr not set\n", stdout );
        std::fflush( stdout );
        return;
    }
    std::fflush( stdout );
    Platform::DumpContext context( 1, 0, 0 );
    Platform::objDumpPrintf( context, "Cspf Internal State\n" );
    agent->reviveIs( true );
    agent->dumpState( context, 2 );
}

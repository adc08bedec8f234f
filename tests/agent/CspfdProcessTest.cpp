// cspfd in its own process with the real agent library over a fresh tree:
// a client's request gets its result, the command channel answers, and
// SIGTERM stops the agent cleanly.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "platform/CommandChannel.h"
#include "platform/StateTree.h"
#include "records/AgentStatus.h"
#include "records/Client.h"
#include "records/PathTables.h"
#include "records/TeConfig.h"
#include "tests/support/TempDir.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyLoad.h"

extern char** environ;

using namespace Cspf;
using Net::IpGenAddr;
using Platform::create;

namespace {

const char* kTopology = R"({
  "format": "cspf-topology/1",
  "routers": [
    { "name": "r1", "systemId": "0000.0000.0001", "teRouterId": "10.0.0.1", "levels": [2] },
    { "name": "r2", "systemId": "0000.0000.0002", "teRouterId": "10.0.0.2", "levels": [2] }
  ],
  "links": [
    { "level": 2, "ends": [
      { "router": "r1", "interface": "Ethernet1", "ipv4": "10.1.12.0/31", "metric": 10 },
      { "router": "r2", "interface": "Ethernet1", "ipv4": "10.1.12.1/31", "metric": 10 } ] }
  ]
})";

// Polls `done` for up to ten seconds.
template <typename Fn>
bool eventually( Fn done ) {
    for ( int i = 0; i < 1000; ++i ) {
        if ( done() ) {
            return true;
        }
        std::this_thread::sleep_for( std::chrono::milliseconds( 10 ) );
    }
    return false;
}

int waitExit( pid_t pid ) {
    int status = 0;
    for ( int i = 0; i < 1000; ++i ) {
        if ( waitpid( pid, &status, WNOHANG ) == pid ) {
            return WIFEXITED( status ) ? WEXITSTATUS( status ) : -WTERMSIG( status );
        }
        std::this_thread::sleep_for( std::chrono::milliseconds( 10 ) );
    }
    kill( pid, SIGKILL );
    waitpid( pid, &status, 0 );
    return -1000;
}

}  // namespace

TEST( CspfdProcess, ServesAClientAnswersCommandsAndStopsOnSigterm ) {
    TestKit::TempDir dir( "cspfd" );
    Platform::StateTree tree( dir.path() );
    TopoFile::loadIntoTree( TopoFile::parseTopology( kTopology, "t" ), tree,
                            L3::VrfName() );
    create<TrafficEngineering::ConfigWriter>( tree, nullptr,
                                              TrafficEngineering::kConfigPath )
        ->valueIs( { true, IpGenAddr( "10.0.0.1" ) } );

    const std::string root = dir.path();
    const char* argv[] = { CSPFD_PATH, "--root", root.c_str(), nullptr };
    pid_t pid = 0;
    ASSERT_EQ( posix_spawn( &pid, CSPFD_PATH, nullptr, nullptr,
                            const_cast<char**>( argv ), environ ),
               0 );

    const L3::VrfName vrf;
    const auto af = Net::AddressFamily::ipv4;
    auto requests =
        create<ConfigWriter>( tree, nullptr, pathConfigTablePath( vrf, af, "te1" ) );
    requests->pathConfigIs(
        PathConfig( PathKey( IpGenAddr( "10.0.0.2" ), 1 ), 1, true, PathConstraint() ) );
    auto registration = create<ClientWriter>( tree, nullptr, clientPath( "te1" ) );
    registration->addressFamilyIs( af );
    registration->vrfIs( vrf );

    EXPECT_TRUE( eventually( [&] {
        if ( !tree.exists( pathStatusTablePath( vrf, af, "te1" ) ) ) {
            return false;
        }
        auto results =
            create<StatusReader>( tree, nullptr, pathStatusTablePath( vrf, af, "te1" ) );
        const PathStatus s = results->pathStatus( PathKey( IpGenAddr( "10.0.0.2" ), 1 ) );
        return s.hops.size() == 1 && s.hops.data()[0] == IpGenAddr( "10.1.12.1" );
    } ) );
    EXPECT_TRUE(
        create<AgentStatusReader>( tree, nullptr, kAgentStatusPath )->agentEnabled() );

    const std::string channel = tree.directoryPath( "agent/commandRequest/config/Cspf" );
    const std::string dump =
        Platform::sendCommand( channel, "CspfDump", "DUMP_CSPF_STATE" );
    EXPECT_NE( dump.find( "Dest: 10.0.0.2 Id: 1" ), std::string::npos ) << dump;
    EXPECT_EQ( Platform::sendCommand( channel, "CspfDump", "HELLO" ),
               "Unknown command " );

    kill( pid, SIGTERM );
    EXPECT_EQ( waitExit( pid ), 0 );
}

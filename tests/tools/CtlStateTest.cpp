// cspfctl over the agent's state: the TE configuration and CSPF settings,
// clients and their requests, and the results the agent publishes. The test
// plays the agent: it reads what cspfctl wrote through the agent's own
// readers and publishes results through the agent's status writer.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "records/AgentStatus.h"
#include "records/Client.h"
#include "records/CspfCliConfig.h"
#include "records/PathTables.h"
#include "records/TeConfig.h"
#include "tests/support/Program.h"
#include "tests/support/TempDir.h"

namespace {

using CtlRun = TestKit::ProgramRun;

// Runs cspfctl on `root` with `args` (stderr folded into the output).
CtlRun ctl( const std::string& root, const std::string& args ) {
    return TestKit::runShell( std::string( CSPFCTL_PATH ) + " --root " + root + " " +
                              args + " 2>&1" );
}

// A refusal: the given status and one line "cspfctl: ...".
void expectRefused( const std::string& root, const std::string& args, int status ) {
    const CtlRun run = ctl( root, args );
    EXPECT_EQ( run.status, status ) << args << ": " << run.out;
    EXPECT_EQ( run.out.rfind( "cspfctl: ", 0 ), 0u ) << args << ": " << run.out;
    EXPECT_EQ( run.out.find( '\n' ), run.out.size() - 1 ) << args << ": " << run.out;
}

std::vector<std::string> lines( const std::string& text ) {
    std::vector<std::string> out;
    std::istringstream in( text );
    for ( std::string line; std::getline( in, line ); ) {
        out.push_back( line );
    }
    return out;
}

TEST( CtlStateTest, SettingsChangeOnlyWhatIsGivenAndRefuseWhatTheAgentCouldNotRead ) {
    TestKit::TempTree t( "ctlstate" );
    const std::string& root = t.path();
    EXPECT_EQ( ctl( root, "te show" ).out,
               "enabled no\nrouterId 0.0.0.0\n(no record at te/config: the defaults)\n" );
    ASSERT_EQ( ctl( root, "te set --router-id 10.0.0.4" ).status, 0 );
    ASSERT_EQ( ctl( root, "te set --enabled yes" ).status, 0 );
    ASSERT_EQ( ctl( root, "cspf set --hold-wait 300 --max-int 6000" ).status, 0 );
    for ( const std::string& bad : std::vector<std::string>{
              "te set", "te set --enabled on", "te set --router-id 2001:db8::1",
              "te set --router-id 10.0.0", "te set --area 1", "cspf set",
              "cspf set --hold-wait -1", "cspf set --hold-wait 4294967296",
              "cspf set --initial-wait 7000", "cspf set --max-wait 0",
              "cspf set --spf-wait 10", "agent now" } ) {
        expectRefused( root, bad, 2 );
    }
    // The agent reads both fields set, and no refusal changed anything.
    auto te = Platform::create<TrafficEngineering::Config>(
        t.tree, nullptr, TrafficEngineering::kConfigPath );
    EXPECT_TRUE( te->enabled() );
    EXPECT_EQ( te->routerId().toString(), "10.0.0.4" );
    auto cspf = Platform::create<Cspf::CspfCliConfig>( t.tree, nullptr,
                                                       Cspf::kCspfCliConfigPath );
    EXPECT_EQ( cspf->value(), ( Cspf::CspfCliConfigValue{ 50, 300, 6000 } ) );
    EXPECT_EQ( ctl( root, "cspf show" ).out,
               "initialWaitMs 50\nholdWaitMs 300\nmaxWaitMs 6000\n" );

    EXPECT_EQ( ctl( root, "agent" ).out.rfind( "agentEnabled no\n(no record", 0 ), 0u );
    Platform::create<Cspf::AgentStatus>( t.tree, nullptr, Cspf::kAgentStatusPath )
        ->agentEnabledIs( true );
    EXPECT_EQ( ctl( root, "agent" ).out, "agentEnabled yes\n" );
    expectRefused( t / "none", "te show", 1 );
    EXPECT_FALSE( std::filesystem::exists( t / "none" ) );
}

TEST( CtlStateTest, RequestsReachTheClientsTablesAsTheAgentReadsThem ) {
    TestKit::TempTree t( "ctlstate" );
    const std::string& root = t.path();
    ASSERT_EQ( ctl( root, "client add rsvp --vrf red" ).status, 0 );
    // Looking creates nothing, not even the directories of missing tables.
    EXPECT_EQ( ctl( root, "client show rsvp" ).out,
               "client rsvp\nvrfs red\nfamilies ipv4\nvrf red ipv4: 0 requests, 0 "
               "results\nagentEnabled no\n" );
    EXPECT_EQ( ctl( root, "status rsvp" ).out, "" );
    EXPECT_FALSE( t.tree.exists( "te/cspf/status" ) );
    ASSERT_EQ(
        ctl( root, "request add rsvp 10.0.0.2 --vrf red --exclude Ethernet3/1" ).out,
        "request 10.0.0.2 id 0 of rsvp (vrf red ipv4) added\n" );
    ASSERT_EQ( ctl( root, "request add rsvp 2001:db8::2 --id 7 --no-auto-update" ).status,
               0 );
    EXPECT_EQ( ctl( root, "request refresh rsvp 10.0.0.2 --vrf red" ).status, 0 );
    EXPECT_EQ(
        ctl( root, "request refresh rsvp 10.0.0.2 --vrf red" ).out,
        "request 10.0.0.2 id 0 of rsvp (vrf red ipv4) refreshed: refreshReqSeq 2\n" );
    // Changing the constraint keeps the refresh sequence the agent answered.
    EXPECT_EQ( ctl( root, "request add rsvp 10.0.0.2 --vrf red" ).out,
               "request 10.0.0.2 id 0 of rsvp (vrf red ipv4) changed\n" );

    auto reg =
        Platform::create<Cspf::Client>( t.tree, nullptr, Cspf::clientPath( "rsvp" ) );
    EXPECT_EQ( reg->toString(),
               "Value('Cspf::Client', ** {'name': rsvp, 'vrf': [default, "
               "red], 'addressFamily': [ipv4, ipv6]})" );
    auto v4 = Platform::create<Cspf::Config>(
        t.tree, nullptr,
        Cspf::pathConfigTablePath( L3::VrfName( "red" ), Net::AddressFamily::ipv4,
                                   "rsvp" ) );
    const Cspf::PathKey k4( Net::IpGenAddr::parse( "10.0.0.2", "" ), 0 );
    EXPECT_EQ( v4->pathConfig( k4 ), Cspf::PathConfig( k4, 2, true, {} ) );
    auto v6 = Platform::create<Cspf::Config>(
        t.tree, nullptr,
        Cspf::pathConfigTablePath( L3::VrfName(), Net::AddressFamily::ipv6, "rsvp" ) );
    const Cspf::PathKey k6( Net::IpGenAddr::parse( "2001:db8::2", "" ), 7 );
    EXPECT_EQ( v6->pathConfig( k6 ), Cspf::PathConfig( k6, 0, false, {} ) );
    EXPECT_EQ( lines( ctl( root, "request list rsvp --af ipv6" ).out ).size(), 2u );

    for ( const std::string& bad : std::vector<std::string>{
              "request add nobody 10.0.0.2", "request add rsvp 10.0.0.256",
              "request add rsvp 10.0.0.2 --af ipv6", "request add rsvp 0.0.0.0",
              "request add rsvp 10.0.0.2 --vrf ../x", "request add rsvp 10.0.0.2 --id x",
              "request add rsvp 10.0.0.2 --exclude 'eth 0'", "request del rsvp 10.0.0.9",
              "request refresh rsvp 10.0.0.2", "client add a/b", "client leave nobody",
              "status rsvp --vrf blue", "status rsvp --af ipv5" } ) {
        expectRefused( root, bad, 2 );
    }
    {
        // The client itself runs: it holds its registration, and cspfctl
        // cannot write on its behalf.
        auto running = Platform::create<Cspf::ClientWriter>( t.tree, nullptr,
                                                             Cspf::clientPath( "rsvp" ) );
        expectRefused( root, "request del rsvp 2001:db8::2 --id 7", 1 );
    }
    EXPECT_EQ( ctl( root, "client leave rsvp" ).status, 0 );
    EXPECT_EQ( ctl( root, "client list" ).out, "" );
    EXPECT_TRUE( t.tree.listTables( "te/cspf/config" ).empty() );
}

TEST( CtlStateTest, StatusAndWatchShowTheResultsThatThePublisherWrites ) {
    TestKit::TempTree t( "ctlstate" );
    const std::string& root = t.path();
    ASSERT_EQ( ctl( root, "client add rsvp" ).status, 0 );
    auto results = Platform::create<Cspf::Status>(
        t.tree, nullptr,
        Cspf::pathStatusTablePath( L3::VrfName(), Net::AddressFamily::ipv4, "rsvp" ) );
    Cspf::PathStatus found;
    found.key = Cspf::PathKey( Net::IpGenAddr::parse( "10.0.0.2", "" ), 0 );
    found.refreshRespSeq = 3;
    found.changeCount = 1;
    found.lastUpdated = 12.5;
    found.hops.append( Net::IpGenAddr::parse( "10.1.12.1", "" ) );
    found.hops.append( Net::IpGenAddr::parse( "10.1.26.1", "" ) );
    Cspf::PathStatus none;
    none.key = Cspf::PathKey( Net::IpGenAddr::parse( "10.0.0.9", "" ), 4 );
    results->pathStatusIs( found );
    results->pathStatusIs( none );

    const std::vector<std::string> text = lines( ctl( root, "status rsvp" ).out );
    ASSERT_EQ( text.size(), 3u );
    EXPECT_NE(
        text[1].find( "10.0.0.2                          0           1              3 "
                      "        12.500  10.1.12.1 10.1.26.1" ),
        std::string::npos )
        << text[1];
    EXPECT_NE( text[2].find( "  no path" ), std::string::npos ) << text[2];
    EXPECT_EQ(
        ctl( root, "status rsvp --json" ).out,
        "{\"vrf\":\"default\",\"af\":\"ipv4\",\"destination\":\"10.0.0.2\",\"id\":0,"
        "\"hops\":[\"10.1.12.1\",\"10.1.26.1\"],\"changeCount\":1,"
        "\"refreshRespSeq\":3,\"lastUpdated\":12.5}\n"
        "{\"vrf\":\"default\",\"af\":\"ipv4\",\"destination\":\"10.0.0.9\",\"id\":4,"
        "\"hops\":[],\"changeCount\":0,\"refreshRespSeq\":0,\"lastUpdated\":0.0}\n" );

    // What is there when the watch starts is known; only changes count. The
    // publisher keeps changing the result until the watch has seen two.
    auto watching = std::async( std::launch::async, [&] {
        return ctl( root, "watch rsvp --json --count 2 --timeout 20" );
    } );
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds( 30 );
    while ( watching.wait_for( std::chrono::milliseconds( 50 ) ) !=
                std::future_status::ready &&
            std::chrono::steady_clock::now() < giveUp ) {
        ++found.changeCount;
        results->pathStatusIs( found );
    }
    const CtlRun watched = watching.get();
    ASSERT_EQ( watched.status, 0 ) << watched.out;
    const std::vector<std::string> changes = lines( watched.out );
    ASSERT_EQ( changes.size(), 2u ) << watched.out;
    const auto first = nlohmann::json::parse( changes[0] );
    const auto second = nlohmann::json::parse( changes[1] );
    EXPECT_EQ( first["destination"], "10.0.0.2" );
    EXPECT_LT( first["changeCount"].get<int>(), second["changeCount"].get<int>() );

    expectRefused( root, "watch rsvp --count 1 --timeout 0.2 --json", 1 );
    expectRefused( root, "watch rsvp --timeout soon", 2 );
}

}  // namespace

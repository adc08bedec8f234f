// cspfctl as operators run it: compute and topo show on the example and on a
// topology with faults, the exit statuses of bad invocations, the diagnostic
// commands against a stand-in agent, and the agent's state: there the test
// plays the agent, reading what cspfctl wrote through the agent's own
// readers and publishing results through its status writer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/CommandChannel.h"
#include "platform/Entity.h"
#include "platform/EventLoop.h"
#include "records/AgentStatus.h"
#include "records/Client.h"
#include "records/ClientStatus.h"
#include "records/CspfCliConfig.h"
#include "records/PathTables.h"
#include "records/TeConfig.h"
#include "tests/support/Program.h"
#include "tests/support/ScenarioTopology.h"
#include "tests/support/TempDir.h"

namespace {

std::filesystem::path repoRoot() {
    return std::filesystem::path( __FILE__ ).parent_path().parent_path().parent_path();
}

using CtlRun = TestKit::ProgramRun;

// Runs cspfctl with `args` (stderr folded into the output).
CtlRun cspfctl( const std::string& args ) {
    return TestKit::runShell( std::string( CSPFCTL_PATH ) + " " + args + " 2>&1" );
}

CtlRun ctl( const std::string& root, const std::string& args ) {
    return cspfctl( "--root " + root + " " + args );
}

// A refusal: the given status and one line "cspfctl: ...".
void expectRefused( const std::string& args, int status = 2 ) {
    const CtlRun run = cspfctl( args );
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

const std::string kExample = ( repoRoot() / "examples" / "topology.json" ).string();

TEST( CspfctlTest, ComputePrintsTheTreeTheTepOwnersAndHopsAsJsonLines ) {
    const CtlRun run =
        cspfctl( "compute --topology " + kExample +
                 " --source 10.0.0.4 --tree --json --tep 10.1.12.0 --tep 9.9.9.9" );
    ASSERT_EQ( run.status, 0 ) << run.out;
    EXPECT_EQ( run.out,
               "{\"router\":\"10.0.0.4\",\"cost\":0,\"parents\":[]}\n"
               "{\"router\":\"10.0.0.5\",\"cost\":5,\"parents\":[\"10.0.0.4\"]}\n"
               "{\"router\":\"10.0.0.3\",\"cost\":10,\"parents\":[\"10.0.0.4\"]}\n"
               "{\"router\":\"10.0.0.1\",\"cost\":20,\"parents\":[\"10.0.0.3\"]}\n"
               "{\"router\":\"10.0.0.6\",\"cost\":30,\"parents\":[\"10.0.0.3\"]}\n"
               "{\"router\":\"10.0.0.2\",\"cost\":40,\"parents\":[\"10.0.0.6\"]}\n"
               "{\"tep\":\"10.1.12.0\",\"owner\":\"10.0.0.1\",\"hops\":[\"10.3.0.3\","
               "\"10.1.13.0\"]}\n"
               "{\"tep\":\"9.9.9.9\",\"owner\":null,\"hops\":[]}\n" );
}

TEST( CspfctlTest, ComputeExcludesTheSourcesInterface ) {
    // r1's Ethernet2 leads to r3; without it everything goes through r2.
    const CtlRun run =
        cspfctl( "compute --topology " + kExample +
                 " --source 10.0.0.1 --exclude Ethernet2 --tree --tep 10.3.0.5" );
    ASSERT_EQ( run.status, 0 ) << run.out;
    EXPECT_NE( run.out.find( "10.0.0.3                  130  10.0.0.6" ),
               std::string::npos )
        << run.out;
    // Point-to-point hops are the far ends' addresses; the last one crosses
    // r3's LAN to r5's own address on it.
    EXPECT_NE( run.out.find( "tep                owner              hops\n"
                             "10.3.0.5           10.0.0.5           10.1.12.1 10.1.26.1 "
                             "10.1.36.0 10.3.0.5\n" ),
               std::string::npos )
        << run.out;
    const CtlRun v6 =
        cspfctl( "compute --topology " + kExample +
                 " --source 10.0.0.1 --exclude Ethernet2 --af ipv6 --tree" );
    EXPECT_NE( v6.out.find( "10.0.0.3                  130" ), std::string::npos )
        << v6.out;
}

TEST( CspfctlTest, BadInvocationsExitTwoWithOneLine ) {
    for ( const std::string& args : std::vector<std::string>{
              "compute --topology " + kExample + " --source 10.9.9.9",
              "compute --topology " + kExample + " --source 10.0.0.x",
              "compute --topology " + kExample + " --source 10.0.0.1 --tep nope",
              "compute --topology " + kExample + " --source 10.0.0.1 --af ipx",
              "compute --topology " + kExample + " --source 10.0.0.1 --exclude a/b/c/d/e",
              std::string( "compute --topology /nonexistent.json --source 10.0.0.1" ),
              std::string( "compute" ), std::string( "topo frobnicate" ) } ) {
        expectRefused( args );
    }
}

TEST( CspfctlTest, TopoShowTellsWhyALinkIsNotUsable ) {
    // r1-r2 fails the two-way check, r3 is overloaded, r3's end of r2-r3 has no
    // record.
    TestKit::ScenarioTopology faulty;
    faulty.link( 2, "r1:Ethernet1", "r2:Ethernet1", "10.1.0.0" )
        .link( 2, "r1:Ethernet2", "r3:Ethernet1", "10.2.0.0" )
        .link( 2, "r2:Ethernet2", "r3:Ethernet2", "10.3.0.0" );
    faulty.t.links[0].ends[1].neighborAddress4 = Net::IpGenAddr( "10.1.0.7" );
    faulty.t.links[2].ends[1].record = false;
    faulty.t.routers[2].overload = true;
    const TestKit::TempDir dir( "cspfctltest" );
    const std::string file = dir / "faulty.json";
    std::ofstream( file ) << faulty.json();
    const CtlRun load = cspfctl( "--root " + dir / "tree" + " topo load " + file );
    ASSERT_EQ( load.status, 0 ) << load.out;
    const CtlRun tree = cspfctl( "--root " + dir / "tree" + " topo show" );
    const CtlRun offline = cspfctl( "topo show --topology " + file );
    const CtlRun none = cspfctl( "--root " + dir / "none" + " topo show" );
    EXPECT_FALSE( std::filesystem::exists( dir / "none" ) );
    EXPECT_EQ( none.status, 1 ) << none.out;
    ASSERT_EQ( tree.status, 0 ) << tree.out;
    EXPECT_EQ( tree.out, offline.out );
    for ( const char* expected :
          { "router 10.0.0.1 isisL2:0000.0000.0001\n"
            "  -> 10.0.0.3        isisL2 link 2  metric 10  10.2.0.0 -> 10.2.0.1\n"
            "  not usable: isisL2 0000.0000.0001 -> 0000.0000.0002 link 1 (fails the "
            "two-way check)\n",
            "router 10.0.0.3 isisL2:0000.0000.0003 overload\n",
            "  not usable: isisL2 0000.0000.0003 -> 0000.0000.0001 link 2 "
            "(overloaded: no transit)\n",
            "  not usable: isisL2 0000.0000.0003 -> 0000.0000.0002 link 3 (no link "
            "record)\n" } ) {
        EXPECT_NE( tree.out.find( expected ), std::string::npos ) << tree.out;
    }
}

TEST( CspfctlTest, EditsRewriteOnlyWhatChangesAndRefuseWhatIsWrong ) {
    const TestKit::TempDir dir( "cspfctltest" );
    const std::string root = "--root " + dir.path() + " ";
    EXPECT_EQ( cspfctl( root + "topo link down r1 Ethernet1" ).status,
               2 );  // nothing loaded
    ASSERT_EQ( cspfctl( root + "topo load " + kExample ).status, 0 );
    // Down: both ends stop advertising; up: back as it was, and a second up
    // writes nothing.
    EXPECT_EQ( cspfctl( root + "topo link down r1 Ethernet2" ).out,
               "link r1 Ethernet2 down: 2 written, 2 removed\n" );
    EXPECT_EQ(
        cspfctl( root + "topo show" ).out.find( "-> 10.0.0.3        isisL2 link 2" ),
        std::string::npos );
    EXPECT_EQ( cspfctl( root + "topo link up r1 Ethernet2" ).out,
               "link r1 Ethernet2 up: 4 written, 0 removed\n" );
    EXPECT_EQ( cspfctl( root + "topo link up r1 Ethernet2" ).out,
               "link r1 Ethernet2 up: 0 written, 0 removed\n" );
    EXPECT_EQ( cspfctl( root + "topo metric r1 Ethernet2 25" ).out,
               "metric of r1 Ethernet2 25: 1 written, 0 removed\n" );
    EXPECT_EQ( cspfctl( root + "topo overload r6 on" ).out,
               "overload of r6 on: 1 written, 0 removed\n" );
    const std::string shown = cspfctl( root + "topo show" ).out;
    EXPECT_NE( shown.find( "isisL2 link 2  metric 25" ), std::string::npos ) << shown;
    EXPECT_NE( shown.find( "router 10.0.0.6 isisL2:0000.0000.0006 overload" ),
               std::string::npos );
    EXPECT_EQ( cspfctl( root + "topo router del r5" ).status, 0 );
    EXPECT_EQ( cspfctl( root + "topo show" ).out.find( "router 10.0.0.5" ),
               std::string::npos );
    for ( const std::string& bad : std::vector<std::string>{
              "topo link sideways r1 Ethernet1", "topo metric r1 Ethernet9 5",
              "topo metric r1 Ethernet1 16777216", "topo metric r1 Ethernet1 ten",
              "topo overload r9 on", "topo router del r5",
              "intf set Ethernet1 --ipv4 10.0.0.1",
              "intf set Ethernet1 --ipv4 2001:db8::1/64", "intf del Ethernet7" } ) {
        expectRefused( root + bad );
    }
    ASSERT_EQ( cspfctl( root + "intf set Ethernet1 --ipv4 10.1.12.0/31 --secondary "
                               "10.9.9.1/24 --ipv6 2001:db8:12::1/64" )
                   .status,
               0 );
    EXPECT_EQ(
        cspfctl( root + "intf show" ).out,
        "Ethernet1 ipv4 10.1.12.0/31 secondary 10.9.9.1/24 ipv6 2001:db8:12::1/64\n" );
    EXPECT_EQ( cspfctl( root + "intf del Ethernet1" ).status, 0 );
    EXPECT_EQ( cspfctl( root + "intf show" ).out, "" );
}

// Stands in for the agent's handlers: answers "\n[<text>]", without a final
// newline, as the agent's answers begin with one and need not end with one.
class EchoCallback : public Platform::AgentCommandCallback {
  public:
    void handleCommand( uint32_t fd, const std::string& text ) override {
        const std::string a = "\n[" + text + "]";
        EXPECT_EQ( write( static_cast<int>( fd ), a.data(), a.size() ),
                   static_cast<ssize_t>( a.size() ) );
    }
};

// A command channel where cspfd's agent listens, served on its own thread.
class FakeAgent {
  public:
    FakeAgent( const std::string& root, std::vector<std::string> handlers ) {
        std::promise<void> ready;
        thread_ = std::thread( [this, root, handlers, &ready] {
            Platform::EventLoop loop;
            Platform::CommandChannel channel(
                loop, root + "/agent/commandRequest/config/Cspf" );
            for ( const std::string& name : handlers ) {
                channel.handlerIs( name, new EchoCallback );
            }
            ready.set_value();
            while ( !stop_ ) {
                loop.runOnce( 20 );
            }
        } );
        ready.get_future().wait();
    }
    ~FakeAgent() {
        stop_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> stop_{ false };
    std::thread thread_;
};

// The channel's own errors (a dead agent's socket) are its tests' concern.
TEST( CspfctlTest, DumpAndSchedStatsPrintTheAgentsAnswerAsItIs ) {
    const TestKit::TempDir dir( "cspfctltest" );
    const std::string root = "--root " + dir.path() + " ";
    expectRefused( root + "dump", 1 );
    const std::string none = cspfctl( root + "dump" ).out;
    EXPECT_TRUE( none.starts_with( "cspfctl: no agent is listening at " +
                                   dir / "agent/commandRequest/config/Cspf" ) )
        << none;
    {
        FakeAgent agent( dir.path(), { "CspfDump", "CspfSchedStats" } );
        const CtlRun dump = cspfctl( root + "dump" );
        EXPECT_EQ( dump.status, 0 ) << dump.out;
        EXPECT_EQ( dump.out, "\n[DUMP_CSPF_STATE]" );
        // Option words go over as given, unknown ones too, in their order.
        EXPECT_EQ( cspfctl( root + "sched-stats" ).out, "\n[DUMP_SCHEDSTATS]" );
        const CtlRun stats = cspfctl( root + "sched-stats clear detail bogus" );
        EXPECT_EQ( stats.status, 0 );
        EXPECT_EQ( stats.out, "\n[DUMP_SCHEDSTATS clear detail bogus]" );
        EXPECT_EQ( cspfctl( root + "dump now" ).status, 2 );
    }
    // An agent without the handler: its refusal is shown, and fails.
    FakeAgent agent( dir.path(), { "CspfDump" } );
    const CtlRun stats = cspfctl( root + "sched-stats" );
    EXPECT_EQ( stats.status, 1 );
    EXPECT_EQ( stats.out, "Unknown handler CspfSchedStats\n" );
}

TEST( CspfctlTest, SettingsChangeOnlyWhatIsGivenAndRefuseWhatTheAgentCouldNotRead ) {
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
        expectRefused( "--root " + root + " " + bad );
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
    auto agent =
        Platform::create<Cspf::AgentStatus>( t.tree, nullptr, Cspf::kAgentStatusPath );
    agent->runningIs( 4321, 12.5 );
    agent->agentEnabledIs( true );
    EXPECT_EQ( ctl( root, "agent" ).out,
               "agentEnabled yes\nagent running, pid 4321, started at 12.500\n" );
    agent = nullptr;  // gone without a stop
    EXPECT_EQ( ctl( root, "agent" ).out,
               "agentEnabled no\nagent died, pid 4321, started at 12.500\n" );
    expectRefused( "--root " + t / "none" + " te show", 1 );
    EXPECT_FALSE( std::filesystem::exists( t / "none" ) );
}

TEST( CspfctlTest, RequestsReachTheClientsTablesAsTheAgentReadsThem ) {
    TestKit::TempTree t( "ctlstate" );
    const std::string& root = t.path();
    ASSERT_EQ( ctl( root, "client add rsvp --vrf red" ).status, 0 );
    // Looking creates nothing, not even the directories of missing tables.
    EXPECT_EQ( ctl( root, "client show rsvp" ).out,
               "client rsvp\nvrfs red\nfamilies ipv4\nvrf red ipv4: 0 requests, 0 "
               "results\nagentEnabled no\n" );
    // Why the agent does not serve it, as the agent publishes it.
    Platform::create<Cspf::ClientStatusWriter>( t.tree, nullptr, Cspf::kClientStatusPath )
        ->reasonIs( "rsvp", "vrf red ipv4", "cannot attach: no room (retrying)" );
    EXPECT_NE( ctl( root, "client show rsvp" )
                   .out.find( "agentEnabled no\nnot served: vrf red ipv4: cannot attach: "
                              "no room (retrying)\n" ),
               std::string::npos );
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
        expectRefused( "--root " + root + " " + bad );
    }
    {
        // The client itself runs: it holds its registration, and cspfctl
        // cannot write on its behalf.
        auto running = Platform::create<Cspf::ClientWriter>( t.tree, nullptr,
                                                             Cspf::clientPath( "rsvp" ) );
        expectRefused( "--root " + root + " request del rsvp 2001:db8::2 --id 7", 1 );
    }
    EXPECT_EQ( ctl( root, "client leave rsvp" ).status, 0 );
    EXPECT_EQ( ctl( root, "client list" ).out, "" );
    EXPECT_TRUE( t.tree.listTables( "te/cspf/config" ).empty() );
}

TEST( CspfctlTest, StatusAndWatchShowTheResultsThatThePublisherWrites ) {
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

    expectRefused( "--root " + root + " watch rsvp --count 1 --timeout 0.2 --json", 1 );
    expectRefused( "--root " + root + " watch rsvp --timeout soon" );
}

}  // namespace

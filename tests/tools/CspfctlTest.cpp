// cspfctl as operators run it: compute and topo show on the example and on a
// topology with faults, and the exit statuses of bad invocations.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/CommandChannel.h"
#include "platform/EventLoop.h"
#include "tests/support/Program.h"

namespace {

std::filesystem::path repoRoot() {
    return std::filesystem::path( __FILE__ ).parent_path().parent_path().parent_path();
}

using CtlRun = TestKit::ProgramRun;

// Runs cspfctl with `args` (stderr folded into the output).
CtlRun cspfctl( const std::string& args ) {
    return TestKit::runShell( std::string( CSPFCTL_PATH ) + " " + args + " 2>&1" );
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
        const CtlRun run = cspfctl( args );
        EXPECT_EQ( run.status, 2 ) << args << ": " << run.out;
        EXPECT_EQ( run.out.rfind( "cspfctl: ", 0 ), 0u ) << args << ": " << run.out;
        EXPECT_EQ( run.out.find( '\n' ), run.out.size() - 1 ) << args << ": " << run.out;
    }
}

TEST( CspfctlTest, TopoShowTellsWhyALinkIsNotUsable ) {
    char tmpl[] = "/dev/shm/cspfctltest-XXXXXX";
    const std::string dir = mkdtemp( tmpl );
    const std::string file = dir + "/faulty.json";
    std::ofstream( file ) << R"({ "format": "cspf-topology/1",
      "routers": [
        { "name": "a", "systemId": "0000.0000.0001", "teRouterId": "10.0.0.1", "levels": [2] },
        { "name": "b", "systemId": "0000.0000.0002", "teRouterId": "10.0.0.2", "levels": [2] },
        { "name": "c", "systemId": "0000.0000.0003", "teRouterId": "10.0.0.3", "levels": [2],
          "overload": true } ],
      "links": [
        { "level": 2, "ends": [
          { "router": "a", "interface": "Ethernet1", "ipv4": "10.1.0.0/31", "metric": 10 },
          { "router": "b", "interface": "Ethernet1", "ipv4": "10.1.0.1/31", "metric": 10,
            "neighborAddress": "10.1.0.7" } ] },
        { "level": 2, "ends": [
          { "router": "a", "interface": "Ethernet2", "ipv4": "10.2.0.0/31", "metric": 10 },
          { "router": "c", "interface": "Ethernet1", "ipv4": "10.2.0.1/31", "metric": 10 } ] },
        { "level": 2, "ends": [
          { "router": "b", "interface": "Ethernet2", "ipv4": "10.3.0.0/31", "metric": 10 },
          { "router": "c", "interface": "Ethernet2", "ipv4": "10.3.0.1/31", "metric": 10,
            "record": false } ] } ] })";
    const CtlRun load = cspfctl( "--root " + dir + "/tree topo load " + file );
    ASSERT_EQ( load.status, 0 ) << load.out;
    const CtlRun tree = cspfctl( "--root " + dir + "/tree topo show" );
    const CtlRun offline = cspfctl( "topo show --topology " + file );
    const CtlRun none = cspfctl( "--root " + dir + "/none topo show" );
    EXPECT_FALSE( std::filesystem::exists( dir + "/none" ) );
    std::filesystem::remove_all( dir );
    EXPECT_EQ( none.status, 1 ) << none.out;
    ASSERT_EQ( tree.status, 0 ) << tree.out;
    EXPECT_EQ( tree.out, offline.out );
    for ( const char* expected :
          { "router 10.0.0.1 isisL2:0000.0000.0001\n"
            "  -> 10.0.0.3        isisL2 link 2  metric 10  10.2.0.0 -> 10.2.0.1\n"
            "  not usable: isisL2 0000.0000.0001 -> 0000.0000.0002 link 1 (fails the "
            "two-way check)\n",
            "router 10.0.0.3 isisL2:0000.0000.0003 overload\n",
            "  not usable: isisL2 0000.0000.0003 -> 0000.0000.0001 link 2 (overloaded: "
            "no "
            "transit)\n",
            "  not usable: isisL2 0000.0000.0003 -> 0000.0000.0002 link 3 (no link "
            "record)\n" } ) {
        EXPECT_NE( tree.out.find( expected ), std::string::npos ) << tree.out;
    }
}

}  // namespace

namespace {

TEST( CspfctlTest, EditsRewriteOnlyWhatChangesAndRefuseWhatIsWrong ) {
    char tmpl[] = "/dev/shm/cspfctltest-XXXXXX";
    const std::string dir = mkdtemp( tmpl );
    const std::string root = "--root " + dir + " ";
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
        const CtlRun run = cspfctl( root + bad );
        EXPECT_EQ( run.status, 2 ) << bad << ": " << run.out;
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
    std::filesystem::remove_all( dir );
}

}  // namespace

namespace {

// Stands in for the agent's handlers: answers what `answer` makes of the text.
class AnswerCallback : public Platform::AgentCommandCallback {
  public:
    explicit AnswerCallback( std::function<std::string( const std::string& )> answer )
        : answer_( std::move( answer ) ) {}
    void handleCommand( uint32_t fd, const std::string& text ) override {
        const std::string a = answer_( text );
        EXPECT_EQ( write( static_cast<int>( fd ), a.data(), a.size() ),
                   static_cast<ssize_t>( a.size() ) );
    }

  private:
    std::function<std::string( const std::string& )> answer_;
};

const std::string kDumpAnswer =
    "\n-----------Cspf Internal State Dump-------------\n\n"
    "-----CSPF client config and status-----\n  rsvp\n    Vrf: default\n"
    "no newline at the end";

// A command channel where cspfd's agent listens, served on its own thread.
class FakeAgent {
  public:
    FakeAgent( const std::string& root, bool schedStats ) {
        std::promise<void> ready;
        thread_ = std::thread( [this, root, schedStats, &ready] {
            Platform::EventLoop loop;
            Platform::CommandChannel channel(
                loop, root + "/agent/commandRequest/config/Cspf" );
            channel.handlerIs(
                "CspfDump", new AnswerCallback( []( const std::string& text ) {
                    return text == "DUMP_CSPF_STATE" ? kDumpAnswer : "Unknown command ";
                } ) );
            if ( schedStats ) {
                channel.handlerIs( "CspfSchedStats",
                                   new AnswerCallback( []( const std::string& text ) {
                                       return "\n[" + text + "]";
                                   } ) );
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

TEST( CspfctlTest, DumpAndSchedStatsPrintTheAgentsAnswerAsItIs ) {
    char tmpl[] = "/dev/shm/cspfctltest-XXXXXX";
    const std::string dir = mkdtemp( tmpl );
    {
        FakeAgent agent( dir + "/a", true );
        const std::string root = "--root " + dir + "/a ";
        const CtlRun dump = cspfctl( root + "dump" );
        EXPECT_EQ( dump.status, 0 ) << dump.out;
        EXPECT_EQ( dump.out, kDumpAnswer );
        // Option words go over as given, unknown ones too, in their order.
        EXPECT_EQ( cspfctl( root + "sched-stats" ).out, "\n[DUMP_SCHEDSTATS]" );
        const CtlRun stats = cspfctl( root + "sched-stats clear detail bogus" );
        EXPECT_EQ( stats.status, 0 );
        EXPECT_EQ( stats.out, "\n[DUMP_SCHEDSTATS clear detail bogus]" );
        EXPECT_EQ( cspfctl( root + "dump now" ).status, 2 );
    }
    {
        // An agent without the handler: its refusal is shown, and fails.
        FakeAgent agent( dir + "/b", false );
        const CtlRun stats = cspfctl( "--root " + dir + "/b sched-stats" );
        EXPECT_EQ( stats.status, 1 );
        EXPECT_EQ( stats.out, "Unknown handler CspfSchedStats\n" );
    }
    std::filesystem::remove_all( dir );
}

TEST( CspfctlTest, NoAgentListeningIsOneLineAndStatusOne ) {
    char tmpl[] = "/dev/shm/cspfctltest-XXXXXX";
    const std::string dir = mkdtemp( tmpl );
    const std::string channelDir = dir + "/agent/commandRequest/config/Cspf";
    const CtlRun none = cspfctl( "--root " + dir + " dump" );
    EXPECT_EQ( none.status, 1 );
    EXPECT_EQ( none.out.rfind( "cspfctl: no agent is listening at " + channelDir, 0 ),
               0u )
        << none.out;
    EXPECT_EQ( none.out.find( '\n' ), none.out.size() - 1 ) << none.out;

    // The socket of an agent that died: nobody accepts on it.
    std::filesystem::create_directories( channelDir );
    const int fd = socket( AF_UNIX, SOCK_STREAM, 0 );
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = channelDir + "/command.sock";
    std::strncpy( addr.sun_path, path.c_str(), sizeof( addr.sun_path ) - 1 );
    ASSERT_EQ( bind( fd, reinterpret_cast<sockaddr*>( &addr ), sizeof( addr ) ), 0 );
    close( fd );
    const CtlRun dead = cspfctl( "--root " + dir + " sched-stats detail" );
    EXPECT_EQ( dead.status, 1 );
    EXPECT_EQ( dead.out.rfind( "cspfctl: no agent listens on " + path, 0 ), 0u )
        << dead.out;
    EXPECT_EQ( dead.out.find( '\n' ), dead.out.size() - 1 ) << dead.out;
    std::filesystem::remove_all( dir );
}

}  // namespace

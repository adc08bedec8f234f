// The whole agent in one process on the manual clock, over a fresh state
// tree: start-up, the enable rule, clients coming and going, requests flowing
// to results, start-up clean-ups and the diagnostic commands.
//
//   level 2:  r1 --10-- r2 --10-- r3       r1 is us (10.0.0.1)
//             r1 ------ 30 ------ r3
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "agent/CspfAgent.h"
#include "platform/AgentBase.h"
#include "platform/Clock.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"
#include "records/AgentStatus.h"
#include "records/Client.h"
#include "records/CspfCliConfig.h"
#include "records/IpStatus.h"
#include "records/PathTables.h"
#include "records/TeConfig.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyLoad.h"

using namespace Cspf;
using Net::IpGenAddr;
using Platform::create;
using Platform::Ptr;

namespace {

const char* kTopology = R"({
  "format": "cspf-topology/1",
  "routers": [
    { "name": "r1", "systemId": "0000.0000.0001", "teRouterId": "10.0.0.1", "levels": [2] },
    { "name": "r2", "systemId": "0000.0000.0002", "teRouterId": "10.0.0.2", "levels": [2] },
    { "name": "r3", "systemId": "0000.0000.0003", "teRouterId": "10.0.0.3", "levels": [2] }
  ],
  "links": [
    { "level": 2, "ends": [
      { "router": "r1", "interface": "Ethernet1", "ipv4": "10.1.12.0/31", "metric": 10 },
      { "router": "r2", "interface": "Ethernet1", "ipv4": "10.1.12.1/31", "metric": 10 } ] },
    { "level": 2, "ends": [
      { "router": "r2", "interface": "Ethernet2", "ipv4": "10.1.23.0/31", "metric": 10 },
      { "router": "r3", "interface": "Ethernet1", "ipv4": "10.1.23.1/31", "metric": 10 } ] },
    { "level": 2, "ends": [
      { "router": "r1", "interface": "Ethernet2", "ipv4": "10.1.13.0/31", "metric": 30 },
      { "router": "r3", "interface": "Ethernet2", "ipv4": "10.1.13.1/31", "metric": 30 } ] }
  ]
})";

const Net::AddressFamily v4 = Net::AddressFamily::ipv4;
const Net::AddressFamily v6 = Net::AddressFamily::ipv6;
const L3::VrfName kDefault;

// A client agent as the agent sees it: its registration and, per VRF and
// family, its request table and a reader of its results.
struct TestClient {
    Ptr<ClientWriter> registration;
    std::map<std::string, Ptr<ConfigWriter>> requests;
};

class AgentScenarioTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/dev/shm/agentscenario-XXXXXX";
        dir_ = mkdtemp( tmpl );
        tree_ = std::make_unique<Platform::StateTree>( dir_ );
        TopoFile::loadIntoTree( TopoFile::parseTopology( kTopology, "scenario" ), *tree_,
                                kDefault );
        create<CspfCliConfigWriter>( *tree_, nullptr, kCspfCliConfigPath )
            ->valueIs( { 50, 200, 1000 } );
        teWriter_ = create<TrafficEngineering::ConfigWriter>(
            *tree_, nullptr, TrafficEngineering::kConfigPath );
        teWriter_->valueIs( { true, IpGenAddr( "10.0.0.1" ) } );
        ipWriter_ = create<Ip::StatusWriter>( *tree_, nullptr, Ip::kStatusPath );
        Ip::IntfAddrs addrs;
        addrs.active = { IpGenAddr( "10.1.12.0" ), 31 };
        ipWriter_->intfAddrsIs( Net::IntfId( "Ethernet1" ), addrs );
        addrs.active = { IpGenAddr( "10.1.13.0" ), 31 };
        ipWriter_->intfAddrsIs( Net::IntfId( "Ethernet2" ), addrs );
    }
    void TearDown() override {
        agent_.reset();
        framework_.reset();
        clients_.clear();
        std::filesystem::remove_all( dir_ );
    }

    void start() {
        framework_ = std::make_unique<AgentBase::Framework>( *tree_, inotify_, nullptr );
        agent_.reset( static_cast<Agent*>( agentFactory( "Cspf" ) ) );
        framework_->start( *agent_ );
        ASSERT_TRUE( framework_->mountsComplete() );
    }
    // Lets the agent hear what the other processes wrote, then lets time pass.
    void settle( double ms = 0 ) {
        for ( int i = 0; i < 10; ++i ) {
            inotify_.poll();
        }
        clock_->advance( ms / 1000.0 );
        inotify_.poll();
    }

    TestClient& client( const std::string& name ) { return clients_[name]; }
    void registerClient( const std::string& name, const L3::VrfName& vrf,
                         std::vector<Net::AddressFamily> afs = { v4 } ) {
        TestClient& c = clients_[name];
        if ( !c.registration ) {
            c.registration = create<ClientWriter>( *tree_, nullptr, clientPath( name ) );
        }
        for ( Net::AddressFamily af : afs ) {
            c.registration->addressFamilyIs( af );
        }
        c.registration->vrfIs( vrf );
    }
    void unregisterClient( const std::string& name ) {
        clients_.erase( name );
        tree_->removeTable( clientPath( name ) );
    }
    void request( const std::string& name, const L3::VrfName& vrf, const char* dst,
                  uint32_t id, uint32_t seq = 1, const char* exclude = "",
                  Net::AddressFamily af = v4 ) {
        auto& writer = clients_[name].requests[vrf.name() + toString( af )];
        if ( !writer ) {
            writer = create<ConfigWriter>( *tree_, nullptr,
                                           pathConfigTablePath( vrf, af, name ) );
        }
        writer->pathConfigIs( PathConfig( PathKey( IpGenAddr( dst ), id ), seq, true,
                                          PathConstraint( Net::IntfId( exclude ) ) ) );
    }
    std::vector<PathStatus> results( const std::string& name, const L3::VrfName& vrf,
                                     Net::AddressFamily af = v4 ) {
        std::vector<PathStatus> out;
        const std::string path = pathStatusTablePath( vrf, af, name );
        if ( !tree_->exists( path ) ) {
            return out;
        }
        auto reader = create<StatusReader>( *tree_, nullptr, path );
        for ( const auto& entry : reader->keys() ) {
            out.push_back( reader->pathStatus( entry.first ) );
        }
        return out;
    }
    bool agentEnabled() {
        return create<AgentStatusReader>( *tree_, nullptr, kAgentStatusPath )
            ->agentEnabled();
    }
    Ptr<CspfRoot> root( Net::AddressFamily af ) {
        return af == v4 ? agent_->v4CspfRoot() : agent_->v6CspfRoot();
    }
    std::string command( const std::string& handler, const std::string& text ) {
        const int fd = memfd_create( "answer", 0 );
        agent_->commandCallback( handler )->handleCommand( static_cast<uint32_t>( fd ),
                                                           text );
        std::string out( static_cast<size_t>( lseek( fd, 0, SEEK_END ) ), '\0' );
        EXPECT_EQ( pread( fd, out.data(), out.size(), 0 ),
                   static_cast<ssize_t>( out.size() ) );
        close( fd );
        return out;
    }

    Platform::ManualClockScope clock_;
    Platform::Inotify inotify_{ nullptr };
    std::string dir_;
    std::unique_ptr<Platform::StateTree> tree_;
    std::unique_ptr<AgentBase::Framework> framework_;
    std::unique_ptr<Agent> agent_;
    Ptr<TrafficEngineering::ConfigWriter> teWriter_;
    Ptr<Ip::StatusWriter> ipWriter_;
    std::map<std::string, TestClient> clients_;
};

std::vector<IpGenAddr> hops( std::initializer_list<const char*> texts ) {
    return std::vector<IpGenAddr>( texts.begin(), texts.end() );
}

std::vector<IpGenAddr> hopsOf( const PathStatus& status ) {
    return std::vector<IpGenAddr>( status.hops.begin(), status.hops.end() );
}

}  // namespace

TEST_F( AgentScenarioTest, EnablesWithTheFirstClientAndServesItsRequests ) {
    start();
    settle();
    EXPECT_FALSE( agentEnabled() );
    EXPECT_EQ( root( v4 )->vrfRoots(), 0u );

    request( "te1", kDefault, "10.0.0.3", 1 );
    request( "te1", kDefault, "10.0.0.3", 2, 1, "Ethernet1" );
    registerClient( "te1", kDefault );
    settle();
    EXPECT_TRUE( agentEnabled() );
    EXPECT_EQ( root( v4 )->vrfRoots(), 1u );
    EXPECT_EQ( root( v6 )->vrfRoots(), 0u );  // the client asked for IPv4 only
    EXPECT_TRUE( results( "te1", kDefault ).empty() );

    settle( 50 );  // the constraint's initial wait
    auto got = results( "te1", kDefault );
    ASSERT_EQ( got.size(), 2u );
    EXPECT_EQ( hopsOf( got[0] ), hops( { "10.1.12.1", "10.1.23.1" } ) );
    EXPECT_EQ( hopsOf( got[1] ), hops( { "10.1.13.1" } ) );  // Ethernet1 excluded
    EXPECT_EQ( got[0].refreshRespSeq, 1u );

    // A request removed takes its result with it.
    clients_["te1"].requests[kDefault.name() + "ipv4"]->pathConfigDel(
        PathKey( IpGenAddr( "10.0.0.3" ), 2 ) );
    settle();
    ASSERT_EQ( results( "te1", kDefault ).size(), 1u );

    // The router id withdrawn: disabled, everything torn down.
    teWriter_->valueIs( { true, IpGenAddr::v4( 0 ) } );
    settle();
    EXPECT_FALSE( agentEnabled() );
    EXPECT_EQ( agent_->clientDirSm()->clientSms(), 0u );
    EXPECT_EQ( root( v4 )->vrfRoots(), 0u );
    EXPECT_EQ( root( v4 )->allClientInfo()->pathConfigInfoTables(), 0u );

    teWriter_->valueIs( { true, IpGenAddr( "10.0.0.1" ) } );
    settle( 50 );
    EXPECT_TRUE( agentEnabled() );
    EXPECT_EQ( results( "te1", kDefault ).size(), 1u );
}

TEST_F( AgentScenarioTest, ClientsShareAVrfAndLeaveOneByOne ) {
    const L3::VrfName red( "red" );
    TopoFile::loadIntoTree( TopoFile::parseTopology( kTopology, "scenario" ), *tree_,
                            red );
    start();
    registerClient( "te1", red );
    registerClient( "te2", red );
    request( "te1", red, "10.0.0.3", 7 );
    request( "te2", red, "10.0.0.3", 7 );  // the same key, another client
    settle( 50 );
    EXPECT_EQ( root( v4 )->vrfRoots(), 1u );
    auto vrfRoot = root( v4 )->vrfRoot( red );
    EXPECT_EQ( vrfRoot->pathConfigInfoTable()->pathConfigInfos(), 2u );
    EXPECT_EQ( results( "te1", red ).size(), 1u );
    EXPECT_EQ( results( "te2", red ).size(), 1u );

    unregisterClient( "te1" );
    settle();
    EXPECT_TRUE( agentEnabled() );
    EXPECT_EQ( root( v4 )->vrfRoot( red ), vrfRoot );
    EXPECT_EQ( vrfRoot->pathConfigInfoTable()->pathConfigInfos(), 1u );
    EXPECT_FALSE( tree_->exists( pathStatusTablePath( red, v4, "te1" ) ) );
    EXPECT_EQ( results( "te2", red ).size(), 1u );

    unregisterClient( "te2" );
    settle();
    EXPECT_FALSE( agentEnabled() );
    EXPECT_EQ( root( v4 )->vrfRoots(), 0u );
    EXPECT_EQ( root( v4 )->vrfRootSms(), 0u );
    EXPECT_EQ( root( v4 )->allClientInfo()->pathStatusInfoTables(), 0u );
}

TEST_F( AgentScenarioTest, AFamilyRemovedFromAClientEndsItsVrfInThatFamily ) {
    start();
    registerClient( "te1", kDefault, { v4, v6 } );
    request( "te1", kDefault, "10.0.0.3", 1 );
    settle( 50 );
    EXPECT_EQ( root( v6 )->vrfRoots(), 1u );
    auto clientVrf = agent_->clientDirSm()->clientSm( "te1" )->clientVrfSm( kDefault );
    EXPECT_TRUE( clientVrf->pathSm( v6 ) );

    clients_["te1"].registration->addressFamilyDel( v6 );
    settle();
    EXPECT_FALSE( clientVrf->pathSm( v6 ) );
    EXPECT_FALSE( clientVrf->vrfDedupHandle( v6 ) );
    EXPECT_EQ( root( v6 )->vrfRoots(), 0u );
    EXPECT_FALSE( tree_->exists( pathStatusTablePath( kDefault, v6, "te1" ) ) );
    EXPECT_EQ( results( "te1", kDefault ).size(), 1u );  // IPv4 untouched
}

TEST_F( AgentScenarioTest, StartUpRemovesStaleResultsAndKeepsTheRest ) {
    // Left by an earlier run: a result table of a client that is gone, one of
    // a family the client no longer lists, a result without its request, and
    // a valid one.
    const PathKey kept( IpGenAddr( "10.0.0.3" ), 1 ), stale( IpGenAddr( "10.0.0.2" ), 9 );
    {
        auto old =
            create<Status>( *tree_, nullptr, pathStatusTablePath( kDefault, v4, "te1" ) );
        PathStatus s;
        s.key = kept;
        s.refreshRespSeq = 1;
        s.changeCount = 4;
        const auto h = hops( { "10.1.12.1", "10.1.23.1" } );
        s.hops.set( h.data(), h.size() );
        old->pathStatusIs( s );
        s.key = stale;
        old->pathStatusIs( s );
        create<Status>( *tree_, nullptr, pathStatusTablePath( kDefault, v4, "gone" ) );
        create<Status>( *tree_, nullptr, pathStatusTablePath( kDefault, v6, "te1" ) );
    }
    registerClient( "te1", kDefault );
    request( "te1", kDefault, "10.0.0.3", 1 );
    start();
    settle();
    EXPECT_FALSE( tree_->exists( pathStatusTablePath( kDefault, v4, "gone" ) ) );
    EXPECT_FALSE( tree_->exists( pathStatusTablePath( kDefault, v6, "te1" ) ) );
    auto got = results( "te1", kDefault );
    ASSERT_EQ( got.size(), 1u );
    EXPECT_EQ( got[0].key, kept );

    // The same hops computed again: the client's result is not rewritten.
    settle( 50 );
    got = results( "te1", kDefault );
    ASSERT_EQ( got.size(), 1u );
    EXPECT_EQ( got[0].changeCount, 4u );
}

TEST_F( AgentScenarioTest, BadClientsAreSkippedAndTheOthersServed ) {
    start();
    // A name that cannot be a path component of ours, and a request table
    // that is not one.
    tree_->makeDirectory( kClientDirPath );
    std::ofstream( tree_->directoryPath( kClientDirPath ) + "/" +
                   std::string( 120, 'x' ) )
        << "CSPFTBL1";
    {
        tree_->makeParents( pathConfigTablePath( kDefault, v4, "bad" ) );
        std::ofstream( tree_->filePath( pathConfigTablePath( kDefault, v4, "bad" ) ) )
            << "CSPFTBL1 this is not a table";
    }
    registerClient( "bad", kDefault );
    registerClient( "te1", kDefault );
    request( "te1", kDefault, "10.0.0.3", 1 );
    settle( 50 );
    EXPECT_TRUE( agentEnabled() );
    EXPECT_FALSE(
        agent_->clientDirSm()->clientSm( "bad" )->clientVrfSm( kDefault )->pathSm( v4 ) );
    EXPECT_EQ( results( "te1", kDefault ).size(), 1u );
}

TEST_F( AgentScenarioTest, DiagnosticCommandsAnswerAsDocumented ) {
    testing::internal::CaptureStdout();
    dumpStateCallback();
    EXPECT_EQ( testing::internal::GetCapturedStdout(), "Cspf Agent addr not set\n" );

    start();
    // Clearing answers an empty line and nothing else.
    EXPECT_EQ( command( "CspfSchedStats", "DUMP_SCHEDSTATS clear detail" ), "\n" );
    registerClient( "te1", kDefault );
    request( "te1", kDefault, "10.0.0.3", 1 );
    settle( 50 );
    clock_->advance( 12.5 );

    EXPECT_EQ( command( "CspfDump", "DUMP_CSPF_STATE extra" ), "Unknown command " );
    EXPECT_EQ( command( "CspfSchedStats", "DUMP_STATS" ), "Unknown command " );

    // Pointers and measured times differ from run to run; the rest is golden.
    const auto golden = [&]( const std::string& text, const std::string& file ) {
        std::ifstream in( std::string( CSPF_TEST_DATA ) + "/agent/" + file );
        const std::string expected( ( std::istreambuf_iterator<char>( in ) ),
                                    std::istreambuf_iterator<char>() );
        EXPECT_EQ( text, expected ) << file;
    };
    const std::regex pointer( "0x[0-9a-f]{6,}" );
    golden(
        std::regex_replace( command( "CspfDump", "DUMP_CSPF_STATE" ), pointer, "0xPTR" ),
        "dump.golden" );
    golden( std::regex_replace(
                std::regex_replace(
                    command( "CspfSchedStats", "DUMP_SCHEDSTATS detail bogus" ),
                    std::regex( "[0-9]+\\.[0-9]{3}" ), "#.###" ),
                pointer, "0xPTR" ),
            "schedstats.golden" );
}

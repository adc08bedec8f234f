// The whole agent in one process on the manual clock, over a fresh state
// tree: start-up, the enable rule, clients coming and going, requests flowing
// to results, start-up clean-ups and the diagnostic commands.
//
//   level 2:  r1 --10-- r2 --10-- r3       r1 is us (10.0.0.1)
//             r1 ------ 30 ------ r3
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

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
#include "records/ClientStatus.h"
#include "records/CspfCliConfig.h"
#include "records/IpStatus.h"
#include "records/PathTables.h"
#include "records/TeConfig.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/ScenarioTopology.h"
#include "tests/support/TempDir.h"
#include "tools/TopologyLoad.h"

using namespace Cspf;
using Net::IpGenAddr;
using Platform::create;
using Platform::Ptr;

namespace {

const TopoFile::Topology kTopology =
    TestKit::ScenarioTopology()
        .link( 2, "r1:Ethernet1", "r2:Ethernet1", "10.1.12.0" )
        .link( 2, "r2:Ethernet2", "r3:Ethernet1", "10.1.23.0" )
        .link( 2, "r1:Ethernet2", "r3:Ethernet2", "10.1.13.0", 30 )
        .t;

const Net::AddressFamily v4 = Net::AddressFamily::ipv4;
const Net::AddressFamily v6 = Net::AddressFamily::ipv6;
const L3::VrfName kDefault;

// A client agent as the agent sees it: its registration and its request
// tables by VRF and family.
struct TestClient {
    Ptr<ClientWriter> registration;
    std::map<std::pair<std::string, Net::AddressFamily>, Ptr<ConfigWriter>> requests;
};

class AgentScenarioTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TopoFile::loadIntoTree( kTopology, tree_, kDefault );
        create<CspfCliConfigWriter>( tree_, nullptr, kCspfCliConfigPath )
            ->valueIs( { 50, 200, 1000 } );
        teWriter_ = create<TrafficEngineering::ConfigWriter>(
            tree_, nullptr, TrafficEngineering::kConfigPath );
        teWriter_->valueIs( { true, IpGenAddr( "10.0.0.1" ) } );
        ipWriter_ = create<Ip::StatusWriter>( tree_, nullptr, Ip::kStatusPath );
        Ip::IntfAddrs addrs;
        addrs.active = { IpGenAddr( "10.1.12.0" ), 31 };
        ipWriter_->intfAddrsIs( Net::IntfId( "Ethernet1" ), addrs );
        addrs.active = { IpGenAddr( "10.1.13.0" ), 31 };
        ipWriter_->intfAddrsIs( Net::IntfId( "Ethernet2" ), addrs );
    }
    void start() {
        framework_ = std::make_unique<AgentBase::Framework>( tree_, inotify_, nullptr );
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

    void registerClient( const std::string& name, const L3::VrfName& vrf,
                         std::vector<Net::AddressFamily> afs = { v4 } ) {
        TestClient& c = clients_[name];
        if ( !c.registration ) {
            c.registration = create<ClientWriter>( tree_, nullptr, clientPath( name ) );
        }
        for ( Net::AddressFamily af : afs ) {
            c.registration->addressFamilyIs( af );
        }
        c.registration->vrfIs( vrf );
    }
    void unregisterClient( const std::string& name ) {
        clients_.erase( name );
        tree_.removeTable( clientPath( name ) );
    }
    void request( const std::string& name, const L3::VrfName& vrf, const char* dst,
                  uint32_t id, const char* exclude = "",
                  Net::AddressFamily af = Net::AddressFamily::ipv4 ) {
        auto& writer = clients_[name].requests[{ vrf.name(), af }];
        if ( !writer ) {
            writer = create<ConfigWriter>( tree_, nullptr,
                                           pathConfigTablePath( vrf, af, name ) );
        }
        writer->pathConfigIs( PathConfig( PathKey( IpGenAddr( dst ), id ), 1, true,
                                          PathConstraint( Net::IntfId( exclude ) ) ) );
    }
    std::vector<PathStatus> results( const std::string& name, const L3::VrfName& vrf ) {
        std::vector<PathStatus> out;
        const std::string path = pathStatusTablePath( vrf, v4, name );
        if ( !tree_.exists( path ) ) {
            return out;
        }
        auto reader = create<StatusReader>( tree_, nullptr, path );
        for ( const auto& entry : reader->keys() ) {
            out.push_back( reader->pathStatus( entry.first ) );
        }
        return out;
    }
    bool agentEnabled() {
        return create<AgentStatusReader>( tree_, nullptr, kAgentStatusPath )
            ->agentEnabled();
    }
    Ptr<CspfRoot> root( Net::AddressFamily af ) {
        return af == v4 ? agent_->v4CspfRoot() : agent_->v6CspfRoot();
    }
    // What te/cspf/clientStatus says of a client; "" when it is served.
    std::string whyNotServed( const std::string& name ) {
        if ( !tree_.exists( kClientStatusPath ) ) {
            return "<no table>";
        }
        return create<ClientStatusReader>( tree_, nullptr, kClientStatusPath )
            ->get( name );
    }
    // The CSPF runs of every constraint of a VRF in a family.
    uint32_t runs( Net::AddressFamily af, const L3::VrfName& vrf ) {
        uint32_t n = 0;
        for ( const auto& [handle, stats] : root( af )
                                                ->vrfRoot( vrf )
                                                ->constraintStatsTable()
                                                ->constraintStatsColl() ) {
            n += stats->cspfCount();
        }
        return n;
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
    TestKit::TempTree tmp_{ "agentscenario" };
    Platform::StateTree& tree_ = tmp_.tree;
    std::map<std::string, TestClient> clients_;
    Ptr<TrafficEngineering::ConfigWriter> teWriter_;
    Ptr<Ip::StatusWriter> ipWriter_;
    // The agent goes first, then its framework.
    std::unique_ptr<AgentBase::Framework> framework_;
    std::unique_ptr<Agent> agent_;
};

// "10.1.12.1 10.1.23.1"
std::string hopsOf( const PathStatus& status ) {
    std::string out;
    for ( const IpGenAddr& hop : status.hops ) {
        out += ( out.empty() ? "" : " " ) + hop.toString();
    }
    return out;
}

}  // namespace

TEST_F( AgentScenarioTest, EnablesWithTheFirstClientAndServesItsRequests ) {
    start();
    settle();
    EXPECT_FALSE( agentEnabled() );
    EXPECT_EQ( root( v4 )->vrfRoots(), 0u );

    request( "te1", kDefault, "10.0.0.3", 1 );
    request( "te1", kDefault, "10.0.0.3", 2, "Ethernet1" );
    registerClient( "te1", kDefault );
    settle();
    EXPECT_TRUE( agentEnabled() );
    EXPECT_EQ( root( v4 )->vrfRoots(), 1u );
    EXPECT_EQ( root( v6 )->vrfRoots(), 0u );  // the client asked for IPv4 only
    EXPECT_TRUE( results( "te1", kDefault ).empty() );

    settle( 50 );  // the constraint's initial wait
    auto got = results( "te1", kDefault );
    ASSERT_EQ( got.size(), 2u );
    EXPECT_EQ( hopsOf( got[0] ), "10.1.12.1 10.1.23.1" );
    EXPECT_EQ( hopsOf( got[1] ), "10.1.13.1" );  // Ethernet1 excluded
    EXPECT_EQ( got[0].refreshRespSeq, 1u );

    // A request removed takes its result with it.
    clients_["te1"].requests[{ kDefault.name(), v4 }]->pathConfigDel(
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

TEST_F( AgentScenarioTest, ClientsShareAVrfAndLeaveAFamilyThenOneByOne ) {
    const L3::VrfName red( "red" );
    TopoFile::loadIntoTree( kTopology, tree_, red );
    start();
    registerClient( "te1", red, { v4, v6 } );
    registerClient( "te2", red );
    request( "te1", red, "10.0.0.3", 7 );
    request( "te2", red, "10.0.0.3", 7 );  // the same key, another client
    settle( 50 );
    EXPECT_EQ( root( v4 )->vrfRoots(), 1u );
    EXPECT_EQ( root( v6 )->vrfRoots(), 1u );
    auto vrfRoot = root( v4 )->vrfRoot( red );
    EXPECT_EQ( vrfRoot->pathConfigInfoTable()->pathConfigInfos(), 2u );
    EXPECT_EQ( results( "te1", red ).size(), 1u );
    EXPECT_EQ( results( "te2", red ).size(), 1u );

    // te1 drops IPv6: the VRF ends in that family alone.
    auto clientVrf = agent_->clientDirSm()->clientSm( "te1" )->clientVrfSm( red );
    EXPECT_TRUE( clientVrf->pathSm( v6 ) );
    clients_["te1"].registration->addressFamilyDel( v6 );
    settle();
    EXPECT_FALSE( clientVrf->pathSm( v6 ) );
    EXPECT_FALSE( clientVrf->vrfDedupHandle( v6 ) );
    EXPECT_EQ( root( v6 )->vrfRoots(), 0u );
    EXPECT_FALSE( tree_.exists( pathStatusTablePath( red, v6, "te1" ) ) );
    EXPECT_EQ( results( "te1", red ).size(), 1u );

    unregisterClient( "te1" );
    settle();
    EXPECT_TRUE( agentEnabled() );
    EXPECT_EQ( root( v4 )->vrfRoot( red ), vrfRoot );
    EXPECT_EQ( vrfRoot->pathConfigInfoTable()->pathConfigInfos(), 1u );
    EXPECT_FALSE( tree_.exists( pathStatusTablePath( red, v4, "te1" ) ) );
    EXPECT_EQ( results( "te2", red ).size(), 1u );

    unregisterClient( "te2" );
    settle();
    EXPECT_FALSE( agentEnabled() );
    EXPECT_EQ( root( v4 )->vrfRoots(), 0u );
    EXPECT_EQ( root( v4 )->vrfRootSms(), 0u );
    EXPECT_EQ( root( v4 )->allClientInfo()->pathStatusInfoTables(), 0u );
}

// Left by an earlier run: a result table of a client that is gone and one of
// a family the client no longer lists. (A result without its request, and
// results kept as they were, are the end-to-end restart's.)
TEST_F( AgentScenarioTest, StartUpRemovesResultTablesNoClientListsAnyMore ) {
    create<Status>( tree_, nullptr, pathStatusTablePath( kDefault, v4, "gone" ) );
    create<Status>( tree_, nullptr, pathStatusTablePath( kDefault, v6, "te1" ) );
    registerClient( "te1", kDefault );
    request( "te1", kDefault, "10.0.0.3", 1 );
    start();
    settle( 50 );
    EXPECT_FALSE( tree_.exists( pathStatusTablePath( kDefault, v4, "gone" ) ) );
    EXPECT_FALSE( tree_.exists( pathStatusTablePath( kDefault, v6, "te1" ) ) );
    EXPECT_EQ( results( "te1", kDefault ).size(), 1u );
}

TEST_F( AgentScenarioTest, BadClientsAreSkippedAndTheOthersServed ) {
    start();
    // Entries that are no clients: a name that cannot be a path component
    // of ours, and a table of another type. They do not enable the agent.
    tree_.makeDirectory( kClientDirPath );
    std::ofstream( tree_.directoryPath( kClientDirPath ) + "/" + std::string( 120, 'x' ) )
        << "CSPFTBL1";
    create<ConfigWriter>( tree_, nullptr, clientPath( "junk" ) );
    settle();
    EXPECT_FALSE( agentEnabled() );
    EXPECT_EQ( whyNotServed( "junk" ).rfind( "not a client: ", 0 ), 0u );

    // A client whose request table is not one is served elsewhere, and
    // counts.
    {
        tree_.makeParents( pathConfigTablePath( kDefault, v4, "bad" ) );
        std::ofstream( tree_.filePath( pathConfigTablePath( kDefault, v4, "bad" ) ) )
            << "CSPFTBL1 this is not a table";
    }
    registerClient( "bad", kDefault );
    registerClient( "te1", kDefault );
    request( "te1", kDefault, "10.0.0.3", 1 );
    settle( 50 );
    EXPECT_TRUE( agentEnabled() );
    EXPECT_FALSE(
        agent_->clientDirSm()->clientSm( "bad" )->clientVrfSm( kDefault )->pathSm( v4 ) );
    EXPECT_EQ( whyNotServed( "bad" ).rfind( "vrf default ipv4: cannot attach: ", 0 ),
               0u );
    EXPECT_EQ( whyNotServed( "te1" ), "" );
    EXPECT_EQ( results( "te1", kDefault ).size(), 1u );

    // The clients leave; the junk does not keep the agent enabled.
    unregisterClient( "te1" );
    unregisterClient( "bad" );
    settle();
    EXPECT_FALSE( agentEnabled() );
    EXPECT_EQ( whyNotServed( "bad" ), "" );
}

// Out of descriptors, a client's registration, its tables or its VRF cannot
// be attached or brought up: retried with the back-off, the client is served
// once descriptors are free again.
TEST_F( AgentScenarioTest, ClientsRefusedForALocalReasonAreRetried ) {
    if ( TestKit::kSanitized ) {
        GTEST_SKIP() << "the sanitizers' runtime needs descriptors of its own";
    }
    const L3::VrfName red( "red" );
    TopoFile::loadIntoTree( kTopology, tree_, red );
    start();
    registerClient( "te1", kDefault );
    request( "te1", kDefault, "10.0.0.3", 1 );
    settle( 50 );
    // The agent hears what was written with `left` descriptors to spare.
    const auto settleStarved = [&]( int left ) {
        rlimit saved;
        ASSERT_EQ( getrlimit( RLIMIT_NOFILE, &saved ), 0 );
        const int spare = dup( 0 );
        close( spare );
        rlimit tight = saved;
        tight.rlim_cur = static_cast<rlim_t>( spare + left );
        ASSERT_EQ( setrlimit( RLIMIT_NOFILE, &tight ), 0 );
        settle();
        ASSERT_EQ( setrlimit( RLIMIT_NOFILE, &saved ), 0 );
    };
    // With six descriptors left (the walk down the tree holds a directory
    // at each step), te2's registration is attached and its tables find
    // none; te3's VRF cannot be brought up; with none left, te4's
    // registration cannot be attached.
    const std::map<std::string, L3::VrfName> vrfOf{
        { "te2", kDefault }, { "te3", red }, { "te4", kDefault } };
    for ( const auto& [name, vrf] : vrfOf ) {
        registerClient( name, vrf );
        request( name, vrf, "10.0.0.3", 1 );
        settleStarved( name == "te4" ? 0 : 6 );
    }
    const auto& dir = *agent_->clientDirSm();
    EXPECT_TRUE( dir.clientSm( "te2" ) && dir.clientSm( "te3" ) &&
                 !dir.clientSm( "te4" ) );
    EXPECT_EQ( root( v4 )->vrfRoots(), 1u );
    for ( const auto& [name, part] : std::map<std::string, std::string>{
              { "te2", "vrf default ipv4: cannot attach: " },
              { "te3", "vrf red ipv4: cannot attach: " },
              { "te4", "cannot attach: " } } ) {
        const std::string why = whyNotServed( name );
        EXPECT_EQ( why.rfind( part, 0 ), 0u ) << why;
        EXPECT_NE( why.find( "Too many open files (retrying)\n" ), std::string::npos )
            << why;
        EXPECT_TRUE( results( name, vrfOf.at( name ) ).empty() ) << name;
    }
    EXPECT_TRUE( agentEnabled() );
    EXPECT_EQ( results( "te1", kDefault ).size(), 1u );

    settle( 1000 );  // the back-off's first wait
    settle( 50 );
    for ( const auto& [name, vrf] : vrfOf ) {
        EXPECT_EQ( results( name, vrf ).size(), 1u ) << name;
        EXPECT_EQ( whyNotServed( name ), "" ) << name;
    }
    EXPECT_FALSE( dir.clientRefusals()->retryScheduled() );
}

// One client has at most 64 VRFs served; the others wait for room, and
// nothing else is affected.
TEST_F( AgentScenarioTest, AClientHasAtMost64VrfsServed ) {
    start();
    registerClient( "te1", kDefault );
    registerClient( "te2", kDefault );
    request( "te2", kDefault, "10.0.0.3", 1 );
    for ( int i = 0; i < 65; ++i ) {
        registerClient( "te1", L3::VrfName( "v" + std::to_string( 100 + i ) ) );
    }
    settle( 50 );
    const auto te1 = agent_->clientDirSm()->clientSm( "te1" );
    EXPECT_EQ( te1->clientVrfSms(), ClientSm::kMaxClientVrfs );
    const std::regex refused(
        "vrf (v1[0-9][0-9]): beyond the 64 VRFs a client may have "
        "served\n" );
    std::smatch first;
    std::string why = whyNotServed( "te1" );
    ASSERT_TRUE( std::regex_search( why, first, refused ) ) << why;
    EXPECT_EQ( std::regex_replace( why, refused, "" ), "" ) << why;
    EXPECT_EQ( why.size(), 2 * first.length() ) << why;
    EXPECT_EQ( results( "te2", kDefault ).size(), 1u );
    // A served one goes: the first refused one, in name order, is taken in.
    const L3::VrfName admitted( first[1].str() );
    L3::VrfName served( "v100" );
    while ( !te1->clientVrfSm( served ) ) {
        served = L3::VrfName(
            "v" + std::to_string( std::stoi( served.name().substr( 1 ) ) + 1 ) );
    }
    clients_["te1"].registration->vrfDel( served );
    settle();
    EXPECT_TRUE( te1->clientVrfSm( admitted ) );
    EXPECT_EQ( te1->clientVrfSms(), ClientSm::kMaxClientVrfs );
    why = whyNotServed( "te1" );
    EXPECT_TRUE( std::regex_match( why, refused ) ) << why;
    EXPECT_EQ( why.find( admitted.name() + ":" ), std::string::npos ) << why;
}

// Losing its last address, in either family, changes what an excluded
// interface excludes: the constraints that exclude it compute again.
TEST_F( AgentScenarioTest, AnExcludedInterfaceLosingItsLastAddressRecomputes ) {
    const Net::IntfId eth1( "Ethernet1" );
    Ip::IntfAddrs addrs;
    addrs.active = { IpGenAddr( "10.1.12.0" ), 31 };
    addrs.ip6 = { { IpGenAddr( "2001:db8:12::" ), 127 } };
    ipWriter_->intfAddrsIs( eth1, addrs );
    start();
    registerClient( "te1", kDefault, { v4, v6 } );
    request( "te1", kDefault, "10.0.0.3", 1, "Ethernet1" );
    request( "te1", kDefault, "2001:db8::3", 1, "Ethernet1", v6 );
    settle( 1000 );
    EXPECT_EQ( hopsOf( results( "te1", kDefault ).at( 0 ) ), "10.1.13.1" );
    const uint32_t v4Runs = runs( v4, kDefault ), v6Runs = runs( v6, kDefault );
    ASSERT_GT( v6Runs, 0u );

    addrs.ip6.clear();
    ipWriter_->intfAddrsIs( eth1, addrs );
    settle( 1000 );
    EXPECT_EQ( runs( v6, kDefault ), v6Runs + 1 );
    EXPECT_EQ( runs( v4, kDefault ), v4Runs );

    addrs.active = { IpGenAddr::v4( 0 ), 0 };
    ipWriter_->intfAddrsIs( eth1, addrs );
    settle( 1000 );
    EXPECT_EQ( runs( v4, kDefault ), v4Runs + 1 );
    // Nothing left to exclude: the shorter way through Ethernet1.
    EXPECT_EQ( hopsOf( results( "te1", kDefault ).at( 0 ) ), "10.1.12.1 10.1.23.1" );
    EXPECT_EQ( runs( v6, kDefault ), v6Runs + 1 );
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

// The whole system across processes: cspfd in its own process, clients
// through libcspfclient (some in processes of their own), and cspfctl as the
// IS-IS side and the operator, all over one fresh tree per test.
#include <cspf/Client.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/ShmTable.h"
#include "platform/StateTree.h"
#include "records/Client.h"
#include "records/PathTables.h"
#include "tests/support/Child.h"
#include "tests/support/CspfdProcess.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TempDir.h"

using TestKit::eventually;
using Hops = std::vector<std::string>;

namespace {

const cspf::Table kTable{ "default", cspf::Family::ipv4 };

// From the example topology, seen from r1 (10.0.0.1).
const Hops kToR6{ "10.1.13.1", "10.1.36.1" };
const Hops kToR4{ "10.1.13.1", "10.3.0.4" };
const Hops kToR6AvoidingR3{ "10.1.12.1", "10.1.26.1" };
const Hops kToR4AvoidingR3{ "10.1.12.1", "10.1.26.1", "10.1.36.0", "10.3.0.4" };

cspf::PathRequest request( const std::string& destination, uint32_t id,
                           const std::string& exclude = "" ) {
    cspf::PathRequest r;
    r.destination = destination;
    r.id = id;
    r.excludeInterface = exclude;
    return r;
}

class EndToEndTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctl( { "topo", "load", CSPF_EXAMPLES "/topology.json" } );
        ctl( { "te", "set", "--enabled", "yes", "--router-id", "10.0.0.1" } );
        ctl( { "intf", "set", "Ethernet1", "--ipv4", "10.1.12.0/31" } );
        ctl( { "intf", "set", "Ethernet2", "--ipv4", "10.1.13.0/31" } );
        agent_ = std::make_unique<TestKit::CspfdProcess>( CSPFD_PATH, dir_.path() );
        // Up and answering: a stop sent before cspfd could watch for it
        // (the sanitizers' start-up is slow) would end it unclean.
        ASSERT_TRUE(
            eventually( [&] { return !agent_->command( "DUMP_CSPF_STATE" ).empty(); } ) );
    }
    void TearDown() override {
        if ( agent_->running() ) {
            EXPECT_EQ( agent_->stop(), 0 );
        }
    }

    void ctl( std::vector<std::string> args ) {
        args.insert( args.begin(), { CSPFCTL_PATH, "--root", dir_.path() } );
        ASSERT_EQ( TestKit::runProgram( args ), 0 ) << args[3] << " " << args[4];
    }
    // The three requests of client te1: two share the empty constraint.
    std::unique_ptr<cspf::Client> te1() {
        auto client = std::make_unique<cspf::Client>( "te1", dir_.path() );
        client->requestIs( kTable, request( "10.0.0.6", 1 ) );
        client->requestIs( kTable, request( "10.0.0.4", 1 ) );
        client->requestIs( kTable, request( "10.0.0.6", 2, "Ethernet2" ) );
        return client;
    }
    static Hops hops( const cspf::Client& c, const std::string& destination,
                      uint32_t id ) {
        const auto r = c.result( kTable, destination, id );
        return r ? r->hops : Hops{ "<none>" };
    }
    static bool servedAsBuilt( const cspf::Client& c ) {
        return hops( c, "10.0.0.6", 1 ) == kToR6 && hops( c, "10.0.0.4", 1 ) == kToR4 &&
               hops( c, "10.0.0.6", 2 ) == kToR6AvoidingR3;
    }
    std::string statusTable( const std::string& client ) const {
        return dir_.path() + "/te/cspf/status/vrf/default/ipv4/" + client;
    }

    TestKit::TempDir dir_{ "cspfe2e" };
    std::unique_ptr<TestKit::CspfdProcess> agent_;
};

}  // namespace

TEST_F( EndToEndTest, ServesRefreshesAndFollowsALinkFailureAndRepair ) {
    auto client = te1();
    ASSERT_TRUE( eventually( [&] { return servedAsBuilt( *client ); } ) )
        << agent_->command( "DUMP_CSPF_STATE" );
    EXPECT_TRUE( client->agentEnabled() );
    const auto avoiding = *client->result( kTable, "10.0.0.6", 2 );

    // An explicit refresh is answered from the cache: no run.
    const long runs = agent_->runCount();
    const uint32_t seq = client->refresh( kTable, "10.0.0.6", 1 );
    ASSERT_TRUE( eventually( [&] {
        return client->result( kTable, "10.0.0.6", 1 )->refreshRespSeq == seq;
    } ) );
    EXPECT_EQ( hops( *client, "10.0.0.6", 1 ), kToR6 );
    EXPECT_EQ( agent_->runCount(), runs );

    // The failure moves the two paths over r3 and is heard on the watch;
    // the path that already avoided r1's link to r3 is not rewritten.
    std::map<std::string, int> heard;
    client->watchIs( [&]( const cspf::ResultChange& change ) {
        ++heard[change.destination + "/" + std::to_string( change.id )];
    } );
    ctl( { "topo", "link", "down", "r1", "Ethernet2" } );
    ASSERT_TRUE( eventually( [&] {
        pollfd p{ client->fd(), POLLIN, 0 };
        if ( poll( &p, 1, 10 ) > 0 ) {
            client->process();
        }
        return hops( *client, "10.0.0.6", 1 ) == kToR6AvoidingR3 &&
               hops( *client, "10.0.0.4", 1 ) == kToR4AvoidingR3;
    } ) )
        << agent_->command( "DUMP_CSPF_STATE" );
    EXPECT_EQ( heard["10.0.0.6/1"], 1 );
    EXPECT_EQ( heard["10.0.0.4/1"], 1 );
    EXPECT_EQ( heard.count( "10.0.0.6/2" ), 0u );
    EXPECT_EQ( client->result( kTable, "10.0.0.6", 2 )->changeCount,
               avoiding.changeCount );

    ctl( { "topo", "link", "up", "r1", "Ethernet2" } );
    EXPECT_TRUE( eventually( [&] { return servedAsBuilt( *client ); } ) );
}

TEST_F( EndToEndTest, ARestartAfterSigkillRewritesNothingAndDropsWhatWentStale ) {
    auto client = te1();
    auto other = std::make_unique<cspf::Client>( "te2", dir_.path() );
    other->requestIs( kTable, request( "10.0.0.5", 7 ) );
    ASSERT_TRUE( eventually( [&] {
        return servedAsBuilt( *client ) && other->result( kTable, "10.0.0.5", 7 );
    } ) );
    agent_->kill9();

    // While the agent is down, one request goes and te2 leaves.
    const auto kept = client->results( kTable );
    client->requestDel( kTable, "10.0.0.4", 1 );
    other->leave();
    other.reset();
    ASSERT_TRUE( std::filesystem::exists( statusTable( "te2" ) ) );

    agent_->start();
    ASSERT_TRUE( eventually( [&] {
        return !std::filesystem::exists( statusTable( "te2" ) ) &&
               !client->result( kTable, "10.0.0.4", 1 ) && agent_->runCount() >= 2;
    } ) )
        << agent_->command( "DUMP_CSPF_STATE" );
    usleep( 300 * 1000 );  // anything the runs would publish has been published
    for ( const cspf::PathResult& before : kept ) {
        if ( before.destination == "10.0.0.4" ) {
            continue;
        }
        const auto after = client->result( kTable, before.destination, before.id );
        ASSERT_TRUE( after );
        EXPECT_EQ( after->changeCount, before.changeCount ) << before.destination;
        EXPECT_EQ( after->lastUpdated, before.lastUpdated ) << before.destination;
        EXPECT_EQ( after->hops, before.hops );
    }
}

TEST_F( EndToEndTest, AClientThatDiesKeepsItsResultsUntilItLeaves ) {
    const std::string root = dir_.path();
    const pid_t child = TestKit::forkChild( [&] {
        cspf::Client c( "te3", root );
        c.requestIs( kTable, request( "10.0.0.6", 1 ) );
        if ( !eventually( [&] { return hops( c, "10.0.0.6", 1 ) == kToR6; } ) ) {
            return 1;
        }
        kill( getpid(), SIGKILL );  // no destructor, no clean-up
        return 2;
    } );
    ASSERT_EQ( TestKit::reapChild( child, 30 ), -SIGKILL );

    // Its registration and results outlive it; the next one of its name
    // finds them, and leaving takes everything away.
    cspf::Client again( "te3", root );
    EXPECT_EQ( hops( again, "10.0.0.6", 1 ), kToR6 );
    again.leave();
    EXPECT_TRUE( eventually( [&] {
        return !std::filesystem::exists( statusTable( "te3" ) ) && !again.agentEnabled();
    } ) );
}

TEST_F( EndToEndTest, GarbageInOneClientsRequestsHurtsNoOtherClient ) {
    auto client = te1();
    ASSERT_TRUE( eventually( [&] { return servedAsBuilt( *client ); } ) );

    // "bad" registers and fills its request table with records that do not
    // decode: a broken address family, a short value.
    Platform::StateTree tree( dir_.path() );
    {
        Platform::ShmTableWriter garbage(
            tree.filePath( "te/cspf/config/vrf/default/ipv4/bad" ),
            Platform::tableLayoutOf<Cspf::PathConfigRecord>() );
        std::vector<uint8_t> key( Cspf::PathConfigRecord::keySize, 0xa5 );
        std::vector<uint8_t> value( sizeof( Cspf::PathConfig ), 0x5a );
        garbage.set( key.data(), value.data(), static_cast<uint32_t>( value.size() ) );
        key[0] = 1;
        garbage.set( key.data(), value.data(), 3 );
        garbage.flush();
    }
    auto registration =
        Platform::create<Cspf::ClientWriter>( tree, nullptr, Cspf::clientPath( "bad" ) );
    registration->vrfIs( L3::VrfName() );
    registration->addressFamilyIs( Net::AddressFamily::ipv4 );

    client->requestIs( kTable, request( "10.0.0.5", 3 ) );
    EXPECT_TRUE( eventually( [&] {
        const auto r = client->result( kTable, "10.0.0.5", 3 );
        return r && r->hops == Hops{ "10.1.13.1", "10.3.0.5" };
    } ) );
    EXPECT_TRUE( agent_->running() );
    EXPECT_TRUE( servedAsBuilt( *client ) );
}

TEST_F( EndToEndTest, ManyClientsAtOnceEachGetTheirOwnResults ) {
    constexpr int kClients = 16;
    const std::string root = dir_.path();
    TestKit::Pipe go;
    std::vector<pid_t> children;
    for ( int i = 0; i < kClients; ++i ) {
        children.push_back( TestKit::forkChild( [&, i] {
            cspf::Client c( "c" + std::to_string( i ), root );
            TestKit::awaitPoke( go, 30 );  // all at once
            for ( uint32_t id = 0; id < 8; ++id ) {
                c.requestIs( kTable, request( id % 2 ? "10.0.0.6" : "10.0.0.4", id,
                                              i % 4 == 0 ? "Ethernet2" : "" ) );
            }
            const bool served = eventually( [&] {
                for ( uint32_t id = 0; id < 8; ++id ) {
                    const Hops& want =
                        i % 4 == 0 ? ( id % 2 ? kToR6AvoidingR3 : kToR4AvoidingR3 )
                                   : ( id % 2 ? kToR6 : kToR4 );
                    if ( hops( c, id % 2 ? "10.0.0.6" : "10.0.0.4", id ) != want ) {
                        return false;
                    }
                }
                return true;
            } );
            return served ? 0 : 1;
        } ) );
    }
    for ( int i = 0; i < kClients; ++i ) {
        TestKit::poke( go );
    }
    go.closeWrite();
    for ( pid_t child : children ) {
        EXPECT_EQ( TestKit::reapChild( child, 60 ), 0 );
    }
    EXPECT_TRUE( agent_->running() );
}

TEST_F( EndToEndTest, AWatchSetBeforeTheFirstResultIsToldEveryChangeAsItsTableGrows ) {
    // The watch is set before the agent published anything for te4, and the
    // results are first read, not processed: whichever opens the table, the
    // watch must hear it from then on, across every replacement as it grows.
    cspf::Client client( "te4", dir_.path() );
    std::map<std::string, Hops> told;
    client.watchIs( [&]( const cspf::ResultChange& change ) {
        told[change.destination + "/" + std::to_string( change.id )] =
            change.result ? change.result->hops : Hops{ "<removed>" };
    } );
    std::set<ino_t> files;
    // Every result the table holds was told in its final state.
    const auto toldAll = [&]( size_t expected ) {
        const auto results = client.results( kTable );
        pollfd p{ client.fd(), POLLIN, 0 };
        if ( poll( &p, 1, 10 ) > 0 ) {
            client.process();
        }
        struct stat st;
        if ( stat( statusTable( "te4" ).c_str(), &st ) == 0 ) {
            files.insert( st.st_ino );
        }
        for ( const cspf::PathResult& r : results ) {
            const auto it = told.find( r.destination + "/" + std::to_string( r.id ) );
            if ( it == told.end() || it->second != r.hops ) {
                return false;
            }
        }
        return results.size() == expected;
    };
    const char* destinations[] = { "10.0.0.6", "10.0.0.4", "10.0.0.5" };
    constexpr uint32_t kWave = 100;
    for ( uint32_t wave = 0; wave < 3; ++wave ) {
        client.batchBegin();
        for ( uint32_t id = wave * kWave; id < ( wave + 1 ) * kWave; ++id ) {
            client.requestIs( kTable, request( destinations[id % 3], id ) );
        }
        client.batchEnd();
        if ( wave == 0 ) {
            ASSERT_TRUE(
                eventually( [&] { return client.results( kTable ).size() == kWave; } ) );
        }
        ASSERT_TRUE( eventually( [&] { return toldAll( ( wave + 1 ) * kWave ); } ) )
            << "wave " << wave << ": " << told.size() << " told";
    }
    EXPECT_GE( files.size(), 3u );  // the result table was replaced as it grew

    ctl( { "topo", "link", "down", "r1", "Ethernet2" } );
    EXPECT_TRUE( eventually( [&] {
        return toldAll( 3 * kWave ) && told["10.0.0.6/0"] == kToR6AvoidingR3 &&
               told["10.0.0.4/1"] == kToR4AvoidingR3;
    } ) );
}

TEST_F( EndToEndTest, WhatAClientKilledInsideABatchWroteIsServed ) {
    // One client already served, one new: both die holding their bell.
    const std::string root = dir_.path();
    for ( const bool served : { true, false } ) {
        const std::string name = served ? "te5" : "te6";
        const pid_t child = TestKit::forkChild( [&] {
            cspf::Client c( name, root );
            if ( served ) {
                c.requestIs( kTable, request( "10.0.0.6", 100 ) );
                if ( !eventually(
                         [&] { return c.result( kTable, "10.0.0.6", 100 ); } ) ) {
                    return 1;
                }
            }
            c.batchBegin();
            for ( uint32_t id = 0; id < 10; ++id ) {
                c.requestIs( kTable, request( "10.0.0.4", id ) );
            }
            kill( getpid(), SIGKILL );  // before batchEnd()
            return 2;
        } );
        ASSERT_EQ( TestKit::reapChild( child, 30 ), -SIGKILL ) << name;
        cspf::Client look( name, root, cspf::Client::Access::observe );
        EXPECT_TRUE( eventually( [&] {
            const auto results = look.results( kTable );
            return results.size() == ( served ? 11u : 10u ) &&
                   hops( look, "10.0.0.4", 9 ) == kToR4;
        } ) )
            << name;
    }
}

// What a client reads of the agent, and every result it is told of, across a
// clean stop, a restart, a SIGKILL and another restart.
TEST_F( EndToEndTest, ACleanStopKeepsEveryResultAndTheRestartRewritesNone ) {
    auto client = te1();
    ASSERT_TRUE( eventually( [&] { return servedAsBuilt( *client ); } ) );
    std::vector<cspf::ResultChange> heard;
    client->watchIs( [&]( const cspf::ResultChange& c ) { heard.push_back( c ); } );
    // Takes in for a while whatever the agent would publish.
    auto listen = [&] {
        const double end = TestKit::monoNow() + 0.3;
        while ( TestKit::monoNow() < end ) {
            pollfd p{ client->fd(), POLLIN, 0 };
            if ( poll( &p, 1, 10 ) > 0 ) {
                client->process();
            }
        }
    };
    listen();
    heard.clear();
    const auto kept = client->results( kTable );
    auto keptAsTheyWere = [&] {
        for ( const cspf::PathResult& before : kept ) {
            const auto after = client->result( kTable, before.destination, before.id );
            EXPECT_TRUE( after ) << before.destination;
            if ( after ) {
                EXPECT_EQ( after->changeCount, before.changeCount ) << before.destination;
                EXPECT_EQ( after->lastUpdated, before.lastUpdated ) << before.destination;
                EXPECT_EQ( after->hops, before.hops ) << before.destination;
            }
        }
    };
    using Run = cspf::AgentState::Run;
    const cspf::AgentState first = client->agentState();
    EXPECT_EQ( first.run, Run::running );
    EXPECT_TRUE( first.enabled );
    EXPECT_EQ( first.pid, static_cast<uint32_t>( agent_->pid() ) );

    ASSERT_EQ( agent_->stop(), 0 );
    listen();
    EXPECT_TRUE( heard.empty() )
        << heard.size() << " results told, first " << heard[0].destination;
    keptAsTheyWere();
    EXPECT_FALSE( client->agentEnabled() );
    const cspf::AgentState stopped = client->agentState();
    EXPECT_EQ( stopped.run, Run::stopped );
    EXPECT_EQ( stopped.pid, first.pid );
    EXPECT_EQ( stopped.startedAt, first.startedAt );

    agent_->start();
    ASSERT_TRUE(
        eventually( [&] { return client->agentEnabled() && agent_->runCount() >= 2; } ) )
        << agent_->command( "DUMP_CSPF_STATE" );
    listen();
    EXPECT_TRUE( heard.empty() );
    keptAsTheyWere();
    const cspf::AgentState second = client->agentState();
    EXPECT_EQ( second.pid, static_cast<uint32_t>( agent_->pid() ) );
    EXPECT_GT( second.startedAt, first.startedAt );

    agent_->kill9();
    EXPECT_FALSE( client->agentEnabled() );
    EXPECT_EQ( client->agentState().run, Run::died );
    EXPECT_EQ( client->agentState().pid, second.pid );
    keptAsTheyWere();
}

// One agent per tree: a second one says so and leaves the first one alone.
TEST_F( EndToEndTest, ASecondAgentStopsWithOneLineAndTouchesNothing ) {
    auto client = te1();
    ASSERT_TRUE( eventually( [&] { return servedAsBuilt( *client ); } ) );
    const cspf::AgentState before = client->agentState();
    const auto second = TestKit::runShell( std::string( CSPFD_PATH ) + " --root " +
                                           dir_.path() + " 2>&1" );
    EXPECT_EQ( second.status, 1 );
    EXPECT_EQ( second.out, "cspfd: state tree " + dir_.path() +
                               " already has a running agent, pid " +
                               std::to_string( agent_->pid() ) + "\n" );
    const cspf::AgentState after = client->agentState();
    EXPECT_EQ( after.run, cspf::AgentState::Run::running );
    EXPECT_TRUE( after.enabled );
    EXPECT_EQ( after.pid, before.pid );
    EXPECT_EQ( after.startedAt, before.startedAt );
    const uint32_t seq = client->refresh( kTable, "10.0.0.6", 1 );
    EXPECT_TRUE( eventually( [&] {
        return client->result( kTable, "10.0.0.6", 1 )->refreshRespSeq == seq;
    } ) );
    EXPECT_TRUE( agent_->running() );
}

// A TE configuration that cannot be read is taken as absent: the agent runs
// disabled, keeps every result, and follows the table once it is rewritten.
TEST_F( EndToEndTest, AnUnreadableTeConfigDisablesTheAgentUntilRewritten ) {
    auto client = te1();
    ASSERT_TRUE( eventually( [&] { return servedAsBuilt( *client ); } ) );
    const auto kept = client->results( kTable );
    ASSERT_EQ( agent_->stop(), 0 );
    std::filesystem::resize_file( dir_.path() + "/te/config", 16 );

    agent_->start();
    ASSERT_TRUE( eventually( [&] {
        return !agent_->command( "DUMP_CSPF_STATE" ).empty() || !agent_->running();
    } ) );
    ASSERT_TRUE( agent_->running() );
    EXPECT_EQ( client->agentState().run, cspf::AgentState::Run::running );
    EXPECT_FALSE( client->agentEnabled() );
    EXPECT_EQ( client->results( kTable ).size(), kept.size() );

    ctl( { "te", "set", "--enabled", "yes", "--router-id", "10.0.0.1" } );
    EXPECT_TRUE( eventually( [&] { return client->agentEnabled(); } ) );
    EXPECT_TRUE( eventually(
        [&] { return servedAsBuilt( *client ) && agent_->runCount() >= 2; } ) )
        << agent_->command( "DUMP_CSPF_STATE" );
}

// The agent out of file descriptors cannot attach a new client; it says why
// and retries, and serves the client once descriptors are free again.
TEST_F( EndToEndTest, AClientRefusedForWantOfDescriptorsIsServedWhenTheyComeBack ) {
    if ( TestKit::kSanitized ) {
        GTEST_SKIP() << "the sanitizers' runtime needs descriptors of its own";
    }
    auto client = te1();
    ASSERT_TRUE( eventually( [&] { return servedAsBuilt( *client ); } ) );
    const auto show = [&] {
        return TestKit::runShell( std::string( CSPFCTL_PATH ) + " --root " + dir_.path() +
                                  " client show te2" )
            .out;
    };

    // No descriptor left to cspfd: the lowest free one is beyond its limit.
    std::set<int> open;
    const std::string fds = "/proc/" + std::to_string( agent_->pid() ) + "/fd";
    DIR* d = opendir( fds.c_str() );
    ASSERT_TRUE( d );
    while ( const dirent* e = readdir( d ) ) {
        open.insert( std::atoi( e->d_name ) );
    }
    closedir( d );
    int lowest = 0;
    while ( open.count( lowest ) ) {
        ++lowest;
    }
    rlimit saved;
    rlimit tight{ static_cast<rlim_t>( lowest ), 0 };
    ASSERT_EQ( prlimit( agent_->pid(), RLIMIT_NOFILE, nullptr, &saved ), 0 );
    tight.rlim_max = saved.rlim_max;
    ASSERT_EQ( prlimit( agent_->pid(), RLIMIT_NOFILE, &tight, nullptr ), 0 );

    cspf::Client te2( "te2", dir_.path() );
    te2.requestIs( kTable, request( "10.0.0.6", 1 ) );
    EXPECT_TRUE( eventually( [&] {
        return show().find( "not served: cannot attach: " ) != std::string::npos;
    } ) )
        << show();
    EXPECT_NE( show().find( "Too many open files (retrying)\n" ), std::string::npos )
        << show();

    ASSERT_EQ( prlimit( agent_->pid(), RLIMIT_NOFILE, &saved, nullptr ), 0 );
    EXPECT_TRUE( eventually( [&] { return hops( te2, "10.0.0.6", 1 ) == kToR6; } ) )
        << show();
    EXPECT_EQ( show().find( "not served" ), std::string::npos ) << show();
    EXPECT_TRUE( servedAsBuilt( *client ) );
}

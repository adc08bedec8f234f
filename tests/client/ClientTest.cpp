// libcspfclient against a fresh tree, with the test acting as the agent: it
// reads the registration and the requests and writes results with the
// agent's own record classes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "cspf/Client.h"
#include "platform/Inotify.h"
#include "platform/ShmTable.h"
#include "platform/Table.h"
#include "records/AgentStatus.h"
#include "records/Client.h"
#include "records/PathTables.h"
#include "tests/support/TempDir.h"

using cspf::Family;
using Platform::create;
using Platform::Ptr;

namespace {

const cspf::Table kRed{ "red", Family::ipv4 };
const cspf::Table kBlue6{ "blue", Family::ipv6 };

cspf::PathRequest req( const char* destination, uint32_t id, const char* exclude = "",
                       bool autoUpdate = true, uint32_t refreshReqSeq = 0 ) {
    cspf::PathRequest r;
    r.destination = destination;
    r.id = id;
    r.excludeInterface = exclude;
    r.autoUpdate = autoUpdate;
    r.refreshReqSeq = refreshReqSeq;
    return r;
}

Cspf::PathKey keyOf( const char* destination, uint32_t id ) {
    return Cspf::PathKey( Net::IpGenAddr( destination ), id );
}

Cspf::PathStatus statusOf( const char* destination, uint32_t id,
                           std::vector<const char*> hops, uint32_t changeCount = 1 ) {
    Cspf::PathStatus s;
    s.key = keyOf( destination, id );
    s.changeCount = changeCount;
    s.lastUpdated = 1000.5;
    for ( const char* hop : hops ) {
        s.hops.append( Net::IpGenAddr( hop ) );
    }
    return s;
}

class ClientTest : public ::testing::Test {
  protected:
    Ptr<Cspf::Status> agentStatusTable( const cspf::Table& t ) {
        return create<Cspf::Status>(
            tmp.tree, nullptr,
            Cspf::pathStatusTablePath( L3::VrfName( t.vrf ), af( t ), "rsvp" ) );
    }
    static Net::AddressFamily af( const cspf::Table& t ) {
        return t.family == Family::ipv6 ? Net::AddressFamily::ipv6
                                        : Net::AddressFamily::ipv4;
    }
    static std::string requestsPath( const cspf::Table& t, const char* client = "rsvp" ) {
        return Cspf::pathConfigTablePath( L3::VrfName( t.vrf ), af( t ), client );
    }

    TestKit::TempTree tmp;
};

TEST_F( ClientTest, RegistersAndWritesRequestsThatOutliveTheProcess ) {
    {
        cspf::Client client( "rsvp", tmp.path() );
        client.requestIs( kRed, req( "10.0.0.1", 7, "Ethernet1", true, 99 ) );
        EXPECT_EQ( client.refresh( kRed, "10.0.0.1", 7 ), 1u );
        EXPECT_EQ( client.refresh( kRed, "10.0.0.1", 7 ), 2u );
        // A changed request keeps the sequence; the caller's value is ignored.
        client.requestIs( kRed, req( "10.0.0.1", 7, "", false, 0 ) );
        client.requestIs( kRed, req( "10.0.0.2", 1 ) );
        client.requestDel( kRed, "10.0.0.2", 1 );
        client.familyIs( Family::ipv6 );
        client.vrfIs( "blue" );
        client.vrfDel( "blue" );
    }
    // The agent's view: what the client left behind.
    auto registration =
        create<Cspf::Client>( tmp.tree, nullptr, Cspf::clientPath( "rsvp" ) );
    EXPECT_EQ( registration->toString(),
               "Value('Cspf::Client', ** {'name': rsvp, 'vrf': [red], "
               "'addressFamily': [ipv4, ipv6]})" );
    auto requests = create<Cspf::Config>( tmp.tree, nullptr, requestsPath( kRed ) );
    ASSERT_EQ( requests->pathConfigs(), 1u );
    EXPECT_EQ( requests->pathConfig( keyOf( "10.0.0.1", 7 ) ),
               Cspf::PathConfig( keyOf( "10.0.0.1", 7 ), 2, false, {} ) );

    cspf::Client again( "rsvp", tmp.path() );
    EXPECT_EQ( again.vrfs(), std::vector<std::string>{ "red" } );
    EXPECT_EQ( again.families(), ( std::vector<Family>{ Family::ipv4, Family::ipv6 } ) );
    const auto mine = again.requests( kRed );
    ASSERT_EQ( mine.size(), 1u );
    EXPECT_EQ( mine[0].destination, "10.0.0.1" );
    EXPECT_EQ( mine[0].refreshReqSeq, 2u );
    EXPECT_FALSE( mine[0].autoUpdate );
    EXPECT_EQ( again.refresh( kRed, "10.0.0.1", 7 ), 3u );
    EXPECT_TRUE( again.requests( kBlue6 ).empty() );
}

TEST_F( ClientTest, ReadsResultsAndTheAgentStatus ) {
    cspf::Client client( "rsvp", tmp.path() );
    EXPECT_FALSE( client.agentEnabled() );
    EXPECT_FALSE( client.result( kBlue6, "2001:db8::1", 1 ) );  // no table yet
    auto status = agentStatusTable( kBlue6 );
    status->pathStatusIs( statusOf( "2001:db8::1", 1, { "fe80::1", "2001:db8::9" }, 4 ) );
    const auto r = client.result( kBlue6, "2001:DB8::1", 1 );
    ASSERT_TRUE( r );
    EXPECT_EQ( r->destination, "2001:db8::1" );
    EXPECT_EQ( r->changeCount, 4u );
    EXPECT_EQ( r->lastUpdated, 1000.5 );
    EXPECT_EQ( r->hops, ( std::vector<std::string>{ "fe80::1", "2001:db8::9" } ) );
    EXPECT_EQ( client.results( kBlue6 ).size(), 1u );

    // The record and the writer's lock tell a running, a stopped and a dead
    // agent apart; only a running one is enabled.
    using Run = cspf::AgentState::Run;
    auto agent = create<Cspf::AgentStatus>( tmp.tree, nullptr, Cspf::kAgentStatusPath );
    agent->agentEnabledIs( true );
    EXPECT_EQ( client.agentState().run, Run::stopped );
    agent->runningIs( 4321, 12.5 );
    EXPECT_TRUE( client.agentEnabled() );
    agent->runningDel();
    EXPECT_FALSE( client.agentEnabled() );
    EXPECT_EQ( client.agentState().run, Run::stopped );
    EXPECT_EQ( client.agentState().pid, 4321u );
    agent->runningIs( 4322, 13.5 );
    agent->agentEnabledIs( true );
    agent = nullptr;  // gone without a stop
    EXPECT_FALSE( client.agentEnabled() );
    EXPECT_EQ( client.agentState().run, Run::died );
    EXPECT_EQ( client.agentState().startedAt, 13.5 );
}

TEST_F( ClientTest, CorruptResultReadsAsAbsent ) {
    cspf::Client client( "rsvp", tmp.path() );
    const std::string path =
        Cspf::pathStatusTablePath( L3::VrfName( "red" ), af( kRed ), "rsvp" );
    tmp.tree.makeParents( path );
    Platform::ShmTableWriter raw( tmp.tree.filePath( path ),
                                  Platform::tableLayoutOf<Cspf::PathStatusRecord>() );
    const Cspf::PathKey key = keyOf( "10.0.0.1", 1 );
    std::vector<uint8_t> value( Cspf::pathStatusRecordSize( 0 ) );
    Cspf::encodePathStatus( statusOf( "10.0.0.1", 1, {} ), value.data(), value.size() );
    const uint32_t hops = 2000;  // beyond any path
    std::memcpy( value.data() + 40, &hops, sizeof( hops ) );
    raw.set( &key, value.data(), static_cast<uint32_t>( value.size() ) );
    EXPECT_FALSE( client.result( kRed, "10.0.0.1", 1 ) );
    EXPECT_TRUE( client.results( kRed ).empty() );
}

TEST_F( ClientTest, WatchReportsEachChangeOnceIncludingTablesMadeLater ) {
    cspf::Client client( "rsvp", tmp.path() );
    client.requestIs( kRed, req( "10.0.0.1", 1 ) );
    std::vector<cspf::ResultChange> seen;
    client.watchIs( [&]( const cspf::ResultChange& c ) { seen.push_back( c ); } );
    EXPECT_EQ( client.process(), 0u );

    // The agent makes the table (and its directories) only now.
    auto status = agentStatusTable( kRed );
    status->pathStatusIs( statusOf( "10.0.0.1", 1, { "10.1.0.1" } ) );
    ASSERT_EQ( client.process(), 1u );
    EXPECT_EQ( seen[0].table.vrf, "red" );
    ASSERT_TRUE( seen[0].result );
    EXPECT_EQ( seen[0].result->hops, std::vector<std::string>{ "10.1.0.1" } );

    status->pathStatusIs( statusOf( "10.0.0.1", 1, { "10.1.0.2" }, 2 ) );
    status->pathStatusIs( statusOf( "10.0.0.1", 1, { "10.1.0.3" }, 3 ) );
    ASSERT_EQ( client.process(), 1u );
    EXPECT_EQ( seen[1].result->changeCount, 3u );  // the final state

    status->pathStatusIs( statusOf( "10.0.0.2", 1, {} ) );  // came and went unseen
    status->pathStatusDel( keyOf( "10.0.0.2", 1 ) );
    status->pathStatusDel( keyOf( "10.0.0.1", 1 ) );
    ASSERT_EQ( client.process(), 1u );
    EXPECT_EQ( seen[2].destination, "10.0.0.1" );
    EXPECT_FALSE( seen[2].result );
    EXPECT_EQ( client.process(), 0u );

    // A family registered later is followed too.
    client.requestIs( kBlue6, req( "2001:db8::1", 1 ) );
    agentStatusTable( kBlue6 )->pathStatusIs( statusOf( "2001:db8::1", 1, {} ) );
    ASSERT_EQ( client.process(), 1u );
    EXPECT_EQ( seen[3].table.family, Family::ipv6 );
    EXPECT_EQ( seen.size(), 4u );
}

TEST_F( ClientTest, AnObserverReadsAndWatchesBesideTheOwnerAndWritesNothing ) {
    EXPECT_THROW( cspf::Client( "rsvp", tmp.path(), cspf::Client::Access::observe ),
                  cspf::Error );  // not registered
    cspf::Client owner( "rsvp", tmp.path() );
    owner.requestIs( kRed, req( "10.0.0.1", 1, "Ethernet1" ) );
    cspf::Client look( "rsvp", tmp.path(), cspf::Client::Access::observe );
    EXPECT_EQ( look.vrfs(), std::vector<std::string>{ "red" } );
    ASSERT_EQ( look.requests( kRed ).size(), 1u );
    EXPECT_EQ( look.requests( kRed )[0].excludeInterface, "Ethernet1" );

    std::vector<cspf::ResultChange> seen;
    look.watchIs( [&]( const cspf::ResultChange& c ) { seen.push_back( c ); } );
    agentStatusTable( kRed )->pathStatusIs( statusOf( "10.0.0.1", 1, { "10.1.0.1" } ) );
    EXPECT_EQ( look.process(), 1u );
    // A VRF the owner registers later is followed too.
    owner.requestIs( kBlue6, req( "2001:db8::1", 1 ) );
    agentStatusTable( kBlue6 )->pathStatusIs( statusOf( "2001:db8::1", 1, {} ) );
    look.process();
    look.process();
    ASSERT_EQ( seen.size(), 2u );
    EXPECT_EQ( seen[1].table.family, Family::ipv6 );

    EXPECT_THROW( look.requestIs( kRed, req( "10.0.0.2", 1 ) ), cspf::Error );
    EXPECT_THROW( look.requestDel( kRed, "10.0.0.1", 1 ), cspf::Error );
    EXPECT_THROW( look.refresh( kRed, "10.0.0.1", 1 ), cspf::Error );
    EXPECT_THROW( look.leave(), cspf::Error );
    EXPECT_EQ( owner.requests( kRed ).size(), 1u );
}

TEST_F( ClientTest, BatchRingsTheAgentOnce ) {
    cspf::Client client( "rsvp", tmp.path() );
    client.requestIs( kRed, req( "10.0.0.1", 1 ) );
    Platform::Inotify agentSide( nullptr );
    auto requests = create<Cspf::Config>( tmp.tree, &agentSide, requestsPath( kRed ) );
    size_t told = 0;
    auto sub = Platform::subscribe( requests.get(), Cspf::Config::recordTag,
                                    [&]( const Cspf::PathKey& ) { ++told; } );
    client.batchBegin();
    for ( uint32_t id = 2; id <= 4; ++id ) {
        client.requestIs( kRed, req( "10.0.0.1", id ) );
    }
    client.refresh( kRed, "10.0.0.1", 1 );
    EXPECT_EQ( agentSide.poll(), 0u );
    client.batchEnd();
    EXPECT_EQ( agentSide.poll(), 1u );
    EXPECT_EQ( told, 4u );
    EXPECT_THROW( client.batchEnd(), cspf::Error );
}

TEST_F( ClientTest, RefusesBadInputWithOneLine ) {
    for ( const char* bad : { "", "..", "a/b", "tab\there" } ) {
        EXPECT_THROW( cspf::Client( bad, tmp.path() ), cspf::Error ) << bad;
    }
    cspf::Client client( "rsvp", tmp.path() );
    auto refusal = [&]( auto&& f ) -> std::string {
        try {
            f();
        } catch ( const cspf::Error& e ) {
            EXPECT_EQ( std::string( e.what() ).find( '\n' ), std::string::npos );
            return e.what();
        }
        return "<accepted>";
    };
    EXPECT_NE( refusal( [&] { cspf::Client( "rsvp", tmp.path() ); } ).find( "already" ),
               std::string::npos );
    EXPECT_EQ( refusal( [&] { client.requestIs( kRed, req( "10.0.0.300", 1 ) ); } ),
               "client 'rsvp': cannot deserialize attribute 'destination': '10.0.0.300' "
               "is not an IPv4 address" );
    EXPECT_EQ( refusal( [&] { client.requestIs( kRed, req( "2001:db8::1", 1 ) ); } ),
               "client 'rsvp': destination '2001:db8::1' is not an IPv4 address (table "
               "ipv4 of VRF red)" );
    EXPECT_NE(
        refusal( [&] {
            client.requestIs( cspf::Table{ "a/b", Family::ipv4 }, req( "10.0.0.1", 1 ) );
        } ),
        "<accepted>" );
    EXPECT_NE(
        refusal( [&] { client.requestIs( kRed, req( "10.0.0.1", 1, "eth 0" ) ); } ),
        "<accepted>" );
    EXPECT_NE( refusal( [&] { client.refresh( kRed, "10.0.0.9", 1 ); } ), "<accepted>" );
    // Nothing refused was registered or written.
    EXPECT_TRUE( client.vrfs().empty() );
    EXPECT_FALSE( tmp.tree.exists( requestsPath( kRed ) ) );
}

TEST_F( ClientTest, LeaveRemovesRegistrationAndEveryRequestTable ) {
    cspf::Client other( "other", tmp.path() );
    other.requestIs( kRed, req( "10.0.0.1", 1 ) );
    cspf::Client client( "rsvp", tmp.path() );
    client.requestIs( kRed, req( "10.0.0.1", 1 ) );
    client.requestIs( kBlue6, req( "2001:db8::1", 1 ) );
    client.requestIs( cspf::Table{ "red", Family::ipv6 }, req( "2001:db8::1", 1 ) );
    auto status = agentStatusTable( kRed );
    status->pathStatusIs( statusOf( "10.0.0.1", 1, {} ) );
    std::vector<cspf::ResultChange> seen;
    client.watchIs( [&]( const cspf::ResultChange& c ) { seen.push_back( c ); } );

    client.leave();
    EXPECT_EQ( tmp.tree.listTables( "te/cspf" ),
               ( std::vector<std::string>{ "te/cspf/client/other",
                                           "te/cspf/config/vrf/red/ipv4/other",
                                           "te/cspf/status/vrf/red/ipv4/rsvp" } ) );
    // The agent drops the results of a client that left; the client hears it.
    tmp.tree.removeTable( status->statePath() );
    status = nullptr;
    ASSERT_EQ( client.process(), 1u );
    EXPECT_FALSE( seen[0].result );
    // The name is free again, and a new request registers afresh.
    client.requestIs( kRed, req( "10.0.0.1", 2 ) );
    EXPECT_EQ( client.vrfs(), std::vector<std::string>{ "red" } );
}

}  // namespace

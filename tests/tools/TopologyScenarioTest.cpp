// Following IS-IS through a whole VRF, on the manual clock (VrfScenario): the
// IS-IS side rewrites the level tables from an edited model while a client's
// paths are computed.
//
//   level 1:  r1 --E1-- r2 --E2-- r4        metrics 10
//             r1 --E2-- r6 --E2-- r4        metrics 20
//   level 2:  r1 --E3-- r3 --E2-- r5        metrics 10   (r1 is in both)
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "platform/Syslog.h"
#include "tests/support/ScenarioTopology.h"
#include "tests/support/VrfScenario.h"
#include "topo/TopoDbSm.h"

using namespace Cspf;
using Net::IpGenAddr;
using Platform::create;
using Platform::Ptr;
using TestKit::Hops;
using TestKit::hops;

namespace {

const std::string kTopology =
    TestKit::ScenarioTopology()
        .link( 1, "r1:Ethernet1", "r2:Ethernet1", "10.1.12.0" )
        .link( 1, "r2:Ethernet2", "r4:Ethernet1", "10.1.24.0" )
        .link( 1, "r1:Ethernet2", "r6:Ethernet1", "10.1.16.0", 20 )
        .link( 1, "r6:Ethernet2", "r4:Ethernet2", "10.1.46.0", 20 )
        .link( 2, "r1:Ethernet3", "r3:Ethernet1", "10.1.13.0" )
        .link( 2, "r3:Ethernet2", "r5:Ethernet1", "10.1.35.0" )
        .json();

class TopologyScenarioTest : public TestKit::VrfScenario {
  protected:
    void SetUp() override {
        Syslog::sinkIs( [this]( std::string_view id, std::string_view text ) {
            if ( id == CSPF_DUPLICATE_TE_ROUTER_ID.identifier ) {
                duplicateLogs_.emplace_back( text );
            }
        } );
        setUp( kTopology.c_str(), { { "Ethernet1", "10.1.12.0" },
                                    { "Ethernet2", "10.1.16.0" },
                                    { "Ethernet3", "10.1.13.0" } } );
    }
    void TearDown() override {
        VrfScenario::TearDown();
        Syslog::sinkIs( nullptr );
    }

    TopoFile::Router& router( const std::string& name ) {
        auto it = std::find_if( topology.routers.begin(), topology.routers.end(),
                                [&]( const auto& r ) { return r.name == name; } );
        EXPECT_NE( it, topology.routers.end() ) << name;
        return *it;
    }
    // A level 2 link, ahead of the file's own: a link's id is its position,
    // so removing r3's links later must not renumber the added ones (their
    // routers' records would change in the same burst).
    void linkAdd( const char* a, const char* b, const char* addr ) {
        topology.links.insert( topology.links.begin() + added_++,
                               TestKit::scenarioLink( 2, a, b, addr ) );
    }
    // The router goes, with every link it ends.
    void routerDel( const std::string& name ) {
        std::erase_if( topology.routers,
                       [&]( const auto& r ) { return r.name == name; } );
        std::erase_if( topology.links, [&]( const auto& l ) {
            return l.ends[0].router == name || l.ends[1].router == name;
        } );
    }
    PathInfoKey request( const char* dst, uint32_t id ) {
        return VrfScenario::request( IpGenAddr( dst ), id, 1 );
    }
    // The published interface-address table as a client reads it.
    Ptr<IntfIpToRouterIdReader> published() {
        if ( !published_ ) {
            published_ = create<IntfIpToRouterIdReader>( tree, nullptr,
                                                         intfIpToRouterIdPath( vrf ) );
        }
        published_->sync();
        return published_;
    }

    std::vector<std::string> duplicateLogs_;
    size_t added_ = 0;
    Ptr<IntfIpToRouterIdReader> published_;
};

}  // namespace

TEST_F( TopologyScenarioTest, DuplicateTeRouterIdIsIgnoredUntilTheOwnerLeaves ) {
    start();
    const PathInfoKey k3 = request( "10.0.0.3", 1 );
    const PathInfoKey k8 = request( "10.0.0.8", 1 );
    advanceMs( 1000 );
    EXPECT_EQ( resultHops( k3 ), hops( { "10.1.13.1" } ) );

    // r7 claims r3's TE router id and is the only way to r8.
    topology.routers.push_back( TestKit::scenarioRouter( 7, { 2 } ) );
    topology.routers.back().teRouterId = IpGenAddr( "10.0.0.3" );
    topology.routers.push_back( TestKit::scenarioRouter( 8, { 2 } ) );
    linkAdd( "r1:Ethernet4", "r7:Ethernet1", "10.1.17.0" );
    linkAdd( "r7:Ethernet2", "r8:Ethernet1", "10.1.78.0" );
    publishTopology();
    const std::string logged =
        "TE router ID 10.0.0.3 for IS-IS router 0000.0000.0007 conflicts with IS-IS "
        "router 0000.0000.0003, IS-IS router 0000.0000.0007 ignored";
    EXPECT_EQ( duplicateLogs_, std::vector<std::string>{ logged } );
    advanceMs( 1000 );
    EXPECT_EQ( resultHops( k3 ), hops( { "10.1.13.1" } ) );
    EXPECT_EQ( resultHops( k8 ), Hops() );
    EXPECT_FALSE( published()->intfIpToRouterIdHas( IpGenAddr( "10.1.17.1" ) ) );

    // Each handling of its record logs once more.
    router( "r7" ).overload = true;
    publishTopology();
    router( "r7" ).overload = false;
    publishTopology();
    EXPECT_EQ( duplicateLogs_, std::vector<std::string>( 3, logged ) );
    advanceMs( 1000 );
    EXPECT_EQ( resultHops( k8 ), Hops() );

    // The owner leaves: r7 takes the id over, silently.
    routerDel( "r3" );
    publishTopology();
    EXPECT_EQ( duplicateLogs_.size(), 3u );
    advanceMs( 49 );
    EXPECT_EQ( resultHops( k3 ), hops( { "10.1.13.1" } ) );
    advanceMs( 1 );
    EXPECT_EQ( resultHops( k3 ), hops( { "10.1.17.1" } ) );
    EXPECT_EQ( resultHops( k8 ), hops( { "10.1.17.1", "10.1.78.1" } ) );
    EXPECT_EQ( published()->intfIpToRouterId( IpGenAddr( "10.1.17.1" ) ),
               IpGenAddr( "10.0.0.3" ) );
}

TEST_F( TopologyScenarioTest, TransitRouterChangingItsTeRouterIdMovesPathsAndEntries ) {
    start();
    const PathInfoKey oldId = request( "10.0.0.2", 1 );
    const PathInfoKey newId = request( "10.0.0.22", 1 );
    const PathInfoKey beyond = request( "10.0.0.4", 1 );
    advanceMs( 1000 );
    EXPECT_EQ( resultHops( oldId ), hops( { "10.1.12.1" } ) );
    EXPECT_EQ( resultHops( newId ), Hops() );
    const IpGenAddr r2Addrs[] = { IpGenAddr( "10.1.12.1" ), IpGenAddr( "10.1.24.0" ) };
    for ( const IpGenAddr& addr : r2Addrs ) {
        EXPECT_EQ( published()->intfIpToRouterId( addr ), IpGenAddr( "10.0.0.2" ) );
    }

    router( "r2" ).teRouterId = IpGenAddr( "10.0.0.22" );
    publishTopology();
    advanceMs( 50 );
    EXPECT_EQ( resultHops( oldId ), Hops() );
    EXPECT_EQ( resultHops( newId ), hops( { "10.1.12.1" } ) );
    EXPECT_EQ( resultHops( beyond ), hops( { "10.1.12.1", "10.1.24.1" } ) );
    EXPECT_EQ( result( beyond ).changeCount, 1u );
    for ( const IpGenAddr& addr : r2Addrs ) {
        EXPECT_EQ( published()->intfIpToRouterId( addr ), IpGenAddr( "10.0.0.22" ) );
    }
    for ( const auto& [addr, version] : published()->keys() ) {
        EXPECT_NE( published()->intfIpToRouterId( addr ), IpGenAddr( "10.0.0.2" ) )
            << addr;
    }
}

TEST_F( TopologyScenarioTest, LevelTwoRemovedLeavesLevelOnePathsWorking ) {
    start();
    const PathInfoKey inL1 = request( "10.0.0.4", 1 );
    const PathInfoKey inL2 = request( "10.0.0.5", 1 );
    advanceMs( 1000 );
    EXPECT_EQ( resultHops( inL1 ), hops( { "10.1.12.1", "10.1.24.1" } ) );
    EXPECT_EQ( resultHops( inL2 ), hops( { "10.1.13.1", "10.1.35.1" } ) );
    const double before = root->allTopoDbStatus()->topoChangedAt();

    routerDel( "r3" );
    routerDel( "r5" );
    router( "r1" ).levels = { 1 };
    publishTopology();
    EXPECT_GT( root->allTopoDbStatus()->topoChangedAt(), before );
    advanceMs( 50 );
    EXPECT_EQ( statsOf( inL1 )->cspfCount(), 2u );
    EXPECT_EQ( resultHops( inL1 ), hops( { "10.1.12.1", "10.1.24.1" } ) );
    EXPECT_EQ( result( inL1 ).changeCount, 1u );
    EXPECT_EQ( resultHops( inL2 ), Hops() );
    EXPECT_EQ( result( inL2 ).changeCount, 2u );
    EXPECT_FALSE( published()->intfIpToRouterIdHas( IpGenAddr( "10.1.13.1" ) ) );
    EXPECT_TRUE( published()->intfIpToRouterIdHas( IpGenAddr( "10.1.24.1" ) ) );
}

// Results held over a start-up are PathManagementScenarioTest's.
TEST_F( TopologyScenarioTest, StartUpRemovesStaleEntriesAndKeepsValidOnes ) {
    // Left by an earlier agent: three valid entries, one for an address no
    // router advertises, one naming a router that does not carry the address.
    const std::vector<std::pair<const char*, const char*>> valid{
        { "10.1.12.1", "10.0.0.2" },
        { "10.1.24.1", "10.0.0.4" },
        { "10.1.13.1", "10.0.0.3" } };
    const std::vector<const char*> stale{ "10.9.9.9", "10.1.99.1" };
    {
        auto table =
            create<IntfIpToRouterIdWriter>( tree, nullptr, intfIpToRouterIdPath( vrf ) );
        for ( const auto& [ip, id] : valid ) {
            table->intfIpToRouterIdIs( IpGenAddr( ip ), IpGenAddr( id ) );
        }
        table->intfIpToRouterIdIs( IpGenAddr( stale[0] ), IpGenAddr( "10.0.0.9" ) );
        table->intfIpToRouterIdIs( IpGenAddr( stale[1] ), IpGenAddr( "10.0.0.2" ) );
    }
    const std::map<IpGenAddr, uint64_t> versionsBefore = published()->keys();
    ASSERT_EQ( versionsBefore.size(), valid.size() + stale.size() );

    start();
    for ( const char* ip : stale ) {
        EXPECT_FALSE( published()->intfIpToRouterIdHas( IpGenAddr( ip ) ) ) << ip;
    }
    for ( const auto& [ip, id] : valid ) {
        EXPECT_EQ( published()->intfIpToRouterId( IpGenAddr( ip ) ), IpGenAddr( id ) );
        ASSERT_TRUE( published()->keys().count( IpGenAddr( ip ) ) ) << ip;
        EXPECT_EQ( published()->keys().at( IpGenAddr( ip ) ),
                   versionsBefore.at( IpGenAddr( ip ) ) )
            << ip;
    }
    EXPECT_EQ( published()->intfIpToRouterId( IpGenAddr( "10.1.46.1" ) ),
               IpGenAddr( "10.0.0.4" ) );
}

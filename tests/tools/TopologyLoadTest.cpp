// A topology file as the IS-IS side writes it into a VRF's level tables.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/StateTree.h"
#include "tools/TopologyLoad.h"
#include "topo/TopoDb.h"

using namespace Cspf::TopoFile;
using Routing::Topology::AddrIndex;
using Routing::Topology::NeighborIndex;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkId;

namespace {

// r1 = r2 twice in parallel (the second adjacency faulty), r1, r2, r3 on a LAN
// in level 1, r3 also in level 2 alone.
const char* kTopology = R"({
  "format": "cspf-topology/1",
  "routers": [
    { "name": "r1", "systemId": "0000.0000.0001", "teRouterId": "10.0.0.1", "levels": [1] },
    { "name": "r2", "systemId": "0000.0000.0002", "teRouterId": "10.0.0.2", "levels": [1],
      "overload": true },
    { "name": "r3", "systemId": "0000.0000.0003", "levels": [1, 2] } ],
  "links": [
    { "level": 1, "ends": [
      { "router": "r1", "interface": "Ethernet1", "ipv4": "10.1.0.0/31", "metric": 10,
        "teMetric": 7 },
      { "router": "r2", "interface": "Ethernet1", "ipv4": "10.1.0.1/31", "metric": 20 } ] },
    { "level": 1, "ends": [
      { "router": "r1", "interface": "Ethernet2", "ipv4": "10.1.0.2/31", "metric": 10,
        "neighborAddress": "10.9.9.9" },
      { "router": "r2", "interface": "Ethernet2", "ipv4": "10.1.0.3/31", "metric": 10,
        "advertise": false, "record": false } ] } ],
  "lans": [
    { "level": 1, "dr": "r3", "pseudonode": 2, "members": [
      { "router": "r1", "interface": "Ethernet3", "ipv4": "10.3.0.1/24", "metric": 5 },
      { "router": "r2", "interface": "Ethernet3", "ipv4": "10.3.0.2/24", "metric": 5 },
      { "router": "r3", "interface": "Vlan3", "ipv4": "10.3.0.3/24", "metric": 5 } ] } ]
})";

Mpls::RouterId rid( int n ) {
    return Mpls::RouterId::fromSystemId( "0000.0000.000" + std::to_string( n ) );
}

class TopologyLoadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/dev/shm/topoload-XXXXXX";
        root_ = mkdtemp( tmpl );
        tree_ = std::make_unique<Platform::StateTree>( root_ );
    }
    void TearDown() override { std::filesystem::remove_all( root_ ); }
    std::string root_;
    std::unique_ptr<Platform::StateTree> tree_;
};

TEST_F( TopologyLoadTest, RecordsCarryAdjacenciesAddressesAndFaults ) {
    const Topology t = parseTopology( kTopology, "t.json" );
    const L3::VrfName vrf( "red" );
    const LoadSummary first = loadIntoTree( t, *tree_, vrf, "t.json" );
    EXPECT_EQ( first.written, first.records );
    auto db = Platform::create<Routing::Topology::TopoDb>( *tree_, nullptr, 1, vrf );

    // r1 lists both parallel links and the LAN; r2 does not list the faulty one.
    const auto r1 = db->router( rid( 1 ) );
    ASSERT_EQ( r1.neighborKeyCount(), 3u );
    const NeighborKey l1 = NeighborKey::toRouter( rid( 1 ), rid( 2 ), 1 );
    const NeighborKey l2 = NeighborKey::toRouter( rid( 1 ), rid( 2 ), 2 );
    EXPECT_EQ( r1.neighborKey( NeighborIndex( 0 ) ), l1 );
    EXPECT_EQ( r1.neighborKey( NeighborIndex( 1 ) ), l2 );
    const NetworkId lan{ rid( 3 ), 2 };
    EXPECT_EQ( r1.neighborKey( NeighborIndex( 2 ) ),
               NeighborKey::toNetwork( rid( 1 ), lan ) );
    const auto r2 = db->router( rid( 2 ) );
    EXPECT_TRUE( r2.overload() );
    EXPECT_EQ( r2.neighborKeyCount(), 2u );
    EXPECT_TRUE( db->router( rid( 3 ) ).teRouterId().isAddrZero() );

    // Addresses cross between the two ends; the override replaces the far one.
    const auto n1 = db->neighbor( l1 );
    EXPECT_EQ( n1.interfaceAddr( AddrIndex( 0 ) ), Net::IpGenAddr( "10.1.0.0" ) );
    EXPECT_EQ( n1.neighborAddr( AddrIndex( 0 ) ), Net::IpGenAddr( "10.1.0.1" ) );
    EXPECT_TRUE( n1.teMetricPresent() );
    EXPECT_EQ( n1.teMetric(), 7u );
    EXPECT_EQ( n1.igpMetric(), 10u );
    EXPECT_FALSE( db->neighbor( NeighborKey::toRouter( rid( 2 ), rid( 1 ), 1 ) )
                      .teMetricPresent() );
    EXPECT_EQ( db->neighbor( l2 ).neighborAddr( AddrIndex( 0 ) ),
               Net::IpGenAddr( "10.9.9.9" ) );
    EXPECT_FALSE( db->neighborHas( NeighborKey::toRouter( rid( 2 ), rid( 1 ), 2 ) ) );

    // The LAN lists every member; a member's record has its own address only.
    EXPECT_EQ( db->network( lan ).routerCount(), 3u );
    const auto m2 = db->neighbor( NeighborKey::toNetwork( rid( 2 ), lan ) );
    EXPECT_EQ( m2.interfaceAddrCount(), 1u );
    EXPECT_EQ( m2.neighborAddrCount(), 0u );

    // Level 2 holds r3 alone.
    auto l2db = Platform::create<Routing::Topology::TopoDb>( *tree_, nullptr, 2, vrf );
    EXPECT_TRUE( l2db->routerHas( rid( 3 ) ) );
    EXPECT_FALSE( l2db->routerHas( rid( 1 ) ) );
}

TEST_F( TopologyLoadTest, ReloadWritesOnlyWhatChanged ) {
    Topology t = parseTopology( kTopology, "t.json" );
    const L3::VrfName vrf;
    loadIntoTree( t, *tree_, vrf );
    const LoadSummary same = loadIntoTree( t, *tree_, vrf );
    EXPECT_EQ( same.written, 0u );
    EXPECT_EQ( same.removed, 0u );
    // Drop the LAN: its network record, the three member records go, and the
    // three routers' key lists change.
    t.lans.clear();
    const LoadSummary smaller = loadIntoTree( t, *tree_, vrf );
    EXPECT_EQ( smaller.removed, 4u );
    EXPECT_EQ( smaller.written, 3u );
}

}  // namespace

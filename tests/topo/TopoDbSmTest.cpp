// The per-level topology reactor over a real level database: what it
// publishes for owned links, duplicate TE router ids and their resurrection,
// shared addresses, and that unchanged input rewrites nothing in the
// published table. TopologyScenarioTest follows TE router id changes.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Syslog.h"
#include "tests/support/TempDir.h"
#include "topo/TopoDbSm.h"

using namespace Cspf;
using namespace Routing::Topology;
using Mpls::RouterId;
using Net::IpGenAddr;

namespace {

const RouterId kA = RouterId::fromSystemId( "0000.0000.0001" );
const RouterId kB = RouterId::fromSystemId( "0000.0000.0002" );
const RouterId kC = RouterId::fromSystemId( "0000.0000.0003" );
const NeighborKey kAb = NeighborKey::toRouter( kA, kB, 1 );
const NeighborKey kBa = NeighborKey::toRouter( kB, kA, 1 );
const NeighborKey kCa = NeighborKey::toRouter( kC, kA, 1 );

using Published = std::map<std::string, std::string>;

class TopoDbSmTest : public ::testing::Test {
  protected:
    void SetUp() override {
        writer_ = std::make_unique<TopoDbWriter>( tree_, nullptr, 1, L3::VrfName() );
        db_ = Platform::create<TopoDb>( tree_, nullptr, 1, L3::VrfName() );
        table_ = Platform::create<IntfIpToRouterIdWriter>(
            tree_, nullptr, intfIpToRouterIdPath( L3::VrfName() ) );
        status_ = Platform::create<AllTopoDbStatus>( table_ );
        writes_ = Platform::subscribe(
            table_.get(), IntfIpToRouterIdWriter::recordTag,
            [this]( const IpGenAddr& ip ) { ++writes[ip.toString()]; } );
        Syslog::sinkIs( [this]( std::string_view id, std::string_view text ) {
            logged.push_back( std::string( id ) + " " + std::string( text ) );
        } );
    }
    void TearDown() override {
        Syslog::sinkIs( nullptr );
        sm_.reset();
    }

    void start() { sm_ = Platform::create<TopoDbSm>( TopoId::isisL1, db_, status_ ); }
    void routerIs( RouterId id, const char* te, std::vector<NeighborKey> links,
                   bool overload = false ) {
        Router r( id );
        if ( te ) {
            r.teRouterIdIs( IpGenAddr( te ) );
        }
        r.overloadIs( overload );
        for ( size_t i = 0; i < links.size(); ++i ) {
            r.neighborIs( NeighborIndex( uint32_t( i ) ), links[i] );
        }
        writer_->routerIs( r );
    }
    void linkIs( NeighborKey key, std::vector<const char*> addrs, uint32_t metric = 10 ) {
        Neighbor n( key );
        for ( size_t i = 0; i < addrs.size(); ++i ) {
            n.interfaceAddrIs( AddrIndex( uint32_t( i ) ), IpGenAddr( addrs[i] ) );
        }
        n.igpMetricIs( metric );
        writer_->neighborIs( n );
    }
    Published published() const {
        Published out;
        for ( const IpGenAddr& ip : table_->keys() ) {
            out[ip.toString()] = table_->intfIpToRouterId( ip ).toString();
        }
        return out;
    }
    RouterIdMap& map() { return *status_->routerIdMap( TopoId::isisL1 ); }
    std::string dupLine( const char* te, RouterId igp, RouterId holder ) {
        return "CSPF_DUPLICATE_TE_ROUTER_ID TE router ID " + std::string( te ) +
               " for IS-IS router " + igp.toString() + " conflicts with IS-IS router " +
               holder.toString() + ", IS-IS router " + igp.toString() + " ignored";
    }

    TestKit::TempTree tmp_{ "topodbsmtest" };
    Platform::StateTree& tree_ = tmp_.tree;
    std::unique_ptr<TopoDbWriter> writer_;
    Platform::Ptr<TopoDb> db_;
    Platform::Ptr<IntfIpToRouterIdWriter> table_;
    Platform::Ptr<AllTopoDbStatus> status_;
    Platform::Ptr<TopoDbSm> sm_;
    Platform::SubscriptionPtr writes_;
    std::map<std::string, int> writes;
    std::vector<std::string> logged;
};

}  // namespace

TEST_F( TopoDbSmTest, PublishesTheAddressesOfOwnedListedLinksOnly ) {
    routerIs( kA, "1.1.1.1", { kAb } );
    routerIs( kB, "2.2.2.2", {} );
    linkIs( kAb, { "10.0.0.1", "2001:db8::1" } );
    linkIs( kBa, { "10.0.0.2" } );  // B does not list it yet
    linkIs( kCa, { "10.0.0.3" } );  // C does not exist yet
    db_->sync();
    start();
    EXPECT_EQ( published(),
               ( Published{ { "10.0.0.1", "1.1.1.1" }, { "2001:db8::1", "1.1.1.1" } } ) );
    EXPECT_EQ( map().teRouterId( kA ), IpGenAddr( "1.1.1.1" ) );
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "2.2.2.2" ) ), kB );
    EXPECT_EQ( sm_->neighborToIntfIps(), 3u );  // recorded, published or not

    routerIs( kB, "2.2.2.2", { kBa } );
    routerIs( kC, nullptr, { kCa } );  // no TE router id: not a TE router
    db_->sync();
    EXPECT_EQ( published()["10.0.0.2"], "2.2.2.2" );
    EXPECT_FALSE( published().count( "10.0.0.3" ) );
    EXPECT_FALSE( map().teRouterIdHas( kC ) );
    routerIs( kC, "3.3.3.3", { kCa } );
    db_->sync();
    EXPECT_EQ( published()["10.0.0.3"], "3.3.3.3" );

    // A link's addresses change: only the changed ones move.
    linkIs( kAb, { "10.0.0.11", "2001:db8::1" } );
    db_->sync();
    EXPECT_FALSE( published().count( "10.0.0.1" ) );
    EXPECT_EQ( published()["10.0.0.11"], "1.1.1.1" );
    EXPECT_EQ( writes["2001:db8::1"], 1 );

    // A router that stops listing a link withdraws it, and gets it back.
    routerIs( kA, "1.1.1.1", {} );
    db_->sync();
    EXPECT_FALSE( published().count( "10.0.0.11" ) );
    EXPECT_FALSE( status_->intfIpToNeighborTable()->intfIpToNeighborHas(
        IpGenAddr( "2001:db8::1" ) ) );
    routerIs( kA, "1.1.1.1", { kAb } );
    db_->sync();
    EXPECT_EQ( published()["2001:db8::1"], "1.1.1.1" );

    writer_->neighborDel( kBa );
    writer_->routerDel( kC );
    db_->sync();
    EXPECT_FALSE( published().count( "10.0.0.2" ) );
    EXPECT_FALSE( published().count( "10.0.0.3" ) );
    EXPECT_FALSE( sm_->neighborToIntfIpHas( kBa ) );
    EXPECT_FALSE( map().igpRouterIdHas( IpGenAddr( "3.3.3.3" ) ) );
    EXPECT_FALSE( sm_->routerToNeighborHas( kC ) );
}

TEST_F( TopoDbSmTest, UnchangedInputRewritesNothingButStampsTheChange ) {
    Platform::ManualClockScope clock;
    routerIs( kA, "1.1.1.1", { kAb } );
    linkIs( kAb, { "10.0.0.1" } );
    db_->sync();
    start();
    EXPECT_EQ( status_->topoChangedAt(), 1000.0 );
    clock->advance( 5 );
    linkIs( kAb, { "10.0.0.1" }, 20 );  // a new metric, the same address
    db_->sync();
    EXPECT_EQ( status_->topoChangedAt(), 1005.0 );
    clock->advance( 5 );
    routerIs( kA, "1.1.1.1", { kAb }, true );  // overloaded now
    db_->sync();
    EXPECT_EQ( status_->topoChangedAt(), 1010.0 );
    clock->advance( 5 );
    writer_->networkIs( Network( NetworkId( kA, 1 ) ) );
    db_->sync();
    EXPECT_EQ( status_->topoChangedAt(), 1015.0 );
    EXPECT_EQ( writes, ( std::map<std::string, int>{ { "10.0.0.1", 1 } } ) );
}

TEST_F( TopoDbSmTest, DuplicateTeRouterIdIsLoggedIgnoredAndResurrected ) {
    routerIs( kA, "1.1.1.1", { kAb } );
    routerIs( kB, "1.1.1.1", { kBa } );
    linkIs( kAb, { "10.0.0.1" } );
    linkIs( kBa, { "10.0.0.2" } );
    db_->sync();
    start();  // A comes first in the replay and wins
    EXPECT_EQ( logged, ( std::vector<std::string>{ dupLine( "1.1.1.1", kB, kA ) } ) );
    EXPECT_EQ( published(), ( Published{ { "10.0.0.1", "1.1.1.1" } } ) );
    EXPECT_TRUE( map().duplicateRouters( IpGenAddr( "1.1.1.1" ) )->routerHas( kB ) );
    EXPECT_FALSE( map().teRouterIdHas( kB ) );

    writer_->routerDel( kA );
    db_->sync();
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "1.1.1.1" ) ), kB );
    EXPECT_EQ( map().duplicateRoutersCount(), 0u );
    EXPECT_FALSE( sm_->pendingRouterToHandle() );
    EXPECT_EQ( published(), ( Published{ { "10.0.0.2", "1.1.1.1" } } ) );

    routerIs( kA, "1.1.1.1", { kAb } );  // back, and now the one set aside
    db_->sync();
    EXPECT_EQ( logged.back(), dupLine( "1.1.1.1", kA, kB ) );
    routerIs( kB, "2.2.2.2", { kBa } );  // the owner moves on: A takes over
    db_->sync();
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "1.1.1.1" ) ), kA );
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "2.2.2.2" ) ), kB );
    EXPECT_EQ( published(),
               ( Published{ { "10.0.0.1", "1.1.1.1" }, { "10.0.0.2", "2.2.2.2" } } ) );
    EXPECT_EQ( logged.size(), 2u );
}

TEST_F( TopoDbSmTest, SetAsideRouterMovesBetweenDuplicateLists ) {
    const RouterId kD = RouterId::fromSystemId( "0000.0000.0004" );
    routerIs( kA, "1.1.1.1", {} );
    routerIs( kB, "2.2.2.2", {} );
    routerIs( kC, "1.1.1.1", {} );
    routerIs( kD, "1.1.1.1", {} );
    db_->sync();
    start();
    EXPECT_EQ( map().duplicateRouters( IpGenAddr( "1.1.1.1" ) )->routers(), 2u );
    // C claims another taken id: off the first list, onto the second.
    routerIs( kC, "2.2.2.2", {} );
    db_->sync();
    EXPECT_FALSE( map().duplicateRouters( IpGenAddr( "1.1.1.1" ) )->routerHas( kC ) );
    EXPECT_TRUE( map().duplicateRouters( IpGenAddr( "2.2.2.2" ) )->routerHas( kC ) );
    EXPECT_EQ( logged.back(), dupLine( "2.2.2.2", kC, kB ) );
    // Each owner goes: the one waiting on its own list takes over.
    writer_->routerDel( kB );
    db_->sync();
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "2.2.2.2" ) ), kC );
    EXPECT_FALSE( map().duplicateRoutersHas( IpGenAddr( "2.2.2.2" ) ) );
    writer_->routerDel( kA );
    db_->sync();
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "1.1.1.1" ) ), kD );
    EXPECT_EQ( map().duplicateRoutersCount(), 0u );
    // A router taken over is no duplicate: its deletion frees its id.
    writer_->routerDel( kD );
    db_->sync();
    EXPECT_FALSE( map().igpRouterIdHas( IpGenAddr( "1.1.1.1" ) ) );
    EXPECT_EQ( map().teRouterIds(), 1u );
}

TEST_F( TopoDbSmTest, ReplayTakesRoutersOffListsALeftOverMapHeld ) {
    // A map left for the level still lists B under an id it no longer claims.
    status_->routerIdMapIs( TopoId::isisL1 )
        ->duplicateRoutersIs( IpGenAddr( "1.1.1.1" ) )
        ->routerIs( kB, true );
    routerIs( kA, "1.1.1.1", {} );
    routerIs( kB, "2.2.2.2", {} );
    db_->sync();
    start();
    EXPECT_EQ( map().duplicateRoutersCount(), 0u );
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "2.2.2.2" ) ), kB );
    EXPECT_TRUE( logged.empty() );
}

TEST_F( TopoDbSmTest, OneBatchOfChangesLeavesTheIdMapsConsistent ) {
    routerIs( kA, "1.1.1.1", {} );
    routerIs( kB, "1.1.1.1", {} );
    routerIs( kC, "1.1.1.1", {} );
    db_->sync();
    start();
    // Taken in together: the owner goes while the first in line moves on, so
    // the freed id passes to the next one.
    writer_->routerDel( kA );
    routerIs( kB, "3.3.3.3", {} );
    db_->sync();
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "1.1.1.1" ) ), kC );
    EXPECT_EQ( map().igpRouterId( IpGenAddr( "3.3.3.3" ) ), kB );
    EXPECT_EQ( map().duplicateRoutersCount(), 0u );
    // Owner and duplicate deleted together: nothing is left behind.
    routerIs( kA, "1.1.1.1", {} );
    db_->sync();
    writer_->routerDel( kC );
    writer_->routerDel( kA );
    writer_->routerDel( kB );
    db_->sync();
    EXPECT_EQ( map().teRouterIds(), 0u );
    EXPECT_EQ( map().igpRouterIds(), 0u );
    EXPECT_EQ( map().duplicateRoutersCount(), 0u );
}

TEST_F( TopoDbSmTest, SharedAddressStaysUntilItsLastLinkGoes ) {
    routerIs( kA, "1.1.1.1", { kAb } );
    routerIs( kB, "2.2.2.2", { kBa } );
    linkIs( kAb, { "10.0.0.9" } );
    linkIs( kBa, { "10.0.0.9" } );
    db_->sync();
    start();
    EXPECT_EQ( published(), ( Published{ { "10.0.0.9", "2.2.2.2" } } ) );
    writer_->neighborDel( kBa );
    db_->sync();
    EXPECT_EQ( published(), ( Published{ { "10.0.0.9", "1.1.1.1" } } ) );
    writer_->neighborDel( kAb );
    db_->sync();
    EXPECT_EQ( published(), Published{} );
    EXPECT_EQ( status_->intfIpToNeighborTable()->intfIpToNeighbors(), 0u );
}

// The reactor's dump is golden in AgentScenarioTest.
TEST_F( TopoDbSmTest, TheLevelsIdMapGoesWithTheReactor ) {
    routerIs( kA, "1.1.1.1", { kAb } );
    linkIs( kAb, { "10.0.0.1" } );
    db_->sync();
    start();
    sm_.reset();
    EXPECT_FALSE( status_->routerIdMapHas( TopoId::isisL1 ) );
    routerIs( kB, "2.2.2.2", {} );  // nobody listens any more
    db_->sync();
    EXPECT_EQ( status_->routerIdMaps(), 0u );
}

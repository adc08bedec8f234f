// The topology set reactor: one level reactor per present level and our own
// TE router id from the configuration. TopologyScenarioTest covers the
// start-up clean-up of published interface addresses.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/StateTree.h"
#include "platform/Syslog.h"
#include "records/TeConfig.h"
#include "tests/support/DumpText.h"
#include "tests/support/TempDir.h"
#include "topo/AllTopoDbSm.h"

using namespace Cspf;
using namespace Routing::Topology;
using Mpls::RouterId;
using Net::IpGenAddr;

namespace {

const RouterId kA = RouterId::fromSystemId( "0000.0000.0001" );
const RouterId kB = RouterId::fromSystemId( "0000.0000.0002" );

class AllTopoDbSmTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for ( int level : { 1, 2 } ) {
            writer_[level] =
                std::make_unique<TopoDbWriter>( tree_, nullptr, level, L3::VrfName() );
        }
        // Level 1: A (1.1.1.1) with a link carrying 10.0.0.1; level 2: B
        // (2.2.2.2) with a link carrying 10.0.2.1.
        doRouterWithLink( 1, kA, "1.1.1.1", kB, "10.0.0.1" );
        doRouterWithLink( 2, kB, "2.2.2.2", kA, "10.0.2.1" );
        allTopoDb_ = Platform::create<AllTopoDb>();
        allTopoDb_->topoDbIs( TopoId::isisL1, dbOf( 1 ) );
        allTopoDb_->topoDbIs( TopoId::isisL2, dbOf( 2 ) );
        table_ = Platform::create<IntfIpToRouterIdWriter>(
            tree_, nullptr, intfIpToRouterIdPath( L3::VrfName() ) );
        status_ = Platform::create<AllTopoDbStatus>( table_ );
        configWriter_ = Platform::create<TrafficEngineering::ConfigWriter>(
            tree_, nullptr, TrafficEngineering::kConfigPath );
        config_ = Platform::create<TrafficEngineering::Config>(
            tree_, nullptr, TrafficEngineering::kConfigPath );
    }
    void TearDown() override { sm_.reset(); }

    void doRouterWithLink( int level, RouterId id, const char* te, RouterId far,
                           const char* addr ) {
        NeighborKey key = NeighborKey::toRouter( id, far, 1 );
        Router r( id );
        r.teRouterIdIs( IpGenAddr( te ) );
        r.neighborIs( NeighborIndex( 0 ), key );
        writer_[level]->routerIs( r );
        Neighbor n( key );
        n.interfaceAddrIs( AddrIndex( 0 ), IpGenAddr( addr ) );
        writer_[level]->neighborIs( n );
    }
    Platform::Ptr<TopoDb> dbOf( int level ) {
        auto db = Platform::create<TopoDb>( tree_, nullptr, level, L3::VrfName() );
        db->sync();
        return db;
    }
    void start() { sm_ = Platform::create<AllTopoDbSm>( allTopoDb_, status_, config_ ); }
    void configIs( bool enabled, const char* routerId ) {
        configWriter_->valueIs( { enabled, IpGenAddr( routerId ) } );
        config_->sync();
    }

    TestKit::TempTree tmp_{ "alltopodbsmtest" };
    Platform::StateTree& tree_ = tmp_.tree;
    std::unique_ptr<TopoDbWriter> writer_[3];
    Platform::Ptr<AllTopoDb> allTopoDb_;
    Platform::Ptr<IntfIpToRouterIdWriter> table_;
    Platform::Ptr<AllTopoDbStatus> status_;
    Platform::Ptr<TrafficEngineering::ConfigWriter> configWriter_;
    Platform::Ptr<TrafficEngineering::Config> config_;
    Platform::Ptr<AllTopoDbSm> sm_;
};

}  // namespace

TEST_F( AllTopoDbSmTest, LevelsComeAndGoEachWithItsOwnReactorAndDump ) {
    Platform::ManualClockScope clock;
    start();
    EXPECT_EQ( sm_->topoDbSms(), 2u );
    EXPECT_EQ( status_->routerIdMaps(), 2u );
    Platform::Ptr<TopoDbSm> level1 = sm_->topoDbSm( TopoId::isisL1 );

    clock->advance( 1 );
    allTopoDb_->topoDbDel( TopoId::isisL2 );
    EXPECT_FALSE( sm_->topoDbSmHas( TopoId::isisL2 ) );
    EXPECT_FALSE( status_->routerIdMapHas( TopoId::isisL2 ) );
    EXPECT_EQ( sm_->topoDbSm( TopoId::isisL1 ), level1 );
    EXPECT_EQ(
        status_->routerIdMap( TopoId::isisL1 )->igpRouterId( IpGenAddr( "1.1.1.1" ) ),
        kA );
    EXPECT_EQ( status_->topoChangedAt(), 1001.0 );
    char head[128];
    snprintf( head, sizeof( head ), "AllTopoDbSM: %p\n  topoDbs:\n    Topo DB SM: %p\n",
              static_cast<void*>( sm_.get() ), static_cast<void*>( level1.get() ) );
    EXPECT_EQ( TestKit::dumpText( *sm_ ).rfind( head, 0 ), 0u );

    // Another database object for a level gets a new reactor, never a re-pointed one.
    auto other = dbOf( 1 );
    allTopoDb_->topoDbIs( TopoId::isisL1, other );
    ASSERT_NE( sm_->topoDbSm( TopoId::isisL1 ), level1 );
    EXPECT_EQ( sm_->topoDbSm( TopoId::isisL1 )->topoDb(), other );
    EXPECT_TRUE( status_->routerIdMap( TopoId::isisL1 )->teRouterIdHas( kA ) );
    try {
        sm_->topoDbSmIs( TopoId::isisL1, dbOf( 1 ), status_ );
        ADD_FAILURE() << "no error";
    } catch ( const Platform::Error& e ) {
        EXPECT_EQ( std::string( e.what() )
                       .rfind( "Reinstantiating the pointer interface where constructor "
                               "parameter attribute _topoDb has a different value of",
                               0 ),
                   0u );
    }

    sm_.reset();  // the VRF goes: every level reactor with it
    EXPECT_EQ( status_->routerIdMaps(), 0u );
}

TEST_F( AllTopoDbSmTest, OurTeRouterIdFollowsTheConfiguration ) {
    Platform::ManualClockScope clock;
    start();
    EXPECT_EQ( status_->ourTeRouterId(), IpGenAddr() );  // no configuration yet
    clock->advance( 1 );
    configIs( true, "9.9.9.9" );
    EXPECT_EQ( status_->ourTeRouterId(), IpGenAddr( "9.9.9.9" ) );
    EXPECT_EQ( status_->topoChangedAt(), 1001.0 );
    clock->advance( 1 );
    configIs( false, "9.9.9.9" );  // the router id did not move: no recomputation
    EXPECT_EQ( status_->topoChangedAt(), 1001.0 );
    configIs( false, "0.0.0.0" );
    EXPECT_EQ( status_->ourTeRouterId(), IpGenAddr() );

    auto unconfigured = Platform::create<AllTopoDbSm>(
        allTopoDb_, Platform::create<AllTopoDbStatus>( nullptr ), nullptr );
    EXPECT_EQ( unconfigured->allTopoDbStatus()->ourTeRouterId(), IpGenAddr() );
}

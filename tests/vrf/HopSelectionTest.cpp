// Hop selection on CSPF runs over a level database written in-process: the
// nexthop over point-to-point and LAN links, the walk back from a TEP's
// owner, keeping an old hop or drawing among equal-cost links, and
// topologies that cannot give hops.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cspf/CspfImpl.h"
#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/StateTree.h"
#include "records/IpStatus.h"
#include "root/DedupConstraintTable.h"
#include "tests/support/TempDir.h"
#include "tests/support/Traces.h"
#include "topo/AllTopoDbSm.h"
#include "vrf/ConstraintInfoSm.h"
#include "vrf/HopSelection.h"

using namespace Cspf;
using namespace Routing::Topology;
using Net::IpGenAddr;
using Platform::create;
using Platform::Ptr;

namespace {

Mpls::RouterId sys( int n ) {
    char text[32];
    std::snprintf( text, sizeof( text ), "0000.0000.%04d", n );
    return Mpls::RouterId::fromSystemId( text );
}
IpGenAddr te( int n ) {
    return IpGenAddr( "10.255." + std::to_string( n / 256 ) + "." +
                      std::to_string( n % 256 ) );
}
// End 1 or 2 of point-to-point link `net`.
IpGenAddr p2p( int net, int end ) {
    return IpGenAddr( "10." + std::to_string( net / 256 ) + "." +
                      std::to_string( net % 256 ) + "." + std::to_string( end ) );
}
IpGenAddr onLan( int m ) {
    return IpGenAddr( "10.200.0." + std::to_string( m ) );
}

// Two equal-cost ways from 1 to 4 (through 2 and 3), 5 behind 4; 1, 6, 8 and
// 10 on a LAN whose DR is 6, 10 without an address on it; 9 alone.
class HopSelectionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        writer_ = std::make_unique<TopoDbWriter>( tmp_.tree, nullptr, 2, L3::VrfName() );
        link( 1, 2, 1 );
        link( 1, 3, 2 );
        link( 2, 4, 3 );
        link( 3, 4, 4 );
        link( 4, 5, 5 );
        Network lan( lan_ );
        for ( int m : { 6, 1, 8, 10 } ) {
            lan.routerIs( RouterIndex( lan.routerCount() ), sys( m ) );
            Neighbor n( advertise( m, NeighborKey::toNetwork( sys( m ), lan_ ) ) );
            if ( m != 10 ) {
                n.interfaceAddrIs( AddrIndex( 0 ), onLan( m ) );
            }
            n.igpMetricIs( 10 );
            writer_->neighborIs( n );
        }
        writer_->networkIs( lan );
        router( 9 );
        allTopoDb_->topoDbIs( TopoId::isisL2,
                              create<TopoDb>( tmp_.tree, nullptr, 2, L3::VrfName() ) );
        allTopoDbSm_ = create<AllTopoDbSm>( allTopoDb_, status_, nullptr );
        status_->ourTeRouterIdIs( te( 1 ) );
        commit();
        traces_.clear();
    }

    Router& router( int n ) {
        Router& r = routers_[n];
        r.routerIdIs( sys( n ) );
        r.teRouterIdIs( te( n ) );
        return r;
    }
    const NeighborKey& advertise( int n, const NeighborKey& key ) {
        Router& r = router( n );
        r.neighborIs( NeighborIndex( r.neighborKeyCount() ), key );
        return key;
    }
    void link( int a, int b, int net, uint32_t metric = 10 ) {
        for ( auto [self, far, end] : { std::tuple( a, b, 1 ), { b, a, 2 } } ) {
            Neighbor n( advertise(
                self, NeighborKey::toRouter( sys( self ), sys( far ), net ) ) );
            n.interfaceAddrIs( AddrIndex( 0 ), p2p( net, end ) );
            n.neighborAddrIs( AddrIndex( 0 ), p2p( net, 3 - end ) );
            n.igpMetricIs( metric );
            writer_->neighborIs( n );
        }
    }
    void commit() {
        for ( auto& [n, r] : routers_ ) {
            writer_->routerIs( r );
        }
        allTopoDb_->topoDb( TopoId::isisL2 )->sync();
    }
    std::shared_ptr<const AllTopoDbView> view() {
        return std::make_shared<const AllTopoDbView>( allTopoDb_, status_, nullptr,
                                                      nullptr, nullptr );
    }
    Ptr<CspfData> run( const std::vector<IpGenAddr>& teps ) {
        Ptr<CspfData> data = cspfDataFactory( view(), te( 1 ) );
        for ( const IpGenAddr& tep : teps ) {
            data->tepIs( tep, true );
        }
        cspfRunFactory( data );
        return data;
    }
    // The hops to `tep` of a path whose previous result was `old`.
    std::vector<IpGenAddr> hopsAfter( const CspfData& data, const IpGenAddr& tep,
                                      const std::vector<IpGenAddr>& old ) {
        return HopSelection( data ).hops( tep, create<PathArray>( old ).get() );
    }
    bool traced( const std::string& text ) const { return traces_.count( text ) > 0; }

    const NetworkId lan_{ sys( 6 ), 7 };
    TestKit::TempTree tmp_{ "hopselectiontest" };
    TestKit::TraceCapture traces_;
    std::unique_ptr<TopoDbWriter> writer_;
    std::map<int, Router> routers_;
    Ptr<AllTopoDb> allTopoDb_ = create<AllTopoDb>();
    Ptr<AllTopoDbStatus> status_ = create<AllTopoDbStatus>( nullptr );
    Ptr<AllTopoDbSm> allTopoDbSm_;
    const std::vector<IpGenAddr> via2_{ p2p( 1, 2 ), p2p( 3, 2 ), p2p( 5, 2 ) };
    const std::vector<IpGenAddr> via3_{ p2p( 2, 2 ), p2p( 4, 2 ), p2p( 5, 2 ) };
};

TEST_F( HopSelectionTest, HopsAreFarEndsOrLanAddressesFirstHopFirst ) {
    const Ptr<CspfData> data = run( { te( 5 ), te( 8 ), p2p( 5, 2 ), te( 9 ), te( 1 ) } );
    const CspfPath to2 = data->shortestPath( te( 2 ) );
    ASSERT_EQ( to2.lastLinks(), 1u );
    EXPECT_EQ( nexthopOnLink( *data->allTopoDbView(), to2.begin()->second ),
               p2p( 1, 2 ) );
    // Across the LAN: neither the DR's address nor ours, 8's own.
    const CspfPath to8 = data->shortestPath( te( 8 ) );
    ASSERT_EQ( to8.lastLinks(), 1u );
    EXPECT_EQ( to8.begin()->first.routerInNetwork(), te( 8 ) );
    EXPECT_EQ( nexthopOnLink( *data->allTopoDbView(), to8.begin()->second ), onLan( 8 ) );
    EXPECT_EQ( HopSelection( *data ).hops( te( 8 ), nullptr ),
               std::vector<IpGenAddr>{ onLan( 8 ) } );
    // An address of 5 other than its router id: the same walk.
    const std::vector<IpGenAddr> hops = HopSelection( *data ).hops( te( 5 ), nullptr );
    EXPECT_TRUE( hops == via2_ || hops == via3_ );
    EXPECT_EQ( hopsAfter( *data, p2p( 5, 2 ), hops ), hops );
    // Unreachable, and our own: no owner, no hops.
    for ( const IpGenAddr& tep : { te( 9 ), te( 1 ) } ) {
        EXPECT_TRUE( HopSelection( *data ).hops( tep, nullptr ).empty() );
        EXPECT_TRUE( traced( "no path found for tep " + tep.toString() + "\n" ) );
    }
}

TEST_F( HopSelectionTest, EqualCostLinksKeepTheOldHopElseDrawWithRand ) {
    const Ptr<CspfData> data = run( { te( 5 ) } );
    const CspfPath to4 = data->shortestPath( te( 4 ) );
    ASSERT_EQ( to4.lastLinks(), 2u );
    // Either old hop is kept.
    EXPECT_EQ( hopsAfter( *data, te( 5 ), via2_ ), via2_ );
    EXPECT_EQ( hopsAfter( *data, te( 5 ), via3_ ), via3_ );
    EXPECT_TRUE( traced( "Retained old hop " + p2p( 4, 2 ).toString() + " for " +
                         te( 4 ).toString() + " from " + te( 3 ).toString() +
                         " for TEP " + te( 5 ).toString() + "\n" ) );
    // The old hop is matched at its distance from the TEP: one more hop at
    // the far end puts a hop that is no choice at 4's step, so it draws.
    std::vector<IpGenAddr> longer = via3_;
    longer.push_back( p2p( 9, 9 ) );
    for ( bool withOld : { false, true } ) {
        std::srand( 11 );
        const size_t index = size_t( std::rand() ) % 2;
        const IpGenAddr drawn = std::next( to4.begin(), ptrdiff_t( index ) )
                                    ->first.allTopoNeighborKey()
                                    .teNeighborOf();
        std::srand( 11 );
        traces_.clear();
        const std::vector<IpGenAddr> hops =
            withOld ? hopsAfter( *data, te( 5 ), longer )
                    : HopSelection( *data ).hops( te( 5 ), nullptr );
        EXPECT_EQ( hops, drawn == te( 2 ) ? via2_ : via3_ );
        EXPECT_TRUE( traced( "Selecting index " + std::to_string( index ) +
                             " among 2 links for " + te( 4 ).toString() + " from " +
                             drawn.toString() + " for TEP " + te( 5 ).toString() +
                             "\n" ) )
            << traces_.all();
        EXPECT_FALSE( traced( "Retained old hop" ) );
    }
}

TEST_F( HopSelectionTest, OneSelectionServesEveryPathOfItsRun ) {
    const Ptr<CspfData> data = run( { te( 5 ), p2p( 5, 2 ), te( 9 ), te( 10 ) } );
    HopSelection selection( *data );
    const Ptr<PathArray> old2 = create<PathArray>( via2_ );
    const Ptr<PathArray> old3 = create<PathArray>( via3_ );
    // What one path resolved does not decide another's choice.
    EXPECT_EQ( selection.hops( te( 5 ), old2.get() ), via2_ );
    EXPECT_EQ( selection.hops( te( 5 ), old3.get() ), via3_ );
    EXPECT_EQ( selection.hops( p2p( 5, 2 ), old2.get() ), via2_ );
    EXPECT_EQ( selection.owner( te( 9 ) ), HopSelection::kNoOwner );
    EXPECT_TRUE( selection.hops( te( 9 ), nullptr ).empty() );
    // A link whose records fail fails every path over it, and only those.
    for ( int attempt = 0; attempt < 2; ++attempt ) {
        EXPECT_THROW( selection.hops( te( 10 ), nullptr ), HopSelectionError );
        EXPECT_EQ( selection.hops( te( 5 ), old3.get() ), via3_ );
    }
}

TEST_F( HopSelectionTest, TheSchedulerKeepsEqualCostHopsAcrossRecomputations ) {
    Platform::ManualClockScope clock;
    Platform::TaskScheduler scheduler( nullptr, "Cspf", *clock );
    auto handle = create<DedupConstraintTable>()->dedup( DedupConstraintContent() );
    auto notifier = create<DedupConstraintLifeTimeNotifier>( handle.get() );
    auto info = create<ConstraintInfo>( handle.get(), notifier );
    auto caches = create<PathStatusCacheTable>();
    const PathInfoKey key( "te1", PathKey( te( 5 ), 1 ) );
    info->pathIs( key, true );
    const Ptr<PathStatusCache> cache = caches->pathStatusCacheIs( key );
    auto sm = create<ConstraintInfoSm>( info, nullptr,
                                        create<ConstraintStats>( handle.get(), notifier ),
                                        caches, scheduler, view() );
    std::vector<IpGenAddr> first;
    for ( uint32_t run = 1; run <= 30; ++run ) {
        info->topoChangedAtIs( Platform::now() );
        info->cspfRequestCountInc( 1 );
        clock->advance( 10.0 );
        ASSERT_EQ( cache->refreshedCount(), run );
        if ( first.empty() ) {
            first = cache->path()->pathColl();
            EXPECT_TRUE( first == via2_ || first == via3_ );
        }
        EXPECT_EQ( cache->path()->pathColl(), first ) << "run " << run;
    }
    EXPECT_EQ( traces_.count( "Retained old hop " ), 29u );
    EXPECT_TRUE(
        traced( "creating path with 3 hops for tep " + te( 5 ).toString() + "\n" ) );
    sm = nullptr;
}

TEST_F( HopSelectionTest, TopologiesThatCannotNameAHopAreRefusedNotFatal ) {
    Ptr<CspfData> data = run( { te( 8 ), te( 10 ) } );
    // 10 lists no address on the LAN the run crossed to reach it.
    try {
        HopSelection( *data ).hops( te( 10 ), nullptr );
        ADD_FAILURE() << "no error";
    } catch ( const HopSelectionError& e ) {
        EXPECT_NE( std::string( e.what() ).find( "\"neighbor.interfaceAddrs()\"" ),
                   std::string::npos )
            << e.what();
    }
    // 8's link to the LAN vanished between the run and the selection.
    writer_->neighborDel( NeighborKey::toNetwork( sys( 8 ), lan_ ) );
    allTopoDb_->topoDb( TopoId::isisL2 )->sync();
    EXPECT_THROW( HopSelection( *data ).hops( te( 8 ), nullptr ), HopSelectionError );

    // A chain longer than a path may be: the HopIndex range error.
    for ( int n = 20; n < 20 + 1025; ++n ) {
        link( n == 20 ? 1 : n, n + 1, n, 1 );
    }
    commit();
    data = run( { te( 1044 ), te( 1045 ) } );
    EXPECT_EQ( HopSelection( *data ).hops( te( 1044 ), nullptr ).size(), 1024u );
    EXPECT_THROW( HopSelection( *data ).hops( te( 1045 ), nullptr ),
                  Platform::RangeError );
}

}  // namespace

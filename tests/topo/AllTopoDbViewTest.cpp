// The topology view over level databases written by the IS-IS side: two-way
// checks, overload, LANs, the excluded interface, and records that are
// missing or corrupt, with the traces that say why a link is left out.
// router() and the run's routerLinks() are one code path: CspfReferenceTest
// compares what the run reads on random topologies with every fault, in one
// level or both, against a Dijkstra of its own.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/Error.h"
#include "records/IpStatus.h"
#include "root/DedupConstraint.h"
#include "root/DedupConstraintTable.h"
#include "tests/support/RawRecord.h"
#include "tests/support/TempDir.h"
#include "tests/support/TopoIds.h"
#include "tests/support/Traces.h"
#include "topo/AllTopoDbView.h"
#include "topo/TopoDb.h"

using namespace Cspf;
using namespace Routing::Topology;
using Mpls::RouterId;
using Net::IpGenAddr;
using Platform::create;
using Platform::Ptr;
using TestKit::sys;
using TestKit::te;
using TestKit::topo;

namespace {

IpGenAddr ip( const char* text ) {
    return IpGenAddr( text );
}

class AllTopoDbViewTest : public ::testing::Test {
  protected:
    void SetUp() override { status_->ourTeRouterIdIs( te( 1 ) ); }

    // A level's writer and the agent's reader of it, made on first use.
    TopoDbWriter& writer( int level ) {
        auto& w = writers_[level];
        if ( !w ) {
            w = std::make_unique<TopoDbWriter>( tmp_.tree, nullptr, level,
                                                L3::VrfName() );
            allTopoDb_->topoDbIs( topo( level ), create<TopoDb>( tmp_.tree, nullptr,
                                                                 level, L3::VrfName() ) );
            status_->routerIdMapIs( topo( level ) );
        }
        return *w;
    }
    // A router of a level, mapped to its TE id unless `mapped` is false.
    void router( int level, int n, bool overload = false, bool mapped = true ) {
        writer( level );
        Router& r = routers_[level][n];
        r.routerIdIs( sys( n ) );
        r.teRouterIdIs( te( n ) );
        r.overloadIs( overload );
        if ( mapped ) {
            status_->routerIdMap( topo( level ) )->teRouterIdIs( sys( n ), te( n ) );
            status_->routerIdMap( topo( level ) )->igpRouterIdIs( te( n ), sys( n ) );
        }
    }
    // Routers 1 to `count` of a level, mapped, none overloaded.
    void routers( int level, int count ) {
        for ( int n = 1; n <= count; ++n ) {
            router( level, n );
        }
    }
    void advertise( int level, int n, const NeighborKey& key ) {
        Router& r = routers_[level][n];
        r.neighborIs( NeighborIndex( r.neighborKeyCount() ), key );
    }
    void record( int level, const NeighborKey& key, std::vector<const char*> intf,
                 std::vector<const char*> nbr ) {
        Neighbor link( key );
        for ( size_t i = 0; i < intf.size(); ++i ) {
            link.interfaceAddrIs( AddrIndex( i ), ip( intf[i] ) );
        }
        for ( size_t i = 0; i < nbr.size(); ++i ) {
            link.neighborAddrIs( AddrIndex( i ), ip( nbr[i] ) );
        }
        link.igpMetricIs( 10 );
        writer( level ).neighborIs( link );
    }
    // One end of a point-to-point link: listed and recorded.
    NeighborKey end( int level, int a, int b, int linkId, const char* intf,
                     const char* nbr ) {
        const NeighborKey key = NeighborKey::toRouter( sys( a ), sys( b ), linkId );
        advertise( level, a, key );
        record( level, key, { intf }, { nbr } );
        return key;
    }
    // Both ends of a link a-b on 10.0.<net>.1/2.
    NeighborKey link( int level, int a, int b, int net ) {
        const std::string x = "10.0." + std::to_string( net ) + ".1";
        const std::string y = "10.0." + std::to_string( net ) + ".2";
        end( level, b, a, net, y.c_str(), x.c_str() );
        return end( level, a, b, net, x.c_str(), y.c_str() );
    }
    // Writes the routers and takes every change in.
    void commit() {
        for ( auto& [level, routers] : routers_ ) {
            for ( auto& [n, r] : routers ) {
                writer( level ).routerIs( r );
            }
        }
        for ( const auto& [level, db] : allTopoDb_->topoDbColl() ) {
            db->sync();
        }
        // No reactor follows these tables: the whole topology is compiled again.
        status_->topoVersionInc();
    }
    AllTopoDbView view( const char* exclude = nullptr ) {
        if ( !ipStatus_ ) {
            ipStatus_ = create<Ip::Status>( tmp_.tree, nullptr );
        }
        status_->topoVersionInc();
        return AllTopoDbView( allTopoDb_, status_, ipStatus_, nullptr,
                              constraintOf( exclude ) );
    }
    Ptr<DedupConstraintLifeTimeNotifier> constraintOf( const char* exclude ) {
        const PathConstraint constraint =
            exclude ? PathConstraint( Net::IntfId( exclude ) ) : PathConstraint();
        handles_.push_back( dedupTable_->dedup( DedupConstraintContent( constraint ) ) );
        return create<DedupConstraintLifeTimeNotifier>( handles_.back().get() );
    }
    AllTopoNeighborKey p2pKey( int level, const NeighborKey& key, int from, int to ) {
        AllTopoNeighborKey k( topo( level ), key, te( from ) );
        k.teNeighborIdIs( te( to ) );
        return k;
    }
    bool traced( const std::string& text ) const { return traces_.count( text ) > 0; }

    TestKit::TempTree tmp_{ "topoviewtest" };
    TestKit::TraceCapture traces_;
    std::map<int, std::unique_ptr<TopoDbWriter>> writers_;
    std::map<int, std::map<int, Router>> routers_;
    Ptr<AllTopoDb> allTopoDb_ = create<AllTopoDb>();
    Ptr<AllTopoDbStatus> status_ = create<AllTopoDbStatus>( nullptr );
    Ptr<Ip::Status> ipStatus_;
    Ptr<DedupConstraintTable> dedupTable_ = create<DedupConstraintTable>();
    std::vector<Ptr<DedupConstraint>> handles_;
};

TEST_F( AllTopoDbViewTest, PointToPointLinksNeedBothEndsWithCrossingAddresses ) {
    routers( 2, 5 );
    const NeighborKey good = link( 2, 1, 2, 1 );
    // One way: 1 lists a link to 3, 3 lists nothing back.
    const NeighborKey oneWay = end( 2, 1, 3, 2, "10.0.2.1", "10.0.2.2" );
    // Both ends listed, but 4 reports a far-end address 1 does not have.
    const NeighborKey mismatch = end( 2, 1, 4, 3, "10.0.3.1", "10.0.3.2" );
    end( 2, 4, 1, 3, "10.0.3.2", "10.0.3.9" );
    // A link with no neighbor address never passes.
    const NeighborKey noNbr = NeighborKey::toRouter( sys( 1 ), sys( 5 ), 4 );
    advertise( 2, 1, noNbr );
    record( 2, noNbr, { "10.0.4.1" }, {} );
    end( 2, 5, 1, 4, "10.0.4.2", "10.0.4.1" );
    commit();

    const AllTopoDbView v = view();
    const AllTopoRouter r1 = v.router( te( 1 ) );
    EXPECT_EQ( r1.teRouterId(), te( 1 ) );
    EXPECT_EQ( r1.neighbors(), 1u );
    EXPECT_TRUE( r1.neighborHas( p2pKey( 2, good, 1, 2 ) ) );
    EXPECT_FALSE( v.twoWayCheckP2P( p2pKey( 2, oneWay, 1, 3 ) ) );
    EXPECT_TRUE( traced( "Peer neighbor for neighborKey " ) );
    EXPECT_FALSE( v.twoWayCheckP2P( p2pKey( 2, mismatch, 1, 4 ) ) );
    EXPECT_TRUE( traced( "Address mismatch for neighbor with neighborKey " ) );
    EXPECT_FALSE( v.twoWayCheckP2P( p2pKey( 2, noNbr, 1, 5 ) ) );
    // Teps: the router itself and the interface addresses of passing links.
    EXPECT_EQ( r1.teps(), 2u );
    EXPECT_TRUE( r1.tepHas( te( 1 ) ) );
    EXPECT_TRUE( r1.tepHas( ip( "10.0.1.1" ) ) );
    // A key the router does not list fails whatever the records say.
    const NeighborKey unlisted = NeighborKey::toRouter( sys( 2 ), sys( 1 ), 7 );
    record( 2, unlisted, { "10.0.1.2" }, { "10.0.1.1" } );
    commit();
    EXPECT_FALSE( v.twoWayCheckP2P( p2pKey( 2, unlisted, 2, 1 ) ) );
    EXPECT_TRUE( traced( "Neighbor's router doesn't have neighborKey " ) );
}

TEST_F( AllTopoDbViewTest, ParallelLinksAreMatchedByAddressNotOrder ) {
    routers( 2, 2 );
    // Router 2 lists its ends in the opposite order, and its second link's
    // far-end address matches nothing on router 1; router 1 lists one key
    // twice.
    const NeighborKey a = end( 2, 1, 2, 1, "10.0.1.1", "10.0.1.2" );
    advertise( 2, 1, a );
    const NeighborKey b = end( 2, 1, 2, 2, "10.0.2.1", "10.0.2.2" );
    const NeighborKey c = end( 2, 1, 2, 3, "10.0.3.1", "10.0.3.2" );
    end( 2, 2, 1, 13, "10.0.3.2", "10.0.3.7" );
    end( 2, 2, 1, 12, "10.0.2.2", "10.0.2.1" );
    end( 2, 2, 1, 11, "10.0.1.2", "10.0.1.1" );
    commit();
    const AllTopoRouter r1 = view().router( te( 1 ) );
    EXPECT_TRUE( r1.neighborHas( p2pKey( 2, a, 1, 2 ) ) );
    EXPECT_TRUE( r1.neighborHas( p2pKey( 2, b, 1, 2 ) ) );
    EXPECT_FALSE( r1.neighborHas( p2pKey( 2, c, 1, 2 ) ) );
    EXPECT_EQ( r1.neighbors(), 2u );
}

TEST_F( AllTopoDbViewTest, MissingRecordsHideTheirLinksOnly ) {
    routers( 2, 3 );
    const NeighborKey kept = link( 2, 1, 2, 1 );
    const NeighborKey gone = NeighborKey::toRouter( sys( 1 ), sys( 3 ), 2 );
    advertise( 2, 1, gone );  // listed, but no link record
    end( 2, 3, 1, 2, "10.0.2.2", "10.0.2.1" );
    commit();
    const AllTopoDbView v = view();
    const AllTopoRouter r1 = v.router( te( 1 ) );
    EXPECT_EQ( r1.neighbors(), 1u );
    EXPECT_TRUE( r1.neighborHas( p2pKey( 2, kept, 1, 2 ) ) );
    EXPECT_TRUE( traced( "Neighbor object missing, skipping NeighborKey " ) );
    // Unknown things are empty, never errors.
    EXPECT_TRUE( v.router( te( 9 ) ).unknown() );
    EXPECT_EQ( v.router( te( 9 ) ), AllTopoRouter() );
    const AllTopoNeighborKey elsewhere( TopoId::isisL1, kept, te( 1 ) );
    EXPECT_EQ( v.neighbor( elsewhere ).neighborKey(), kept );
    EXPECT_EQ( v.neighbor( elsewhere ).interfaceAddrCount(), 0u );
    EXPECT_EQ( v.neighbor( p2pKey( 2, kept, 1, 2 ) ).igpMetric(), 10u );
    EXPECT_EQ( v.network( AllTopoNetworkId( TopoId::isisL1, NetworkId() ) ),
               AllTopoNetwork() );
}

TEST_F( AllTopoDbViewTest, OverloadHidesTransitLinksButNotOurOwn ) {
    router( 2, 1, true );  // we are overloaded
    router( 2, 2, true );  // a transit router is overloaded
    router( 2, 3 );
    const NeighborKey ours = link( 2, 1, 2, 1 );
    link( 2, 2, 3, 2 );
    commit();
    const AllTopoDbView v = view();
    EXPECT_TRUE( v.router( te( 1 ) ).neighborHas( p2pKey( 2, ours, 1, 2 ) ) );
    const AllTopoRouter transit = v.router( te( 2 ) );
    EXPECT_EQ( transit.neighbors(), 0u );
    EXPECT_TRUE( transit.tepHas( te( 2 ) ) );
    EXPECT_TRUE( transit.tepHas( ip( "10.0.1.2" ) ) );
    EXPECT_TRUE( transit.tepHas( ip( "10.0.2.1" ) ) );
    EXPECT_TRUE(
        traced( "Overload bit set for router 10.255.0.2, so ignoring neighbor " ) );
}

TEST_F( AllTopoDbViewTest, LanMembersNeedTeIdsRecordsAndTheLanListingThem ) {
    routers( 2, 2 );
    router( 2, 3, false, false );  // no TE router id mapped
    router( 2, 4 );                // no link record to the LAN
    router( 2, 5 );                // lists the LAN, but the LAN does not list it
    const NetworkId lanId = NetworkId( sys( 1 ), 1 );
    Network lan( lanId );
    for ( int n = 1; n <= 4; ++n ) {
        lan.routerIs( RouterIndex( n - 1 ), sys( n ) );
    }
    writer( 2 ).networkIs( lan );
    for ( int n = 1; n <= 5; ++n ) {
        const NeighborKey key = NeighborKey::toNetwork( sys( n ), lanId );
        advertise( 2, n, key );
        if ( n != 4 ) {
            const std::string addr = "10.1.0." + std::to_string( n );
            record( 2, key, { addr.c_str() }, {} );
        }
    }
    commit();
    const AllTopoDbView v = view();
    const AllTopoNetworkId id( TopoId::isisL2, lanId );
    const AllTopoNetwork network = v.network( id );
    EXPECT_EQ( network.allTopoNetworkId(), id );
    EXPECT_EQ( network.routers(), 2u );
    EXPECT_TRUE( network.routerHas( te( 1 ) ) );
    EXPECT_TRUE( network.routerHas( te( 2 ) ) );
    EXPECT_TRUE( traced( "No TE router id for 0000.0000.0003 in network " ) );
    EXPECT_TRUE( traced( "No neighbor object found for " ) );
    const AllTopoNeighborKey outsider(
        TopoId::isisL2, NeighborKey::toNetwork( sys( 5 ), lanId ), te( 5 ) );
    EXPECT_FALSE( v.twoWayCheckLan( outsider ) );
    EXPECT_TRUE( traced( "not found in network, returning false" ) );
    EXPECT_EQ( v.router( te( 5 ) ).neighbors(), 0u );
    EXPECT_EQ( v.router( te( 1 ) ).neighbors(), 1u );
}

TEST_F( AllTopoDbViewTest, TheExcludedInterfaceRemovesOnlyOurMatchingLinks ) {
    routers( 2, 4 );
    const NeighborKey toTwo = link( 2, 1, 2, 1 );    // 10.0.1.1: primary of Ethernet1
    const NeighborKey toThree = link( 2, 1, 3, 2 );  // 10.0.2.1: a secondary of it
    const NeighborKey toFour = link( 2, 1, 4, 3 );   // 10.0.3.1: another interface
    const NeighborKey farSide = link( 2, 2, 3, 1 );  // also 10.0.1.1, not ours
    commit();
    view();  // makes the status
    auto eth1 = ipStatus_->intfStatusIs( Net::IntfId( "Ethernet1" ) );
    eth1->activeAddrIs( ip( "10.0.1.1" ) );
    eth1->secondaryAddrIs( ip( "10.0.2.1" ), 24 );

    const AllTopoRouter r1 = view( "Ethernet1" ).router( te( 1 ) );
    EXPECT_FALSE( r1.neighborHas( p2pKey( 2, toTwo, 1, 2 ) ) );
    EXPECT_FALSE( r1.neighborHas( p2pKey( 2, toThree, 1, 3 ) ) );
    EXPECT_TRUE( r1.neighborHas( p2pKey( 2, toFour, 1, 4 ) ) );
    EXPECT_TRUE( traced( "Matched primary interface address: 10.0.1.1" ) );
    EXPECT_TRUE( traced( "Matched secondary interface address: 10.0.2.1" ) );
    // Another router's link on the same addresses is not ours to exclude.
    EXPECT_TRUE(
        view( "Ethernet1" ).router( te( 2 ) ).neighborHas( p2pKey( 2, farSide, 2, 3 ) ) );
    // An interface that does not exist excludes nothing.
    EXPECT_EQ( view( "Ethernet9" ).router( te( 1 ) ).neighbors(), 3u );
    EXPECT_TRUE( traced( "Interface:Ethernet9 is non exsistent" ) );
    EXPECT_EQ( view().router( te( 1 ) ).neighbors(), 3u );
}

TEST_F( AllTopoDbViewTest, TheExcludedInterfaceMatchesIpv6Addresses ) {
    routers( 2, 2 );
    end( 2, 1, 2, 1, "2001:db8::1", "2001:db8::2" );
    end( 2, 2, 1, 1, "2001:db8::2", "2001:db8::1" );
    commit();
    auto ip6 = create<Ip6::Status>();
    ip6->intfIs( Net::IntfId( "Ethernet1" ) )->addrIs( ip( "2001:db8::1" ), 64 );
    const AllTopoDbView v( allTopoDb_, status_, nullptr, ip6,
                           constraintOf( "Ethernet1" ) );
    EXPECT_EQ( v.router( te( 1 ) ).neighbors(), 0u );
    EXPECT_TRUE( traced( "Matched ipv6 interface address: 2001:db8::1" ) );
    const AllTopoDbView other( allTopoDb_, status_, nullptr, ip6,
                               constraintOf( "Ethernet2" ) );
    EXPECT_EQ( other.router( te( 1 ) ).neighbors(), 1u );
}

TEST_F( AllTopoDbViewTest, ACorruptRouterRecordIsReportedAndRefused ) {
    routers( 2, 2 );
    link( 2, 1, 2, 1 );
    commit();
    // The IS-IS side writes a router whose count claims 501 keys.
    std::vector<uint8_t> bytes( routerRecordSize( 1 ), 0 );
    std::memcpy( bytes.data(), &routers_[2][2].teRouterId(), sizeof( IpGenAddr ) );
    const uint32_t count = 501;
    std::memcpy( bytes.data() + 24, &count, sizeof( count ) );
    writers_.erase( 2 );  // one writer per table
    {
        Platform::TableWriter<TestKit::RawRecord<RouterRecord>> raw(
            tmp_.tree, nullptr, topoDbPath( 2, L3::VrfName() ) + "/router" );
        raw.set( sys( 2 ), bytes );
    }
    allTopoDb_->topoDb( TopoId::isisL2 )->sync();
    std::string reported;
    allTopoDb_->topoDb( TopoId::isisL2 )
        ->corruptionHandlerIs( [&]( const Platform::Error& e ) { reported = e.what(); } );
    const AllTopoDbView v = view();
    EXPECT_THROW( v.router( te( 2 ) ), Platform::CorruptionError );
    EXPECT_NE( reported.find( "NeighborIndex" ), std::string::npos ) << reported;
    // Router 1 still answers; its link to the unreadable router is refused.
    const AllTopoRouter r1 = v.router( te( 1 ) );
    EXPECT_EQ( r1.teRouterId(), te( 1 ) );
    EXPECT_EQ( r1.neighbors(), 0u );
}

}  // namespace

// The topology view over level databases written by the IS-IS side: two-way
// checks, overload, both levels, LANs, the excluded interface, and records
// that are missing, corrupt or rewritten while read.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "platform/StateTree.h"
#include "records/IpStatus.h"
#include "root/DedupConstraint.h"
#include "root/DedupConstraintTable.h"
#include "topo/AllTopoDbView.h"
#include "topo/TopoDb.h"

using namespace Cspf;
using namespace Routing::Topology;
using Mpls::RouterId;
using Net::IpGenAddr;
using Platform::create;
using Platform::Ptr;

namespace {

RouterId sys( int n ) {
    char text[32];
    std::snprintf( text, sizeof( text ), "0000.0000.%04d", n );
    return RouterId::fromSystemId( text );
}
IpGenAddr te( int n ) {
    return IpGenAddr( "10.255.0." + std::to_string( n ) );
}
IpGenAddr ip( const char* text ) {
    return IpGenAddr( text );
}
TopoId topo( int level ) {
    return level == 1 ? TopoId::isisL1 : TopoId::isisL2;
}

struct RawRouterRecord : RouterRecord {
    using Value = std::vector<uint8_t>;
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) { out = v; }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return Value( in, in + len );
    }
};

class AllTopoDbViewTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/dev/shm/topoviewtest-XXXXXX";
        root_ = mkdtemp( tmpl );
        tree_ = std::make_unique<Platform::StateTree>( root_ );
        allTopoDb_ = create<AllTopoDb>();
        status_ = create<AllTopoDbStatus>( nullptr );
        status_->ourTeRouterIdIs( te( 1 ) );
        Mivlog::levelsIs( Mivlog::kAllLevels );
        Mivlog::sinkIs( [this]( std::string_view line ) { traces_ += line; } );
    }
    void TearDown() override {
        Mivlog::sinkIs( nullptr );
        Mivlog::levelsIs( Mivlog::kNoLevels );
        std::filesystem::remove_all( root_ );
    }

    // A level's writer and the agent's reader of it, made on first use.
    TopoDbWriter& writer( int level ) {
        auto& w = writers_[level];
        if ( !w ) {
            w = std::make_unique<TopoDbWriter>( *tree_, nullptr, level, L3::VrfName() );
            allTopoDb_->topoDbIs(
                topo( level ), create<TopoDb>( *tree_, nullptr, level, L3::VrfName() ) );
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
    }
    AllTopoDbView view( const char* exclude = nullptr ) {
        if ( !ipStatus_ ) {
            ipStatus_ = create<Ip::Status>( *tree_, nullptr );
        }
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
    bool traced( const std::string& text ) const {
        return traces_.find( text ) != std::string::npos;
    }

    std::string root_;
    std::unique_ptr<Platform::StateTree> tree_;
    std::map<int, std::unique_ptr<TopoDbWriter>> writers_;
    std::map<int, std::map<int, Router>> routers_;
    Ptr<AllTopoDb> allTopoDb_;
    Ptr<AllTopoDbStatus> status_;
    Ptr<Ip::Status> ipStatus_;
    Ptr<DedupConstraintTable> dedupTable_ = create<DedupConstraintTable>();
    std::vector<Ptr<DedupConstraint>> handles_;
    std::string traces_;
};

TEST_F( AllTopoDbViewTest, PointToPointLinksNeedBothEndsWithCrossingAddresses ) {
    for ( int n = 1; n <= 5; ++n ) {
        router( 2, n );
    }
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
    router( 2, 1 );
    router( 2, 2 );
    // Router 2 lists its ends in the opposite order, and its second link's
    // far-end address matches nothing on router 1.
    const NeighborKey a = end( 2, 1, 2, 1, "10.0.1.1", "10.0.1.2" );
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
    router( 2, 1 );
    router( 2, 2 );
    router( 2, 3 );
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

TEST_F( AllTopoDbViewTest, ARouterInBothLevelsUnitesItsLinks ) {
    for ( int level = 1; level <= 2; ++level ) {
        router( level, 1 );
        router( level, 2 );
    }
    router( 1, 3 );
    const NeighborKey l1 = link( 1, 1, 3, 1 );
    const NeighborKey l2 = link( 2, 1, 2, 2 );
    const NeighborKey both = link( 1, 1, 2, 3 );
    commit();
    const AllTopoRouter r1 = view().router( te( 1 ) );
    EXPECT_EQ( r1.neighbors(), 3u );
    EXPECT_TRUE( r1.neighborHas( p2pKey( 1, l1, 1, 3 ) ) );
    EXPECT_TRUE( r1.neighborHas( p2pKey( 2, l2, 1, 2 ) ) );
    EXPECT_TRUE( r1.neighborHas( p2pKey( 1, both, 1, 2 ) ) );
    EXPECT_EQ( r1.teps(), 4u );  // itself and three interface addresses
}

TEST_F( AllTopoDbViewTest, LanMembersNeedTeIdsRecordsAndTheLanListingThem ) {
    router( 2, 1 );
    router( 2, 2 );
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
    for ( int n = 1; n <= 4; ++n ) {
        router( 2, n );
    }
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
    router( 2, 1 );
    router( 2, 2 );
    const NeighborKey v6 = NeighborKey::toRouter( sys( 1 ), sys( 2 ), 1 );
    advertise( 2, 1, v6 );
    record( 2, v6, { "2001:db8::1" }, { "2001:db8::2" } );
    const NeighborKey back = NeighborKey::toRouter( sys( 2 ), sys( 1 ), 1 );
    advertise( 2, 2, back );
    record( 2, back, { "2001:db8::2" }, { "2001:db8::1" } );
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

TEST_F( AllTopoDbViewTest, TheRunsAnswersAreRouterAndNeighborMetric ) {
    // Both levels, a LAN, an overloaded router, a missing record, a one-way
    // link, parallel links and a key listed twice: what a run reads through
    // its own buffer is what router() and neighborMetric() answer.
    for ( int level = 1; level <= 2; ++level ) {
        for ( int n = 1; n <= 6; ++n ) {
            router( level, n, level == 2 && n == 4 );
        }
    }
    link( 1, 1, 2, 1 );
    link( 1, 2, 3, 2 );
    link( 2, 1, 2, 3 );
    link( 2, 1, 2, 4 );
    link( 2, 2, 4, 5 );
    link( 2, 4, 5, 6 );
    const NeighborKey twice = link( 2, 5, 6, 7 );
    advertise( 2, 5, twice );
    end( 2, 3, 6, 8, "10.0.8.1", "10.0.8.2" );
    advertise( 2, 6, NeighborKey::toRouter( sys( 6 ), sys( 1 ), 9 ) );
    const NetworkId lanId( sys( 3 ), 2 );
    Network lan( lanId );
    for ( int n = 3; n <= 6; ++n ) {
        lan.routerIs( RouterIndex( n - 3 ), sys( n ) );
        const NeighborKey key = NeighborKey::toNetwork( sys( n ), lanId );
        advertise( 2, n, key );
        const std::string addr = "10.1.0." + std::to_string( n );
        record( 2, key, { addr.c_str() }, {} );
    }
    writer( 2 ).networkIs( lan );
    commit();

    const AllTopoDbView v = view();
    AllTopoDbView::RouterLinks links;
    for ( int n = 1; n <= 7; ++n ) {
        v.routerLinks( te( n ), links );
        const AllTopoRouter router = v.router( te( n ) );
        EXPECT_EQ( links.teRouterId, router.teRouterId() );
        std::vector<AllTopoNeighborKey> keys;
        for ( const AllTopoDbView::RouterLink& link : links.links ) {
            keys.push_back( link.key );
            const AllTopoDbView::LinkMetric metric = v.neighborMetric( link.key );
            EXPECT_EQ( link.metric.teMetricPresent, metric.teMetricPresent );
            EXPECT_EQ( link.metric.teMetric, metric.teMetric );
            EXPECT_EQ( link.metric.igpMetric, metric.igpMetric );
            EXPECT_EQ( link.metric.igpMetric, 10u );
        }
        EXPECT_EQ( keys, std::vector<AllTopoNeighborKey>( router.neighbor().begin(),
                                                          router.neighbor().end() ) );
        EXPECT_EQ( links.teps,
                   std::vector<IpGenAddr>( router.tep().begin(), router.tep().end() ) );
    }
    v.routerLinks( te( 5 ), links );
    EXPECT_EQ( links.links.size(), 3u );  // to 4, to 6 (listed twice), the LAN
    v.routerLinks( te( 2 ), links );
    EXPECT_EQ( links.links.size(), 5u );  // both levels, parallel links to 1
    v.routerLinks( te( 7 ), links );
    EXPECT_TRUE( links.teRouterId.isAddrZero() );
    EXPECT_TRUE( links.links.empty() );
    EXPECT_TRUE( links.teps.empty() );
}

TEST_F( AllTopoDbViewTest, ACorruptRouterRecordIsReportedAndRefused ) {
    router( 2, 1 );
    router( 2, 2 );
    link( 2, 1, 2, 1 );
    commit();
    // The IS-IS side writes a router whose count claims 501 keys.
    std::vector<uint8_t> bytes( routerRecordSize( 1 ), 0 );
    std::memcpy( bytes.data(), &routers_[2][2].teRouterId(), sizeof( IpGenAddr ) );
    const uint32_t count = 501;
    std::memcpy( bytes.data() + 24, &count, sizeof( count ) );
    writers_.erase( 2 );  // one writer per table
    {
        Platform::TableWriter<RawRouterRecord> raw(
            *tree_, nullptr, topoDbPath( 2, L3::VrfName() ) + "/router" );
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

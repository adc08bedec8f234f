// The compiled topology against the view's rules computed from scratch: small
// random topologies, followed by the real topology reactors, under random
// changes of every kind. After each change every answer of the compiled view
// (routers with and without an excluded interface, LANs, the metrics and
// hops the run and hop selection read) equals the on-demand answer over the
// same tables, and ordinary changes never compile the whole topology.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "records/IpStatus.h"
#include "records/TeConfig.h"
#include "root/DedupConstraint.h"
#include "root/DedupConstraintTable.h"
#include "tests/support/TempDir.h"
#include "tests/support/TopoIds.h"
#include "topo/AllTopoDbReader.h"
#include "topo/AllTopoDbSm.h"
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

constexpr int kRouters = 9;  // IGP routers 1..9 share TE router ids 1..6
constexpr int kTeIds = 6;
constexpr int kLans = 2;

// A small pool, so that addresses cross, clash and go missing.
IpGenAddr addr( int n ) {
    return IpGenAddr( "10.0.0." + std::to_string( n ) );
}
NetworkId lanId( int n ) {
    return NetworkId( sys( n ), 1 );
}

template <typename F>
std::string answer( F&& f ) {
    try {
        return f();
    } catch ( const Platform::Error& e ) {
        return std::string( "error: " ) + e.what();
    }
}

class AllTopoCompiledTest : public ::testing::Test {
  protected:
    struct RouterModel {
        int te = 1;
        bool overload = false;
        std::vector<NeighborKey> keys;
    };

    void SetUp() override {
        for ( int level : { 1, 2 } ) {
            writers_[level] = std::make_unique<TopoDbWriter>( tmp_.tree, nullptr, level,
                                                              L3::VrfName() );
            doLevelIs( level );
        }
        status_ = create<AllTopoDbStatus>( create<IntfIpToRouterIdWriter>(
            tmp_.tree, nullptr, intfIpToRouterIdPath( L3::VrfName() ) ) );
        configWriter_ = create<TrafficEngineering::ConfigWriter>(
            tmp_.tree, nullptr, TrafficEngineering::kConfigPath );
        config_ = create<TrafficEngineering::Config>( tmp_.tree, nullptr,
                                                      TrafficEngineering::kConfigPath );
        doOurTeIs( 1 );
        ipStatus_ = create<Ip::Status>( tmp_.tree, nullptr );
        eth1_ = ipStatus_->intfStatusIs( Net::IntfId( "Ethernet1" ) );
        sm_ = create<AllTopoDbSm>( allTopoDb_, status_, config_ );
    }
    void TearDown() override { sm_.reset(); }

    void doLevelIs( int level ) {
        allTopoDb_->topoDbIs(
            topo( level ), create<TopoDb>( tmp_.tree, nullptr, level, L3::VrfName() ) );
        allTopoDb_->topoDb( topo( level ) )->sync();
    }
    void doOurTeIs( int n ) {
        configWriter_->valueIs( { true, te( n ) } );
        config_->sync();
    }
    int pick( int from, int to ) {
        return std::uniform_int_distribution<int>( from, to )( rng_ );
    }
    bool chance( int percent ) { return pick( 1, 100 ) <= percent; }

    void doWriteRouter( int level, int n ) {
        const RouterModel& model = routers_[level][n];
        Router r( sys( n ) );
        r.teRouterIdIs( model.te ? te( model.te ) : IpGenAddr() );
        r.overloadIs( model.overload );
        for ( size_t i = 0; i < model.keys.size(); ++i ) {
            r.neighborIs( NeighborIndex( i ), model.keys[i] );
        }
        writers_[level]->routerIs( r );
    }
    void doWriteLink( int level, const NeighborKey& key, std::vector<int> intf,
                      std::vector<int> nbr ) {
        Neighbor link( key );
        for ( size_t i = 0; i < intf.size(); ++i ) {
            link.interfaceAddrIs( AddrIndex( i ), addr( intf[i] ) );
        }
        for ( size_t i = 0; i < nbr.size(); ++i ) {
            link.neighborAddrIs( AddrIndex( i ), addr( nbr[i] ) );
        }
        link.igpMetricIs( static_cast<uint32_t>( pick( 0, 3 ) ) );
        link.teMetricPresentIs( chance( 50 ) );
        link.teMetricIs( static_cast<uint32_t>( pick( 0, 3 ) ) );
        writers_[level]->neighborIs( link );
        links_[level].insert( key );
    }
    void doList( int level, int n, const NeighborKey& key ) {
        RouterModel& model = routers_[level][n];
        model.keys.push_back( key );
        doWriteRouter( level, n );
    }

    // One random change of the tables.
    void doChange() {
        const int level = pick( 1, 2 );
        const int n = pick( 1, kRouters );
        switch ( pick( 0, 11 ) ) {
            case 0: {  // a router comes, or changes its TE router id or overload
                RouterModel& model = routers_[level][n];
                model.te = chance( 10 ) ? 0 : pick( 1, kTeIds );
                model.overload = chance( 20 );
                doWriteRouter( level, n );
                break;
            }
            case 1:  // a router goes
                routers_[level].erase( n );
                writers_[level]->routerDel( sys( n ) );
                break;
            case 2:
            case 3: {  // a link, both ends listed with crossing addresses
                const int m = pick( 1, kRouters );
                const int id = pick( 1, 2 );
                const int a = pick( 1, 12 );
                const int b = pick( 1, 12 );
                const NeighborKey there = NeighborKey::toRouter( sys( n ), sys( m ), id );
                const NeighborKey back = NeighborKey::toRouter( sys( m ), sys( n ), id );
                doWriteLink( level, there, { a }, { b } );
                doWriteLink( level, back, { b }, { a } );
                doList( level, n, there );
                doList( level, m, back );
                break;
            }
            case 4: {  // a link record changes its addresses or metrics
                if ( links_[level].empty() ) {
                    break;
                }
                auto it = links_[level].begin();
                std::advance( it, pick( 0, int( links_[level].size() ) - 1 ) );
                std::vector<int> intf( size_t( pick( 0, 2 ) ) );
                std::vector<int> nbr( size_t( pick( 0, 2 ) ) );
                for ( int& a : intf ) {
                    a = pick( 1, 12 );
                }
                for ( int& a : nbr ) {
                    a = pick( 1, 12 );
                }
                doWriteLink( level, *it, intf, nbr );
                break;
            }
            case 5: {  // a link record goes
                if ( links_[level].empty() ) {
                    break;
                }
                auto it = links_[level].begin();
                std::advance( it, pick( 0, int( links_[level].size() ) - 1 ) );
                writers_[level]->neighborDel( *it );
                links_[level].erase( it );
                break;
            }
            case 6: {  // a router stops listing a link
                auto it = routers_[level].find( n );
                if ( it == routers_[level].end() || it->second.keys.empty() ) {
                    break;
                }
                auto& keys = it->second.keys;
                keys.erase( keys.begin() + pick( 0, int( keys.size() ) - 1 ) );
                doWriteRouter( level, n );
                break;
            }
            case 7: {  // a LAN lists some routers
                const int lan = pick( 1, kLans );
                Network network( lanId( lan ) );
                int count = 0;
                for ( int m = 1; m <= kRouters; ++m ) {
                    if ( chance( 40 ) ) {
                        network.routerIs( RouterIndex( count++ ), sys( m ) );
                    }
                }
                writers_[level]->networkIs( network );
                break;
            }
            case 8: {  // a router joins a LAN
                const NeighborKey key =
                    NeighborKey::toNetwork( sys( n ), lanId( pick( 1, kLans ) ) );
                if ( chance( 80 ) ) {
                    doWriteLink( level, key, { pick( 1, 12 ) }, {} );
                }
                doList( level, n, key );
                break;
            }
            case 9:  // a LAN goes
                writers_[level]->networkDel( lanId( pick( 1, kLans ) ) );
                break;
            case 10:  // our TE router id, or the excluded interface's address
                if ( chance( 50 ) ) {
                    doOurTeIs( pick( 1, kTeIds ) );
                } else {
                    eth1_->activeAddrIs( addr( pick( 1, 12 ) ) );
                }
                return;
            case 11:  // a level goes, or comes back
                if ( chance( 20 ) ) {
                    if ( allTopoDb_->topoDbHas( topo( level ) ) ) {
                        allTopoDb_->topoDbDel( topo( level ) );
                    } else {
                        doLevelIs( level );
                    }
                    levelsMoved_ = true;
                }
                return;
        }
        writers_[level]->flush();
        if ( const Ptr<TopoDb> db = allTopoDb_->topoDb( topo( level ) ) ) {
            db->sync();
        }
    }

    Ptr<DedupConstraintLifeTimeNotifier> constraintOf( bool exclude ) {
        const PathConstraint constraint =
            exclude ? PathConstraint( Net::IntfId( "Ethernet1" ) ) : PathConstraint();
        handles_.push_back( dedupTable_->dedup( DedupConstraintContent( constraint ) ) );
        return create<DedupConstraintLifeTimeNotifier>( handles_.back().get() );
    }

    // Every answer of the compiled view against the one computed from scratch.
    void expectSameAnswers( int step ) {
        for ( bool exclude : { false, true } ) {
            const Ptr<DedupConstraintLifeTimeNotifier> constraint =
                constraintOf( exclude );
            const AllTopoDbView view( allTopoDb_, status_, ipStatus_, nullptr,
                                      constraint );
            const AllTopoDbReader reader( allTopoDb_, status_, ipStatus_, nullptr,
                                          constraint );
            for ( int n = 1; n <= kTeIds + 1; ++n ) {
                ASSERT_EQ( answer( [&] { return view.router( te( n ) ).toString(); } ),
                           answer( [&] { return reader.router( te( n ) ).toString(); } ) )
                    << "step " << step << ", router " << n << ", exclude " << exclude;
            }
            for ( int level : { 1, 2 } ) {
                for ( int lan = 1; lan <= kLans; ++lan ) {
                    const AllTopoNetworkId id( topo( level ), lanId( lan ) );
                    ASSERT_EQ( answer( [&] { return view.network( id ).toString(); } ),
                               answer( [&] { return reader.network( id ).toString(); } ) )
                        << "step " << step << ", LAN " << lan << ", level " << level;
                }
            }
        }
        // What the run and hop selection read besides.
        const AllTopoDbView view( allTopoDb_, status_, nullptr, nullptr, nullptr );
        const AllTopoDbReader& reader = view.reader();
        for ( int n = 1; n <= kTeIds; ++n ) {
            const AllTopoCompiled::Router* router = view.compiled().router( te( n ) );
            for ( const AllTopoDbReader::RouterLink& link :
                  router ? router->links.links
                         : std::vector<AllTopoDbReader::RouterLink>() ) {
                const AllTopoDbReader::LinkMetric metric =
                    reader.neighborMetric( link.key );
                EXPECT_EQ( link.metric.teMetricPresent, metric.teMetricPresent );
                EXPECT_EQ( link.metric.teMetric, metric.teMetric );
                EXPECT_EQ( link.metric.igpMetric, metric.igpMetric );
                if ( link.key.neighborType() == neighborTypeRouter() ) {
                    const AllTopoDbReader::LinkFirstAddr first = reader.neighborFirstAddr(
                        link.key, AllTopoDbReader::AddrList::neighborAddrs );
                    EXPECT_EQ( link.nbrAddr, first.addr ) << "step " << step;
                }
            }
        }
        for ( int level : { 1, 2 } ) {
            const Ptr<RouterIdMap> map = status_->routerIdMap( topo( level ) );
            for ( int lan = 1; lan <= kLans; ++lan ) {
                const AllTopoNetworkId id( topo( level ), lanId( lan ) );
                const AllTopoCompiled::Network* network = view.compiled().network( id );
                for ( const AllTopoCompiled::LanRouter& hop :
                      network ? network->hops
                              : std::vector<AllTopoCompiled::LanRouter>() ) {
                    ASSERT_TRUE( map && map->igpRouterIdHas( hop.teRouterId ) );
                    const NeighborKey reverse = NeighborKey::toNetwork(
                        map->igpRouterId( hop.teRouterId ), lanId( lan ) );
                    const AllTopoDbReader::LinkFirstAddr first = reader.neighborFirstAddr(
                        AllTopoNeighborKey( topo( level ), reverse, hop.teRouterId ),
                        AllTopoDbReader::AddrList::interfaceAddrs );
                    const bool usable =
                        reader.routerListsNeighbor( topo( level ), reverse ) &&
                        first.found && first.count;
                    EXPECT_EQ( hop.check == AllTopoCompiled::LanHopCheck::ok, usable )
                        << "step " << step;
                    if ( usable ) {
                        EXPECT_EQ( hop.hop, first.addr ) << "step " << step;
                    }
                }
            }
        }
    }

    TestKit::TempTree tmp_{ "alltopocompiledtest" };
    std::mt19937 rng_;
    std::unique_ptr<TopoDbWriter> writers_[3];
    std::map<int, std::map<int, RouterModel>> routers_;
    std::map<int, std::set<NeighborKey>> links_;
    Ptr<AllTopoDb> allTopoDb_ = create<AllTopoDb>();
    Ptr<AllTopoDbStatus> status_;
    Ptr<TrafficEngineering::ConfigWriter> configWriter_;
    Ptr<TrafficEngineering::Config> config_;
    Ptr<Ip::Status> ipStatus_;
    Ptr<Ip::IntfStatus> eth1_;
    Ptr<DedupConstraintTable> dedupTable_ = create<DedupConstraintTable>();
    std::vector<Ptr<DedupConstraint>> handles_;
    Ptr<AllTopoDbSm> sm_;
    bool levelsMoved_ = false;
};

TEST_F( AllTopoCompiledTest, EveryAnswerEqualsTheOnDemandOneAfterEveryChange ) {
    for ( unsigned seed = 1; seed <= 40; ++seed ) {
        SCOPED_TRACE( "seed " + std::to_string( seed ) );
        rng_.seed( seed );
        for ( int step = 0; step < 150; ++step ) {
            const Ptr<AllTopoCompiler> compiler =
                status_->allTopoCompilerFor( allTopoDb_ );
            const uint64_t rebuilds = compiler->stats().rebuilds;
            const bool first = compiler->stats().updates == 0;
            levelsMoved_ = false;
            doChange();
            ASSERT_NO_FATAL_FAILURE( expectSameAnswers( step ) );
            if ( !first && !levelsMoved_ ) {
                ASSERT_EQ( compiler->stats().rebuilds, rebuilds ) << "step " << step;
            }
        }
        handles_.clear();
    }
}

}  // namespace

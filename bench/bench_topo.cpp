// Following IS-IS at scale: the replay of a 20,000-router level database
// into the topology reactors (what a start-up costs), and the cost of one
// change under it (what each IS-IS update costs the agent, before any
// recomputation, which the throttle decides separately).
//
// The IS-IS side writes the level tables of a private tree; the agent side
// is the level database reader, AllTopoDbSm and its TopoDbSm. A change is
// timed from the reader's sync (which takes the change in and notifies) to
// the end of the reactor's handling; the write itself is the IS-IS side's.
//
// bench_topo [--routers=N] [--changes=N] [--duplicates=N]
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/EventLoop.h"
#include "platform/Mivlog.h"
#include "platform/StateTree.h"
#include "records/VrfName.h"
#include "tools/TopologyGenerate.h"
#include "tools/TopologyLoad.h"
#include "topo/AllTopoDb.h"
#include "topo/AllTopoDbSm.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/IntfIpToRouterId.h"
#include "topo/TopoDb.h"

namespace {

using namespace Cspf;
using Platform::create;

double cpuSeconds() {
    timespec ts;
    clock_gettime( CLOCK_THREAD_CPUTIME_ID, &ts );
    return double( ts.tv_sec ) + double( ts.tv_nsec ) * 1e-9;
}

double median( std::vector<double> v ) {
    std::sort( v.begin(), v.end() );
    return v.empty() ? 0 : v[v.size() / 2];
}

double percentile( std::vector<double> v, double p ) {
    std::sort( v.begin(), v.end() );
    return v.empty() ? 0 : v[std::min( v.size() - 1, size_t( p * double( v.size() ) ) )];
}

struct Agent {
    Platform::Ptr<Routing::Topology::TopoDb> db;
    Platform::Ptr<AllTopoDb> allTopoDb;
    Platform::Ptr<AllTopoDbStatus> status;
    Platform::Ptr<AllTopoDbSm> sm;
};

}  // namespace

int main( int argc, char** argv ) {
    size_t routers = 20000;
    size_t changes = 2000;
    size_t duplicates = 0;
    for ( int i = 1; i < argc; ++i ) {
        const std::string arg = argv[i];
        if ( arg.rfind( "--routers=", 0 ) == 0 ) {
            routers = std::stoul( arg.substr( 10 ) );
        } else if ( arg.rfind( "--changes=", 0 ) == 0 ) {
            changes = std::stoul( arg.substr( 10 ) );
        } else if ( arg.rfind( "--duplicates=", 0 ) == 0 ) {
            duplicates = std::stoul( arg.substr( 13 ) );
        } else {
            std::fprintf( stderr,
                          "usage: bench_topo [--routers=N] [--changes=N] "
                          "[--duplicates=N]\n" );
            return 2;
        }
    }
    Mivlog::levelsIs( Mivlog::kNoLevels );
    char tmpl[] = "/dev/shm/bench-topo-XXXXXX";
    const std::string root = mkdtemp( tmpl );
    int status = 0;
    {
        Platform::StateTree tree( root );
        const L3::VrfName vrf;
        TopoFile::GenerateOptions options;
        options.routers = routers;
        options.meanDegree = 4;
        options.lanShare = 0.05;
        TopoFile::Topology topology = TopoFile::generateTopology( options );
        // Duplicate TE router ids: router 2i+1 claims router 2i's, and is set
        // aside; every router handled then asks whether it is on a list.
        for ( size_t i = 0; i < duplicates && 2 * i + 1 < topology.routers.size(); ++i ) {
            topology.routers[2 * i + 1].teRouterId = topology.routers[2 * i].teRouterId;
        }
        TopoFile::loadIntoTree( topology, tree, vrf );
        // As in the agent, the published table's writer rings its readers'
        // bell once per loop round, not once per record.
        Platform::EventLoop loop;
        auto published =
            create<IntfIpToRouterIdWriter>( tree, &loop, intfIpToRouterIdPath( vrf ) );

        // Replay: first with an empty published table (a first start), then
        // over the table the first one left (a restart: nothing is rewritten).
        // Attaching maps the level's tables and indexes their keys; the
        // reactors then handle every router and link and clean up.
        std::printf(
            "topology: %zu routers, %zu links, %zu LANs (level 2), %zu "
            "duplicate TE router ids\n",
            topology.routers.size(), topology.links.size(), topology.lans.size(),
            duplicates );
        std::printf( "%-36s %9s %9s %9s\n", "replay, seconds", "total", "attach",
                     "reactors" );
        Agent agent;
        for ( const char* what : { "first start (empty published table)",
                                   "restart (published table kept)" } ) {
            agent = Agent();
            const double t0 = cpuSeconds();
            agent.db = create<Routing::Topology::TopoDb>( tree, nullptr, 2, vrf );
            const double t1 = cpuSeconds();
            agent.allTopoDb = create<AllTopoDb>();
            agent.allTopoDb->topoDbIs( TopoId::isisL2, agent.db );
            agent.status = create<AllTopoDbStatus>( published );
            agent.sm = create<AllTopoDbSm>( agent.allTopoDb, agent.status, nullptr );
            loop.runOnce( 0 );
            const double t2 = cpuSeconds();
            std::printf( "%-36s %9.3f %9.3f %9.3f  (%zu published addresses)\n", what,
                         t2 - t0, t1 - t0, t2 - t1, published->size() );
        }

        // One change at a time under the full topology.
        Routing::Topology::TopoDbWriter isis( tree, nullptr, 2, vrf );
        std::vector<Mpls::RouterId> ids;
        for ( const auto& [id, version] : agent.db->routers() ) {
            ids.push_back( id );
        }
        std::vector<double> overload, metric;
        for ( size_t i = 0; i < changes; ++i ) {
            const Mpls::RouterId& id = ids[( i * 7919 ) % ids.size()];
            Routing::Topology::Router router = agent.db->router( id );
            router.overloadIs( !router.overload() );
            isis.routerIs( router );
            double t0 = cpuSeconds();
            agent.db->sync();
            overload.push_back( cpuSeconds() - t0 );

            if ( router.neighborKeyCount() ) {
                const auto key =
                    router.neighborKey( Routing::Topology::NeighborIndex( 0 ) );
                Routing::Topology::Neighbor link = agent.db->neighbor( key );
                link.neighborKeyIs( key );
                link.igpMetricIs( link.igpMetric() % 20 + 1 );
                isis.neighborIs( link );
                t0 = cpuSeconds();
                agent.db->sync();
                metric.push_back( cpuSeconds() - t0 );
            }
        }
        std::printf( "\n%-34s %10s %10s  (%zu changes)\n",
                     "one change, taken in and handled", "median us", "p99 us", changes );
        std::printf( "%-34s %10.1f %10.1f\n", "router overload flipped",
                     median( overload ) * 1e6, percentile( overload, 0.99 ) * 1e6 );
        std::printf( "%-34s %10.1f %10.1f\n", "link metric changed",
                     median( metric ) * 1e6, percentile( metric, 0.99 ) * 1e6 );
        if ( agent.status->topoChangedAt() == 0 ) {
            std::printf( "!!! the reactors saw no change\n" );
            status = 1;
        }
        agent = Agent();
    }
    std::filesystem::remove_all( root );
    return status;
}

// CSPF: the time of one full run (the whole shortest-path tree from one
// router, as the agent computes it for a constraint) over the weighted
// research topologies and generated ones, beside Boost.Graph's Dijkstra on
// the same graph; the heap the run's data keeps; and a check that both agree
// on the cost of every router.
//
// A plain timing loop rather than Google Benchmark: what matters is per
// topology and side by side (run, reference, ratio, bytes), which one table
// shows best. A figure is the median over batches of the mean CPU time of
// one run; a batch lasts at least a millisecond, so that small topologies are
// not timed at the clock's resolution. A CSPF run is what the scheduler pays
// per constraint: the view, the data, the run and the release of the data.
// Loading the topology is not part of it.
//
// The reference graph has routers and LAN pseudonodes as vertices and every
// directed link the view would offer as an edge (router to router and router
// to LAN at the sending end's metric, LAN to router at no cost), built once
// from the topology model. Distances are 64-bit there, so a cost the run
// cuts at its maximum path metric shows as a mismatch rather than wrapping.
//
// bench_cspf [--filter=TEXT] [--min-time=SECONDS] [--data=DIR]
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/graph/compressed_sparse_row_graph.hpp>
#include <boost/graph/dijkstra_shortest_paths.hpp>
#include <boost/version.hpp>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cspf/CspfData.h"
#include "cspf/CspfPath.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "tools/OfflineTopology.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyGenerate.h"
#include "tools/TopologyImport.h"
#include "topo/AllTopoCompiler.h"
#include "topo/AllTopoDbSm.h"
#include "topo/TopoDb.h"
#include "topo/TopoDbSm.h"

namespace {

// ---- heap accounting
//
// Every operator new and delete of the binary goes through here; the sizes
// are counted only while a measurement is on, so that the timed runs pay a
// single branch. A block is counted at its usable size plus the allocator's
// 8-byte chunk header, which is what it takes from the heap.

std::atomic<bool> gCounting{ false };
std::atomic<int64_t> gLive{ 0 };
std::atomic<int64_t> gPeak{ 0 };

int64_t heapSize( void* p ) {
    return static_cast<int64_t>( malloc_usable_size( p ) ) + 8;
}

void countNew( void* p ) {
    if ( gCounting.load( std::memory_order_relaxed ) ) {
        const int64_t size = heapSize( p );
        const int64_t live = gLive.fetch_add( size, std::memory_order_relaxed ) + size;
        if ( live > gPeak.load( std::memory_order_relaxed ) ) {
            gPeak.store( live, std::memory_order_relaxed );
        }
    }
}

void countDelete( void* p ) {
    if ( gCounting.load( std::memory_order_relaxed ) ) {
        gLive.fetch_sub( heapSize( p ), std::memory_order_relaxed );
    }
}

struct HeapUse {
    int64_t kept = 0;  // still allocated at the end
    int64_t peak = 0;  // the most allocated at any moment
};

// Counts from construction to stop(); blocks freed in between that were
// allocated before count negatively, which none of the run does.
class HeapMeter {
  public:
    HeapMeter() {
        gLive.store( 0 );
        gPeak.store( 0 );
        gCounting.store( true );
    }
    ~HeapMeter() { gCounting.store( false ); }
    HeapUse stop() {
        gCounting.store( false );
        return HeapUse{ gLive.load(), gPeak.load() };
    }
};

}  // namespace

// The whole set of unaligned forms, so that no block is taken by one
// allocator and given back to another.
void* operator new( std::size_t size ) {
    void* p = std::malloc( size ? size : 1 );
    if ( !p ) {
        throw std::bad_alloc();
    }
    countNew( p );
    return p;
}

void* operator new[]( std::size_t size ) {
    return operator new( size );
}

void* operator new( std::size_t size, const std::nothrow_t& ) noexcept {
    void* p = std::malloc( size ? size : 1 );
    if ( p ) {
        countNew( p );
    }
    return p;
}

void* operator new[]( std::size_t size, const std::nothrow_t& tag ) noexcept {
    return operator new( size, tag );
}

void operator delete( void* p ) noexcept {
    if ( p ) {
        countDelete( p );
        std::free( p );
    }
}

void operator delete[]( void* p ) noexcept {
    operator delete( p );
}
void operator delete( void* p, std::size_t ) noexcept {
    operator delete( p );
}
void operator delete[]( void* p, std::size_t ) noexcept {
    operator delete( p );
}
void operator delete( void* p, const std::nothrow_t& ) noexcept {
    operator delete( p );
}
void operator delete[]( void* p, const std::nothrow_t& ) noexcept {
    operator delete( p );
}

namespace {

using namespace Cspf;

// ---- the reference graph

struct EdgeMetric {
    uint32_t metric = 0;
};

using Graph =
    boost::compressed_sparse_row_graph<boost::directedS, boost::no_property, EdgeMetric>;
using Vertex = boost::graph_traits<Graph>::vertex_descriptor;

constexpr uint64_t kUnreached = std::numeric_limits<uint64_t>::max();

struct Reference {
    Graph graph;
    Vertex source = 0;
    // Vertices 0 .. routers-1 are the model's routers in order, the LANs
    // follow; a router without a TE router id keeps a zero address and no
    // edges.
    size_t routers = 0;
    size_t lans = 0;
    size_t edges = 0;
    std::vector<Net::IpGenAddr> teRouterIds;
};

uint32_t metricOf( const TopoFile::Attachment& a ) {
    return a.teMetric ? *a.teMetric : a.metric;
}

// Whether the view would hide the attachment's link altogether: a fault on
// either side breaks the two-way check for both directions.
bool faulty( const TopoFile::Attachment& a ) {
    return !a.advertise || !a.record;
}

bool faulty( const TopoFile::LinkEnd& e ) {
    return faulty( static_cast<const TopoFile::Attachment&>( e ) ) ||
           e.neighborAddress4 || e.neighborAddress6;
}

Reference referenceOf( const TopoFile::Topology& topology, size_t sourceIndex ) {
    Reference ref;
    ref.routers = topology.routers.size();
    ref.lans = topology.lans.size();
    ref.source = static_cast<Vertex>( sourceIndex );
    std::unordered_map<std::string, size_t> index;
    for ( size_t i = 0; i < topology.routers.size(); ++i ) {
        const TopoFile::Router& r = topology.routers[i];
        index.emplace( r.name, i );
        ref.teRouterIds.push_back( r.teRouterId.value_or( Net::IpGenAddr() ) );
    }
    std::vector<std::pair<size_t, size_t>> edges;
    std::vector<EdgeMetric> metrics;
    // An overloaded router carries no transit: only the computing router
    // keeps its links.
    auto sends = [&]( size_t router ) {
        const TopoFile::Router& r = topology.routers[router];
        return r.teRouterId && ( !r.overload || router == sourceIndex );
    };
    auto edgeIs = [&]( size_t from, size_t to, uint32_t metric ) {
        // The run never uses a zero metric.
        if ( metric != 0 ) {
            edges.emplace_back( from, to );
            metrics.push_back( EdgeMetric{ metric } );
        }
    };
    for ( const TopoFile::Link& link : topology.links ) {
        const size_t a = index.at( link.ends[0].router );
        const size_t b = index.at( link.ends[1].router );
        if ( faulty( link.ends[0] ) || faulty( link.ends[1] ) ||
             !topology.routers[a].teRouterId || !topology.routers[b].teRouterId ) {
            continue;
        }
        if ( sends( a ) ) {
            edgeIs( a, b, metricOf( link.ends[0] ) );
        }
        if ( sends( b ) ) {
            edgeIs( b, a, metricOf( link.ends[1] ) );
        }
    }
    for ( size_t l = 0; l < topology.lans.size(); ++l ) {
        const size_t lan = ref.routers + l;
        for ( const TopoFile::LanMember& m : topology.lans[l].members ) {
            const size_t r = index.at( m.router );
            if ( faulty( m ) || !topology.routers[r].teRouterId ) {
                continue;
            }
            if ( sends( r ) ) {
                edgeIs( r, lan, metricOf( m ) );
            }
            // Leaving a LAN costs nothing; the edge must still exist.
            edges.emplace_back( lan, r );
            metrics.push_back( EdgeMetric{ 0 } );
        }
    }
    ref.edges = edges.size();
    ref.graph = Graph( boost::edges_are_unsorted_multi_pass, edges.begin(), edges.end(),
                       metrics.begin(), ref.routers + ref.lans );
    return ref;
}

// One Dijkstra run; the distances and predecessors are allocated per run,
// as the CSPF run allocates its tree.
std::vector<uint64_t> referenceRun( const Reference& ref ) {
    const size_t n = boost::num_vertices( ref.graph );
    std::vector<uint64_t> distance( n );
    std::vector<Vertex> predecessor( n );
    boost::dijkstra_shortest_paths(
        ref.graph, ref.source,
        boost::predecessor_map(
            boost::make_iterator_property_map( predecessor.begin(),
                                               get( boost::vertex_index, ref.graph ) ) )
            .distance_map( boost::make_iterator_property_map(
                distance.begin(), get( boost::vertex_index, ref.graph ) ) )
            .weight_map( get( &EdgeMetric::metric, ref.graph ) )
            .distance_inf( kUnreached ) );
    return distance;
}

// ---- timing

// The CPU time of this thread: on a machine shared with other work it
// leaves out the time slices other processes take, which wall-clock time
// would count. The run neither sleeps nor waits, so nothing of it is lost.
double cpuSeconds() {
    timespec ts;
    clock_gettime( CLOCK_THREAD_CPUTIME_ID, &ts );
    return double( ts.tv_sec ) + double( ts.tv_nsec ) * 1e-9;
}

// Median over batches of the mean seconds of one call of `run`.
template <typename F>
double timeOneRun( F&& run, double minSeconds ) {
    constexpr double kBatchSeconds = 1e-3;
    constexpr size_t kMinBatches = 5;
    run();  // warm caches and lazily built state
    const double t0 = cpuSeconds();
    run();
    const double once = std::max( cpuSeconds() - t0, 1e-9 );
    const size_t perBatch = std::max<size_t>( 1, size_t( kBatchSeconds / once ) );
    std::vector<double> batches;
    double total = 0;
    while ( batches.size() < kMinBatches || total < minSeconds ) {
        const double start = cpuSeconds();
        for ( size_t i = 0; i < perBatch; ++i ) {
            run();
        }
        const double s = cpuSeconds() - start;
        total += s;
        batches.push_back( s / double( perBatch ) );
    }
    std::nth_element( batches.begin(), batches.begin() + batches.size() / 2,
                      batches.end() );
    return batches[batches.size() / 2];
}

// ---- the topologies

struct Case {
    std::string name;
    TopoFile::Topology topology;
};

bool unitWeights( const TopoFile::Topology& t ) {
    for ( const TopoFile::Link& link : t.links ) {
        for ( const TopoFile::LinkEnd& end : link.ends ) {
            if ( metricOf( end ) != 1 ) {
                return false;
            }
        }
    }
    for ( const TopoFile::Lan& lan : t.lans ) {
        for ( const TopoFile::LanMember& m : lan.members ) {
            if ( metricOf( m ) != 1 ) {
                return false;
            }
        }
    }
    return true;
}

// Every file an importer takes, except those whose weights are all 1: they
// carry hop counts, not metrics (the NetDice maps say so themselves).
std::vector<Case> importedCases( const std::string& dir, std::string_view filter ) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    std::error_code ec;
    for ( fs::recursive_directory_iterator it( dir, ec ), end; !ec && it != end;
          it.increment( ec ) ) {
        if ( it->is_regular_file() ) {
            files.push_back( it->path() );
        }
    }
    if ( ec ) {
        std::printf( "no research topologies: %s: %s\n", dir.c_str(),
                     ec.message().c_str() );
    }
    std::sort( files.begin(), files.end() );
    std::vector<Case> cases;
    for ( const fs::path& file : files ) {
        const std::string name =
            file.parent_path().filename().string() + "/" + file.stem().string();
        const std::string ext = file.extension().string();
        if ( name.find( filter ) == std::string::npos ||
             ( ext != ".graph" && ext != ".json" && ext != ".in" ) ) {
            continue;
        }
        try {
            TopoFile::ImportResult result = ext == ".graph"
                                                ? TopoFile::importRepetita( file )
                                                : TopoFile::importNetdice( file );
            if ( unitWeights( result.topology ) ) {
                std::printf( "skipped %s: every weight is 1 (hop count, no metrics)\n",
                             name.c_str() );
                continue;
            }
            for ( const std::string& warning : result.warnings ) {
                std::printf( "note %s: %s\n", name.c_str(), warning.c_str() );
            }
            cases.push_back( Case{ name, std::move( result.topology ) } );
        } catch ( const Platform::Error& e ) {
            std::printf( "skipped %s: %s\n", name.c_str(), e.what() );
        }
    }
    std::stable_sort( cases.begin(), cases.end(), []( const Case& a, const Case& b ) {
        return a.topology.routers.size() < b.topology.routers.size();
    } );
    return cases;
}

std::vector<Case> generatedCases( std::string_view filter ) {
    std::vector<Case> cases;
    for ( unsigned routers : { 1000u, 5000u, 20000u } ) {
        const std::string name = "generated/" + std::to_string( routers );
        if ( name.find( filter ) == std::string::npos ) {
            continue;
        }
        // Faults are off unless asked for.
        const TopoFile::GenerateOptions options{
            .routers = routers, .meanDegree = 4, .lanShare = 0.05 };
        cases.push_back( Case{ name, TopoFile::generateTopology( options ) } );
    }
    return cases;
}

// ---- one topology

// Where each timed call leaves a result, so that none is optimized away.
volatile uint64_t gSink = 0;

struct Row {
    size_t routers = 0;
    size_t lans = 0;
    size_t edges = 0;
    size_t reached = 0;
    double cspfSeconds = 0;
    double referenceSeconds = 0;
    HeapUse heap;
    size_t mismatches = 0;
    // The compiled topology: a build from scratch, an update after one link
    // changed, and its bytes (with the records of what depends on what).
    double buildSeconds = 0;
    double updateSeconds = 0;
    size_t compiledBytes = 0;
    size_t indexBytes = 0;
};

std::string costText( uint64_t cost ) {
    return cost == kUnreached ? "unreached" : std::to_string( cost );
}

// The run and the reference agree on which routers are reached and at what
// cost, and on how many LANs are settled. Disagreements are printed, the
// first few in full.
size_t check( const std::string& name, const Reference& ref, const CspfData& data,
              const std::vector<uint64_t>& distance ) {
    constexpr size_t kShown = 5;
    size_t mismatches = 0;
    size_t referenceRouters = 0;
    for ( size_t v = 0; v < ref.routers; ++v ) {
        if ( ref.teRouterIds[v].isAddrZero() ) {
            continue;
        }
        const CspfPath* path = data.shortestPathFind( ref.teRouterIds[v] );
        uint64_t cost = kUnreached;
        if ( path ) {
            cost = path->lastLinks() ? path->begin()->second.cost() : 0;
        }
        referenceRouters += distance[v] != kUnreached;
        if ( cost != distance[v] ) {
            if ( ++mismatches <= kShown ) {
                std::printf( "!!! MISMATCH %s: router %s: cspf %s, boost %s\n",
                             name.c_str(), ref.teRouterIds[v].toString().c_str(),
                             costText( cost ).c_str(), costText( distance[v] ).c_str() );
            }
        }
    }
    if ( referenceRouters != data.shortestPaths() ) {
        ++mismatches;
        std::printf( "!!! MISMATCH %s: cspf settled %zu routers, boost reached %zu\n",
                     name.c_str(), data.shortestPaths(), referenceRouters );
    }
    size_t referenceLans = 0;
    for ( size_t v = ref.routers; v < ref.routers + ref.lans; ++v ) {
        referenceLans += distance[v] != kUnreached;
    }
    if ( referenceLans != data.shortestPathForNetworks() ) {
        ++mismatches;
        std::printf( "!!! MISMATCH %s: cspf settled %zu LANs, boost reached %zu\n",
                     name.c_str(), data.shortestPathForNetworks(), referenceLans );
    }
    if ( mismatches ) {
        std::printf( "!!! %s: %zu MISMATCHES BETWEEN CSPF AND BOOST\n", name.c_str(),
                     mismatches );
    }
    return mismatches;
}

Row measure( const Case& c, double minSeconds ) {
    Row row;
    if ( c.topology.routers.empty() || !c.topology.routers[0].teRouterId ) {
        throw Platform::Error( "router 0 is missing or has no TE router id" );
    }
    OfflineTopology offline( c.topology );
    offline.sourceIs( *c.topology.routers[0].teRouterId );
    const Reference ref = referenceOf( c.topology, 0 );
    row.routers = ref.routers;
    row.lans = ref.lans;
    row.edges = ref.edges;

    // Once, outside the timing: the heap the data keeps, and the answers.
    offline.compute( {} );  // the view's constraint handle is made once
    {
        HeapMeter meter;
        const Platform::Ptr<CspfData> data = offline.compute( {} );
        row.heap = meter.stop();
        row.reached = data->shortestPaths();
        row.mismatches = check( c.name, ref, *data, referenceRun( ref ) );
    }

    // The run reads the compiled topology, up to date after the first one.
    row.cspfSeconds =
        timeOneRun( [&] { gSink = offline.compute( {} )->shortestPaths(); }, minSeconds );

    AllTopoCompiler& compiler =
        *offline.allTopoDbStatus()->allTopoCompilerFor( offline.allTopoDb() );
    row.compiledBytes = compiler.compiled().bytes();
    row.indexBytes = compiler.indexBytes();
    row.buildSeconds = timeOneRun(
        [&] {
            compiler.rebuild();
            gSink = compiler.compiled().routers();
        },
        minSeconds );
    // One link handled as changed by its level's reactor: the update
    // recompiles what the link touches.
    const auto& [level, topoDb] = *offline.allTopoDb()->topoDbColl().begin();
    const Routing::Topology::NeighborKey link = topoDb->neighbors().begin()->first;
    const Platform::Ptr<TopoDbSm> levelSm = offline.allTopoDbSm()->topoDbSm( level );
    double updates = 0;
    size_t count = 0;
    row.updateSeconds = timeOneRun(
        [&] {
            levelSm->handleNeighbor( link );
            const double start = cpuSeconds();
            gSink = compiler.compiled().routers();
            updates += cpuSeconds() - start;
            ++count;
        },
        minSeconds );
    row.updateSeconds = updates / double( count );
    row.referenceSeconds =
        timeOneRun( [&] { gSink = referenceRun( ref ).back(); }, minSeconds );
    return row;
}

// ---- the report

std::string cpuName() {
    std::ifstream in( "/proc/cpuinfo" );
    std::string line;
    while ( std::getline( in, line ) ) {
        if ( line.rfind( "model name", 0 ) == 0 ) {
            const size_t colon = line.find( ':' );
            return colon == std::string::npos ? line : line.substr( colon + 2 );
        }
    }
    return "unknown cpu";
}

void printHeader() {
    std::printf( "machine: %s, %ld cpus online; g++ %s; Boost %d.%d.%d\n",
                 cpuName().c_str(), sysconf( _SC_NPROCESSORS_ONLN ), __VERSION__,
                 BOOST_VERSION / 100000, BOOST_VERSION / 100 % 1000,
                 BOOST_VERSION % 100 );
    std::printf(
        "one full run from router 0, traces off; times are the thread's CPU time, "
        "medians of the mean of one run\n" );
    std::printf(
        "cspf us: one run with the compiled topology up to date; build ms: the compiled "
        "topology from scratch; update us: after one link changed (mean); topo B/rtr: "
        "compiled bytes per router (+ dependency records)\n" );
    std::printf( "%-30s %7s %5s %7s %7s %10s %10s %6s %11s %8s %11s %9s %9s %13s  %s\n",
                 "topology", "routers", "LANs", "edges", "reached", "cspf us", "boost us",
                 "ratio", "data bytes", "B/router", "peak bytes", "build ms", "update us",
                 "topo B/rtr", "check" );
}

void printRow( const std::string& name, const Row& row ) {
    const double perRouter =
        row.reached ? double( row.heap.kept ) / double( row.reached ) : 0.0;
    const double routers = double( std::max<size_t>( row.routers, 1 ) );
    const std::string topoBytes =
        std::to_string( size_t( double( row.compiledBytes ) / routers ) ) + "+" +
        std::to_string( size_t( double( row.indexBytes ) / routers ) );
    std::printf( "%-30s %7zu %5zu %7zu %7zu %10.1f %10.1f %6.1f %11" PRId64
                 " %8.0f %11" PRId64 " %9.1f %9.1f %13s  %s\n",
                 name.c_str(), row.routers, row.lans, row.edges, row.reached,
                 row.cspfSeconds * 1e6, row.referenceSeconds * 1e6,
                 row.cspfSeconds / row.referenceSeconds, row.heap.kept, perRouter,
                 row.heap.peak, row.buildSeconds * 1e3, row.updateSeconds * 1e6,
                 topoBytes.c_str(), row.mismatches ? "MISMATCH" : "ok" );
    std::fflush( stdout );
}

int usage( const char* self ) {
    std::fprintf( stderr, "usage: %s [--filter=TEXT] [--min-time=SECONDS] [--data=DIR]\n",
                  self );
    return 2;
}

}  // namespace

int main( int argc, char** argv ) {
    std::string filter;
    std::string dataDir = "/work/shared/data/topologies";
    double minSeconds = 0.5;
    for ( int i = 1; i < argc; ++i ) {
        const std::string_view arg = argv[i];
        if ( arg.starts_with( "--filter=" ) ) {
            filter = arg.substr( 9 );
        } else if ( arg.starts_with( "--data=" ) ) {
            dataDir = arg.substr( 7 );
        } else if ( arg.starts_with( "--min-time=" ) ) {
            minSeconds = std::atof( std::string( arg.substr( 11 ) ).c_str() );
        } else {
            return usage( argv[0] );
        }
    }
    Mivlog::levelsIs( Mivlog::kNoLevels );
    try {
        std::vector<Case> cases = importedCases( dataDir, filter );
        for ( Case& c : generatedCases( filter ) ) {
            cases.push_back( std::move( c ) );
        }
        printHeader();
        size_t failed = 0;
        for ( const Case& c : cases ) {
            try {
                const Row row = measure( c, minSeconds );
                printRow( c.name, row );
                failed += row.mismatches != 0;
            } catch ( const Platform::Error& e ) {
                std::printf( "skipped %s: %s\n", c.name.c_str(), e.what() );
            }
        }
        if ( failed ) {
            std::printf( "!!! CSPF and Boost disagree on %zu of %zu topologies\n", failed,
                         cases.size() );
            return 1;
        }
    } catch ( const std::exception& e ) {
        std::fprintf( stderr, "bench_cspf: %s\n", e.what() );
        return 1;
    }
    return 0;
}

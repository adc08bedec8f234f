// The whole system across processes, timed as a client sees it: cspfd in
// its own process over a private tree, clients through libcspfclient in this
// one, which also plays the IS-IS side. The throttle waits are 0, so what is
// timed is the system itself.
//
//  latency   a client writes a request and waits, polling the library's fd,
//            until it is told of the result; median and 99th percentile
//  change    10 clients, 100 constraints, 10,000 results over a 1,000-router
//            topology: the link that carries most paths fails; the time until
//            the last moved result reached its client, and per client the
//            results that moved against those its watch told in their final
//            state (any difference is a lost change)
//  memory    the agent's resident memory serving 100,000 requests
//
// bench_e2e [latency|change|memory] [--requests=N] [--routers=N]
//           [--memory-requests=N]
#include <cspf/Client.h>
#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/StateTree.h"
#include "records/CspfCliConfig.h"
#include "records/TeConfig.h"
#include "records/VrfName.h"
#include "tests/support/CspfdProcess.h"
#include "tests/support/TempDir.h"
#include "tools/TopologyGenerate.h"
#include "tools/TopologyLoad.h"

namespace {

using namespace Cspf;
using Platform::create;

const cspf::Table kTable{ "default", cspf::Family::ipv4 };

double now() {
    timespec ts;
    clock_gettime( CLOCK_MONOTONIC, &ts );
    return double( ts.tv_sec ) + double( ts.tv_nsec ) * 1e-9;
}

double percentile( std::vector<double> v, double p ) {
    std::sort( v.begin(), v.end() );
    return v.empty() ? 0 : v[std::min( v.size() - 1, size_t( p * double( v.size() ) ) )];
}

// A fresh tree holding a generated topology, the TE configuration with
// router r0 as ourselves, throttle waits of 0, and cspfd serving it.
struct System {
    explicit System( size_t routers ) {
        TopoFile::GenerateOptions options;
        options.routers = routers;
        topology = TopoFile::generateTopology( options );
        TopoFile::loadIntoTree( topology, tree, L3::VrfName() );
        create<TrafficEngineering::ConfigWriter>( tree, nullptr,
                                                  TrafficEngineering::kConfigPath )
            ->valueIs( { true, *topology.routers[0].teRouterId } );
        create<CspfCliConfigWriter>( tree, nullptr, kCspfCliConfigPath )
            ->valueIs( { 0, 0, CspfCliConfigValue::kDefaultMaxWaitMs } );
        agent = std::make_unique<TestKit::CspfdProcess>( CSPFD_PATH, dir.path() );
    }
    // Router i's TE router id, for i from 1 (r0 is the source).
    std::string destination( size_t i ) const {
        return topology.routers[1 + i % ( topology.routers.size() - 1 )]
            .teRouterId->toString();
    }

    TestKit::TempDir dir{ "cspfbench" };
    Platform::StateTree tree{ dir.path() };
    TopoFile::Topology topology;
    std::unique_ptr<TestKit::CspfdProcess> agent;
};

cspf::PathRequest request( const std::string& destination, uint32_t id,
                           const std::string& exclude ) {
    cspf::PathRequest r;
    r.destination = destination;
    r.id = id;
    r.excludeInterface = exclude;
    return r;
}

// Polls every client's fd until `done` or `seconds` pass; false on timeout.
template <typename Fn>
bool serve( const std::vector<std::unique_ptr<cspf::Client>>& clients, Fn done,
            double seconds ) {
    std::vector<pollfd> fds;
    for ( const auto& c : clients ) {
        fds.push_back( { c->fd(), POLLIN, 0 } );
    }
    const double end = now() + seconds;
    while ( !done() ) {
        if ( now() > end ) {
            return false;
        }
        if ( poll( fds.data(), fds.size(), 10 ) > 0 ) {
            for ( size_t i = 0; i < fds.size(); ++i ) {
                if ( fds[i].revents ) {
                    clients[i]->process();
                }
            }
        }
    }
    return true;
}

void latency( size_t routers, size_t requests ) {
    System system( routers );
    std::vector<std::unique_ptr<cspf::Client>> clients;
    clients.push_back( std::make_unique<cspf::Client>( "latency", system.dir.path() ) );
    cspf::Client& client = *clients[0];
    std::string awaited;
    bool told = false;
    client.watchIs( [&]( const cspf::ResultChange& change ) {
        if ( change.result &&
             change.destination + "/" + std::to_string( change.id ) == awaited ) {
            told = true;
        }
    } );
    std::vector<double> times;
    for ( size_t i = 0; i < requests; ++i ) {
        const std::string destination = system.destination( i );
        awaited = destination + "/" + std::to_string( i );
        told = false;
        const double start = now();
        client.requestIs( kTable,
                          request( destination, static_cast<uint32_t>( i ), "" ) );
        if ( !serve(
                 clients, [&] { return told; }, 10 ) ) {
            std::printf( "latency: no result for %s\n", awaited.c_str() );
            return;
        }
        times.push_back( ( now() - start ) * 1e6 );
    }
    std::printf(
        "latency %5zu routers  %5zu requests  median %8.1f us  p99 %8.1f us  "
        "max %8.1f us\n",
        routers, requests, percentile( times, 0.5 ), percentile( times, 0.99 ),
        percentile( times, 1.0 ) );
}

void change( size_t routers ) {
    constexpr int kClients = 10;
    constexpr int kPerClient = 1000;
    constexpr int kConstraints = 100;
    System system( routers );
    std::vector<std::unique_ptr<cspf::Client>> clients;
    // The hops each watch last told, by client name, destination and id.
    std::map<std::string, std::vector<std::string>> told;
    double last = 0;
    for ( int c = 0; c < kClients; ++c ) {
        auto client = std::make_unique<cspf::Client>( "c" + std::to_string( c ),
                                                      system.dir.path() );
        client->batchBegin();
        for ( int j = 0; j < kPerClient; ++j ) {
            // Interfaces no router has: 100 constraints that all compute
            // over the whole topology.
            client->requestIs( kTable,
                               request( system.destination( size_t( j ) ),
                                        uint32_t( c * kPerClient + j ),
                                        "x" + std::to_string( j % kConstraints ) ) );
        }
        client->batchEnd();
        client->watchIs( [&, name = client->name()]( const cspf::ResultChange& ch ) {
            told[name + "/" + ch.destination + "/" + std::to_string( ch.id )] =
                ch.result ? ch.result->hops : std::vector<std::string>{ "<removed>" };
            last = now();
        } );
        clients.push_back( std::move( client ) );
    }
    const double start = now();
    const auto allServed = [&] {
        for ( const auto& client : clients ) {
            if ( client->results( kTable ).size() != kPerClient ) {
                return false;
            }
        }
        return true;
    };
    if ( !serve( clients, allServed, 120 ) ) {
        std::printf( "change: the first results did not all come\n" );
        return;
    }
    const double firstServed = now() - start;
    serve(
        clients, [] { return false; }, 0.5 );  // let the last ones settle

    // The first hop most results share: its link fails.
    std::map<std::string, int> firstHops;
    for ( const auto& client : clients ) {
        for ( const cspf::PathResult& r : client->results( kTable ) ) {
            if ( !r.hops.empty() ) {
                ++firstHops[r.hops[0]];
            }
        }
    }
    const auto busiest = std::max_element(
        firstHops.begin(), firstHops.end(),
        []( const auto& a, const auto& b ) { return a.second < b.second; } );
    auto& links = system.topology.links;
    const auto failed = std::find_if( links.begin(), links.end(), [&]( const auto& l ) {
        for ( const auto& end : l.ends ) {
            if ( end.ipv4 && end.ipv4->addr.toString() == busiest->first ) {
                return true;
            }
        }
        return false;
    } );
    if ( failed == links.end() ) {
        std::printf( "change: no link carries %s\n", busiest->first.c_str() );
        return;
    }
    std::map<std::string, std::vector<std::string>> before;
    const auto keyOf = []( const cspf::Client& c, const cspf::PathResult& r ) {
        return c.name() + "/" + r.destination + "/" + std::to_string( r.id );
    };
    for ( const auto& client : clients ) {
        for ( const cspf::PathResult& r : client->results( kTable ) ) {
            before[keyOf( *client, r )] = r.hops;
        }
    }
    // Down as an adjacency goes down: both ends stop advertising it.
    for ( auto& end : failed->ends ) {
        end.advertise = false;
        end.record = false;
    }
    told.clear();
    const long runsBefore = system.agent->runCount();
    const double failedAt = now();
    TopoFile::loadIntoTree( system.topology, system.tree, L3::VrfName() );
    last = failedAt;
    // What the tables hold, against what the watches told: a moved result
    // counts as told when the last report carried its final hops. `changes`
    // sums the results' change counts, to see when the agent is done.
    std::vector<std::pair<size_t, size_t>> tally( clients.size() );
    size_t moved = 0;
    size_t toldMoved = 0;
    uint64_t changes = 0;
    const auto count = [&] {
        moved = toldMoved = 0;
        changes = 0;
        for ( size_t c = 0; c < clients.size(); ++c ) {
            tally[c] = { 0, 0 };
            for ( const cspf::PathResult& r : clients[c]->results( kTable ) ) {
                const std::string key = keyOf( *clients[c], r );
                changes += r.changeCount;
                if ( before[key] != r.hops ) {
                    const auto it = told.find( key );
                    tally[c].first += 1;
                    tally[c].second += it != told.end() && it->second == r.hops;
                }
            }
            moved += tally[c].first;
            toldMoved += tally[c].second;
        }
    };
    // Done when the tables stayed still for two seconds with every moved
    // result told, or for twenty (a watch that stopped hearing). Counted five
    // times a second, so as not to slow the clients down.
    double counted = 0;
    double stillSince = failedAt;
    serve(
        clients,
        [&] {
            if ( now() - counted < 0.2 ) {
                return false;
            }
            counted = now();
            const uint64_t was = changes;
            count();
            if ( changes != was ) {
                stillSince = counted;
            }
            const double still = counted - stillSince;
            return ( moved > 0 && moved == toldMoved && still > 2.0 ) || still > 20.0;
        },
        120 );
    count();
    std::string perClient;
    for ( size_t c = 0; c < clients.size(); ++c ) {
        perClient += "  " + clients[c]->name() + " " + std::to_string( tally[c].first ) +
                     "/" + std::to_string( tally[c].second );
    }
    std::printf(
        "change  %5zu routers  %d results  %d constraints  first results "
        "%.3f s\n",
        routers, kClients * kPerClient, kConstraints, firstServed );
    std::printf(
        "        link failure: %zu results moved, %zu told, %zu moved but not told "
        "(first hop %s had %d)  last update after %.3f s  runs %ld\n",
        moved, toldMoved, moved - toldMoved, busiest->first.c_str(), busiest->second,
        last - failedAt, system.agent->runCount() - runsBefore );
    std::printf( "        moved/told per client:%s\n", perClient.c_str() );
}

void memory( size_t routers, size_t requests ) {
    constexpr size_t kClients = 10;
    System system( routers );
    serve(
        {}, [] { return false; }, 0.5 );  // the agent up and idle
    const long idle = system.agent->residentBytes();
    std::vector<std::unique_ptr<cspf::Client>> clients;
    const size_t perClient = requests / kClients;
    const double start = now();
    for ( size_t c = 0; c < kClients; ++c ) {
        auto client = std::make_unique<cspf::Client>( "m" + std::to_string( c ),
                                                      system.dir.path() );
        client->batchBegin();
        for ( size_t j = 0; j < perClient; ++j ) {
            client->requestIs( kTable, request( system.destination( j ),
                                                uint32_t( j / ( routers - 1 ) ), "" ) );
        }
        client->batchEnd();
        clients.push_back( std::move( client ) );
    }
    const bool served = serve(
        clients,
        [&] {
            for ( const auto& client : clients ) {
                if ( client->results( kTable ).size() != perClient ) {
                    return false;
                }
            }
            return true;
        },
        300 );
    const double took = now() - start;
    const long busy = system.agent->residentBytes();
    std::printf(
        "memory  %5zu routers  %zu requests  %s in %.2f s  agent resident %.1f MB "
        "idle, %.1f MB serving (%.0f B per request)\n",
        routers, requests, served ? "all served" : "NOT all served", took,
        double( idle ) / 1e6, double( busy ) / 1e6,
        double( busy - idle ) / double( requests ) );
}

size_t option( int argc, char** argv, const std::string& name, size_t fallback ) {
    const std::string prefix = "--" + name + "=";
    for ( int i = 1; i < argc; ++i ) {
        if ( std::string( argv[i] ).rfind( prefix, 0 ) == 0 ) {
            return std::stoul( argv[i] + prefix.size() );
        }
    }
    return fallback;
}

}  // namespace

int main( int argc, char** argv ) {
    setenv( "MIVLOG_DISABLE", "1", 0 );
    const size_t requests = option( argc, argv, "requests", 1000 );
    const size_t routers = option( argc, argv, "routers", 1000 );
    const size_t memoryRequests = option( argc, argv, "memory-requests", 100000 );
    std::printf(
        "cspfd in its own process, clients here; throttle waits 0; times are "
        "wall clock\n" );
    const std::string only =
        argc > 1 && std::string( argv[1] ).rfind( "--", 0 ) != 0 ? argv[1] : "";
    if ( only.empty() || only == "latency" ) {
        latency( 20, requests );
        latency( routers, requests );
    }
    if ( only.empty() || only == "change" ) {
        change( routers );
    }
    if ( only.empty() || only == "memory" ) {
        memory( routers, memoryRequests );
    }
    return 0;
}

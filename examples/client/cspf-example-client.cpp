// A minimal client of the CSPF agent: registers, asks for two paths, waits on
// its own poll() loop for the results, prints them and leaves.
//
//   cspf-example-client [--root DIR] [--name NAME] [--vrf VRF] [--exclude INTF]
//                       [--timeout SECONDS] [--keep] DESTINATION[/ID] DESTINATION[/ID]
#include <cspf/Client.h>
#include <poll.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* kUsage =
    "usage: cspf-example-client [--root DIR] [--name NAME] [--vrf VRF]\n"
    "                           [--exclude INTERFACE] [--timeout SECONDS] [--keep]\n"
    "                           DESTINATION[/ID] DESTINATION[/ID]\n"
    "Asks the CSPF agent for a path to each destination and prints the results.\n"
    "  --root DIR         the state tree (default: $CSPF_STATE_ROOT, else "
    "/dev/shm/cspf)\n"
    "  --name NAME        the client's name (default: example)\n"
    "  --vrf VRF          the VRF of the requests (default: default)\n"
    "  --exclude INTF     an interface both paths must avoid\n"
    "  --timeout SECONDS  how long to wait for the results (default: 10)\n"
    "  --keep             keep the registration and the requests at exit\n";

struct Wanted {
    cspf::Table table;
    cspf::PathRequest request;
};

// "10.0.0.1/7" or "2001:db8::1": the family follows from the address.
Wanted parseDestination( const std::string& arg, const std::string& vrf,
                         const std::string& exclude ) {
    Wanted w;
    const size_t slash = arg.find( '/' );
    w.request.destination = arg.substr( 0, slash );
    w.request.id = slash == std::string::npos
                       ? 1
                       : static_cast<uint32_t>( std::stoul( arg.substr( slash + 1 ) ) );
    w.request.excludeInterface = exclude;
    w.table.vrf = vrf;
    w.table.family = w.request.destination.find( ':' ) != std::string::npos
                         ? cspf::Family::ipv6
                         : cspf::Family::ipv4;
    return w;
}

void print( const cspf::Table& table, const cspf::PathResult& r ) {
    std::printf( "%s %s %s id %u: ", table.vrf.c_str(), cspf::familyName( table.family ),
                 r.destination.c_str(), r.id );
    if ( r.hops.empty() ) {
        std::printf( "no path" );
    }
    for ( size_t i = 0; i < r.hops.size(); ++i ) {
        std::printf( "%s%s", i ? " " : "", r.hops[i].c_str() );
    }
    std::printf( " (change %u, refresh %u)\n", r.changeCount, r.refreshRespSeq );
}

}  // namespace

int main( int argc, char** argv ) {
    std::string root, name = "example", vrf = "default", exclude;
    double timeout = 10;
    bool keep = false;
    std::vector<std::string> destinations;
    for ( int i = 1; i < argc; ++i ) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if ( arg == "--help" || arg == "-h" ) {
            std::fputs( kUsage, stdout );
            return 0;
        } else if ( arg == "--keep" ) {
            keep = true;
        } else if ( arg == "--root" && hasValue ) {
            root = argv[++i];
        } else if ( arg == "--name" && hasValue ) {
            name = argv[++i];
        } else if ( arg == "--vrf" && hasValue ) {
            vrf = argv[++i];
        } else if ( arg == "--exclude" && hasValue ) {
            exclude = argv[++i];
        } else if ( arg == "--timeout" && hasValue ) {
            timeout = std::atof( argv[++i] );
        } else if ( arg.rfind( "--", 0 ) == 0 ) {
            std::fputs( kUsage, stderr );
            return 2;
        } else {
            destinations.push_back( arg );
        }
    }
    if ( destinations.size() != 2 ) {
        std::fputs( kUsage, stderr );
        return 2;
    }

    try {
        std::vector<Wanted> wanted;
        for ( const std::string& d : destinations ) {
            wanted.push_back( parseDestination( d, vrf, exclude ) );
        }
        cspf::Client client( name, root );
        // The agent sees both requests at once.
        client.batchBegin();
        for ( const Wanted& w : wanted ) {
            client.requestIs( w.table, w.request );
        }
        client.batchEnd();

        // A result may already be there (an agent that answered an earlier
        // run); after that, every reported change is a reason to look again.
        size_t waiting = wanted.size();
        std::vector<bool> done( wanted.size() );
        auto look = [&] {
            for ( size_t i = 0; i < wanted.size(); ++i ) {
                const Wanted& w = wanted[i];
                if ( done[i] ) {
                    continue;
                }
                if ( auto r =
                         client.result( w.table, w.request.destination, w.request.id ) ) {
                    print( w.table, *r );
                    done[i] = true;
                    --waiting;
                }
            }
        };
        client.watchIs( [&]( const cspf::ResultChange& ) { look(); } );
        look();

        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>( timeout );
        while ( waiting > 0 ) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now() );
            pollfd pfd{ client.fd(), POLLIN, 0 };
            if ( left.count() <= 0 ||
                 poll( &pfd, 1, static_cast<int>( left.count() ) ) == 0 ) {
                std::fprintf(
                    stderr,
                    "cspf-example-client: no result for %zu request(s) after %gs "
                    "(agent %s)\n",
                    waiting, timeout, client.agentEnabled() ? "enabled" : "not enabled" );
                break;
            }
            client.process();
        }
        const bool complete = waiting == 0;
        if ( !keep ) {
            client.leave();
        }
        return complete ? 0 : 3;
    } catch ( const cspf::Error& e ) {
        std::fprintf( stderr, "cspf-example-client: %s\n", e.what() );
        return 1;
    } catch ( const std::exception& e ) {  // a bad id
        std::fprintf( stderr, "cspf-example-client: %s\n", e.what() );
        return 2;
    }
}

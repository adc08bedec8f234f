// cspfctl: the operator's and developer's command line over the state tree.
//
// Commands are dispatched by their first words; each prints one clear line
// on error and exits non-zero (2 for a bad invocation or bad input, 1 for a
// failure of the system). docs/operating.md describes every command.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/StateTree.h"
#include "records/VrfName.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyImport.h"
#include "tools/TopologyLoad.h"

namespace {

using Args = std::vector<std::string>;

constexpr const char* kUsage =
    "usage: cspfctl [--root DIR] COMMAND ...\n"
    "\n"
    "Topology (the IS-IS side of tests, the demo and labs):\n"
    "  topo load FILE [--vrf NAME]      write a topology file into the VRF's level "
    "tables\n"
    "  topo import --format repetita|netdice FILE -o OUT.json\n"
    "                                   turn a research topology into a topology file\n"
    "\n"
    "The state tree's root is --root, else $CSPF_STATE_ROOT, else /dev/shm/cspf.\n";

// A bad invocation or bad input: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Takes the value of `--name VALUE` out of `args`; `fallback` when absent.
std::string takeOption( Args& args, const std::string& name,
                        const std::string& fallback ) {
    for ( size_t i = 0; i < args.size(); ++i ) {
        if ( args[i] == name ) {
            if ( i + 1 == args.size() ) {
                throw UsageError( name + " needs a value" );
            }
            std::string value = args[i + 1];
            args.erase( args.begin() + static_cast<long>( i ),
                        args.begin() + static_cast<long>( i ) + 2 );
            return value;
        }
    }
    return fallback;
}

void expectArgs( const Args& args, size_t n, const char* what ) {
    if ( args.size() != n ) {
        throw UsageError( std::string( "expected " ) + what );
    }
}

int topoLoad( Args args, const std::string& root ) {
    const L3::VrfName vrf( takeOption( args, "--vrf", "default" ) );
    expectArgs( args, 1, "one topology FILE" );
    const Cspf::TopoFile::Topology topology = Cspf::TopoFile::loadTopologyFile( args[0] );
    Platform::StateTree tree( root );
    const auto summary = Cspf::TopoFile::loadIntoTree( topology, tree, vrf, args[0] );
    std::printf( "loaded %s into vrf %s: %zu records, %zu written, %zu removed\n",
                 args[0].c_str(), vrf.name().c_str(), summary.records, summary.written,
                 summary.removed );
    return 0;
}

int topoImport( Args args, const std::string& ) {
    const std::string format = takeOption( args, "--format", "" );
    const std::string out = takeOption( args, "-o", "" );
    expectArgs( args, 1, "one input FILE" );
    if ( out.empty() ) {
        throw UsageError( "topo import needs -o OUT.json" );
    }
    Cspf::TopoFile::ImportResult result;
    if ( format == "repetita" ) {
        result = Cspf::TopoFile::importRepetita( args[0] );
    } else if ( format == "netdice" ) {
        result = Cspf::TopoFile::importNetdice( args[0] );
    } else {
        throw UsageError( "--format must be repetita or netdice" );
    }
    std::ofstream file( out );
    file << Cspf::TopoFile::toJson( result.topology );
    if ( !file.flush() ) {
        throw Platform::Error( "cannot write " + out + ": " + std::strerror( errno ) );
    }
    for ( const std::string& warning : result.warnings ) {
        std::fprintf( stderr, "warning: %s\n", warning.c_str() );
    }
    std::printf( "imported %s: %zu routers, %zu links -> %s\n", args[0].c_str(),
                 result.topology.routers.size(), result.topology.links.size(),
                 out.c_str() );
    return 0;
}

struct Command {
    std::vector<std::string> words;
    std::function<int( Args, const std::string& )> run;
};

const std::vector<Command> kCommands = {
    { { "topo", "load" }, topoLoad },
    { { "topo", "import" }, topoImport },
};

}  // namespace

int main( int argc, char** argv ) {
    Args args( argv + 1, argv + argc );
    try {
        if ( args.empty() || args[0] == "--help" || args[0] == "-h" ) {
            std::fputs( kUsage, args.empty() ? stderr : stdout );
            return args.empty() ? 2 : 0;
        }
        const std::string root =
            takeOption( args, "--root", Platform::StateTree::defaultRoot() );
        for ( const Command& c : kCommands ) {
            if ( args.size() >= c.words.size() &&
                 std::equal( c.words.begin(), c.words.end(), args.begin() ) ) {
                return c.run( Args( args.begin() + static_cast<long>( c.words.size() ),
                                    args.end() ),
                              root );
            }
        }
        throw UsageError( "unknown command '" + args[0] +
                          ( args.size() > 1 ? " " + args[1] : "" ) +
                          "' (cspfctl --help lists the commands)" );
    } catch ( const UsageError& e ) {
        std::fprintf( stderr, "cspfctl: %s\n", e.what() );
        return 2;
    } catch ( const Cspf::TopoFile::TopologyError& e ) {
        std::fprintf( stderr, "cspfctl: %s\n", e.what() );
        return 2;
    } catch ( const Platform::NameError& e ) {
        std::fprintf( stderr, "cspfctl: %s\n", e.what() );
        return 2;
    } catch ( const std::exception& e ) {
        std::fprintf( stderr, "cspfctl: %s\n", e.what() );
        return 1;
    }
}

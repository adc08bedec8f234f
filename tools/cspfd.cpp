// cspfd: the agent framework's runner.
//
// The whole start-up of a process in one place, in this order: the state
// tree, the event loop, the inotify instance on it, the framework (current
// from then on), the agent library (dlopen; agentFactory and
// dumpStateCallback), the signal watches, the agent, start() (doInit, the
// mount group), then the loop until SIGTERM or SIGINT. The agent is destroyed
// before the framework and everything it was given; the library stays loaded
// until the process exits. docs/agent-runner.md has the options,
// the environment and the exit statuses.
#include <dlfcn.h>
#include <signal.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/AgentBase.h"
#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"

namespace {

constexpr const char* kUsage =
    "usage: cspfd [--root DIR] [--agent LIBRARY] [--name NAME] [--help]\n"
    "\n"
    "Loads the agent library, starts the agent and runs its event loop until\n"
    "SIGTERM or SIGINT; SIGUSR1 dumps the agent's state to standard output.\n"
    "\n"
    "  --root DIR        the state tree's root (else $CSPF_STATE_ROOT, else\n"
    "                    /dev/shm/cspf)\n"
    "  --agent LIBRARY   the agent library (else $CSPF_AGENT_LIBRARY, else\n"
    "                    libCspfAgent.so in ../lib beside this program, else\n"
    "                    next to it)\n"
    "  --name NAME       the agent's name (default Cspf)\n";

constexpr const char* kLibraryName = "libCspfAgent.so";

struct Options {
    std::optional<std::string> root;
    std::optional<std::string> library;
    std::string name = "Cspf";
    bool help = false;
};

struct UsageError {
    std::string what;
};

Options parseOptions( const std::vector<std::string_view>& args ) {
    Options options;
    for ( size_t i = 0; i < args.size(); ++i ) {
        std::string_view arg = args[i];
        if ( arg == "--help" || arg == "-h" ) {
            options.help = true;
            continue;
        }
        std::string_view key = arg;
        std::optional<std::string> value;
        if ( size_t eq = arg.find( '=' ); arg.starts_with( "--" ) && eq != arg.npos ) {
            key = arg.substr( 0, eq );
            value = std::string( arg.substr( eq + 1 ) );
        }
        if ( key != "--root" && key != "--agent" && key != "--name" ) {
            throw UsageError{ "unknown argument '" + std::string( arg ) + "'" };
        }
        if ( !value ) {
            if ( i + 1 == args.size() ) {
                throw UsageError{ std::string( key ) + " needs a value" };
            }
            value = std::string( args[++i] );
        }
        if ( value->empty() ) {
            throw UsageError{ std::string( key ) + " needs a non-empty value" };
        }
        if ( key == "--root" ) {
            options.root = *value;
        } else if ( key == "--agent" ) {
            options.library = *value;
        } else {
            options.name = *value;
        }
    }
    return options;
}

// The directory of this program, from the kernel rather than argv[0], which
// a caller may set to anything.
std::filesystem::path programDirectory( const char* argv0 ) {
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink( "/proc/self/exe", ec );
    if ( ec ) {
        self = std::filesystem::absolute( argv0, ec );
    }
    return self.parent_path();
}

std::string agentLibrary( const Options& options, const char* argv0 ) {
    if ( options.library ) {
        return *options.library;
    }
    if ( const char* env = std::getenv( "CSPF_AGENT_LIBRARY" ); env && *env ) {
        return env;
    }
    const std::filesystem::path dir = programDirectory( argv0 );
    const std::filesystem::path inLib =
        ( dir / ".." / "lib" / kLibraryName ).lexically_normal();
    std::error_code ec;
    if ( std::filesystem::exists( inLib, ec ) ) {
        return inLib.string();
    }
    return ( dir / kLibraryName ).string();
}

// A failure of start-up: one line on stderr, exit status 1.
struct StartError {
    std::string what;
};

// dlerror()'s text without the library's name, which the caller gives once.
std::string loaderError( const std::string& library, const char* error ) {
    std::string reason = error ? error : "unknown error";
    if ( reason.starts_with( library + ": " ) ) {
        reason.erase( 0, library.size() + 2 );
    }
    return reason;
}

template <typename Fn>
Fn symbolOf( void* handle, const std::string& library, const char* symbol ) {
    dlerror();
    void* address = dlsym( handle, symbol );
    if ( const char* error = dlerror() ) {
        throw StartError{ "agent library " + library + " has no " + symbol + ": " +
                          loaderError( library, error ) };
    }
    if ( address == nullptr ) {
        throw StartError{ "agent library " + library + ": " + symbol + " is null" };
    }
    return reinterpret_cast<Fn>( address );
}

int run( const Options& options, const std::string& library ) {
    // A command client that goes away mid-answer must give the handler an
    // EPIPE, not kill the agent.
    std::signal( SIGPIPE, SIG_IGN );
    // A stop asked for before the loop watches for it stays pending instead
    // of ending the process uncleanly (the agent status would say it died).
    sigset_t stops;
    sigemptyset( &stops );
    sigaddset( &stops, SIGTERM );
    sigaddset( &stops, SIGINT );
    pthread_sigmask( SIG_BLOCK, &stops, nullptr );

    Platform::StateTree tree( options.root ? *options.root
                                           : Platform::StateTree::defaultRoot() );
    Platform::EventLoop loop;
    Platform::Inotify inotify( &loop );
    AgentBase::Framework framework( tree, inotify, &loop );

    // Never unloaded: the library's static objects, and anything it left with
    // the platform, die with the process, after main.
    void* handle = dlopen( library.c_str(), RTLD_NOW | RTLD_LOCAL );
    if ( handle == nullptr ) {
        throw StartError{ "cannot load agent library " + library + ": " +
                          loaderError( library, dlerror() ) };
    }
    const auto factory =
        symbolOf<AgentBase::AgentFactory>( handle, library, "agentFactory" );
    const auto dumpState =
        symbolOf<AgentBase::DumpStateCallback>( handle, library, "dumpStateCallback" );

    // Watched before the agent exists, so that a stop asked for during
    // start-up waits for the loop and ends it cleanly.
    auto onTerm = loop.watchSignal( SIGTERM, [&loop] { loop.stop(); } );
    auto onInt = loop.watchSignal( SIGINT, [&loop] { loop.stop(); } );
    auto onUsr1 = loop.watchSignal( SIGUSR1, [dumpState] {
        dumpState();
        std::fflush( stdout );
    } );

    std::unique_ptr<AgentBase::CAgent> agent( factory( options.name.c_str() ) );
    if ( !agent ) {
        throw StartError{ "agentFactory of " + library + " built no agent named " +
                          options.name };
    }
    framework.start( *agent );
    loop.run();
    agent.reset();
    return 0;
}

}  // namespace

int main( int argc, char** argv ) {
    const std::vector<std::string_view> args( argv + 1, argv + argc );
    Options options;
    try {
        options = parseOptions( args );
    } catch ( const UsageError& e ) {
        std::fprintf( stderr, "cspfd: %s\n%s", e.what.c_str(), kUsage );
        return 2;
    }
    if ( options.help ) {
        std::fputs( kUsage, stdout );
        return 0;
    }
    const std::string library = agentLibrary( options, argv[0] );
    try {
        return run( options, library );
    } catch ( const StartError& e ) {
        std::fprintf( stderr, "cspfd: %s\n", e.what.c_str() );
    } catch ( const std::exception& e ) {
        std::fprintf( stderr, "cspfd: %s\n", e.what() );
    }
    return 1;
}

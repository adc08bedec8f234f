// cspfctl: the operator's and developer's command line over the state tree.
//
// Commands are dispatched by their first words; each prints one clear line
// on error and exits non-zero (2 for a bad invocation or bad input, 1 for a
// failure of the system). docs/operating.md describes every command.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/StateTree.h"
#include "tools/Ctl.h"
#include "tools/TopologyFile.h"

namespace {

using namespace Cspf::Ctl;

constexpr const char* kUsage =
    "usage: cspfctl [--root DIR] COMMAND ...\n"
    "\n"
    "Topology (the IS-IS side of tests, the demo and labs):\n"
    "  topo load FILE [--vrf NAME]      write a topology file into the VRF's level "
    "tables\n"
    "  topo import --format repetita|netdice FILE -o OUT.json\n"
    "                                   turn a research topology into a topology file\n"
    "  topo show [--vrf NAME] [--topology FILE]\n"
    "                                   the topology as the agent's model sees it: "
    "routers\n"
    "                                   by TE router id, usable and refused links, "
    "TEPs,\n"
    "                                   LANs (from the tree, or from a file offline)\n"
    "  topo link down|up ROUTER INTERFACE [--vrf NAME]\n"
    "  topo metric ROUTER INTERFACE METRIC [--te] [--vrf NAME]\n"
    "  topo overload ROUTER on|off [--vrf NAME]\n"
    "  topo router del ROUTER [--vrf NAME]\n"
    "                                   edit the topology last loaded into the VRF; "
    "only\n"
    "                                   the records that change are rewritten\n"
    "\n"
    "Interface addresses of this router (ip/status):\n"
    "  intf set INTERFACE [--ipv4 A/L] [--secondary A/L]... [--ipv6 A/L]...\n"
    "  intf del INTERFACE\n"
    "  intf show\n"
    "\n"
    "Agent configuration and status:\n"
    "  te show                          the TE configuration (te/config)\n"
    "  te set [--enabled yes|no] [--router-id A.B.C.D]\n"
    "                                   change the given fields, keep the others\n"
    "  cspf show                        the CSPF settings (te/cspf/cliConfig)\n"
    "  cspf set [--initial-wait MS] [--hold-wait MS] [--max-wait MS]\n"
    "                                   the SPF throttle waits (also --initial-int,\n"
    "                                   --hold-int, --max-int)\n"
    "  agent                            whether the agent runs (te/cspf/agentStatus)\n"
    "\n"
    "Clients and their path requests (writes and watch act as the client, through\n"
    "the client library: they fail while the client itself runs):\n"
    "  client list                      every registered client, VRFs, families\n"
    "  client show NAME                 one client: registration, tables, counts\n"
    "  client add NAME [--vrf V]... [--af ipv4|ipv6]...\n"
    "                                   register (new client without options:\n"
    "                                   VRF default, ipv4)\n"
    "  client leave NAME                remove the registration and every request\n"
    "  request add CLIENT DEST [--id N] [--vrf V] [--af ipv4|ipv6] [--exclude INTF]\n"
    "              [--no-auto-update]   add or change one path request\n"
    "  request del CLIENT DEST [--id N] [--vrf V] [--af ipv4|ipv6]\n"
    "  request refresh CLIENT DEST [--id N] [--vrf V] [--af ipv4|ipv6]\n"
    "                                   ask for a fresh result\n"
    "  request list CLIENT [--vrf V] [--af ipv4|ipv6]\n"
    "\n"
    "Path results:\n"
    "  status CLIENT [--vrf V] [--af ipv4|ipv6] [--json]\n"
    "                                   every result of the client's tables\n"
    "  watch CLIENT [--vrf V] [--af ipv4|ipv6] [--count N] [--timeout SEC] [--json]\n"
    "                                   each result change as it comes; exits 0\n"
    "                                   after N changes, 1 at the timeout\n"
    "\n"
    "Offline computation (the agent's own CSPF on a topology file):\n"
    "  compute --topology FILE --source TE_ROUTER_ID [--tep ADDR]... [--exclude "
    "INTERFACE]\n"
    "          [--af ipv4|ipv6] [--tree] [--json]\n"
    "                                   --tree lists every settled router with its cost\n"
    "                                   and parents; --json prints one object per line\n"
    "\n"
    "The running agent, over its command channel (answers printed as sent):\n"
    "  dump                             the agent's internal state dump\n"
    "  sched-stats [detail] [debug] [history] [clear]\n"
    "                                   the agent's timer task statistics; clear\n"
    "                                   resets them\n"
    "\n"
    "The state tree's root is --root, else $CSPF_STATE_ROOT, else /dev/shm/cspf.\n"
    "Exit status: 0 ok, 1 a failure of the system, 2 a bad invocation or input.\n";

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
        std::vector<Command> commands = topologyCommands();
        for ( auto more : { computeCommands(), interfaceCommands(), stateCommands(),
                            clientCommands(), agentCommands() } ) {
            for ( Command& c : more ) {
                commands.push_back( std::move( c ) );
            }
        }
        for ( const Command& c : commands ) {
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
    } catch ( const Platform::DeserializationError& e ) {
        std::fprintf( stderr, "cspfctl: %s\n", e.what() );
        return 2;
    } catch ( const std::exception& e ) {
        std::fprintf( stderr, "cspfctl: %s\n", e.what() );
        return 1;
    }
}

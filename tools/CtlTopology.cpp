// cspfctl topo ...: the IS-IS side of tests, the demo and labs (load,
// import), and the topology as the agent's model sees it (show).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/Error.h"
#include "platform/StateTree.h"
#include "platform/TreeDir.h"
#include "records/TeConfig.h"
#include "records/VrfName.h"
#include "tools/Ctl.h"
#include "tools/OfflineTopology.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyImport.h"
#include "tools/TopologyLoad.h"
#include "topo/AllTopoDbSm.h"
#include "topo/AllTopoDbView.h"
#include "topo/TopoDb.h"

namespace Cspf::Ctl {

namespace {

// The model last loaded into a VRF, kept beside the tree (a dot name is
// never a table) so that edits can be made by name and written as a diff.
constexpr const char* kModelDir = ".cspfctl";

std::string modelName( const L3::VrfName& vrf ) {
    return "topology-" + vrf.name() + ".json";
}

std::string modelPath( const Platform::StateTree& tree, const L3::VrfName& vrf ) {
    return tree.root() + "/" + kModelDir + "/" + modelName( vrf );
}

// The model file, reached like every file of the tree: never through a link.
void saveModel( const Platform::StateTree& tree, const L3::VrfName& vrf,
                const TopoFile::Topology& topology ) {
    const Platform::TreeDir::Create how{ tree.dirMode(), tree.permissions().group };
    const Platform::TreeDir dir( tree.root(), kModelDir, &how );
    const std::string json = TopoFile::toJson( topology );
    const int fd = ::openat( dir.fd(), modelName( vrf ).c_str(),
                             O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                             tree.fileMode() );
    bool written = fd >= 0 && ::write( fd, json.data(), json.size() ) ==
                                  static_cast<ssize_t>( json.size() );
    const int err = errno;
    if ( fd >= 0 ) {
        ::close( fd );
    }
    if ( !written ) {
        throw Platform::Error( "cannot write " + modelPath( tree, vrf ) + ": " +
                               std::strerror( err ) );
    }
}

// The model's text; empty when none was loaded.
std::string readModel( const Platform::StateTree& tree, const L3::VrfName& vrf ) {
    const Platform::TreeDir dir( tree.root(), kModelDir );
    const int fd = dir.complete() ? ::openat( dir.fd(), modelName( vrf ).c_str(),
                                              O_RDONLY | O_NOFOLLOW | O_CLOEXEC )
                                  : -1;
    std::string text;
    char buf[65536];
    for ( ssize_t n; fd >= 0 && ( n = ::read( fd, buf, sizeof( buf ) ) ) > 0; ) {
        text.append( buf, static_cast<size_t>( n ) );
    }
    if ( fd >= 0 ) {
        ::close( fd );
    }
    return text;
}

int topoLoad( Args args, const std::string& root ) {
    const L3::VrfName vrf( takeOption( args, "--vrf", "default" ) );
    expectArgs( args, 1, "one topology FILE" );
    const Cspf::TopoFile::Topology topology = Cspf::TopoFile::loadTopologyFile( args[0] );
    Platform::StateTree tree( root );
    const auto summary = Cspf::TopoFile::loadIntoTree( topology, tree, vrf, args[0] );
    saveModel( tree, vrf, topology );
    std::printf( "loaded %s into vrf %s: %zu records, %zu written, %zu removed\n",
                 args[0].c_str(), vrf.name().c_str(), summary.records, summary.written,
                 summary.removed );
    return 0;
}

// Every edit: the loaded model, changed by `edit`, checked, kept and written
// into the level tables as a diff (unchanged records are not rewritten).
int topoEdit(
    Args& args, const std::string& root, size_t operands, const char* usage,
    const std::function<std::string( TopoFile::Topology&, const Args& )>& edit ) {
    const L3::VrfName vrf( takeOption( args, "--vrf", "default" ) );
    Platform::StateTree tree( root );
    const std::string model = readModel( tree, vrf );
    if ( model.empty() ) {
        throw UsageError( "no topology loaded into vrf " + vrf.name() + " under " +
                          tree.root() + " (cspfctl topo load FILE first)" );
    }
    TopoFile::Topology topology =
        TopoFile::parseTopology( model, modelPath( tree, vrf ) );
    expectArgs( args, operands, usage );
    const std::string what = edit( topology, args );
    TopoFile::validateTopology( topology, "the edited topology" );
    const auto summary = TopoFile::loadIntoTree( topology, tree, vrf );
    saveModel( tree, vrf, topology );
    std::printf( "%s: %zu written, %zu removed\n", what.c_str(), summary.written,
                 summary.removed );
    return 0;
}

// The attachments of `router` on `interface`: a link end (with its link) or
// LAN members. UsageError when there is none.
std::vector<TopoFile::Attachment*> attachments( TopoFile::Topology& topology,
                                                const std::string& router,
                                                const std::string& interface,
                                                TopoFile::Link** link ) {
    if ( !TopoFile::routerByName( topology, router ) ) {
        throw UsageError( "no router " + router + " in the loaded topology" );
    }
    const Net::IntfId intf( interface );
    std::vector<TopoFile::Attachment*> found;
    *link = nullptr;
    for ( auto& l : topology.links ) {
        for ( auto& end : l.ends ) {
            if ( end.router == router && end.interface == intf ) {
                found.push_back( &end );
                *link = &l;
            }
        }
    }
    for ( auto& lan : topology.lans ) {
        for ( auto& member : lan.members ) {
            if ( member.router == router && member.interface == intf ) {
                found.push_back( &member );
            }
        }
    }
    if ( found.empty() ) {
        throw UsageError( "router " + router + " has no interface " + interface );
    }
    return found;
}

int topoLink( Args args, const std::string& root ) {
    return topoEdit(
        args, root, 3, "down|up ROUTER INTERFACE",
        []( TopoFile::Topology& t, const Args& a ) {
            if ( a[0] != "down" && a[0] != "up" ) {
                throw UsageError( "topo link takes down or up, not '" + a[0] + "'" );
            }
            const bool up = a[0] == "up";
            TopoFile::Link* link;
            std::vector<TopoFile::Attachment*> ends = attachments( t, a[1], a[2], &link );
            if ( link ) {
                // Both routers stop (or start) advertising it.
                ends = { &link->ends[0], &link->ends[1] };
            }
            for ( TopoFile::Attachment* end : ends ) {
                end->advertise = up;
                end->record = up;
            }
            return "link " + a[1] + " " + a[2] + " " + a[0];
        } );
}

int topoMetric( Args args, const std::string& root ) {
    const bool te = takeFlag( args, "--te" );
    return topoEdit(
        args, root, 3, "ROUTER INTERFACE METRIC [--te]",
        [te]( TopoFile::Topology& t, const Args& a ) {
            if ( a[2].empty() ||
                 a[2].find_first_not_of( "0123456789" ) != std::string::npos ||
                 a[2].size() > 9 ) {
                throw UsageError( "METRIC must be a number, not '" + a[2] + "'" );
            }
            const uint32_t metric = uint32_t( std::stoul( a[2] ) );
            TopoFile::Link* link;
            for ( TopoFile::Attachment* end : attachments( t, a[0], a[1], &link ) ) {
                if ( te ) {
                    end->teMetric = metric;
                } else {
                    end->metric = metric;
                }
            }
            return std::string( te ? "TE metric" : "metric" ) + " of " + a[0] + " " +
                   a[1] + " " + a[2];
        } );
}

int topoOverload( Args args, const std::string& root ) {
    return topoEdit(
        args, root, 2, "ROUTER on|off", []( TopoFile::Topology& t, const Args& a ) {
            if ( a[1] != "on" && a[1] != "off" ) {
                throw UsageError( "topo overload takes on or off, not '" + a[1] + "'" );
            }
            for ( auto& router : t.routers ) {
                if ( router.name == a[0] ) {
                    router.overload = a[1] == "on";
                    return "overload of " + a[0] + " " + a[1];
                }
            }
            throw UsageError( "no router " + a[0] + " in the loaded topology" );
        } );
}

int topoRouterDel( Args args, const std::string& root ) {
    return topoEdit( args, root, 1, "ROUTER", []( TopoFile::Topology& t, const Args& a ) {
        const std::string& name = a[0];
        if ( !TopoFile::routerByName( t, name ) ) {
            throw UsageError( "no router " + name + " in the loaded topology" );
        }
        std::erase_if( t.routers,
                       [&]( const TopoFile::Router& r ) { return r.name == name; } );
        std::erase_if( t.links, [&]( const TopoFile::Link& l ) {
            return l.ends[0].router == name || l.ends[1].router == name;
        } );
        // A LAN goes with its designated router; others lose the member.
        std::erase_if( t.lans, [&]( const TopoFile::Lan& l ) { return l.dr == name; } );
        for ( auto& lan : t.lans ) {
            std::erase_if( lan.members, [&]( const TopoFile::LanMember& m ) {
                return m.router == name;
            } );
        }
        return "router " + name + " removed";
    } );
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

std::string metricText( const Routing::Topology::Neighbor& link ) {
    std::string text = "metric " + std::to_string( link.igpMetric() );
    if ( link.teMetricPresent() ) {
        text += " te " + std::to_string( link.teMetric() );
    }
    return text;
}

std::string addrsText( const Routing::Topology::AddrArray& addrs ) {
    std::string text;
    for ( const Net::IpGenAddr& addr : addrs ) {
        text += ( text.empty() ? "" : "," ) + addr.toString();
    }
    return text.empty() ? "-" : text;
}

// Why an advertised link is not in the model's router.
std::string refusal( const AllTopoDbView& view, const Routing::Topology::TopoDb& db,
                     const AllTopoNeighborKey& key, bool overload ) {
    if ( !db.neighborHas( key.neighborKey() ) ) {
        return "no link record";
    }
    if ( !view.twoWayCheckPassed( key ) ) {
        return key.neighborKey().isRouter() ? "fails the two-way check"
                                            : "the LAN does not list the router";
    }
    return overload ? "overloaded: no transit" : "excluded";
}

// Every router by TE router id with its usable links, its refused ones and its
// TEPs; then the LANs; then the TE router ids claimed twice.
void printModel( const AllTopoDb& allTopoDb, const AllTopoDbStatus& status,
                 const AllTopoDbView& view ) {
    std::map<Net::IpGenAddr, std::vector<std::pair<TopoId, Mpls::RouterId>>> routers;
    for ( const auto& [level, map] : status.routerIdMapColl() ) {
        for ( const auto& [te, igp] : map->igpRouterIdColl() ) {
            routers[te].push_back( { level, igp } );
        }
    }
    for ( const auto& [level, db] : allTopoDb.topoDbColl() ) {
        if ( db->routers().empty() && db->networks().empty() &&
             db->neighbors().empty() ) {
            continue;
        }
        std::printf( "level %s: %zu routers, %zu LANs, %zu links\n",
                     toString( level ).c_str(), db->routers().size(),
                     db->networks().size(), db->neighbors().size() );
    }
    for ( auto& [te, igps] : routers ) {
        std::sort( igps.begin(), igps.end() );
        const AllTopoRouter router = view.router( te );
        std::string where;
        bool overload = false;
        for ( const auto& [level, igp] : igps ) {
            const auto db = allTopoDb.topoDb( level );
            const bool over = db->router( igp ).overload();
            overload = overload || over;
            where += " " + toString( level ) + ":" + igp.toString() +
                     ( over ? " overload" : "" );
        }
        std::printf( "router %s%s\n", te.toString().c_str(), where.c_str() );
        std::vector<AllTopoNeighborKey> links( router.neighbor().begin(),
                                               router.neighbor().end() );
        std::sort( links.begin(), links.end() );
        for ( const AllTopoNeighborKey& key : links ) {
            const Routing::Topology::Neighbor link = view.neighbor( key );
            if ( key.neighborKey().isRouter() ) {
                std::printf( "  -> %-15s %s link %u  %s  %s -> %s\n",
                             key.teNeighborId().toString().c_str(),
                             toString( key.topoId() ).c_str(), key.neighborKey().linkId(),
                             metricText( link ).c_str(),
                             addrsText( link.interfaceAddrs() ).c_str(),
                             addrsText( link.neighborAddrs() ).c_str() );
            } else {
                std::printf( "  -> LAN %s %s  %s  %s\n",
                             key.neighborKey().networkId().stringValue().c_str(),
                             toString( key.topoId() ).c_str(), metricText( link ).c_str(),
                             addrsText( link.interfaceAddrs() ).c_str() );
            }
        }
        for ( const auto& [level, igp] : igps ) {
            const auto db = allTopoDb.topoDb( level );
            const Routing::Topology::Router record = db->router( igp );
            const auto map = status.routerIdMap( level );
            for ( const auto& k : record.neighborKeys() ) {
                AllTopoNeighborKey key( level, k, te );
                if ( k.isRouter() ) {
                    key.teNeighborIdIs( map->teRouterId( k.neighborRouterId() ) );
                }
                if ( !router.neighborHas( key ) ) {
                    std::printf( "  not usable: %s %s (%s)\n", toString( level ).c_str(),
                                 k.stringValue().c_str(),
                                 refusal( view, *db, key, overload ).c_str() );
                }
            }
        }
        std::vector<Net::IpGenAddr> teps( router.tep().begin(), router.tep().end() );
        std::sort( teps.begin(), teps.end() );
        std::string tepText;
        for ( const auto& tep : teps ) {
            tepText += " " + tep.toString();
        }
        std::printf( "  teps:%s\n", tepText.c_str() );
    }
    for ( const auto& [level, db] : allTopoDb.topoDbColl() ) {
        for ( const auto& [id, version] : db->networks() ) {
            const AllTopoNetwork lan = view.network( AllTopoNetworkId( level, id ) );
            std::vector<Net::IpGenAddr> members( lan.router().begin(),
                                                 lan.router().end() );
            std::sort( members.begin(), members.end() );
            std::string text;
            for ( const auto& m : members ) {
                text += " " + m.toString();
            }
            std::printf( "lan %s %s:%s\n", toString( level ).c_str(),
                         id.stringValue().c_str(), text.empty() ? " -" : text.c_str() );
        }
    }
    for ( const auto& [level, map] : status.routerIdMapColl() ) {
        for ( const auto& [te, duplicates] : map->duplicateRoutersColl() ) {
            for ( const auto& [igp, yes] : duplicates->routerColl() ) {
                std::printf(
                    "duplicate %s: %s claims TE router id %s, held by %s; ignored\n",
                    toString( level ).c_str(), igp.toString().c_str(),
                    te.toString().c_str(), map->igpRouterId( te ).toString().c_str() );
            }
        }
    }
}

int topoShow( Args args, const std::string& root ) {
    const std::string file = takeOption( args, "--topology", "" );
    const L3::VrfName vrf( takeOption( args, "--vrf", "default" ) );
    expectArgs( args, 0, "no further arguments" );
    if ( !file.empty() ) {
        OfflineTopology offline( TopoFile::loadTopologyFile( file ) );
        const auto view = offline.view( Net::IntfId(), Net::AddressFamily::ipv4 );
        printModel( *offline.allTopoDb(), *offline.allTopoDbStatus(), *view );
        return 0;
    }
    // Looking must not create: StateTree makes a missing root.
    if ( !std::filesystem::is_directory( root ) ) {
        throw Platform::Error( "no state tree at " + root );
    }
    Platform::StateTree tree( root );
    auto allTopoDb = Platform::create<AllTopoDb>();
    for ( int level = 1; level <= 2; ++level ) {
        if ( tree.exists( Routing::Topology::topoDbPath( level, vrf ) ) ) {
            allTopoDb->topoDbIs( level == 1 ? TopoId::isisL1 : TopoId::isisL2,
                                 Platform::create<Routing::Topology::TopoDb>(
                                     tree, nullptr, level, vrf ) );
        }
    }
    if ( !allTopoDb->topoDbs() ) {
        throw Platform::Error( "no IS-IS topology for vrf " + vrf.name() + " under " +
                               tree.root() );
    }
    auto status = Platform::create<AllTopoDbStatus>( nullptr );
    auto config = Platform::create<TrafficEngineering::Config>(
        tree, nullptr, TrafficEngineering::kConfigPath );
    auto sm = Platform::create<AllTopoDbSm>( allTopoDb, status, config );
    const AllTopoDbView view( allTopoDb, status, nullptr, nullptr, nullptr );
    printModel( *allTopoDb, *status, view );
    return 0;
}

}  // namespace

std::vector<Command> topologyCommands() {
    return {
        { { "topo", "load" }, topoLoad },
        { { "topo", "import" }, topoImport },
        { { "topo", "show" }, topoShow },
        { { "topo", "link" }, topoLink },
        { { "topo", "metric" }, topoMetric },
        { { "topo", "overload" }, topoOverload },
        { { "topo", "router", "del" }, topoRouterDel },
    };
}

}  // namespace Cspf::Ctl

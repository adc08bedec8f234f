// cspfctl compute: the agent's CSPF run on a topology file, offline.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "records/AddressFamily.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"
#include "tools/Ctl.h"
#include "tools/OfflineTopology.h"
#include "tools/TopologyFile.h"
#include "vrf/HopSelection.h"

namespace Cspf::Ctl {

namespace {

struct Settled {
    Net::IpGenAddr router;
    uint32_t cost = 0;
    std::vector<Net::IpGenAddr> parents;
};

// Settled routers by cost, then TE router id; parents sorted.
std::vector<Settled> settledOf( const CspfData& data ) {
    std::vector<Settled> settled;
    for ( const auto& [router, path] : data.shortestPathColl() ) {
        Settled s{ router, 0, {} };
        std::set<Net::IpGenAddr> parents;
        for ( const auto& [key, info] : path ) {
            s.cost = key.cost();
            parents.insert( key.allTopoNeighborKey().teNeighborOf() );
        }
        s.parents.assign( parents.begin(), parents.end() );
        settled.push_back( std::move( s ) );
    }
    std::sort( settled.begin(), settled.end(), []( const Settled& a, const Settled& b ) {
        return a.cost != b.cost ? a.cost < b.cost : a.router < b.router;
    } );
    return settled;
}

// The hops the agent would publish for a new request to `tep`, first hop
// first; `error` says why there are none when the topology cannot give any.
struct TepHops {
    std::vector<Net::IpGenAddr> hops;
    std::string error;
};

TepHops hopsOf( HopSelection& selection, const Net::IpGenAddr& tep ) {
    TepHops result;
    try {
        result.hops = selection.hops( tep, nullptr );
    } catch ( const Platform::Error& e ) {
        result.error = e.what();
    }
    return result;
}

std::string joined( const std::vector<Net::IpGenAddr>& addrs ) {
    std::string text;
    for ( const auto& a : addrs ) {
        text += ( text.empty() ? "" : " " ) + a.toString();
    }
    return text.empty() ? "-" : text;
}

int compute( Args args, const std::string& ) {
    const std::string file = takeOption( args, "--topology", "" );
    const std::string sourceText = takeOption( args, "--source", "" );
    const std::vector<std::string> tepTexts = takeOptions( args, "--tep" );
    const std::string exclude = takeOption( args, "--exclude", "" );
    const std::string afText = takeOption( args, "--af", "ipv4" );
    const bool tree = takeFlag( args, "--tree" );
    const bool json = takeFlag( args, "--json" );
    expectArgs( args, 0, "only options (see cspfctl --help)" );
    if ( file.empty() || sourceText.empty() ) {
        throw UsageError( "compute needs --topology FILE and --source TE_ROUTER_ID" );
    }
    if ( afText != "ipv4" && afText != "ipv6" ) {
        throw UsageError( "--af must be ipv4 or ipv6, not '" + afText + "'" );
    }
    const Net::AddressFamily af = Net::parseAddressFamily( afText );
    const Net::IpGenAddr source = Net::IpGenAddr::parse( sourceText, "--source" );
    std::vector<Net::IpGenAddr> teps;
    for ( const std::string& text : tepTexts ) {
        teps.push_back( Net::IpGenAddr::parse( text, "--tep" ) );
    }
    const Net::IntfId excluded = exclude.empty() ? Net::IntfId() : Net::IntfId( exclude );

    OfflineTopology offline( TopoFile::loadTopologyFile( file ) );
    const TopoFile::Router* router = offline.routerByTeRouterId( source );
    if ( !router ) {
        throw UsageError( "no router of " + file + " has TE router id " +
                          source.toString() );
    }
    offline.sourceIs( source );
    const Platform::Ptr<CspfData> data = offline.compute( teps, excluded, af );
    HopSelection selection( *data );

    if ( json ) {
        if ( tree ) {
            for ( const Settled& s : settledOf( *data ) ) {
                nlohmann::ordered_json line = {
                    { "router", s.router.toString() },
                    { "cost", s.cost },
                    { "parents", nlohmann::ordered_json::array() } };
                for ( const auto& p : s.parents ) {
                    line["parents"].push_back( p.toString() );
                }
                std::printf( "%s\n", line.dump().c_str() );
            }
        }
        for ( const Net::IpGenAddr& tep : teps ) {
            const Net::IpGenAddr owner = data->routerWithTep( tep );
            nlohmann::ordered_json line = { { "tep", tep.toString() },
                                            { "owner", nullptr },
                                            { "hops", nlohmann::ordered_json::array() } };
            if ( data->routerWithTepHas( tep ) ) {
                line["owner"] = owner.toString();
            }
            const TepHops hops = hopsOf( selection, tep );
            for ( const Net::IpGenAddr& hop : hops.hops ) {
                line["hops"].push_back( hop.toString() );
            }
            if ( !hops.error.empty() ) {
                line["error"] = hops.error;
            }
            std::printf( "%s\n", line.dump().c_str() );
        }
        return 0;
    }
    std::printf( "source %s (%s), %s%s\n", source.toString().c_str(),
                 router->name.c_str(), afText.c_str(),
                 exclude.empty() ? "" : ( ", excluding " + exclude ).c_str() );
    if ( tree ) {
        std::printf( "%-18s %10s  %s\n", "router", "cost", "parents" );
        for ( const Settled& s : settledOf( *data ) ) {
            std::printf( "%-18s %10u  %s\n", s.router.toString().c_str(), s.cost,
                         joined( s.parents ).c_str() );
        }
    }
    if ( !teps.empty() ) {
        std::printf( "%-18s %-18s %s\n", "tep", "owner", "hops" );
        for ( const Net::IpGenAddr& tep : teps ) {
            const TepHops hops = hopsOf( selection, tep );
            std::printf( "%-18s %-18s %s\n", tep.toString().c_str(),
                         data->routerWithTepHas( tep )
                             ? data->routerWithTep( tep ).toString().c_str()
                             : "(no path)",
                         hops.error.empty() ? joined( hops.hops ).c_str()
                                            : ( "(" + hops.error + ")" ).c_str() );
        }
    }
    return 0;
}

}  // namespace

std::vector<Command> computeCommands() {
    return { { { "compute" }, compute } };
}

}  // namespace Cspf::Ctl

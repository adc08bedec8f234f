// cspfctl client, request, status and watch: clients, their path requests
// and the agent's results.
//
// Every write goes through the client library (cspf::Client), the one way
// any client registers and asks, so cspfctl cannot write what a client would
// not. The library claims writership of the client's tables: a write on
// behalf of a client that runs elsewhere fails with the library's one line.
// Listing only reads, straight from the records, so it works beside a
// running client.
//
// Names, addresses and interfaces are checked here before the library sees
// them: a bad one is bad input (status 2), while the library's own refusals
// are failures of the system (status 1).
#include <poll.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "cspf/Client.h"
#include "platform/Entity.h"
#include "platform/Error.h"
#include "platform/StateTree.h"
#include "records/AddressFamily.h"
#include "records/AgentStatus.h"
#include "records/Client.h"
#include "records/ClientStatus.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"
#include "records/PathTables.h"
#include "records/VrfName.h"
#include "tools/Ctl.h"

namespace Cspf::Ctl {

namespace {

cspf::Family libraryFamily( Net::AddressFamily af ) {
    return af == Net::AddressFamily::ipv4 ? cspf::Family::ipv4 : cspf::Family::ipv6;
}

// One request and result table pair of a client.
struct TableRef {
    L3::VrfName vrf;
    Net::AddressFamily af;

    cspf::Table forLibrary() const { return { vrf.name(), libraryFamily( af ) }; }
    std::string text() const { return "vrf " + vrf.name() + " " + Net::toString( af ); }
};

// What --vrf and --af pick; unset picks every one the client lists.
struct Selection {
    std::optional<L3::VrfName> vrf;
    std::optional<Net::AddressFamily> af;

    bool picks( const cspf::Table& t ) const {
        return ( !vrf || vrf->name() == t.vrf ) &&
               ( !af || libraryFamily( *af ) == t.family );
    }
};

Net::AddressFamily parseAf( const std::string& text ) {
    if ( text != "ipv4" && text != "ipv6" ) {
        throw UsageError( "--af must be ipv4 or ipv6, not '" + text + "'" );
    }
    return Net::parseAddressFamily( text );
}

Selection takeSelection( Args& args ) {
    Selection s;
    if ( const auto vrf = takeOptional( args, "--vrf" ) ) {
        s.vrf = L3::VrfName( *vrf );
    }
    if ( const auto af = takeOptional( args, "--af" ) ) {
        s.af = parseAf( *af );
    }
    return s;
}

// Refuses a name that cannot be a client's (NameError) and a client that is
// not registered.
void expectClient( const Platform::StateTree& tree, const std::string& name ) {
    if ( !tree.exists( clientPath( name ) ) ) {
        throw UsageError( "no client '" + name + "' is registered (no " +
                          clientPath( name ) + ")" );
    }
}

// Collects what readers find corrupt; the listing goes on, and the command
// then fails with the first one.
class ReadProblems {
  public:
    template <typename Reader>
    void watch( Reader& reader ) {
        reader.corruptionHandlerIs( [this]( const Platform::Error& e ) {
            if ( first_.empty() ) {
                first_ = e.what();
            }
        } );
    }
    int status() const {
        if ( first_.empty() ) {
            return 0;
        }
        std::fflush( stdout );
        std::fprintf( stderr, "cspfctl: %s\n", first_.c_str() );
        return 1;
    }

  private:
    std::string first_;
};

// A reader of the table at `path`, or null when there is none: a reader
// makes the directories of a missing table, and looking must not.
template <typename Reader>
Platform::Ptr<Reader> readerOf( Platform::StateTree& tree, const std::string& path,
                                ReadProblems& problems ) {
    if ( !tree.exists( path ) ) {
        return nullptr;
    }
    auto reader = Platform::create<Reader>( tree, nullptr, path );
    problems.watch( *reader );
    return reader;
}

// The registration of a client known to be there.
Platform::Ptr<Client> registrationOf( Platform::StateTree& tree, const std::string& name,
                                      ReadProblems& problems ) {
    auto reg = Platform::create<Client>( tree, nullptr, clientPath( name ) );
    problems.watch( *reg );
    return reg;
}

// The tables a selection picks among those the client lists; naming a VRF
// or family the client does not list is refused.
std::vector<TableRef> tablesOf( const Client& reg, const Selection& s ) {
    if ( s.vrf && !reg.vrf( *s.vrf ) ) {
        throw UsageError( "client '" + reg.name() + "' does not list VRF " +
                          s.vrf->name() );
    }
    if ( s.af && !reg.addressFamily( *s.af ) ) {
        throw UsageError( "client '" + reg.name() + "' does not list " +
                          Net::toString( *s.af ) );
    }
    std::vector<TableRef> tables;
    for ( const L3::VrfName& vrf : s.vrf ? std::vector{ *s.vrf } : reg.vrfs() ) {
        for ( Net::AddressFamily af :
              s.af ? std::vector{ *s.af } : reg.addressFamilys() ) {
            tables.push_back( { vrf, af } );
        }
    }
    return tables;
}

std::string joined( const std::vector<std::string>& words ) {
    std::string text;
    for ( const std::string& w : words ) {
        text += ( text.empty() ? "" : " " ) + w;
    }
    return text.empty() ? "-" : text;
}

// The VRFs and the families a registration lists, as words ("-" for none).
std::pair<std::string, std::string> listedBy( const Client& reg ) {
    std::vector<std::string> vrfs, afs;
    for ( const L3::VrfName& vrf : reg.vrfs() ) {
        vrfs.push_back( vrf.name() );
    }
    for ( Net::AddressFamily af : reg.addressFamilys() ) {
        afs.push_back( Net::toString( af ) );
    }
    return { joined( vrfs ), joined( afs ) };
}

// Calls `fn( table, key, record )` for every sound record of the request
// tables (Config) or result tables (StatusReader) of client `name` that `s`
// picks; the exit status, 1 when a record was corrupt (reported).
template <typename Reader, typename Fn>
int eachRecord( const std::string& root, const std::string& name, const Selection& s,
                Fn fn ) {
    expectTree( root );
    Platform::StateTree tree( root );
    expectClient( tree, name );
    ReadProblems problems;
    auto reg = registrationOf( tree, name, problems );
    for ( const TableRef& t : tablesOf( *reg, s ) ) {
        const std::string path = std::is_same_v<Reader, Config>
                                     ? pathConfigTablePath( t.vrf, t.af, name )
                                     : pathStatusTablePath( t.vrf, t.af, name );
        auto table = readerOf<Reader>( tree, path, problems );
        if ( !table ) {
            continue;
        }
        for ( const auto& [key, version] : table->keys() ) {
            const auto record = table->get( key );
            if ( record.key == key ) {  // else gone since, or corrupt (reported)
                fn( t, key, record );
            }
        }
    }
    return problems.status();
}

// --- clients ---

int clientList( Args args, const std::string& root ) {
    expectArgs( args, 0, "no arguments: cspfctl client list" );
    expectTree( root );
    Platform::StateTree tree( root );
    ReadProblems problems;
    bool header = false;
    for ( const std::string& path : tree.listTables( kClientDirPath ) ) {
        const std::string name = path.substr( std::strlen( kClientDirPath ) + 1 );
        if ( name.find( '/' ) != std::string::npos ) {
            continue;  // not a registration
        }
        const auto [vrfs, afs] = listedBy( *registrationOf( tree, name, problems ) );
        if ( !header ) {
            std::printf( "%-20s %-30s %s\n", "client", "vrfs", "families" );
            header = true;
        }
        std::printf( "%-20s %-30s %s\n", name.c_str(), vrfs.c_str(), afs.c_str() );
    }
    return problems.status();
}

int clientShow( Args args, const std::string& root ) {
    expectArgs( args, 1, "one client NAME" );
    const std::string& name = args[0];
    expectTree( root );
    Platform::StateTree tree( root );
    expectClient( tree, name );
    ReadProblems problems;
    auto reg = registrationOf( tree, name, problems );
    const auto [vrfs, afs] = listedBy( *reg );
    std::printf( "client %s\nvrfs %s\nfamilies %s\n", name.c_str(), vrfs.c_str(),
                 afs.c_str() );
    for ( const TableRef& t : tablesOf( *reg, {} ) ) {
        auto config =
            readerOf<Config>( tree, pathConfigTablePath( t.vrf, t.af, name ), problems );
        auto status = readerOf<StatusReader>(
            tree, pathStatusTablePath( t.vrf, t.af, name ), problems );
        std::printf( "%s: %zu requests, %zu results\n", t.text().c_str(),
                     config ? config->pathConfigs() : 0,
                     status ? status->pathStatuses() : 0 );
    }
    auto agent = readerOf<AgentStatusReader>( tree, kAgentStatusPath, problems );
    std::printf( "agentEnabled %s\n",
                 agent && agent->run() == AgentRun::running && agent->agentEnabled()
                     ? "yes"
                     : "no" );
    // Why the agent does not serve the client, or some of its tables.
    auto refusals = readerOf<ClientStatusReader>( tree, kClientStatusPath, problems );
    const std::string why = refusals ? refusals->get( name ) : std::string();
    for ( size_t at = 0; at < why.size(); ) {
        const size_t end = std::min( why.find( '\n', at ), why.size() );
        std::printf( "not served: %s\n", why.substr( at, end - at ).c_str() );
        at = end + 1;
    }
    return problems.status();
}

int clientAdd( Args args, const std::string& root ) {
    std::vector<L3::VrfName> vrfs;
    for ( const std::string& v : takeOptions( args, "--vrf" ) ) {
        vrfs.emplace_back( v );
    }
    std::vector<Net::AddressFamily> afs;
    for ( const std::string& a : takeOptions( args, "--af" ) ) {
        afs.push_back( parseAf( a ) );
    }
    expectArgs( args, 1, "one client NAME and options (see cspfctl --help)" );
    const std::string& name = args[0];
    // A bad name is bad input, not the library's refusal.
    const bool known = Platform::StateTree( root ).exists( clientPath( name ) );
    // A new registration with nothing in it would ask for nothing.
    if ( !known && vrfs.empty() ) {
        vrfs.emplace_back();
    }
    if ( !known && afs.empty() ) {
        afs.push_back( Net::AddressFamily::ipv4 );
    }
    cspf::Client client( name, root );
    for ( const L3::VrfName& vrf : vrfs ) {
        client.vrfIs( vrf.name() );
    }
    for ( Net::AddressFamily af : afs ) {
        client.familyIs( libraryFamily( af ) );
    }
    std::vector<std::string> families;
    for ( cspf::Family f : client.families() ) {
        families.push_back( cspf::familyName( f ) );
    }
    std::printf( "client %s registered: vrfs %s, families %s\n", name.c_str(),
                 joined( client.vrfs() ).c_str(), joined( families ).c_str() );
    return 0;
}

int clientLeave( Args args, const std::string& root ) {
    expectArgs( args, 1, "one client NAME" );
    const std::string& name = args[0];
    expectTree( root );
    expectClient( Platform::StateTree( root ), name );
    cspf::Client client( name, root );
    client.leave();
    std::printf( "client %s left\n", name.c_str() );
    return 0;
}

// --- requests ---

// CLIENT DEST [--id N] [--vrf V] [--af ipv4|ipv6]: one request of a client.
struct RequestRef {
    std::string client;
    Net::IpGenAddr destination;
    uint32_t id = 0;
    TableRef table;

    std::string text() const {
        return destination.toString() + " id " + std::to_string( id ) + " of " + client +
               " (" + table.text() + ")";
    }
};

RequestRef takeRequest( Args& args, const char* usage ) {
    const auto id = takeOptional( args, "--id" );
    const Selection s = takeSelection( args );
    if ( args.size() != 2 ) {
        throw UsageError( std::string( "expected " ) + usage );
    }
    RequestRef r;
    r.client = args[0];
    clientPath( r.client );
    r.destination = Net::IpGenAddr::parse( args[1], "destination" );
    if ( r.destination.isAddrZero() ) {
        throw UsageError( "destination " + args[1] + " is not a tunnel end point" );
    }
    r.id = id ? static_cast<uint32_t>( parseNumber( *id, "--id", UINT32_MAX ) ) : 0;
    // The family follows the destination unless named; a request lives in
    // the table of its destination's family.
    r.table = { s.vrf.value_or( L3::VrfName() ), s.af.value_or( r.destination.af() ) };
    if ( r.table.af != r.destination.af() ) {
        throw UsageError( "destination " + r.destination.toString() + " is not " +
                          Net::toString( r.table.af ) );
    }
    return r;
}

std::optional<cspf::PathRequest> requestOf( const cspf::Client& client,
                                            const RequestRef& r ) {
    for ( const cspf::PathRequest& p : client.requests( r.table.forLibrary() ) ) {
        if ( p.id == r.id &&
             Net::IpGenAddr::parse( p.destination, "destination" ) == r.destination ) {
            return p;
        }
    }
    return std::nullopt;
}

int requestAdd( Args args, const std::string& root ) {
    const auto exclude = takeOptional( args, "--exclude" );
    const bool noAutoUpdate = takeFlag( args, "--no-auto-update" );
    const RequestRef r =
        takeRequest( args,
                     "CLIENT DEST [--id N] [--vrf V] [--af ipv4|ipv6] [--exclude INTF] "
                     "[--no-auto-update]" );
    if ( exclude ) {
        // NameError for a name no interface can have.
        static_cast<void>( Net::IntfId( *exclude ) );
    }
    expectTree( root );
    expectClient( Platform::StateTree( root ), r.client );
    cspf::Client client( r.client, root );
    const auto before = requestOf( client, r );
    cspf::PathRequest request;
    request.destination = r.destination.toString();
    request.id = r.id;
    request.excludeInterface = exclude.value_or( "" );
    request.autoUpdate = !noAutoUpdate;
    const bool same = before && before->excludeInterface == request.excludeInterface &&
                      before->autoUpdate == request.autoUpdate;
    client.requestIs( r.table.forLibrary(), request );
    std::printf( "request %s %s\n", r.text().c_str(),
                 !before ? "added"
                 : same  ? "unchanged"
                         : "changed" );
    return 0;
}

// The client of an existing request, opened to change it: removing or
// refreshing nothing is a mistake.
std::unique_ptr<cspf::Client> clientWithRequest( const std::string& root,
                                                 const RequestRef& r ) {
    expectTree( root );
    expectClient( Platform::StateTree( root ), r.client );
    auto client = std::make_unique<cspf::Client>( r.client, root );
    if ( !requestOf( *client, r ) ) {
        throw UsageError( "no request " + r.text() );
    }
    return client;
}

int requestDel( Args args, const std::string& root ) {
    const RequestRef r =
        takeRequest( args, "CLIENT DEST [--id N] [--vrf V] [--af ipv4|ipv6]" );
    clientWithRequest( root, r )->requestDel( r.table.forLibrary(),
                                              r.destination.toString(), r.id );
    std::printf( "request %s removed\n", r.text().c_str() );
    return 0;
}

int requestRefresh( Args args, const std::string& root ) {
    const RequestRef r =
        takeRequest( args, "CLIENT DEST [--id N] [--vrf V] [--af ipv4|ipv6]" );
    const uint32_t seq = clientWithRequest( root, r )->refresh(
        r.table.forLibrary(), r.destination.toString(), r.id );
    std::printf( "request %s refreshed: refreshReqSeq %u\n", r.text().c_str(), seq );
    return 0;
}

int requestList( Args args, const std::string& root ) {
    const Selection s = takeSelection( args );
    expectArgs( args, 1, "one CLIENT and options (see cspfctl --help)" );
    bool header = false;
    return eachRecord<Config>(
        root, args[0], s,
        [&]( const TableRef& t, const PathKey& key, const PathConfig& c ) {
            if ( !header ) {
                std::printf( "%-12s %-5s %-24s %10s  %-16s %-10s %s\n", "vrf", "af",
                             "destination", "id", "exclude", "autoUpdate",
                             "refreshReqSeq" );
                header = true;
            }
            const std::string exclude = c.constraint.excludeInterface.empty()
                                            ? "-"
                                            : c.constraint.excludeInterface.name();
            std::printf( "%-12s %-5s %-24s %10u  %-16s %-10s %u\n", t.vrf.name().c_str(),
                         Net::toString( t.af ).c_str(),
                         key.destination.toString().c_str(), key.id, exclude.c_str(),
                         c.autoUpdate ? "yes" : "no", c.refreshReqSeq );
        } );
}

// --- results ---

// The columns of a result line, for status and watch alike.
void printResultHeader() {
    std::printf( "%-12s %-5s %-24s %10s %11s %14s %14s  %s\n", "vrf", "af", "destination",
                 "id", "changeCount", "refreshRespSeq", "lastUpdated", "hops" );
}

void printResult( const std::string& vrf, const std::string& af,
                  const std::string& destination, uint32_t id,
                  const cspf::PathResult* result, bool json ) {
    if ( json ) {
        nlohmann::ordered_json line = {
            { "vrf", vrf }, { "af", af }, { "destination", destination }, { "id", id } };
        if ( !result ) {
            line["removed"] = true;
        } else {
            line["hops"] = result->hops;
            line["changeCount"] = result->changeCount;
            line["refreshRespSeq"] = result->refreshRespSeq;
            line["lastUpdated"] = result->lastUpdated;
        }
        std::printf( "%s\n", line.dump().c_str() );
        return;
    }
    if ( !result ) {
        std::printf( "%-12s %-5s %-24s %10u %11s %14s %14s  %s\n", vrf.c_str(),
                     af.c_str(), destination.c_str(), id, "-", "-", "-", "removed" );
        return;
    }
    const std::string hops = result->hops.empty() ? "no path" : joined( result->hops );
    std::printf( "%-12s %-5s %-24s %10u %11u %14u %14.3f  %s\n", vrf.c_str(), af.c_str(),
                 destination.c_str(), id, result->changeCount, result->refreshRespSeq,
                 result->lastUpdated, hops.c_str() );
}

cspf::PathResult resultOf( const PathStatus& s ) {
    cspf::PathResult r;
    r.destination = s.key.destination.toString();
    r.id = s.key.id;
    r.refreshRespSeq = s.refreshRespSeq;
    r.changeCount = s.changeCount;
    r.lastUpdated = s.lastUpdated;
    for ( size_t i = 0; i < s.hops.size(); ++i ) {
        r.hops.push_back( s.hops[HopIndex( static_cast<uint32_t>( i ) )].toString() );
    }
    return r;
}

int status( Args args, const std::string& root ) {
    const Selection s = takeSelection( args );
    const bool json = takeFlag( args, "--json" );
    expectArgs( args, 1, "one CLIENT and options (see cspfctl --help)" );
    bool header = json;
    return eachRecord<StatusReader>(
        root, args[0], s,
        [&]( const TableRef& t, const PathKey&, const PathStatus& status ) {
            const cspf::PathResult r = resultOf( status );
            if ( !header ) {
                printResultHeader();
                header = true;
            }
            printResult( t.vrf.name(), Net::toString( t.af ), r.destination, r.id, &r,
                         json );
        } );
}

// Seconds, possibly with a fraction: "10", "0.5".
double parseSeconds( const std::string& text ) {
    char* end = nullptr;
    errno = 0;
    const double sec = text.empty() || text[0] == '-' || text[0] == '+' ||
                               std::isspace( static_cast<unsigned char>( text[0] ) )
                           ? -1
                           : std::strtod( text.c_str(), &end );
    if ( sec < 0 || errno != 0 || end != text.c_str() + text.size() ||
         !std::isfinite( sec ) || sec > 1e9 ) {
        throw UsageError( "--timeout takes seconds, not '" + text + "'" );
    }
    return sec;
}

int watch( Args args, const std::string& root ) {
    const Selection s = takeSelection( args );
    const bool json = takeFlag( args, "--json" );
    const auto countText = takeOptional( args, "--count" );
    const auto timeoutText = takeOptional( args, "--timeout" );
    expectArgs( args, 1, "one CLIENT and options (see cspfctl --help)" );
    const std::string& name = args[0];
    const std::optional<uint64_t> count =
        countText ? std::optional( parseNumber( *countText, "--count", UINT32_MAX ) )
                  : std::nullopt;
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> deadline;
    if ( timeoutText ) {
        deadline = Clock::now() +
                   std::chrono::duration_cast<Clock::duration>(
                       std::chrono::duration<double>( parseSeconds( *timeoutText ) ) );
    }
    expectTree( root );
    {
        Platform::StateTree tree( root );
        expectClient( tree, name );
        ReadProblems problems;
        tablesOf( *registrationOf( tree, name, problems ), s );  // refuses what it lacks
    }
    // Read-only beside the client's own process, which keeps its tables.
    cspf::Client client( name, root, cspf::Client::Access::observe );
    uint64_t seen = 0;
    client.watchIs( [&]( const cspf::ResultChange& change ) {
        if ( !s.picks( change.table ) || ( count && seen >= *count ) ) {
            return;
        }
        ++seen;
        printResult( change.table.vrf, cspf::familyName( change.table.family ),
                     change.destination, change.id,
                     change.result ? &*change.result : nullptr, json );
        // A reader at the other end of a pipe sees each change as it comes.
        std::fflush( stdout );
    } );
    if ( !json ) {
        printResultHeader();
        std::fflush( stdout );
    }
    while ( !count || seen < *count ) {
        int waitMs = -1;
        if ( deadline ) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>( *deadline - Clock::now() );
            if ( left.count() <= 0 ) {
                if ( !count ) {
                    return 0;  // the time to watch is over: nothing was awaited
                }
                std::fflush( stdout );
                std::fprintf( stderr, "cspfctl: timeout after %llu of %llu changes\n",
                              static_cast<unsigned long long>( seen ),
                              static_cast<unsigned long long>( *count ) );
                return 1;
            }
            waitMs = static_cast<int>( std::min<int64_t>( left.count(), INT32_MAX ) );
        }
        pollfd pfd{ client.fd(), POLLIN, 0 };
        const int n = ::poll( &pfd, 1, waitMs );
        if ( n < 0 && errno != EINTR ) {
            throw Platform::Error( std::string( "poll: " ) + std::strerror( errno ) );
        }
        if ( n > 0 ) {
            client.process();
        }
    }
    return 0;
}

}  // namespace

std::vector<Command> clientCommands() {
    return {
        { { "client", "list" }, clientList },
        { { "client", "show" }, clientShow },
        { { "client", "add" }, clientAdd },
        { { "client", "leave" }, clientLeave },
        { { "request", "add" }, requestAdd },
        { { "request", "del" }, requestDel },
        { { "request", "refresh" }, requestRefresh },
        { { "request", "list" }, requestList },
        { { "status" }, status },
        { { "watch" }, watch },
    };
}

}  // namespace Cspf::Ctl

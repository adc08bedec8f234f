// The agent's CSPF run, through its own view and tables (OfflineTopology),
// against a shortest-path computation written here from the topology file
// alone. The reference knows nothing of the agent: it turns the file into
// directed links by the rules the agent must follow and runs a plain Dijkstra.
//
//   Reference              the file's rules, the graph and the Dijkstra
//   expectSameAsReference  costs, settled routers and LANs, parents, TEP owners
//   Build                  small topologies written out by hand
//   generated topologies   hundreds of random ones with every fault switched on
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <queue>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "cspf/CspfData.h"
#include "tools/OfflineTopology.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyGenerate.h"

using namespace Cspf::TopoFile;
using Net::AddressFamily;
using Net::IntfId;
using Net::IpGenAddr;

namespace {

#if defined( __SANITIZE_ADDRESS__ )
constexpr bool kSanitized = true;
#elif defined( __has_feature )
#if __has_feature( address_sanitizer )
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

constexpr uint64_t kMaxPathMetric = 4261412863;
constexpr uint64_t kUnreached = UINT64_MAX;
constexpr size_t kNoLan = SIZE_MAX;

// ---------------------------------------------------------------------------
// The reference

std::vector<IpGenAddr> addressesOf( const Attachment& a ) {
    std::vector<IpGenAddr> out;
    if ( a.ipv4 ) {
        out.push_back( a.ipv4->addr );
    }
    if ( a.ipv6 ) {
        out.push_back( a.ipv6->addr );
    }
    return out;
}

bool anyIn( const std::vector<IpGenAddr>& some, const std::vector<IpGenAddr>& in ) {
    for ( const IpGenAddr& a : some ) {
        for ( const IpGenAddr& b : in ) {
            if ( a == b ) {
                return true;
            }
        }
    }
    return false;
}

// A LAN as the agent names it: level, the designated router's system id as
// a number, pseudonode.
using LanName = std::tuple<unsigned, uint64_t, uint32_t>;

uint64_t systemIdValue( const SystemId& id ) {
    uint64_t v = 0;
    for ( uint8_t b : id ) {
        v = v << 8 | b;
    }
    return v;
}

// One router's side of an adjacency, as the file describes it.
struct Adjacency {
    size_t router = 0;
    size_t far = 0;       // point-to-point: the far router
    size_t lan = kNoLan;  // a LAN membership: the LAN's index
    uint8_t level = 0;
    const Attachment* attachment = nullptr;
    std::vector<IpGenAddr> interfaceAddrs;
    std::vector<IpGenAddr>
        neighborAddrs;  // point-to-point: what it reports of the far end

    // The router lists it and its record exists.
    bool present() const { return attachment->advertise && attachment->record; }
    uint32_t metric() const {
        return attachment->teMetric ? *attachment->teMetric : attachment->metric;
    }
};

// Nodes: router i is node i; every router without a TE router id is reached
// as one node, the unset address, since that is the far end its links name;
// LAN l is a node of its own.
class Reference {
  public:
    Reference( const Topology& t, size_t source, const IntfId& exclude, AddressFamily af )
        : t_( t ), n_( t.routers.size() ), source_( source ) {
        for ( size_t i = 0; i < n_; ++i ) {
            index_[t.routers[i].name] = i;
        }
        out_.resize( n_ + 1 + t.lans.size() );
        in_.resize( out_.size() );
        teps_.resize( n_ );
        doAdjacencies();
        doExcluded( exclude, af );
        doEdges();
        doDijkstra();
    }

    size_t emptyNode() const { return n_; }
    size_t lanNode( size_t l ) const { return n_ + 1 + l; }
    bool hasTeRouterId( size_t i ) const { return t_.routers[i].teRouterId.has_value(); }
    IpGenAddr idOf( size_t node ) const {
        return node < n_ ? *t_.routers[node].teRouterId : IpGenAddr();
    }

    std::map<IpGenAddr, uint64_t> settledRouters() const {
        std::map<IpGenAddr, uint64_t> out;
        for ( size_t v = 0; v <= n_; ++v ) {
            if ( dist_[v] != kUnreached && ( v == n_ || hasTeRouterId( v ) ) ) {
                out[idOf( v )] = dist_[v];
            }
        }
        return out;
    }

    std::map<LanName, uint64_t> settledLans() const {
        std::map<LanName, uint64_t> out;
        for ( size_t l = 0; l < t_.lans.size(); ++l ) {
            if ( dist_[lanNode( l )] != kUnreached ) {
                const Lan& lan = t_.lans[l];
                out[{ lan.level,
                      systemIdValue( t_.routers[index_.at( lan.dr )].systemId ),
                      lan.pseudonode }] = dist_[lanNode( l )];
            }
        }
        return out;
    }

    // The routers u with dist(u) + w(u->v) == dist(v); through a LAN, w is
    // u's metric into the LAN.
    std::set<IpGenAddr> parents( const IpGenAddr& id ) const {
        const size_t v = nodeOf( id );
        std::set<IpGenAddr> out;
        for ( const auto& [u, w] : in_[v] ) {
            if ( u < n_ && dist_[u] != kUnreached && dist_[u] + w == dist_[v] ) {
                out.insert( idOf( u ) );
            }
            if ( u > n_ ) {
                for ( const auto& [x, wx] : in_[u] ) {
                    if ( dist_[x] != kUnreached && dist_[x] + wx == dist_[v] ) {
                        out.insert( idOf( x ) );
                    }
                }
            }
        }
        return out;
    }

    // The settled routers other than the source that advertise `tep` at the
    // smallest cost among them; empty when none does.
    std::set<IpGenAddr> cheapestOwners( const IpGenAddr& tep ) const {
        std::set<IpGenAddr> out;
        uint64_t best = kUnreached;
        for ( size_t v = 0; v < n_; ++v ) {
            if ( v == source_ || dist_[v] == kUnreached || !teps_[v].count( tep ) ) {
                continue;
            }
            if ( dist_[v] < best ) {
                best = dist_[v];
                out.clear();
            }
            if ( dist_[v] == best ) {
                out.insert( idOf( v ) );
            }
        }
        return out;
    }

  private:
    size_t nodeOf( const IpGenAddr& id ) const {
        for ( size_t i = 0; i < n_; ++i ) {
            if ( hasTeRouterId( i ) && idOf( i ) == id ) {
                return i;
            }
        }
        return n_;
    }

    void doAdjacencies() {
        for ( const Link& link : t_.links ) {
            for ( size_t e = 0; e < 2; ++e ) {
                const LinkEnd& end = link.ends[e];
                Adjacency a;
                a.router = index_.at( end.router );
                a.far = index_.at( link.ends[1 - e].router );
                a.level = link.level;
                a.attachment = &end;
                a.interfaceAddrs = addressesOf( end );
                for ( const IpGenAddr& far : addressesOf( link.ends[1 - e] ) ) {
                    if ( far.isV4() && end.neighborAddress4 ) {
                        a.neighborAddrs.push_back( *end.neighborAddress4 );
                    } else if ( far.isV6() && end.neighborAddress6 ) {
                        a.neighborAddrs.push_back( *end.neighborAddress6 );
                    } else {
                        a.neighborAddrs.push_back( far );
                    }
                }
                adjacencies_.push_back( a );
            }
        }
        for ( size_t l = 0; l < t_.lans.size(); ++l ) {
            for ( const LanMember& m : t_.lans[l].members ) {
                Adjacency a;
                a.router = index_.at( m.router );
                a.lan = l;
                a.level = t_.lans[l].level;
                a.attachment = &m;
                a.interfaceAddrs = addressesOf( m );
                adjacencies_.push_back( a );
            }
        }
    }

    // The addresses of the excluded interface: those the source's own
    // attachments with that name carry in the computation's family.
    void doExcluded( const IntfId& exclude, AddressFamily af ) {
        for ( const Adjacency& a : adjacencies_ ) {
            if ( exclude.empty() || a.router != source_ ||
                 a.attachment->interface != exclude ) {
                continue;
            }
            const auto& addr =
                af == AddressFamily::ipv4 ? a.attachment->ipv4 : a.attachment->ipv6;
            if ( addr ) {
                excluded_.push_back( addr->addr );
            }
        }
    }

    // Both ends list the adjacency with a record, and some adjacency of the
    // far router back to this one confirms the addresses both ways.
    bool twoWay( const Adjacency& a ) const {
        if ( !a.present() ) {
            return false;
        }
        for ( const Adjacency& b : adjacencies_ ) {
            if ( b.lan == kNoLan && b.level == a.level && b.router == a.far &&
                 b.far == a.router && b.present() &&
                 anyIn( a.neighborAddrs, b.interfaceAddrs ) &&
                 anyIn( b.neighborAddrs, a.interfaceAddrs ) ) {
                return true;
            }
        }
        return false;
    }

    void doEdge( size_t from, size_t to, uint64_t weight ) {
        out_[from].push_back( { to, weight } );
        in_[to].push_back( { from, weight } );
    }

    void doEdges() {
        for ( const Adjacency& a : adjacencies_ ) {
            const size_t r = a.router;
            if ( !hasTeRouterId( r ) ) {
                continue;  // never reached as itself
            }
            if ( r == source_ && anyIn( a.interfaceAddrs, excluded_ ) ) {
                continue;
            }
            if ( !( a.lan == kNoLan ? twoWay( a ) : a.present() ) ) {
                continue;
            }
            for ( const IpGenAddr& addr : a.interfaceAddrs ) {
                teps_[r].insert( addr );
            }
            if ( t_.routers[r].overload && r != source_ ) {
                continue;  // an end point, not a transit
            }
            if ( a.metric() == 0 ) {
                continue;
            }
            size_t to = lanNode( a.lan );
            if ( a.lan == kNoLan ) {
                to = hasTeRouterId( a.far ) ? a.far : emptyNode();
            }
            doEdge( r, to, a.metric() );
        }
        // Leaving a LAN is free, towards every member that confirms it.
        for ( const Adjacency& a : adjacencies_ ) {
            if ( a.lan != kNoLan && hasTeRouterId( a.router ) && a.present() ) {
                doEdge( lanNode( a.lan ), a.router, 0 );
            }
        }
        for ( size_t i = 0; i < n_; ++i ) {
            if ( hasTeRouterId( i ) ) {
                teps_[i].insert( idOf( i ) );
            }
        }
    }

    void doDijkstra() {
        dist_.assign( out_.size(), kUnreached );
        using Entry = std::pair<uint64_t, size_t>;
        std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> queue;
        dist_[source_] = 0;
        queue.push( { 0, source_ } );
        while ( !queue.empty() ) {
            const auto [d, u] = queue.top();
            queue.pop();
            if ( d != dist_[u] ) {
                continue;
            }
            for ( const auto& [v, w] : out_[u] ) {
                if ( d + w <= kMaxPathMetric && d + w < dist_[v] ) {
                    dist_[v] = d + w;
                    queue.push( { d + w, v } );
                }
            }
        }
    }

    const Topology& t_;
    const size_t n_;
    const size_t source_;
    std::map<std::string, size_t> index_;
    std::vector<Adjacency> adjacencies_;
    std::vector<IpGenAddr> excluded_;
    std::vector<std::vector<std::pair<size_t, uint64_t>>> out_;
    std::vector<std::vector<std::pair<size_t, uint64_t>>> in_;
    std::vector<std::set<IpGenAddr>> teps_;
    std::vector<uint64_t> dist_;
};

// ---------------------------------------------------------------------------
// The comparison

std::string text( const std::set<IpGenAddr>& s ) {
    std::string out = "{";
    for ( const IpGenAddr& a : s ) {
        out += ( out.size() > 1 ? " " : "" ) + a.toString();
    }
    return out + "}";
}

// Collects differences; reports the first few, naming what to rerun.
class Differences {
  public:
    explicit Differences( std::string context ) : context_( std::move( context ) ) {}
    ~Differences() {
        if ( count_ ) {
            ADD_FAILURE() << context_ << ": " << count_ << " difference(s)" << lines_;
        }
    }
    void add( const std::string& line ) {
        if ( ++count_ <= 12 ) {
            lines_ += "\n  " + line;
        }
    }

  private:
    std::string context_;
    std::string lines_;
    size_t count_ = 0;
};

uint64_t costOf( const Cspf::CspfPath& path ) {
    return path.lastLinks() ? path.begin()->second.cost() : 0;
}

std::set<IpGenAddr> parentsOf( const Cspf::CspfPath& path ) {
    std::set<IpGenAddr> out;
    for ( const auto& [key, info] : path ) {
        out.insert( key.allTopoNeighborKey().teNeighborOf() );
    }
    return out;
}

void expectSameAsReference( const Cspf::CspfData& data, const Reference& ref,
                            const std::vector<IpGenAddr>& teps,
                            const std::string& context ) {
    Differences diff( context );
    const std::map<IpGenAddr, uint64_t> want = ref.settledRouters();
    for ( const auto& [id, path] : data.shortestPathColl() ) {
        for ( const auto& [key, info] : path ) {
            if ( info.cost() != costOf( path ) ) {
                diff.add( "router " + id.toString() + ": last links of unequal cost" );
            }
        }
        auto it = want.find( id );
        if ( it == want.end() ) {
            diff.add( "router " + id.toString() + ": settled at " +
                      std::to_string( costOf( path ) ) + ", expected unreached" );
            continue;
        }
        if ( costOf( path ) != it->second ) {
            diff.add( "router " + id.toString() + ": cost " +
                      std::to_string( costOf( path ) ) + ", expected " +
                      std::to_string( it->second ) );
            continue;
        }
        if ( parentsOf( path ) != ref.parents( id ) ) {
            diff.add( "router " + id.toString() + ": parents " +
                      text( parentsOf( path ) ) + ", expected " +
                      text( ref.parents( id ) ) );
        }
    }
    for ( const auto& [id, cost] : want ) {
        if ( !data.shortestPathHas( id ) ) {
            diff.add( "router " + id.toString() + ": unreached, expected cost " +
                      std::to_string( cost ) );
        }
    }

    std::map<LanName, uint64_t> lans;
    for ( const auto& [id, cost] : data.shortestPathForNetworkColl() ) {
        const Mpls::RouterId& dr = id.networkId().dr;
        lans[{ unsigned( id.topoId() ),
               uint64_t{ dr.rtrIdValue() } << 16 | dr.lblSpaceValue(),
               id.networkId().pseudonode }] = cost;
    }
    if ( lans != ref.settledLans() ) {
        diff.add( "settled LANs differ: " + std::to_string( lans.size() ) + " against " +
                  std::to_string( ref.settledLans().size() ) + " expected" );
    }

    for ( const IpGenAddr& tep : teps ) {
        const std::set<IpGenAddr> owners = ref.cheapestOwners( tep );
        const bool found = data.routerWithTepHas( tep );
        const IpGenAddr got = data.routerWithTep( tep );
        if ( owners.empty() ? found : !found || !owners.count( got ) ) {
            diff.add( "TEP " + tep.toString() + ": owner " +
                      ( found ? got.toString() : "none" ) + ", expected " +
                      ( owners.empty() ? "none" : "one of " + text( owners ) ) );
        }
    }
}

// Every TE router id and interface address of the file, and two that no
// router has.
std::vector<IpGenAddr> allTeps( const Topology& t ) {
    std::set<IpGenAddr> all = { IpGenAddr( "192.0.2.1" ),
                                IpGenAddr( "2001:db8:dead::1" ) };
    for ( const Router& r : t.routers ) {
        if ( r.teRouterId ) {
            all.insert( *r.teRouterId );
        }
    }
    for ( const Link& link : t.links ) {
        for ( const LinkEnd& end : link.ends ) {
            for ( const IpGenAddr& a : addressesOf( end ) ) {
                all.insert( a );
            }
        }
    }
    for ( const Lan& lan : t.lans ) {
        for ( const LanMember& m : lan.members ) {
            for ( const IpGenAddr& a : addressesOf( m ) ) {
                all.insert( a );
            }
        }
    }
    return { all.begin(), all.end() };
}

size_t indexOf( const Topology& t, const std::string& name ) {
    for ( size_t i = 0; i < t.routers.size(); ++i ) {
        if ( t.routers[i].name == name ) {
            return i;
        }
    }
    ADD_FAILURE() << "no router " << name;
    return 0;
}

// One computation from `source` by the agent, checked against the reference.
Platform::Ptr<Cspf::CspfData> computeAndCompare( Cspf::OfflineTopology& offline,
                                                 size_t source,
                                                 const std::vector<IpGenAddr>& teps,
                                                 const IntfId& exclude, AddressFamily af,
                                                 const std::string& context ) {
    const Topology& t = offline.topology();
    if ( offline.source() != *t.routers[source].teRouterId ) {
        offline.sourceIs( *t.routers[source].teRouterId );
    }
    Platform::Ptr<Cspf::CspfData> data = offline.compute( teps, exclude, af );
    const Reference ref( t, source, exclude, af );
    expectSameAsReference( *data, ref, teps,
                           context + ", source " + t.routers[source].name +
                               ", exclude '" + exclude.name() + "', af " +
                               Net::toString( af ) );
    return data;
}

// ---------------------------------------------------------------------------
// Hand-built topologies

// Routers get system id n and TE router id 10.0.0.n in order from 1, levels
// [2]; every link end gets an interface and address of its own, as does every
// LAN member (10.2.<lan>.<member>/24).
class Build {
  public:
    Build& router( const std::string& name ) {
        Router r;
        r.name = name;
        r.systemId[5] = static_cast<uint8_t>( t.routers.size() + 1 );
        r.systemId[4] = static_cast<uint8_t>( ( t.routers.size() + 1 ) >> 8 );
        r.teRouterId = te( t.routers.size() );
        r.levels = { 2 };
        t.routers.push_back( r );
        return *this;
    }
    Build& routers( std::initializer_list<const char*> names ) {
        for ( const char* n : names ) {
            router( n );
        }
        return *this;
    }
    // `ab` is what a advertises (the cost from a to b), `ba` the other way.
    Link& link( const std::string& a, const std::string& b, uint32_t ab, uint32_t ba ) {
        Link& link = t.links.emplace_back();
        link.level = 2;
        const uint32_t k = static_cast<uint32_t>( t.links.size() - 1 );
        attach( link.ends[0], a, ab, IpGenAddr::v4( 0x0a010000 + 2 * k ), 31 );
        attach( link.ends[1], b, ba, IpGenAddr::v4( 0x0a010000 + 2 * k + 1 ), 31 );
        return link;
    }
    Lan& lan( const std::string& dr,
              std::initializer_list<std::pair<const char*, uint32_t>> members ) {
        Lan& lan = t.lans.emplace_back();
        const uint32_t l = static_cast<uint32_t>( t.lans.size() - 1 );
        lan.level = 2;
        lan.dr = dr;
        lan.pseudonode = 1 + static_cast<uint8_t>( l % 255 );
        uint32_t m = 1;
        for ( const auto& [name, metric] : members ) {
            attach( lan.members.emplace_back(), name, metric,
                    IpGenAddr::v4( 0x0a020000 + 256 * l + m++ ), 24 );
        }
        return lan;
    }
    IpGenAddr te( const std::string& name ) const { return te( indexOf( t, name ) ); }

    Topology t;

  private:
    static IpGenAddr te( size_t i ) {
        return IpGenAddr::v4( 0x0a000001 + static_cast<uint32_t>( i ) );
    }
    void attach( Attachment& a, const std::string& router, uint32_t metric,
                 const IpGenAddr& addr, uint8_t prefix ) {
        a.router = router;
        a.interface = IntfId( "Ethernet" + std::to_string( ++interfaces_[router] ) );
        a.metric = metric;
        a.ipv4 = Address{ addr, prefix };
    }
    std::map<std::string, uint32_t> interfaces_;
};

// Runs the agent from `source` on `b.t` with every TEP of the file wanted,
// checks it against the reference and hands the data over for the test's
// own expectations.
Platform::Ptr<Cspf::CspfData> runHandBuilt( const Build& b, const std::string& source,
                                            const IntfId& exclude = IntfId(),
                                            AddressFamily af = AddressFamily::ipv4 ) {
    validateTopology( b.t, "hand-built" );
    Cspf::OfflineTopology offline( b.t );
    return computeAndCompare( offline, indexOf( b.t, source ), allTeps( b.t ), exclude,
                              af, "hand-built" );
}

uint64_t costOf( const Cspf::CspfData& data, const IpGenAddr& router ) {
    return costOf( data.shortestPath( router ) );
}

// 254 hops of the largest metric cost 4261412610; 253 more is exactly the
// largest path cost, 254 more is one above it.
TEST( CspfReferenceTest, PathCostMayReachMaxPathMetricButNotPassIt ) {
    Build b;
    constexpr int kHops = 254;
    for ( int i = 0; i <= kHops; ++i ) {
        b.router( "r" + std::to_string( i ) );
    }
    b.routers( { "exact", "over" } );
    for ( int i = 0; i < kHops; ++i ) {
        b.link( "r" + std::to_string( i ), "r" + std::to_string( i + 1 ), kMaxMetric, 1 );
    }
    const std::string last = "r" + std::to_string( kHops );
    b.link( last, "exact", 253, 1 );
    b.link( last, "over", 254, 1 );
    const auto data = runHandBuilt( b, "r0" );
    EXPECT_EQ( costOf( *data, b.te( last ) ), uint64_t{ kHops } * kMaxMetric );
    EXPECT_EQ( costOf( *data, b.te( "exact" ) ), kMaxPathMetric );
    EXPECT_FALSE( data->shortestPathHas( b.te( "over" ) ) );
    EXPECT_EQ( data->routerWithTep( b.te( "exact" ) ), b.te( "exact" ) );
    EXPECT_FALSE( data->routerWithTepHas( b.te( "over" ) ) );
}

// One address on two routers belongs to the cheaper one; the source's own
// addresses are never owned, even when another router has them too.
TEST( CspfReferenceTest, TepOnTwoRoutersBelongsToTheCheaperOne ) {
    Build b;
    b.routers( { "s", "a", "b", "c", "d", "x1", "x2", "x3", "x4", "x5", "x6" } );
    b.link( "s", "a", 5, 5 );
    b.link( "s", "b", 3, 3 );
    b.link( "s", "c", 2, 2 );
    b.link( "s", "d", 3, 3 );
    const IpGenAddr twice( "10.9.9.9" ), sourceToo( "10.8.8.8" ),
        sourceOnly( "10.7.7.7" ), tie( "10.6.6.6" );
    b.lan( "a", { { "a", 1 }, { "x1", 1 } } ).members[0].ipv4->addr = twice;
    b.lan( "b", { { "b", 1 }, { "x2", 1 } } ).members[0].ipv4->addr = twice;
    b.lan( "s", { { "s", 1 }, { "x3", 1 } } ).members[0].ipv4->addr = sourceToo;
    b.lan( "c", { { "c", 1 }, { "x4", 1 } } ).members[0].ipv4->addr = sourceToo;
    b.lan( "s", { { "s", 1 }, { "x5", 1 } } ).members[0].ipv4->addr = sourceOnly;
    Lan& shared = b.lan( "b", { { "b", 1 }, { "d", 1 }, { "x6", 1 } } );
    shared.members[0].ipv4->addr = tie;
    shared.members[1].ipv4->addr = tie;
    const auto data = runHandBuilt( b, "s" );
    EXPECT_EQ( data->routerWithTep( twice ), b.te( "b" ) );
    EXPECT_EQ( data->routerWithTep( sourceToo ), b.te( "c" ) );
    EXPECT_FALSE( data->routerWithTepHas( sourceOnly ) );
    EXPECT_FALSE( data->routerWithTepHas( b.te( "s" ) ) );
    EXPECT_TRUE( data->routerWithTep( tie ) == b.te( "b" ) ||
                 data->routerWithTep( tie ) == b.te( "d" ) );
}

// s names one interface Ethernet1 in both levels: in level 2 with an IPv4
// address (its primary), in level 1 with a second IPv4 address (a secondary)
// and an IPv6 one. An IPv4 computation loses both links, an IPv6 one only
// the link that carries the IPv6 address.
TEST( CspfReferenceTest, ExcludedInterfaceIsMatchedByTheAddressesOfTheFamily ) {
    Build b;
    b.routers( { "s", "a" } );
    b.t.routers[0].levels = b.t.routers[1].levels = { 1, 2 };
    b.link( "s", "a", 5, 5 );
    Link& level1 = b.link( "s", "a", 1, 1 );
    level1.level = 1;
    level1.ends[0].interface = IntfId( "Ethernet1" );
    level1.ends[0].ipv6 = Address{ IpGenAddr( "2001:db8::1" ), 127 };
    level1.ends[1].ipv6 = Address{ IpGenAddr( "2001:db8::" ), 127 };
    b.link( "s", "a", 7, 7 );
    const IntfId eth1( "Ethernet1" );
    EXPECT_EQ( costOf( *runHandBuilt( b, "s" ), b.te( "a" ) ), 1u );
    EXPECT_EQ( costOf( *runHandBuilt( b, "s", eth1 ), b.te( "a" ) ), 7u );
    EXPECT_EQ( costOf( *runHandBuilt( b, "s", eth1, AddressFamily::ipv6 ), b.te( "a" ) ),
               5u );
}

// ---------------------------------------------------------------------------
// Generated topologies

// The n-th topology of a run: 5 to 60 routers, one of the two levels or
// both, IPv4 alone or with IPv6, a metric range that makes ties common.
GenerateOptions generatedOptions( uint64_t n, bool faults ) {
    GenerateOptions o;
    o.seed = n + ( faults ? 1000 : 1 );
    o.routers = 5 + ( o.seed * 7919 ) % 56;
    o.meanDegree = 1.5 + double( n % 8 ) / 2;
    o.lanShare = 0.25;
    o.parallelShare = 0.15;
    o.maxMetric = n % 3 == 0 ? 3 : 12;
    o.bothLevels = n % 2 == 1;
    o.ipv6 = n / 2 % 2 == 1;
    if ( faults ) {
        o.overload = 0.08;
        o.oneWay = 0.05;
        o.addressMismatch = 0.08;
        o.missingRecord = 0.04;
        o.zeroMetric = 0.06;
        o.hugeMetric = 0.05;
        o.noTeRouterId = 0.05;
    }
    return o;
}

// Several sources, each family the topology has, without and with an
// excluded interface of the source (now and then one it does not have).
void checkGenerated( uint64_t n, bool faults ) {
    const GenerateOptions options = generatedOptions( n, faults );
    const std::string context = "generatedOptions( " + std::to_string( n ) +
                                ( faults ? ", true )" : ", false )" );
    const Topology t = generateTopology( options );
    validateTopology( t, context );
    Cspf::OfflineTopology offline( t );
    const std::vector<IpGenAddr> teps = allTeps( t );
    std::mt19937_64 pick( options.seed );
    std::vector<size_t> candidates;
    for ( size_t i = 0; i < t.routers.size(); ++i ) {
        if ( t.routers[i].teRouterId ) {
            candidates.push_back( i );
        }
    }
    for ( int s = 0; s < 3 && !candidates.empty(); ++s ) {
        const size_t source = candidates[pick() % candidates.size()];
        std::vector<IntfId> interfaces;
        for ( const Link& link : t.links ) {
            for ( const LinkEnd& end : link.ends ) {
                if ( end.router == t.routers[source].name ) {
                    interfaces.push_back( end.interface );
                }
            }
        }
        for ( const Lan& lan : t.lans ) {
            for ( const LanMember& m : lan.members ) {
                if ( m.router == t.routers[source].name ) {
                    interfaces.push_back( m.interface );
                }
            }
        }
        IntfId exclude( "Ethernet999" );
        if ( !interfaces.empty() && pick() % 4 != 0 ) {
            exclude = interfaces[pick() % interfaces.size()];
        }
        for ( AddressFamily af : { AddressFamily::ipv4, AddressFamily::ipv6 } ) {
            if ( af == AddressFamily::ipv6 && !options.ipv6 ) {
                continue;
            }
            computeAndCompare( offline, source, teps, IntfId(), af, context );
            computeAndCompare( offline, source, teps, exclude, af, context );
        }
        if ( ::testing::Test::HasFailure() ) {
            return;  // one topology's report is enough to start from
        }
    }
}

const uint64_t kCleanTopologies = kSanitized ? 12 : 60;
const uint64_t kFaultyTopologies = kSanitized ? 40 : 240;

TEST( CspfReferenceTest, GeneratedTopologiesWithoutFaultsAgree ) {
    for ( uint64_t n = 0; n < kCleanTopologies && !HasFailure(); ++n ) {
        checkGenerated( n, false );
    }
}

TEST( CspfReferenceTest, GeneratedTopologiesWithEveryFaultAgree ) {
    for ( uint64_t n = 0; n < kFaultyTopologies && !HasFailure(); ++n ) {
        checkGenerated( n, true );
    }
}

}  // namespace

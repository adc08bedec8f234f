// generateTopology: a random spanning tree, extra adjacencies, parallel
// links, LANs, then faults. The faults come last and draw from the same
// stream after everything else, so a seed gives the same graph with and
// without them and a failure can be studied with the faults switched off.
#include "tools/TopologyGenerate.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/Error.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"

namespace Cspf::TopoFile {

namespace {

constexpr uint32_t kRouterBase = 0x0aff0001;  // 10.255.0.1
constexpr uint32_t kLinkBase = 0x0a000000;    // 10.0.0.0
constexpr uint32_t kLanBase = 0x0b000000;     // 11.0.0.0
constexpr uint32_t kStrayBase = 0x0c000000;   // 12.0.0.0
// Router ids stay in 10.255.0.0/16 and link addresses below it.
constexpr size_t kMaxRouters = 65535;
constexpr size_t kMaxLinks = ( 0x0aff0000 - kLinkBase ) / 2;
// A router record lists at most 500 adjacencies per level; one LAN and some
// room are kept aside.
constexpr uint32_t kMaxAdjacencies = 480;
constexpr size_t kMinLanMembers = 3;
constexpr size_t kMaxLanMembers = 6;
// Share of link ends and LAN members that advertise a TE metric.
constexpr double kTeMetricShare = 0.25;

constexpr uint8_t kLevel1 = 1;
constexpr uint8_t kLevel2 = 2;

// Draws from mt19937_64 with our own reductions: the standard distributions
// may differ between library versions, and a seed must give the same topology
// everywhere.
class Random {
  public:
    explicit Random( uint64_t seed ) : engine_( seed ) {}

    // Uniform in 0..n-1, n > 0; rejection keeps it unbiased.
    uint64_t below( uint64_t n ) {
        const uint64_t limit = UINT64_MAX - UINT64_MAX % n;
        uint64_t x;
        do {
            x = engine_();
        } while ( x >= limit );
        return x % n;
    }
    uint32_t between( uint32_t lo, uint32_t hi ) {
        return lo + static_cast<uint32_t>( below( uint64_t{ hi } - lo + 1 ) );
    }
    // Uniform in [0, 1).
    double unit() { return static_cast<double>( engine_() >> 11 ) * 0x1.0p-53; }
    // Draws nothing for a probability of 0, so that a fault switched off
    // leaves the stream as it was.
    bool chance( double p ) { return p > 0 && unit() < p; }

  private:
    std::mt19937_64 engine_;
};

void checkShare( double value, const char* name ) {
    if ( !( value >= 0 && value <= 1 ) ) {
        throw Platform::RangeError( std::string( "generateTopology: " ) + name +
                                    " must be 0 to 1, not " + std::to_string( value ) );
    }
}

void checkOptions( const GenerateOptions& o ) {
    if ( o.routers > kMaxRouters ) {
        throw Platform::RangeError(
            "generateTopology: routers " + std::to_string( o.routers ) +
            ": the address plan has room for " + std::to_string( kMaxRouters ) );
    }
    if ( !( o.meanDegree >= 0 ) || !std::isfinite( o.meanDegree ) ) {
        throw Platform::RangeError(
            "generateTopology: meanDegree must be a non-negative number" );
    }
    checkShare( o.lanShare, "lanShare" );
    checkShare( o.parallelShare, "parallelShare" );
    checkShare( o.overload, "overload" );
    checkShare( o.oneWay, "oneWay" );
    checkShare( o.addressMismatch, "addressMismatch" );
    checkShare( o.missingRecord, "missingRecord" );
    checkShare( o.zeroMetric, "zeroMetric" );
    checkShare( o.hugeMetric, "hugeMetric" );
    checkShare( o.noTeRouterId, "noTeRouterId" );
    if ( o.minMetric < 1 || o.minMetric > o.maxMetric || o.maxMetric > kMaxMetric ) {
        throw Platform::RangeError(
            "generateTopology: metrics must satisfy 1 <= minMetric <= maxMetric <= " +
            std::to_string( kMaxMetric ) + ", not " + std::to_string( o.minMetric ) +
            " and " + std::to_string( o.maxMetric ) );
    }
    const double links =
        std::max( o.meanDegree * double( o.routers ) / 2, double( o.routers ) ) *
        ( 1 + o.parallelShare );
    if ( links > double( kMaxLinks ) ) {
        throw Platform::RangeError(
            "generateTopology: meanDegree " + std::to_string( o.meanDegree ) + " with " +
            std::to_string( o.routers ) + " routers needs more link addresses than the " +
            "address plan has (" + std::to_string( kMaxLinks ) + ")" );
    }
}

// 2001:db8:<group>:<third>::<low> as 16 bytes.
Net::IpGenAddr v6( uint16_t group, uint16_t third, uint32_t low ) {
    uint8_t b[16] = { 0x20, 0x01, 0x0d, 0xb8 };
    b[4] = static_cast<uint8_t>( group >> 8 );
    b[5] = static_cast<uint8_t>( group );
    b[6] = static_cast<uint8_t>( third >> 8 );
    b[7] = static_cast<uint8_t>( third );
    for ( int i = 0; i < 4; ++i ) {
        b[12 + i] = static_cast<uint8_t>( low >> ( 24 - 8 * i ) );
    }
    return Net::IpGenAddr::fromBytes( Net::AddressFamily::ipv6, b );
}

class Generator {
  public:
    explicit Generator( const GenerateOptions& o ) : o_( o ), random_( o.seed ) {}

    Topology run() {
        doRouters();
        // Links are big: growing the vector would copy them several times.
        const double links =
            std::max( o_.meanDegree * double( o_.routers ) / 2, double( o_.routers ) ) *
            ( 1 + o_.parallelShare ) * 1.1;
        t_.links.reserve( static_cast<size_t>( links ) );
        linkRouters_.reserve( t_.links.capacity() );
        doTree();
        doExtraLinks();
        doParallelLinks();
        doLans();
        doFaults();
        return std::move( t_ );
    }

  private:
    size_t routers() const { return t_.routers.size(); }

    void doRouters() {
        t_.routers.reserve( o_.routers );
        levels_.assign( o_.routers, 0 );
        adjacencies_.assign( o_.routers, 0 );
        interfaces_.assign( o_.routers, 0 );
        for ( size_t i = 0; i < o_.routers; ++i ) {
            Router r;
            r.name = "r" + std::to_string( i );
            uint64_t id = i + 1;
            for ( size_t b = r.systemId.size(); b-- > 0; id >>= 8 ) {
                r.systemId[b] = static_cast<uint8_t>( id & 0xff );
            }
            r.teRouterId = Net::IpGenAddr::v4( kRouterBase + static_cast<uint32_t>( i ) );
            t_.routers.push_back( std::move( r ) );
            if ( !o_.bothLevels ) {
                doAddLevel( i, kLevel2 );
                continue;
            }
            switch ( random_.below( 3 ) ) {
                case 0:
                    doAddLevel( i, kLevel1 );
                    break;
                case 1:
                    doAddLevel( i, kLevel2 );
                    break;
                default:
                    doAddLevel( i, kLevel1 );
                    doAddLevel( i, kLevel2 );
            }
        }
    }

    void doAddLevel( size_t router, uint8_t level ) {
        if ( !( levels_[router] & level ) ) {
            levels_[router] |= level;
            t_.routers[router].levels.push_back( level );
        }
    }

    // A level both routers are in, chosen at random; 0 when there is none.
    uint8_t commonLevel( size_t u, size_t v ) {
        const uint8_t both = levels_[u] & levels_[v];
        if ( both == ( kLevel1 | kLevel2 ) ) {
            return random_.below( 2 ) ? kLevel2 : kLevel1;
        }
        return both;
    }

    bool roomFor( size_t u, size_t v ) const {
        return adjacencies_[u] < kMaxAdjacencies && adjacencies_[v] < kMaxAdjacencies &&
               t_.links.size() < kMaxLinks;
    }

    // Router i joins a router before it; a router in the other level only
    // becomes a router of both, so that the tree spans every router.
    void doTree() {
        for ( size_t i = 1; i < routers(); ++i ) {
            size_t j = random_.below( i );
            if ( adjacencies_[j] >= kMaxAdjacencies ) {
                j = i - 1;  // has only its own parent so far
            }
            uint8_t level = commonLevel( i, j );
            if ( !level ) {
                level = levels_[j];
                doAddLevel( i, level );
            }
            doLink( i, j, level );
        }
    }

    void doExtraLinks() {
        const size_t n = routers();
        if ( n < 2 ) {
            return;
        }
        const auto target = static_cast<size_t>( std::llround( o_.meanDegree * n / 2 ) );
        const size_t extra = target > n - 1 ? target - ( n - 1 ) : 0;
        size_t added = 0;
        for ( size_t attempt = 0; added < extra && attempt < 4 * extra + 100;
              ++attempt ) {
            const size_t u = random_.below( n );
            size_t v = random_.below( n - 1 );
            v += v >= u ? 1 : 0;
            const uint8_t level = commonLevel( u, v );
            if ( level && roomFor( u, v ) ) {
                doLink( u, v, level );
                ++added;
            }
        }
    }

    void doParallelLinks() {
        const size_t base = t_.links.size();
        for ( size_t k = 0; k < base; ++k ) {
            if ( !random_.chance( o_.parallelShare ) ) {
                continue;
            }
            const auto [u, v] = linkRouters_[k];
            if ( roomFor( u, v ) ) {
                doLink( u, v, t_.links[k].level );
            }
        }
    }

    void doLink( size_t u, size_t v, uint8_t level ) {
        const auto k = static_cast<uint32_t>( t_.links.size() );
        Link link;
        link.level = level;
        doAttach( link.ends[0], u );
        doAttach( link.ends[1], v );
        for ( uint32_t e = 0; e < 2; ++e ) {
            link.ends[e].ipv4 =
                Address{ Net::IpGenAddr::v4( kLinkBase + 2 * k + e ), 31 };
            if ( o_.ipv6 ) {
                link.ends[e].ipv6 = Address{ v6( 1, 0, 2 * k + e ), 127 };
            }
        }
        t_.links.push_back( std::move( link ) );
        linkRouters_.emplace_back( u, v );
    }

    // What every attachment of `router` starts with: its next interface and
    // metrics from the configured range.
    void doAttach( Attachment& a, size_t router ) {
        ++adjacencies_[router];
        a.router = t_.routers[router].name;
        a.interface = ethernet( ++interfaces_[router] );
        a.metric = random_.between( o_.minMetric, o_.maxMetric );
        if ( random_.chance( kTeMetricShare ) ) {
            a.teMetric = random_.between( o_.minMetric, o_.maxMetric );
        }
    }

    // Encoding a name costs more than copying an id: each is made once.
    const Net::IntfId& ethernet( uint32_t n ) {
        if ( ethernet_.empty() ) {
            ethernet_.emplace_back();  // numbers start at 1
        }
        while ( ethernet_.size() <= n ) {
            ethernet_.emplace_back( "Ethernet" + std::to_string( ethernet_.size() ) );
        }
        return ethernet_[n];
    }

    // The chosen routers are split into LANs of 3 to 6; a router sits on one
    // LAN at most, so each designated router has pseudonode 1.
    void doLans() {
        const auto chosen = static_cast<size_t>( o_.lanShare * double( routers() ) );
        std::vector<size_t> order( routers() );
        for ( size_t i = 0; i < order.size(); ++i ) {
            order[i] = i;
        }
        for ( size_t i = 0; i < chosen; ++i ) {
            std::swap( order[i], order[i + random_.below( order.size() - i )] );
        }
        size_t next = 0;
        while ( chosen - next >= kMinLanMembers ) {
            const size_t left = chosen - next;
            size_t size = random_.between( kMinLanMembers, kMaxLanMembers );
            if ( left - std::min( size, left ) < kMinLanMembers ) {
                size = left <= kMaxLanMembers ? left : left - kMinLanMembers;
            }
            doLan( std::vector<size_t>( order.begin() + long( next ),
                                        order.begin() + long( next + size ) ) );
            next += size;
        }
    }

    void doLan( const std::vector<size_t>& members ) {
        const auto l = static_cast<uint32_t>( t_.lans.size() );
        Lan lan;
        const uint8_t first = levels_[members[0]];
        lan.level =
            first == ( kLevel1 | kLevel2 ) ? ( random_.below( 2 ) ? 2 : 1 ) : first;
        const size_t dr = members[random_.below( members.size() )];
        lan.dr = t_.routers[dr].name;
        lan.pseudonode = 1;
        for ( uint32_t m = 0; m < members.size(); ++m ) {
            doAddLevel( members[m], lan.level );
            LanMember& member = lan.members.emplace_back();
            doAttach( member, members[m] );
            member.ipv4 = Address{ Net::IpGenAddr::v4( kLanBase + 256 * l + m + 1 ), 24 };
            if ( o_.ipv6 ) {
                member.ipv6 = Address{ v6( 2, static_cast<uint16_t>( l ), m + 1 ), 64 };
            }
        }
        t_.lans.push_back( std::move( lan ) );
    }

    void doFaults() {
        for ( Router& r : t_.routers ) {
            r.overload = random_.chance( o_.overload );
            if ( random_.chance( o_.noTeRouterId ) ) {
                r.teRouterId.reset();
            }
        }
        if ( o_.addressMismatch > 0 ) {
            for ( size_t k = 0; k < t_.links.size(); ++k ) {
                auto [u, v] = linkRouters_[k];
                parallel_[{ std::min( u, v ), std::max( u, v ), t_.links[k].level }]
                    .push_back( k );
            }
        }
        for ( size_t k = 0; k < t_.links.size(); ++k ) {
            for ( size_t e = 0; e < 2; ++e ) {
                doAttachmentFaults( t_.links[k].ends[e] );
                if ( random_.chance( o_.addressMismatch ) ) {
                    doMismatch( k, e );
                }
            }
        }
        for ( Lan& lan : t_.lans ) {
            for ( LanMember& member : lan.members ) {
                doAttachmentFaults( member );
            }
        }
    }

    void doAttachmentFaults( Attachment& a ) {
        a.advertise = !random_.chance( o_.oneWay );
        a.record = !random_.chance( o_.missingRecord );
        if ( random_.chance( o_.zeroMetric ) ) {
            switch ( random_.below( 3 ) ) {
                case 0:  // nothing to use
                    a.metric = 0;
                    a.teMetric.reset();
                    break;
                case 1:  // a zero TE metric hides a usable IGP metric
                    a.teMetric = 0;
                    break;
                default:  // a TE metric makes a zero IGP metric harmless
                    a.metric = 0;
                    a.teMetric = random_.between( o_.minMetric, o_.maxMetric );
            }
        }
        if ( random_.chance( o_.hugeMetric ) ) {
            const uint32_t huge =
                kMaxMetric - static_cast<uint32_t>( random_.below( 2 ) );
            ( a.teMetric ? *a.teMetric : a.metric ) = huge;
        }
    }

    static void doReport( LinkEnd& end, const LinkEnd& reported, bool v4, bool v6 ) {
        if ( v4 ) {
            end.neighborAddress4 = reported.ipv4->addr;
        }
        if ( v6 ) {
            end.neighborAddress6 = reported.ipv6->addr;
        }
    }

    // End e of link k reports a far-end address that is not the far end's,
    // in IPv4, IPv6 or both. When the link has a parallel sibling, half the
    // time the cables are crossed: this end and the sibling's far end name
    // each other, so that they confirm each other instead of their own links.
    void doMismatch( size_t k, size_t e ) {
        const uint64_t which = o_.ipv6 ? random_.below( 3 ) : 0;
        const bool v4 = which != 1, v6 = which != 0;
        LinkEnd& end = t_.links[k].ends[e];
        auto [u, v] = linkRouters_[k];
        const std::vector<size_t>& siblings =
            parallel_.at( { std::min( u, v ), std::max( u, v ), t_.links[k].level } );
        if ( siblings.size() > 1 && random_.below( 2 ) ) {
            size_t s = siblings[random_.below( siblings.size() - 1 )];
            s = s == k ? siblings.back() : s;
            Link& sibling = t_.links[s];
            LinkEnd& far = sibling.ends[sibling.ends[0].router == end.router ? 1 : 0];
            doReport( end, far, v4, v6 );
            doReport( far, end, v4, v6 );
            return;
        }
        if ( v4 ) {
            end.neighborAddress4 = doStrayAddress( Net::AddressFamily::ipv4 );
        }
        if ( v6 ) {
            end.neighborAddress6 = doStrayAddress( Net::AddressFamily::ipv6 );
        }
    }

    // Half the time some link end's address; otherwise one that no interface
    // has.
    Net::IpGenAddr doStrayAddress( Net::AddressFamily af ) {
        const bool v4 = af == Net::AddressFamily::ipv4;
        if ( random_.below( 2 ) ) {
            const Link& link = t_.links[random_.below( t_.links.size() )];
            const LinkEnd& other = link.ends[random_.below( 2 )];
            return v4 ? other.ipv4->addr : other.ipv6->addr;
        }
        const uint32_t n = stray_++;
        return v4 ? Net::IpGenAddr::v4( kStrayBase + n ) : v6( 0xff, 0, n );
    }

    const GenerateOptions& o_;
    Random random_;
    Topology t_;
    std::vector<uint8_t> levels_;        // per router, bit 1 level 1, bit 2 level 2
    std::vector<uint32_t> adjacencies_;  // per router, links and LANs
    std::vector<uint32_t> interfaces_;   // per router, the last Ethernet number used
    std::vector<Net::IntfId> ethernet_;  // "Ethernet<n>" at index n
    std::vector<std::pair<size_t, size_t>> linkRouters_;  // per link, its routers
    // Links by their two routers (the smaller index first) and level.
    std::map<std::tuple<size_t, size_t, uint8_t>, std::vector<size_t>> parallel_;
    uint32_t stray_ = 0;
};

}  // namespace

Topology generateTopology( const GenerateOptions& options ) {
    checkOptions( options );
    return Generator( options ).run();
}

}  // namespace Cspf::TopoFile

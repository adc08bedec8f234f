#include "tools/TopologyLoad.h"

#include <map>
#include <set>

#include "platform/StateTree.h"
#include "topo/TopoDb.h"

namespace Cspf::TopoFile {

using Routing::Topology::AddrIndex;
using Routing::Topology::BwPriority;
using Routing::Topology::NeighborIndex;
using Routing::Topology::NeighborKey;
using Routing::Topology::RouterIndex;

namespace {

constexpr uint32_t kMaxNeighbors = 500;
constexpr uint32_t kMaxLanRouters = 30;

Mpls::RouterId routerIdOf( const Router& r ) {
    return Mpls::RouterId::fromSystemId( systemIdText( r.systemId ) );
}

std::vector<Net::IpGenAddr> addressesOf( const Attachment& a ) {
    std::vector<Net::IpGenAddr> out;
    if ( a.ipv4 ) {
        out.push_back( a.ipv4->addr );
    }
    if ( a.ipv6 ) {
        out.push_back( a.ipv6->addr );
    }
    return out;
}

// The record of one end's adjacency: its metrics, bandwidths and addresses.
Routing::Topology::Neighbor neighborOf( const NeighborKey& key, const Attachment& end,
                                        const std::vector<Net::IpGenAddr>& farAddrs ) {
    Routing::Topology::Neighbor n( key );
    n.adminGroupIs( end.adminGroup );
    uint32_t i = 0;
    for ( const Net::IpGenAddr& a : addressesOf( end ) ) {
        n.interfaceAddrIs( AddrIndex( i++ ), a );
    }
    i = 0;
    for ( const Net::IpGenAddr& a : farAddrs ) {
        n.neighborAddrIs( AddrIndex( i++ ), a );
    }
    n.igpMetricIs( end.metric );
    n.teMetricPresentIs( end.teMetric.has_value() );
    n.teMetricIs( end.teMetric.value_or( 0 ) );
    n.maxLinkBwIs( static_cast<float>( end.maxBandwidth ) );
    n.maxReservableBwIs( static_cast<float>( end.maxReservableBandwidth ) );
    if ( end.unreservedBandwidth ) {
        for ( uint32_t p = 0; p < kPriorities; ++p ) {
            n.unreservedBwIs( BwPriority( p ),
                              static_cast<float>( ( *end.unreservedBandwidth )[p] ) );
        }
    }
    return n;
}

}  // namespace

LevelRecords levelRecords( const Topology& topology, int level,
                           const std::string& fileName ) {
    std::map<std::string, const Router*> byName;
    std::map<std::string, std::vector<NeighborKey>> keysOf;
    for ( const Router& r : topology.routers ) {
        byName[r.name] = &r;
    }
    LevelRecords out;
    for ( size_t k = 0; k < topology.links.size(); ++k ) {
        const Link& link = topology.links[k];
        if ( link.level != level ) {
            continue;
        }
        for ( int e = 0; e < 2; ++e ) {
            const LinkEnd& end = link.ends[e];
            const LinkEnd& far = link.ends[1 - e];
            const NeighborKey key = NeighborKey::toRouter(
                routerIdOf( *byName.at( end.router ) ),
                routerIdOf( *byName.at( far.router ) ), static_cast<uint32_t>( k + 1 ) );
            if ( end.advertise ) {
                keysOf[end.router].push_back( key );
            }
            if ( !end.record ) {
                continue;
            }
            std::vector<Net::IpGenAddr> farAddrs;
            const std::vector<Net::IpGenAddr> reported = addressesOf( far );
            for ( const Net::IpGenAddr& a : reported ) {
                if ( a.isV4() && end.neighborAddress4 ) {
                    farAddrs.push_back( *end.neighborAddress4 );
                } else if ( a.isV6() && end.neighborAddress6 ) {
                    farAddrs.push_back( *end.neighborAddress6 );
                } else {
                    farAddrs.push_back( a );
                }
            }
            out.neighbors.push_back( neighborOf( key, end, farAddrs ) );
        }
    }
    for ( size_t l = 0; l < topology.lans.size(); ++l ) {
        const Lan& lan = topology.lans[l];
        if ( lan.level != level ) {
            continue;
        }
        const Routing::Topology::NetworkId id{ routerIdOf( *byName.at( lan.dr ) ),
                                               lan.pseudonode };
        if ( lan.members.size() > kMaxLanRouters ) {
            throw TopologyError( fileName, "$.lans[" + std::to_string( l ) + "].members",
                                 "a LAN record holds at most 30 routers" );
        }
        Routing::Topology::Network network( id );
        uint32_t i = 0;
        for ( const LanMember& m : lan.members ) {
            const Mpls::RouterId member = routerIdOf( *byName.at( m.router ) );
            network.routerIs( RouterIndex( i++ ), member );
            const NeighborKey key = NeighborKey::toNetwork( member, id );
            if ( m.advertise ) {
                keysOf[m.router].push_back( key );
            }
            if ( m.record ) {
                out.neighbors.push_back( neighborOf( key, m, {} ) );
            }
        }
        out.networks.push_back( network );
    }
    for ( size_t i = 0; i < topology.routers.size(); ++i ) {
        const Router& r = topology.routers[i];
        if ( !r.inLevel( static_cast<unsigned>( level ) ) ) {
            continue;
        }
        const std::vector<NeighborKey>& keys = keysOf[r.name];
        if ( keys.size() > kMaxNeighbors ) {
            throw TopologyError(
                fileName, "$.routers[" + std::to_string( i ) + "]",
                "a router record holds at most 500 adjacencies per level, " + r.name +
                    " has " + std::to_string( keys.size() ) );
        }
        Routing::Topology::Router router( routerIdOf( r ) );
        router.teRouterIdIs( r.teRouterId.value_or( Net::IpGenAddr() ) );
        router.overloadIs( r.overload );
        uint32_t n = 0;
        for ( const NeighborKey& key : keys ) {
            router.neighborIs( NeighborIndex( n++ ), key );
        }
        out.routers.push_back( router );
    }
    return out;
}

LoadSummary loadIntoTree( const Topology& topology, Platform::StateTree& tree,
                          const L3::VrfName& vrf, const std::string& fileName ) {
    LoadSummary summary;
    for ( int level = 1; level <= 2; ++level ) {
        const LevelRecords records = levelRecords( topology, level, fileName );
        Routing::Topology::TopoDbWriter db( tree, nullptr, level, vrf );
        // Remove what the file no longer has before adding, so that readers
        // never see a key listed whose record went with an old file.
        std::set<Mpls::RouterId> routers;
        std::set<Routing::Topology::NetworkId> networks;
        std::set<NeighborKey> neighbors;
        for ( const auto& r : records.routers ) {
            routers.insert( r.routerId() );
        }
        for ( const auto& n : records.networks ) {
            networks.insert( n.networkId() );
        }
        for ( const auto& n : records.neighbors ) {
            neighbors.insert( n.neighborKey() );
        }
        summary.removed += db.routerDelAllBut( routers ) +
                           db.networkDelAllBut( networks ) +
                           db.neighborDelAllBut( neighbors );
        for ( const auto& n : records.neighbors ) {
            summary.written += db.neighborIs( n );
        }
        for ( const auto& n : records.networks ) {
            summary.written += db.networkIs( n );
        }
        for ( const auto& r : records.routers ) {
            summary.written += db.routerIs( r );
        }
        summary.records +=
            records.routers.size() + records.networks.size() + records.neighbors.size();
        db.flush();
    }
    return summary;
}

}  // namespace Cspf::TopoFile

// Small topologies for scenario tests, a link a line. Router rN has system id
// N, TE router id 10.0.0.N and the levels of its links; the two ends of a
// link get the two addresses of a /31 and the same metric.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "tools/TopologyFile.h"

namespace TestKit {

inline Cspf::TopoFile::Router scenarioRouter( uint8_t n,
                                              std::vector<uint8_t> levels = {} ) {
    Cspf::TopoFile::Router r;
    r.name = "r" + std::to_string( n );
    r.systemId[5] = n;
    r.teRouterId = Net::IpGenAddr::v4( 0x0a000000 + n );
    r.levels = std::move( levels );
    return r;
}

// `a` and `b` are "rN:Interface"; a gets `addr`, b the next address.
inline Cspf::TopoFile::Link scenarioLink( uint8_t level, const std::string& a,
                                          const std::string& b, const char* addr,
                                          uint32_t metric = 10 ) {
    Cspf::TopoFile::Link link{ level, {} };
    const uint32_t first = Net::IpGenAddr( addr ).v4Value();
    for ( size_t i = 0; i < 2; ++i ) {
        const std::string& end = i == 0 ? a : b;
        const size_t colon = end.find( ':' );
        link.ends[i].router = end.substr( 0, colon );
        link.ends[i].interface = Net::IntfId( end.substr( colon + 1 ) );
        link.ends[i].ipv4 = { Net::IpGenAddr::v4( first + uint32_t( i ) ), 31 };
        link.ends[i].metric = metric;
    }
    return link;
}

class ScenarioTopology {
  public:
    ScenarioTopology& link( uint8_t level, const std::string& a, const std::string& b,
                            const char* addr, uint32_t metric = 10 ) {
        const Cspf::TopoFile::Link& l =
            t.links.emplace_back( scenarioLink( level, a, b, addr, metric ) );
        for ( const Cspf::TopoFile::LinkEnd& end : l.ends ) {
            doLevel( end.router, level );
        }
        return *this;
    }
    std::string json() const { return Cspf::TopoFile::toJson( t ); }

    Cspf::TopoFile::Topology t;

  private:
    // Routers stay in the order of their numbers.
    void doLevel( const std::string& name, uint8_t level ) {
        const uint8_t n = static_cast<uint8_t>( std::stoul( name.substr( 1 ) ) );
        auto it = std::find_if( t.routers.begin(), t.routers.end(),
                                [&]( const auto& r ) { return r.systemId[5] >= n; } );
        if ( it == t.routers.end() || it->systemId[5] != n ) {
            it = t.routers.insert( it, scenarioRouter( n ) );
        }
        if ( !it->inLevel( level ) ) {
            it->levels.push_back( level );
            std::sort( it->levels.begin(), it->levels.end() );
        }
    }
};

}  // namespace TestKit

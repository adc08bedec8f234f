// Cspf::AllTopoCompiled: the topology of one VRF as every constraint's run
// reads it, compiled from the tables once and shared.
//
// Routers are merged over both levels by TE router id, each with the links
// that passed the two-way checks (their metric, interface addresses and the
// hop over them) and its tunnel end points; an overloaded router, unless it
// is ours, has its end points and no links. LANs hold the routers on them
// that passed the checks, each with the hop to it across the LAN. Nothing
// here depends on a constraint: the view applies that per run to our own
// router's links. A router or LAN whose records were refused keeps the
// error, which asking for it raises. AllTopoCompiler keeps it up to date.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <unordered_map>
#include <vector>

#include "platform/DumpContext.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoDbReader.h"
#include "topo/AllTopoKeys.h"
#include "topo/RouterId.h"

namespace Cspf {

// The heap a vector holds; what an unordered map holds beyond its members
// (the bucket array and a node header per member). Estimates for the figures.
template <typename T>
size_t capacityBytes( const std::vector<T>& v ) {
    return v.capacity() * sizeof( T );
}
template <typename Map>
size_t tableBytes( const Map& map ) {
    return map.bucket_count() * sizeof( void* ) +
           map.size() * ( sizeof( typename Map::value_type ) + 2 * sizeof( void* ) );
}

class AllTopoCompiled {
  public:
    struct Router {
        // The router as the view's rules give it without a constraint.
        AllTopoDbReader::RouterLinks links;
        // Set when its records were refused; asking for the router raises it.
        std::exception_ptr error;
    };

    // The hop to one router across a LAN: its own first address on the LAN,
    // or the check of hop selection that its records fail.
    enum class LanHopCheck : uint8_t { ok, unmapped, notListed, noRecord, noAddr };
    struct LanRouter {
        Net::IpGenAddr teRouterId;
        Mpls::RouterId igpRouterId;  // the level maps it to; empty when none
        LanHopCheck check = LanHopCheck::ok;
        Net::IpGenAddr hop;
    };
    struct Network {
        // Its routers in the order the view's rules found them.
        std::vector<Net::IpGenAddr> routers;
        std::vector<LanRouter> hops;
        std::exception_ptr error;
    };

    // Null when no level knows the router or the LAN.
    const Router* router( const Net::IpGenAddr& teRouterId ) const {
        const auto it = routers_.find( teRouterId );
        return it == routers_.end() ? nullptr : &it->second;
    }
    const Network* network( const AllTopoNetworkId& id ) const {
        const auto it = networks_.find( id );
        return it == networks_.end() ? nullptr : &it->second;
    }
    size_t routers() const { return routers_.size(); }
    size_t networks() const { return networks_.size(); }

    Router& routerIs( const Net::IpGenAddr& teRouterId ) { return routers_[teRouterId]; }
    void routerDel( const Net::IpGenAddr& teRouterId ) { routers_.erase( teRouterId ); }
    Network& networkIs( const AllTopoNetworkId& id ) { return networks_[id]; }
    void networkDel( const AllTopoNetworkId& id ) { networks_.erase( id ); }
    void clear();

    // The heap and table memory it holds.
    size_t bytes() const;

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    std::unordered_map<Net::IpGenAddr, Router> routers_;
    std::unordered_map<AllTopoNetworkId, Network> networks_;
};

}  // namespace Cspf

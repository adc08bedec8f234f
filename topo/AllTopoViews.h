// The agent-side views of the merged topology, built per computation:
//   AllTopoRouter    a router by TE router id: its usable links over both
//                    levels and the tunnel end points reachable at it
//   AllTopoNetwork   a LAN of one level: the TE router ids of the routers on
//                    it that passed the checks
// They are plain values. Their string form prints each set as "[a, b]", the
// members' own string forms in the members' order, so that equal values
// print the same; having sets, they cannot be read back from a string.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/FlatSet.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoKeys.h"

namespace Cspf {

class AllTopoRouter {
  public:
    // Sets of a few members each, built by the thousand per computation.
    using NeighborSet = Platform::FlatSet<AllTopoNeighborKey>;
    using TepSet = Platform::FlatSet<Net::IpGenAddr>;

    // A zero TE router id: the answer for an unknown router.
    AllTopoRouter() = default;
    explicit AllTopoRouter( const Net::IpGenAddr& teRouterId )
        : teRouterId_( teRouterId ) {}

    // TypeError "No String constructor for AllTopoRouter - has collection".
    [[noreturn]] static AllTopoRouter fromString( std::string_view text );

    const Net::IpGenAddr& teRouterId() const { return teRouterId_; }
    bool unknown() const { return teRouterId_.isAddrZero(); }

    void neighborIs( const AllTopoNeighborKey& key ) { neighbor_.insert( key ); }
    void neighborDel( const AllTopoNeighborKey& key ) { neighbor_.erase( key ); }
    bool neighborHas( const AllTopoNeighborKey& key ) const {
        return neighbor_.count( key ) != 0;
    }
    size_t neighbors() const { return neighbor_.size(); }
    const NeighborSet& neighbor() const { return neighbor_; }

    void tepIs( const Net::IpGenAddr& tep ) { tep_.insert( tep ); }
    void tepDel( const Net::IpGenAddr& tep ) { tep_.erase( tep ); }
    bool tepHas( const Net::IpGenAddr& tep ) const { return tep_.count( tep ) != 0; }
    size_t teps() const { return tep_.size(); }
    const TepSet& tep() const { return tep_; }

    bool operator==( const AllTopoRouter& other ) const = default;

    // "Value('Cspf::AllTopoRouter', ** {'teRouterId': ..., 'neighbor': [...],
    // 'tep': [...]})"
    std::string toString() const;

  private:
    Net::IpGenAddr teRouterId_;
    NeighborSet neighbor_;
    TepSet tep_;
};

std::ostream& operator<<( std::ostream& os, const AllTopoRouter& router );

class AllTopoNetwork {
  public:
    using RouterSet = Platform::FlatSet<Net::IpGenAddr>;

    AllTopoNetwork() = default;
    explicit AllTopoNetwork( const AllTopoNetworkId& id ) : allTopoNetworkId_( id ) {}

    // TypeError "No String constructor for AllTopoNetwork - has collection".
    [[noreturn]] static AllTopoNetwork fromString( std::string_view text );

    const AllTopoNetworkId& allTopoNetworkId() const { return allTopoNetworkId_; }

    void routerIs( const Net::IpGenAddr& teRouterId ) { router_.insert( teRouterId ); }
    void routerDel( const Net::IpGenAddr& teRouterId ) { router_.erase( teRouterId ); }
    bool routerHas( const Net::IpGenAddr& teRouterId ) const {
        return router_.count( teRouterId ) != 0;
    }
    size_t routers() const { return router_.size(); }
    const RouterSet& router() const { return router_; }

    bool operator==( const AllTopoNetwork& other ) const = default;

    // "Value('Cspf::AllTopoNetwork', ** {'allTopoNetworkId': ...,
    // 'router': [...]})"
    std::string toString() const;

  private:
    AllTopoNetworkId allTopoNetworkId_;
    RouterSet router_;
};

std::ostream& operator<<( std::ostream& os, const AllTopoNetwork& network );

}  // namespace Cspf

// Cspf::CspfLinkInfoKey: one candidate link of a CSPF run with the path cost
// to its far end. Its order makes the run's tentative list a priority queue.
//
// Three kinds, by the link's neighbor type and routerInNetwork:
//   router link             type 1, zero routerInNetwork: far end teNeighborId
//   network link            type 2, zero routerInNetwork: far end the LAN
//   router-in-network link  type 2, routerInNetwork R: far end R, across the LAN
// routerLink() is true for the first and the third kind.
//
// Keys sit in an ordered set and in hash maps on the hot path of a search over
// tens of thousands of routers: comparing and hashing never allocate.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>

#include "records/IpGenAddr.h"
#include "topo/AllTopoKeys.h"

namespace Cspf {

class CspfLinkInfoKey {
  public:
    // The empty key: the default link key, zero address, cost 0. It stands
    // for the source router when a run starts.
    CspfLinkInfoKey() = default;
    CspfLinkInfoKey( const AllTopoNeighborKey& allTopoNeighborKey, uint32_t cost )
        : allTopoNeighborKey_( allTopoNeighborKey ), cost_( cost ) {}
    // Reads the string form back; any failure raises DeserializationError.
    // An address printed as 0.0.0.0 reads as the unset address, which is what
    // every zero address of a key holds, so that printed keys compare equal
    // to the ones they came from.
    explicit CspfLinkInfoKey( std::string_view text );
    template <std::input_iterator It>
    requires std::same_as < std::iter_value_t<It>,
    char > CspfLinkInfoKey( It begin, It end )
        : CspfLinkInfoKey( std::string_view( std::string( begin, end ) ) ) {}

    const AllTopoNeighborKey& allTopoNeighborKey() const { return allTopoNeighborKey_; }
    uint32_t neighborType() const { return allTopoNeighborKey_.neighborType(); }
    uint32_t cost() const { return cost_; }

    const Net::IpGenAddr& routerInNetwork() const { return routerInNetwork_; }
    // Only a link into a LAN leads to a router on it: TypeError "Link with
    // neighborType <n> and routerInNetwork are not compatible" otherwise.
    // Any zero address (0.0.0.0, ::) is stored as the unset one.
    void routerInNetworkIs( const Net::IpGenAddr& addr );

    // The far end is a router: type 1, or a non-zero routerInNetwork.
    bool routerLink() const;
    // Equal costs; both keys must be router links, else TypeError "Only router
    // links are comparable".
    bool equalCost( const CspfLinkInfoKey& other ) const;

    bool operator==( const CspfLinkInfoKey& other ) const = default;
    bool operator!() const { return *this == CspfLinkInfoKey(); }
    // Cost first (unsigned); at equal cost network links, then point-to-point
    // router links, then router-in-network links; within a kind by
    // routerInNetwork, then by the link key.
    bool operator<( const CspfLinkInfoKey& other ) const;
    bool operator<=( const CspfLinkInfoKey& other ) const { return !( other < *this ); }
    bool operator>( const CspfLinkInfoKey& other ) const { return other < *this; }
    bool operator>=( const CspfLinkInfoKey& other ) const { return !( *this < other ); }
    // One-at-a-time over the link key's hash, routerInNetwork's hash when it
    // is set, and the cost, each least significant byte first.
    uint32_t hash() const;

    // "Value('Cspf::CspfLinkInfoKey', ** {'allTopoNeighborKey': ...,
    // 'routerInNetwork': ..., 'cost': ...})"
    std::string toString() const;

  private:
    AllTopoNeighborKey allTopoNeighborKey_;
    Net::IpGenAddr routerInNetwork_;
    uint32_t cost_ = 0;
};

std::ostream& operator<<( std::ostream& os, const CspfLinkInfoKey& key );

}  // namespace Cspf

template <>
struct std::hash<Cspf::CspfLinkInfoKey> {
    size_t operator()( const Cspf::CspfLinkInfoKey& key ) const { return key.hash(); }
};

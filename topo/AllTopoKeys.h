// The agent-side keys of the merged, level-qualified topology:
//   AllTopoNetworkId     a LAN of one level: (topoId, networkId)
//   AllTopoNeighborKey   a link of one level as its router advertises it:
//                        (topoId, neighborKey, teNeighborOf, teNeighborId)
// teNeighborOf is the TE router id of the advertising router; teNeighborId
// the TE router id of the far end of a point-to-point link, filled in by the
// view that builds the key. A default-constructed key is the empty key.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

#include "records/IpGenAddr.h"
#include "topo/TopoId.h"
#include "topo/TopoKeys.h"

namespace Cspf {

class AllTopoNetworkId {
  public:
    AllTopoNetworkId() = default;
    AllTopoNetworkId( TopoId topoId, const Routing::Topology::NetworkId& networkId )
        : topoId_( topoId ), networkId_( networkId ) {}

    TopoId topoId() const { return topoId_; }
    const Routing::Topology::NetworkId& networkId() const { return networkId_; }

    bool operator==( const AllTopoNetworkId& other ) const = default;
    bool operator<( const AllTopoNetworkId& other ) const;  // topoId, networkId
    bool operator!() const { return *this == AllTopoNetworkId(); }
    // One-at-a-time over the topoId byte, the four bytes of the DR's hash and
    // the four bytes of the pseudonode (least significant first), then mixed.
    uint32_t hash() const;

    // "Value('Cspf::AllTopoNetworkId', ** {'topoId': isisL1,
    // 'networkId': 1921.6800.1003.02})"
    std::string toString() const;

  private:
    // Zero is no level: the empty id holds it.
    TopoId topoId_{};
    Routing::Topology::NetworkId networkId_;
};

std::ostream& operator<<( std::ostream& os, const AllTopoNetworkId& id );

class AllTopoNeighborKey {
  public:
    AllTopoNeighborKey() = default;
    AllTopoNeighborKey( TopoId topoId, const Routing::Topology::NeighborKey& neighborKey,
                        const Net::IpGenAddr& teNeighborOf )
        : topoId_( topoId ), neighborKey_( neighborKey ), teNeighborOf_( teNeighborOf ) {}

    TopoId topoId() const { return topoId_; }
    const Routing::Topology::NeighborKey& neighborKey() const { return neighborKey_; }
    uint32_t neighborType() const { return neighborKey_.neighborType(); }
    const Net::IpGenAddr& teNeighborOf() const { return teNeighborOf_; }

    // The far end's TE router id; TypeError "NeighborType <n> and teNeighborId
    // are not compatible" unless the key is of type 1. The setter refuses the
    // same way: only a point-to-point link has a far-end router.
    const Net::IpGenAddr& teNeighborId() const;
    void teNeighborIdIs( const Net::IpGenAddr& addr );
    // The far-end LAN with this key's level; TypeError "NeighborType <n> and
    // allTopoNetworkId are not compatible" unless the key is of type 2.
    AllTopoNetworkId allTopoNetworkId() const;

    // All four fields.
    bool operator==( const AllTopoNeighborKey& other ) const = default;
    // topoId, neighborKey, teNeighborOf; then a key of a type other than 1 is
    // not less, and for type 1 teNeighborId decides.
    bool operator<( const AllTopoNeighborKey& other ) const;
    bool operator!() const { return *this == AllTopoNeighborKey(); }
    // Only topoId and neighborKey: one-at-a-time over the topoId byte and the
    // four bytes of neighborKey.hash() (least significant first), then mixed.
    // Keys that differ only in their TE router ids share a bucket.
    uint32_t hash() const;

    // "Value('Cspf::AllTopoNeighborKey', ** {'topoId': ..., 'neighborKey': ...,
    // 'teNeighborOf': ..., 'teNeighborId': ...})"
    std::string toString() const;

  private:
    TopoId topoId_{};
    Routing::Topology::NeighborKey neighborKey_;
    Net::IpGenAddr teNeighborOf_;
    Net::IpGenAddr teNeighborId_;
};

std::ostream& operator<<( std::ostream& os, const AllTopoNeighborKey& key );

}  // namespace Cspf

template <>
struct std::hash<Cspf::AllTopoNetworkId> {
    size_t operator()( const Cspf::AllTopoNetworkId& id ) const { return id.hash(); }
};

template <>
struct std::hash<Cspf::AllTopoNeighborKey> {
    size_t operator()( const Cspf::AllTopoNeighborKey& key ) const { return key.hash(); }
};

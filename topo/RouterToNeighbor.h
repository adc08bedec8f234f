// Cspf::RouterToNeighbor: the links one IS-IS router listed when its record
// was last handled by the level's reactor (TopoDbSm).
//
// The reactor keeps one per router that owns its TE router id, so that a link
// the router stops listing, or every link of a router that goes, can have its
// interface addresses withdrawn without the record that listed it.
#pragma once

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "topo/RouterId.h"
#include "topo/TopoKeys.h"

namespace Cspf {

class RouterToNeighbor : public Platform::Entity {
  public:
    explicit RouterToNeighbor( const Mpls::RouterId& routerId ) : routerId_( routerId ) {}

    const Mpls::RouterId& routerId() const { return routerId_; }

    // A set: the value is always true. Ordered: a few links per router, where
    // a tree costs less than a hash table's buckets.
    CSPF_COLL( OrderedColl, Routing::Topology::NeighborKey, bool, neighbor, neighbors )

    // "IGP Router ID: <id>", then its links in key order, two columns deeper.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const Mpls::RouterId routerId_;
};

}  // namespace Cspf

// Cspf::NeighborToIntfIp: the interface addresses one link carried when its
// record was last handled by the level's reactor (TopoDbSm).
//
// Kept for every link present in the level, published or not: what was
// recorded here is what gets published when the link's router comes to own
// its TE router id, and what gets withdrawn when the link changes or goes.
#pragma once

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "records/IpGenAddr.h"
#include "topo/TopoKeys.h"

namespace Cspf {

class NeighborToIntfIp : public Platform::Entity {
  public:
    explicit NeighborToIntfIp( const Routing::Topology::NeighborKey& neighborKey )
        : neighborKey_( neighborKey ) {}

    const Routing::Topology::NeighborKey& neighborKey() const { return neighborKey_; }

    // A set: the value is always true. Ordered: at most ten addresses.
    CSPF_COLL( OrderedColl, Net::IpGenAddr, bool, intfIp, intfIps )

    // "NeighborKey: <key>", then its addresses in address order, two columns
    // deeper.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const Routing::Topology::NeighborKey neighborKey_;
};

}  // namespace Cspf

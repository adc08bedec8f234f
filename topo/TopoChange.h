// Cspf::TopoChange: one handled change of the topology, as the compiled
// topology needs to hear of it to recompile what it touched: a router, a
// link or a LAN of one level, or our own TE router id.
#pragma once

#include <cstdint>

#include "topo/RouterId.h"
#include "topo/TopoId.h"
#include "topo/TopoKeys.h"

namespace Cspf {

struct TopoChange {
    enum class Kind : uint8_t { router, neighbor, network, ourTeRouterId };

    static TopoChange router( TopoId topoId, const Mpls::RouterId& id ) {
        TopoChange change;
        change.kind = Kind::router;
        change.topoId = topoId;
        change.routerId = id;
        return change;
    }
    static TopoChange neighbor( TopoId topoId,
                                const Routing::Topology::NeighborKey& key ) {
        TopoChange change;
        change.kind = Kind::neighbor;
        change.topoId = topoId;
        change.neighborKey = key;
        return change;
    }
    static TopoChange network( TopoId topoId, const Routing::Topology::NetworkId& id ) {
        TopoChange change;
        change.kind = Kind::network;
        change.topoId = topoId;
        change.networkId = id;
        return change;
    }
    static TopoChange ourTeRouterId() {
        TopoChange change;
        change.kind = Kind::ourTeRouterId;
        return change;
    }

    Kind kind = Kind::router;
    TopoId topoId = TopoId::isisL1;
    // The one the kind names.
    Mpls::RouterId routerId;
    Routing::Topology::NeighborKey neighborKey;
    Routing::Topology::NetworkId networkId;
};

}  // namespace Cspf

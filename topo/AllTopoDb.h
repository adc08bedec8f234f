// Cspf::AllTopoDb: the IS-IS level databases of one VRF, by level.
//
// The VRF root fills it as the level databases are mounted; the topology
// reactors watch it per level. The databases are read-only to the agent:
// they are held here so that one place says which levels are present.
#pragma once

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "topo/TopoDb.h"
#include "topo/TopoId.h"

namespace Cspf {

class AllTopoDb : public Platform::Entity {
  public:
    // topoDb( id ), topoDbHas, topoDbs(), topoDbIs( id, db ), topoDbDel( id ),
    // per-level notifications on topoDbTag.
    CSPF_COLL( OrderedColl, TopoId, Platform::Ptr<Routing::Topology::TopoDb>, topoDb,
               topoDbs )

    // Each present level in level order: its name, then its database.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

}  // namespace Cspf

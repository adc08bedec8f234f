// Cspf::AllClientInfo: what the client reactors of one family reach a VRF
// through: the active-VRF table whose handles keep VRFs alive, and, per active
// VRF, the VrfRoot's tables that path intake writes.
#pragma once

#include "platform/Attribute.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "records/VrfName.h"
#include "root/CspfActiveVrfsDedupTable.h"
#include "vrf/PathTables.h"

namespace Cspf {

class CspfRoot;

class AllClientInfo : public Platform::Entity {
  public:
    explicit AllClientInfo( CspfRoot* cspfRoot ) : cspfRoot_( cspfRoot ) {}

    // Creates the active-VRF table with the root's lifetime notifiee.
    void handleInitialized();

    CspfRoot* cspfRoot() const { return cspfRoot_; }
    const Platform::Ptr<CspfActiveVrfsDedupTable>& activeVrfsDedupTable() const {
        return activeVrfsDedupTable_;
    }

    CSPF_COLL( OrderedColl, L3::VrfName, Platform::Ptr<PathConfigInfoTable>,
               pathConfigInfoTable, pathConfigInfoTables )
    CSPF_COLL( OrderedColl, L3::VrfName, Platform::Ptr<PathStatusInfoTable>,
               pathStatusInfoTable, pathStatusInfoTables )

  private:
    CspfRoot* const cspfRoot_;
    Platform::Ptr<CspfActiveVrfsDedupTable> activeVrfsDedupTable_;
};

}  // namespace Cspf

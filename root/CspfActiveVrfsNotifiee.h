// Cspf::CspfActiveVrfsNotifiee: brings a VRF to life in its family root when
// its first handle enters the active-VRF table, and ends it when the last one
// is released.
#pragma once

#include "platform/Dedup.h"
#include "platform/Entity.h"

namespace Cspf {

class CspfRoot;

class CspfActiveVrfsNotifiee : public Platform::Entity,
                               public Platform::DedupTableNotifiee {
  public:
    explicit CspfActiveVrfsNotifiee( CspfRoot* cspfRoot ) : cspfRoot_( cspfRoot ) {}

    // The VrfRoot and its reactor, then the two info-table entries.
    void handleInsert( Platform::DedupHandle& handle ) override;
    // The reactor, the VrfRoot, then the two info-table entries.
    void handleRemove( Platform::DedupHandle& handle ) override;
    void handleNotificationStop( Platform::DedupHashTable& table ) override;

  private:
    CspfRoot* const cspfRoot_;
};

}  // namespace Cspf

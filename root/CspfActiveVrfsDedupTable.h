// Cspf::CspfActiveVrfsDedupTable: the VRFs of one family that some client
// uses, as deduplicated handles. Its one lifetime notifiee (the family root's
// CspfActiveVrfsNotifiee) hears a VRF become active with its first handle and
// inactive when its last handle is released.
#pragma once

#include <cstddef>

#include "platform/Dedup.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "records/VrfName.h"
#include "root/DedupVrfHandle.h"

namespace Cspf {

class CspfActiveVrfsDedupTable : public Platform::Entity {
  public:
    CspfActiveVrfsDedupTable();
    ~CspfActiveVrfsDedupTable() override;

    // The VRF's handle: the existing one, or a new one inserted (its
    // insertion notifies the lifetime notifiee before this returns).
    Platform::Ptr<DedupVrfHandle> dedupFromVrfName( const L3::VrfName& vrfName );

    void lifeTimeNotifieeIs( Platform::DedupTableNotifiee* notifiee ) {
        hashTable_->notifieeIs( notifiee );
    }
    size_t size() const { return hashTable_->size(); }

  private:
    Platform::Ptr<Platform::DedupHashTable> hashTable_;
};

}  // namespace Cspf

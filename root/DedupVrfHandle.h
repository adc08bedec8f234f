// Cspf::DedupVrfHandle: one shared handle per VRF that some client uses in a
// family. Each client-VRF reactor holds one for each family it serves; the
// first holder brings the VRF to life in that family, the last one to let go
// ends it (CspfActiveVrfsNotifiee).
#pragma once

#include <cstdint>

#include "platform/Dedup.h"
#include "records/VrfName.h"

namespace Cspf {

class DedupVrfHandle : public Platform::DedupHandle {
  public:
    explicit DedupVrfHandle( const L3::VrfName& vrfName ) : vrfName_( vrfName ) {}

    const char* fwkType() const override { return "Cspf::DedupVrfHandle"; }
    uint32_t hash() const override { return vrfName_.hash(); }
    bool compare( const Platform::DedupHandle& other ) const override;

    const L3::VrfName& vrfName() const { return vrfName_; }

    // A handle of another kind in the active-VRF table is a programming
    // error: fatal assertion "castHandle".
    static DedupVrfHandle& fromDedupHandle( Platform::DedupHandle& handle );

  protected:
    ~DedupVrfHandle() override = default;

  private:
    const L3::VrfName vrfName_;
};

}  // namespace Cspf

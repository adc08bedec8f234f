// Cspf::ConstraintStats: what the CSPF scheduler of one constraint has done,
// for diagnostics. Kept by ConstraintInfoSm; created and deleted by VrfRootSm
// as the constraint's ConstraintInfo comes and goes, under the same key.
#pragma once

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "root/DedupConstraint.h"
#include "vrf/ConstraintInfo.h"

namespace Cspf {

class ConstraintStats : public Platform::Entity {
  public:
    ConstraintStats( ConstraintHandleKey handle,
                     Platform::Ptr<const DedupConstraintLifeTimeNotifier> constraint );

    ConstraintHandleKey handle() const { return handle_; }
    const Platform::Ptr<const DedupConstraintLifeTimeNotifier>& constraint() const {
        return constraint_;
    }

    // A run is waiting on the throttle timer.
    CSPF_ATTR( bool, cspfScheduled, false )
    // The throttle delay in force, in milliseconds.
    CSPF_ATTR( double, cspfCurrentDelay, 0.0 )
    // Runs made for this constraint.
    CSPF_COUNTER( cspfCount )
    // Clock seconds of the last run; 0 before the first.
    CSPF_ATTR( double, cspfLastRanAt, 0.0 )

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const ConstraintHandleKey handle_;
    const Platform::Ptr<const DedupConstraintLifeTimeNotifier> constraint_;
};

}  // namespace Cspf

// Cspf::ConstraintInfo: the state of one live deduplicated constraint of a
// VRF: the paths that use it, when the topology last changed for it, and the
// request counter that drives its CSPF scheduler.
//
// It lives exactly as long as its handle is in the VRF's DedupConstraintTable
// (ConstraintInfoTableNotifiee creates and deletes it) and is keyed by the
// handle's identity, never by content: dedup already made one handle per
// content. It watches the handle weakly, through a lifetime notifier, so that
// it never keeps a constraint alive that no path holds.
#pragma once

#include "platform/Attribute.h"
#include "platform/Dedup.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "root/DedupConstraint.h"
#include "vrf/PathInfoKey.h"

namespace Cspf {

// The key of every per-constraint table and reactor collection: the handle's
// address. A DedupConstraint* or a Ptr's ptr() converts to it.
using ConstraintHandleKey = const Platform::DedupHandle*;

class ConstraintInfo : public Platform::Entity {
  public:
    ConstraintInfo( ConstraintHandleKey handle,
                    Platform::Ptr<const DedupConstraintLifeTimeNotifier> constraint );

    ConstraintHandleKey handle() const { return handle_; }
    const Platform::Ptr<const DedupConstraintLifeTimeNotifier>& constraint() const {
        return constraint_;
    }

    // Clock seconds of the last topology or interface-address change that
    // concerns this constraint; 0 when none was seen.
    CSPF_ATTR( double, topoChangedAt, 0.0 )
    // Clock seconds of the last interface-address change that concerns it.
    CSPF_ATTR( double, ipIntfStatusChangedAt, 0.0 )
    // +1 for every path of this constraint that needs a new computation.
    CSPF_COUNTER( cspfRequestCount )
    // The paths that use this constraint; a set, the value is always true.
    // Ordered, so that a run adds its TEPs, and a dump lists them, in the
    // same order every time.
    CSPF_COLL( OrderedColl, PathInfoKey, bool, path, paths )

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const ConstraintHandleKey handle_;
    const Platform::Ptr<const DedupConstraintLifeTimeNotifier> constraint_;
};

}  // namespace Cspf

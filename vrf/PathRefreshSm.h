// Cspf::PathRefreshSm: marks one path for refresh when the topology changes
// for its constraint.
//
// It watches ConstraintInfo::topoChangedAt of the constraint the path had
// when the reactor was made (VrfRootSm replaces the reactor when the path
// changes constraint) and adds refreshReasonTopoChanged to the path's
// PathStatusInfo; the publisher then asks the constraint for a computation.
//
// At construction it only drops a topology mark left from the path's previous
// constraint (handleInitialized): the path is computed on its new constraint
// anyway, because the change of constraint raised refreshReasonConfigChanged,
// and a time stamp the new constraint already had is not news for this path.
#pragma once

#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "vrf/ConstraintInfo.h"
#include "vrf/PathStatusInfo.h"

namespace Cspf {

class PathRefreshSm : public Platform::Reactor {
  public:
    PathRefreshSm( Platform::Ptr<const ConstraintInfo> constraintInfo,
                   Platform::Ptr<PathStatusInfo> pathStatusInfo );

    const Platform::Ptr<const ConstraintInfo>& constraintInfo() const {
        return constraintInfo_;
    }
    const Platform::Ptr<PathStatusInfo>& pathStatusInfo() const {
        return pathStatusInfo_;
    }

    // Drops the topology bit, and refreshNeeded with it when no other reason
    // is left.
    void handleInitialized();
    // A non-zero topoChangedAt marks the path.
    void handleTopoChanged();

    // "PathRefreshSm <address>", the path, and the records it links.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const Platform::Ptr<const ConstraintInfo> constraintInfo_;
    const Platform::Ptr<PathStatusInfo> pathStatusInfo_;
};

}  // namespace Cspf

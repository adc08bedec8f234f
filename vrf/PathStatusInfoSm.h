// Cspf::PathStatusInfoSm: keeps a path in the path set of its constraint.
//
// Invariant kept once the reactor of each path has run: the set
// ConstraintInfo::path of a constraint holds exactly the paths whose
// PathStatusInfo::constraint is that constraint. On every change of the
// path's constraint the path leaves the set of the constraint it was in
// (oldConstraint) and joins the set of the new one, and
// constraintChangeCount counts the change (the first run at construction
// counts as one). Its destruction takes the path out of its set.
//
// oldConstraint is a weak reference (the lifetime notifier of the
// ConstraintInfo): the path's own handle keeps a constraint alive, not this
// reactor, and a constraint that left the dedup table is simply not found.
//
// VrfRootSm makes one per path request.
#pragma once

#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "root/DedupConstraint.h"
#include "vrf/ConstraintInfo.h"
#include "vrf/PathStatusInfo.h"
#include "vrf/PathTables.h"

namespace Cspf {

class PathStatusInfoSm : public Platform::Reactor {
  public:
    PathStatusInfoSm( Platform::Ptr<PathStatusInfo> pathStatusInfo,
                      Platform::Ptr<ConstraintInfoTable> constraintInfoTable );
    // Runs handleDestruction.
    ~PathStatusInfoSm() override;

    const Platform::Ptr<PathStatusInfo>& pathStatusInfo() const {
        return pathStatusInfo_;
    }
    const Platform::Ptr<ConstraintInfoTable>& constraintInfoTable() const {
        return constraintInfoTable_;
    }
    // The constraint whose path set holds this path; null when none.
    const Platform::Ptr<const DedupConstraintLifeTimeNotifier>& oldConstraint() const {
        return oldConstraint_;
    }

    // Runs handleConstraint for the constraint the path already has.
    void handleInitialized();
    void handleConstraint();
    // Stops watching and takes the path out of its constraint's set. Runs
    // once: from the owner before it lets go, or from the destructor.
    void handleDestruction();

    // "PathStatusInfoSm <address>", the path, and its old constraint.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    // Takes the path out of oldConstraint's set, if that constraint still
    // has a ConstraintInfo.
    void doUpdateOldConstraint();
    // The ConstraintInfo of a live handle, null for a null handle.
    Platform::Ptr<ConstraintInfo> doConstraintInfo(
        const Platform::DedupHandle* handle ) const;

    const Platform::Ptr<PathStatusInfo> pathStatusInfo_;
    const Platform::Ptr<ConstraintInfoTable> constraintInfoTable_;
    Platform::Ptr<const DedupConstraintLifeTimeNotifier> oldConstraint_;
    bool destroyed_ = false;
};

}  // namespace Cspf

// Cspf::PathConfigInfoSm: turns a client's write of one PathConfig into the
// path's constraint, its refresh request sequence and a pending refresh.
//
// After each write (PathConfigInfo::changeCount) it reads the request from
// the client's table, deduplicates its constraint and updates the path's
// PathStatusInfo, in this order: lastRefreshReqSeq, then the constraint, then
// the reason bit, then refreshNeeded. A new constraint gives
// refreshReasonConfigChanged, a raised sequence on the same constraint
// refreshReasonExplicit; a rewrite that changes neither raises nothing.
// Setting the sequence first lets the reactors woken by the constraint
// change publish with the new sequence already in place.
//
// VrfRootSm makes one per path request.
#pragma once

#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "root/DedupConstraintTable.h"
#include "vrf/PathConfigInfo.h"
#include "vrf/PathStatusInfo.h"

namespace Cspf {

class PathConfigInfoSm : public Platform::Reactor {
  public:
    PathConfigInfoSm( Platform::Ptr<const PathConfigInfo> pathConfigInfo,
                      Platform::Ptr<PathStatusInfo> pathStatusInfo,
                      Platform::Ptr<DedupConstraintTable> dedupConstraintTable );

    const Platform::Ptr<const PathConfigInfo>& pathConfigInfo() const {
        return pathConfigInfo_;
    }
    const Platform::Ptr<PathStatusInfo>& pathStatusInfo() const {
        return pathStatusInfo_;
    }
    const Platform::Ptr<DedupConstraintTable>& dedupConstraintTable() const {
        return dedupConstraintTable_;
    }

    // Runs handleChangeCount, so that a request written before the reactor
    // existed sets the path's constraint at once.
    void handleInitialized();
    void handleChangeCount();

    // "PathConfigInfoSm <address>", the path, and the records it links.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const Platform::Ptr<const PathConfigInfo> pathConfigInfo_;
    const Platform::Ptr<PathStatusInfo> pathStatusInfo_;
    const Platform::Ptr<DedupConstraintTable> dedupConstraintTable_;
};

}  // namespace Cspf

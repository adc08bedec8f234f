// Cspf::PathStatusUpdateSm: the one writer of a client's PathStatus record for
// one path request.
//
// A pending refresh (PathStatusInfo::refreshNeeded and its reason bits) ends
// here in one of two ways:
//  - a topology or configuration reason asks the constraint for one more
//    computation (ConstraintInfo::cspfRequestCount); the write follows when
//    the computation refreshes the path's PathStatusCache
//    (handlePathStatusCache);
//  - an explicit refresh alone is answered at once from the cache, without
//    a computation (handleRefreshNeeded).
// Either way the record is rewritten only when the client would see a
// difference: other hops, no record yet, or an unanswered refresh request
// (isPathUpdateRequired). Each write raises changeCount by exactly one and
// answers with the path's lastRefreshReqSeq of that moment.
//
// VrfRootSm makes one per path while the path has a constraint, and replaces
// it when the constraint changes, so constraintInfo is fixed for its life.
#pragma once

#include <optional>

#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "records/PathStatus.h"
#include "vrf/ConstraintInfo.h"
#include "vrf/PathStatusCache.h"
#include "vrf/PathStatusInfo.h"

namespace Cspf {

class PathStatusUpdateSm : public Platform::Reactor {
  public:
    PathStatusUpdateSm( Platform::Ptr<PathStatusInfo> pathStatusInfo,
                        Platform::Ptr<const PathStatusCache> pathStatusCache,
                        Platform::Ptr<ConstraintInfo> constraintInfo );

    const Platform::Ptr<PathStatusInfo>& pathStatusInfo() const {
        return pathStatusInfo_;
    }
    const Platform::Ptr<const PathStatusCache>& pathStatusCache() const {
        return pathStatusCache_;
    }
    const Platform::Ptr<ConstraintInfo>& constraintInfo() const {
        return constraintInfo_;
    }

    // Runs handleRefreshNeeded: a refresh pending before this reactor existed
    // (the path has just changed constraint) is acted on at once.
    void handleInitialized();
    // Turns a pending refresh into a CSPF request, or, for an explicit
    // refresh alone, into an immediate publication.
    void handleRefreshNeeded();
    // A computation refreshed the cache: publishes if a refresh is pending.
    void handlePathStatusCache();

    // Whether the client's present record differs from what would be
    // published now: no record, other hops, or an unanswered request.
    bool isPathUpdateRequired() const;
    // Writes a new record when isPathUpdateRequired(); the caller clears the
    // pending refresh, unless the table could not take the record (traced;
    // a new computation is asked for, which tries again).
    void publishPathStatus();

    // "PathStatusUpdateSm <address>", the path, and the records it links.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    // The client's present record for the path, if any.
    std::optional<PathStatus> doReadPathStatus() const;
    // isPathUpdateRequired() against a record already read; traces as
    // isPathUpdateRequired().
    bool doIsPathUpdateRequired( const std::optional<PathStatus>& present ) const;

    const Platform::Ptr<PathStatusInfo> pathStatusInfo_;
    const Platform::Ptr<const PathStatusCache> pathStatusCache_;
    const Platform::Ptr<ConstraintInfo> constraintInfo_;
    bool publishFailed_ = false;  // the last publishPathStatus() could not write
};

}  // namespace Cspf

// Cspf::PathStatusInfo: what the agent knows of one path request between the
// client's write and the agent's answer: the constraint it asks for, the
// refresh sequence last seen, and whether (and why) a new result is owed.
//
// Writers (see docs/vrf-tables.md): PathConfigInfoSm sets constraint,
// lastRefreshReqSeq and the configuration and explicit reason bits;
// PathRefreshSm the topology bit; PathStatusInfoSm counts constraint changes;
// PathStatusUpdateSm clears the reason word and refreshNeeded on publication.
// Invariant kept by those writers: once a sequence of setters is done,
// refreshNeeded is true whenever refreshReason is not 0.
#pragma once

#include <cstdint>

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "records/PathTables.h"
#include "root/DedupConstraint.h"
#include "vrf/PathInfoKey.h"

namespace Cspf {

// Bits of PathStatusInfo::refreshReason. The word only gains bits until a
// publication clears it whole; PathRefreshSm::handleInitialized may also drop
// the topology bit that belonged to the path's previous constraint.
enum RefreshReason : uint32_t {
    // The topology changed for the path's constraint (topoChangedAt set).
    refreshReasonTopoChanged = 0x1,
    // The request now asks for another constraint.
    refreshReasonConfigChanged = 0x2,
    // The client raised its refresh request sequence.
    refreshReasonExplicit = 0x4,
};

class PathStatusInfo : public Platform::Entity {
  public:
    // `cspfStatus` is the client's result table of the path's VRF and family,
    // where the path's PathStatus is published; tests may pass null.
    PathStatusInfo( const PathInfoKey& pathInfoKey, Platform::Ptr<Status> cspfStatus );

    const PathInfoKey& pathInfoKey() const { return pathInfoKey_; }
    const Platform::Ptr<Status>& cspfStatus() const { return cspfStatus_; }

    // The deduplicated constraint the request asks for; null until the
    // request is first read. Holding it keeps the constraint in its table.
    CSPF_ATTR( Platform::Ptr<DedupConstraint>, constraint )
    // The client's refreshReqSeq last seen in its PathConfig.
    CSPF_ATTR( uint32_t, lastRefreshReqSeq, 0 )
    // +1 whenever the path moves to another constraint, or to none.
    CSPF_COUNTER( constraintChangeCount )
    // A new status must be produced for this path.
    CSPF_ATTR( bool, refreshNeeded, false )
    // Why: RefreshReason bits.
    CSPF_ATTR( uint32_t, refreshReason, 0 )

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const PathInfoKey pathInfoKey_;
    const Platform::Ptr<Status> cspfStatus_;
};

}  // namespace Cspf

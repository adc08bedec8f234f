#include "vrf/PathStatusInfo.h"

#include <utility>

namespace Cspf {

PathStatusInfo::PathStatusInfo( const PathInfoKey& pathInfoKey,
                                Platform::Ptr<Status> cspfStatus )
    : pathInfoKey_( pathInfoKey ), cspfStatus_( std::move( cspfStatus ) ) {}

void PathStatusInfo::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "PathStatusInfo %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent, "Constraint Handle: %p\n",
                           static_cast<const void*>( constraint().get() ) );
    Platform::objDumpLine( context, indent, "Last Refresh Req Sequence: %u\n",
                           lastRefreshReqSeq() );
    Platform::objDumpLine( context, indent, "Constraint change count: %u\n",
                           constraintChangeCount() );
    Platform::objDumpLine( context, indent, "Refresh Needed: %s Refresh Reason: 0x%x\n",
                           refreshNeeded() ? "Yes" : "No", refreshReason() );
}

}  // namespace Cspf

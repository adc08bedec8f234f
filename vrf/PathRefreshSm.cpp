#include "vrf/PathRefreshSm.h"

#include <utility>

#include "platform/Assert.h"
#include "platform/Mivlog.h"

namespace Cspf {

PathRefreshSm::PathRefreshSm( Platform::Ptr<const ConstraintInfo> constraintInfo,
                              Platform::Ptr<PathStatusInfo> pathStatusInfo )
    : constraintInfo_( std::move( constraintInfo ) ),
      pathStatusInfo_( std::move( pathStatusInfo ) ) {
    CSPF_ASSERT( constraintInfo_ && pathStatusInfo_ );
    // Watching reads the record, it never changes it.
    watch( const_cast<ConstraintInfo*>( constraintInfo_.get() ),
           ConstraintInfo::topoChangedAtTag, &PathRefreshSm::handleTopoChanged );
}

void PathRefreshSm::handleInitialized() {
    if ( ( pathStatusInfo_->refreshReason() & refreshReasonTopoChanged ) == 0 ) {
        return;
    }
    TRACE4( "for path: " << pathStatusInfo_->pathInfoKey() );
    pathStatusInfo_->refreshReasonIs( pathStatusInfo_->refreshReason() &
                                      ~uint32_t( refreshReasonTopoChanged ) );
    if ( pathStatusInfo_->refreshReason() == 0 ) {
        pathStatusInfo_->refreshNeededIs( false );
    }
}

void PathRefreshSm::handleTopoChanged() {
    const PathInfoKey& key = pathStatusInfo_->pathInfoKey();
    if ( constraintInfo_->topoChangedAt() == 0.0 ) {
        TRACE4( ": topoChangedAt reset for " << key );
        return;
    }
    TRACE4( "for path: " << key );
    pathStatusInfo_->refreshReasonIs( pathStatusInfo_->refreshReason() |
                                      refreshReasonTopoChanged );
    pathStatusInfo_->refreshNeededIs( true );
}

void PathRefreshSm::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "PathRefreshSm %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent + 2, "Path: %s\n",
                           pathStatusInfo_->pathInfoKey().toString().c_str() );
    Platform::objDumpLine( context, indent + 2, "ConstraintInfo: %p PathStatusInfo: %p\n",
                           static_cast<const void*>( constraintInfo_.get() ),
                           static_cast<const void*>( pathStatusInfo_.get() ) );
}

}  // namespace Cspf

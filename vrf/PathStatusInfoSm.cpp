#include "vrf/PathStatusInfoSm.h"

#include <utility>

#include "platform/Assert.h"
#include "platform/Mivlog.h"

namespace Cspf {

PathStatusInfoSm::PathStatusInfoSm(
    Platform::Ptr<PathStatusInfo> pathStatusInfo,
    Platform::Ptr<ConstraintInfoTable> constraintInfoTable )
    : pathStatusInfo_( std::move( pathStatusInfo ) ),
      constraintInfoTable_( std::move( constraintInfoTable ) ) {
    CSPF_ASSERT( pathStatusInfo_ && constraintInfoTable_ );
    watch( pathStatusInfo_.get(), PathStatusInfo::constraintTag,
           &PathStatusInfoSm::handleConstraint );
}

PathStatusInfoSm::~PathStatusInfoSm() {
    handleDestruction();
}

void PathStatusInfoSm::handleInitialized() {
    handleConstraint();
}

Platform::Ptr<ConstraintInfo> PathStatusInfoSm::doConstraintInfo(
    const Platform::DedupHandle* handle ) const {
    if ( !handle ) {
        return nullptr;
    }
    return constraintInfoTable_->constraintInfo( handle );
}

void PathStatusInfoSm::handleConstraint() {
    const PathInfoKey& key = pathStatusInfo_->pathInfoKey();
    doUpdateOldConstraint();
    if ( const Platform::Ptr<DedupConstraint>& constraint =
             pathStatusInfo_->constraint() ) {
        // The dedup table's notifiee made the ConstraintInfo when the
        // constraint was first deduplicated, before the path could hold it.
        Platform::Ptr<ConstraintInfo> constraintInfo =
            doConstraintInfo( constraint.get() );
        if ( constraintInfo ) {
            TRACE4( ": constraintInfo " << constraintInfo.get() << " updated for "
                                        << key );
            constraintInfo->pathIs( key, true );
            oldConstraint_ = constraintInfo->constraint();
        } else {
            // Only a dedup table without its notifiee gets here.
            TRACE4( ": no constraintInfo for " << key );
            oldConstraint_ = nullptr;
        }
    } else {
        TRACE4( ": constraint reset for " << key );
        oldConstraint_ = nullptr;
    }
    pathStatusInfo_->constraintChangeCountInc( 1 );
}

void PathStatusInfoSm::doUpdateOldConstraint() {
    const PathInfoKey& key = pathStatusInfo_->pathInfoKey();
    if ( !oldConstraint_ ) {
        TRACE4( ": no old constraint for " << key );
        return;
    }
    // A handle that left the dedup table took its ConstraintInfo, and the
    // path set in it, along.
    Platform::Ptr<ConstraintInfo> constraintInfo =
        doConstraintInfo( oldConstraint_->handle() );
    if ( !constraintInfo ) {
        TRACE4( ": constraintInfo deleted for " << key );
        return;
    }
    CSPF_ASSERT( constraintInfo->path( pathStatusInfo()->pathInfoKey() ) );
    TRACE4( ": constraintInfo " << constraintInfo.get() << " updated for " << key );
    constraintInfo->pathDel( key );
}

void PathStatusInfoSm::handleDestruction() {
    if ( destroyed_ ) {
        return;
    }
    destroyed_ = true;
    unwatchAll();
    const PathInfoKey& key = pathStatusInfo_->pathInfoKey();
    const Platform::Ptr<DedupConstraint> constraint = pathStatusInfo_->constraint();
    Platform::Ptr<ConstraintInfo> current = doConstraintInfo( constraint.get() );
    if ( current ) {
        TRACE3( "Removing dst: " << key.pathKey().destination
                                 << " of client: " << key.clientName()
                                 << " id: " << key.pathKey().id << " from constraint: "
                                 << constraint->pathConstraint() );
        current->pathDel( key );
    }
    // Normally the same record; they differ only when the reactor goes inside
    // a change of the path's constraint, before it heard of the change.
    if ( oldConstraint_ ) {
        Platform::Ptr<ConstraintInfo> old = doConstraintInfo( oldConstraint_->handle() );
        if ( old && old != current ) {
            old->pathDel( key );
        }
        oldConstraint_ = nullptr;
    }
}

void PathStatusInfoSm::dumpState( Platform::DumpContext& context,
                                  unsigned indent ) const {
    Platform::objDumpLine( context, indent, "PathStatusInfoSm %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent + 2, "Path: %s\n",
                           pathStatusInfo_->pathInfoKey().toString().c_str() );
    Platform::objDumpLine( context, indent + 2, "Old path constraint: %p\n",
                           static_cast<const void*>( oldConstraint_.get() ) );
}

}  // namespace Cspf

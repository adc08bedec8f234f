#include "vrf/PathConfigInfoSm.h"

#include <cstdint>
#include <utility>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"

namespace Cspf {

PathConfigInfoSm::PathConfigInfoSm(
    Platform::Ptr<const PathConfigInfo> pathConfigInfo,
    Platform::Ptr<PathStatusInfo> pathStatusInfo,
    Platform::Ptr<DedupConstraintTable> dedupConstraintTable )
    : pathConfigInfo_( std::move( pathConfigInfo ) ),
      pathStatusInfo_( std::move( pathStatusInfo ) ),
      dedupConstraintTable_( std::move( dedupConstraintTable ) ) {
    CSPF_ASSERT( pathConfigInfo_ && pathStatusInfo_ && dedupConstraintTable_ );
    // Watching reads the record, it never changes it.
    watch( const_cast<PathConfigInfo*>( pathConfigInfo_.get() ),
           PathConfigInfo::changeCountTag, &PathConfigInfoSm::handleChangeCount );
}

void PathConfigInfoSm::handleInitialized() {
    handleChangeCount();
}

void PathConfigInfoSm::handleChangeCount() {
    const PathInfoKey& key = pathConfigInfo_->pathInfoKey();
    if ( pathConfigInfo_->changeCount() == 0 ) {
        // Not written since the record was made: nothing to read yet.
        TRACE4( ": changeCount reset for " << key );
        return;
    }
    TRACE4( "for path: " << key );

    // A missing request is transient: path intake deletes this path's
    // records when the client deletes it. Until then the path keeps what it
    // had, rather than falling back to a default constraint and sequence.
    const Config* table = pathConfigInfo_->cspfConfig().get();
    if ( !table || !table->pathConfigHas( key.pathKey() ) ) {
        TRACE4( "no PathConfig for " << key );
        return;
    }
    // A corrupt record goes to the table's corruption handler and reads as
    // the default request, as does one deleted since the lookup above.
    const PathConfig config = table->pathConfig( key.pathKey() );
    if ( !( config.key == key.pathKey() ) ) {
        if ( !( config == PathConfig() ) ) {
            table->doCorruption( Platform::CorruptionError(
                table->statePath(), "PathConfig under " + key.pathKey().toString() +
                                        " names " + config.key.toString() ) );
        }
        TRACE4( "no PathConfig for " << key );
        return;
    }
    const uint32_t newSeq = config.refreshReqSeq;
    const uint32_t oldSeq = pathStatusInfo_->lastRefreshReqSeq();

    Platform::Ptr<DedupConstraint> handle =
        dedupConstraintTable_->dedup( DedupConstraintContent( config.constraint ) );

    pathStatusInfo_->lastRefreshReqSeqIs( newSeq );
    if ( handle.get() != pathStatusInfo_->constraint().get() ) {
        // The reason word is read after the constraint is set: the reactors
        // that the change replaces or wakes may have changed it meanwhile.
        pathStatusInfo_->constraintIs( handle );
        pathStatusInfo_->refreshReasonIs( pathStatusInfo_->refreshReason() |
                                          refreshReasonConfigChanged );
        pathStatusInfo_->refreshNeededIs( true );
    } else if ( newSeq > oldSeq ) {
        pathStatusInfo_->refreshReasonIs( pathStatusInfo_->refreshReason() |
                                          refreshReasonExplicit );
        pathStatusInfo_->refreshNeededIs( true );
    }
}

void PathConfigInfoSm::dumpState( Platform::DumpContext& context,
                                  unsigned indent ) const {
    Platform::objDumpLine( context, indent, "PathConfigInfoSm %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent + 2, "Path: %s\n",
                           pathConfigInfo_->pathInfoKey().toString().c_str() );
    Platform::objDumpLine( context, indent + 2, "PathConfigInfo: %p PathStatusInfo: %p\n",
                           static_cast<const void*>( pathConfigInfo_.get() ),
                           static_cast<const void*>( pathStatusInfo_.get() ) );
}

}  // namespace Cspf

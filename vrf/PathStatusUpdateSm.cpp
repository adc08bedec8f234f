#include "vrf/PathStatusUpdateSm.h"

#include <string>
#include <utility>

#include "platform/Assert.h"
#include "platform/Clock.h"
#include "platform/Mivlog.h"

namespace Cspf {

namespace {

// publishPathStatus() reads the client's record once and checks it through
// the same code as isPathUpdateRequired(); the lines of that check name
// isPathUpdateRequired() whichever way it was reached.
constexpr const char* kIsPathUpdateRequired =
    "bool Cspf::PathStatusUpdateSm::isPathUpdateRequired() const";

}  // namespace

PathStatusUpdateSm::PathStatusUpdateSm(
    Platform::Ptr<PathStatusInfo> pathStatusInfo,
    Platform::Ptr<const PathStatusCache> pathStatusCache,
    Platform::Ptr<ConstraintInfo> constraintInfo )
    : pathStatusInfo_( std::move( pathStatusInfo ) ),
      pathStatusCache_( std::move( pathStatusCache ) ),
      constraintInfo_( std::move( constraintInfo ) ) {
    CSPF_ASSERT( pathStatusInfo_ && pathStatusCache_ && constraintInfo_ );
    watch( pathStatusInfo_.get(), PathStatusInfo::refreshNeededTag,
           &PathStatusUpdateSm::handleRefreshNeeded );
    // Watching reads the cache, it never changes it.
    watch( const_cast<PathStatusCache*>( pathStatusCache_.get() ),
           PathStatusCache::refreshedCountTag,
           &PathStatusUpdateSm::handlePathStatusCache );
}

void PathStatusUpdateSm::handleInitialized() {
    handleRefreshNeeded();
}

void PathStatusUpdateSm::handleRefreshNeeded() {
    const PathInfoKey& key = pathStatusInfo_->pathInfoKey();
    TRACE5( "called for " << key.pathKey().destination
                          << " from client: " << key.clientName() );
    if ( !pathStatusInfo_->refreshNeeded() ) {
        return;
    }
    const uint32_t reason = pathStatusInfo_->refreshReason();
    const bool topoRefresh = ( reason & refreshReasonTopoChanged ) != 0;
    const bool configRefresh = ( reason & refreshReasonConfigChanged ) != 0;
    const bool explicitRefresh = ( reason & refreshReasonExplicit ) != 0;
    if ( topoRefresh || configRefresh ) {
        // The pending refresh stays as it is: the computation refreshes the
        // cache, and handlePathStatusCache publishes and ends it.
        TRACE4( "CSPF requested for path: " << key.pathKey().destination
                                            << " from client: " << key.clientName() );
        constraintInfo_->cspfRequestCountInc( 1 );
        return;
    }
    CSPF_ASSERT( explicitRefresh );
    // The client asked again for what it has: the last computation's hops,
    // stamped with its new sequence, cost no computation.
    TRACE4( "Explicit path refresh request for "
            << key.pathKey().destination << " from client: " << key.clientName() );
    publishPathStatus();
    if ( publishFailed_ ) {
        return;  // pending until a later computation publishes
    }
    pathStatusInfo_->refreshReasonIs( 0 );
    pathStatusInfo_->refreshNeededIs( false );
}

void PathStatusUpdateSm::handlePathStatusCache() {
    const PathInfoKey& key = pathStatusInfo_->pathInfoKey();
    TRACE5( "called for " << key.pathKey().destination
                          << " from client: " << key.clientName() );
    if ( !pathStatusInfo_->refreshNeeded() ) {
        // Another path of the constraint asked for the computation.
        return;
    }
    publishPathStatus();
    if ( publishFailed_ ) {
        return;  // pending until a later computation publishes
    }
    pathStatusInfo_->refreshReasonIs( 0 );
    // Re-enters handleRefreshNeeded, which finds nothing pending.
    pathStatusInfo_->refreshNeededIs( false );
}

std::optional<PathStatus> PathStatusUpdateSm::doReadPathStatus() const {
    const Status* table = pathStatusInfo_->cspfStatus().get();
    const PathKey& pathKey = pathStatusInfo_->pathInfoKey().pathKey();
    // A record that does not decode (others can write into the table) reads as
    // none, so that it is written anew; the table's handler traces it.
    return table ? table->lookup( pathKey ) : std::nullopt;
}

bool PathStatusUpdateSm::isPathUpdateRequired() const {
    return doIsPathUpdateRequired( doReadPathStatus() );
}

bool PathStatusUpdateSm::doIsPathUpdateRequired(
    const std::optional<PathStatus>& present ) const {
    const PathInfoKey& key = pathStatusInfo_->pathInfoKey();
    TRACE_FOR( 5, kIsPathUpdateRequired,
               "Checking if path status update is needed for "
                   << key.pathKey().destination << " from client: " << key.clientName() );
    // The order of the checks below decides which difference is traced: a
    // missing record, then the lengths, then the first differing hop, and
    // the sequence only when the hops are the same.
    if ( !present ) {
        TRACE_FOR( 4, kIsPathUpdateRequired,
                   "Path Status didn't previously exist for path: "
                       << key.pathKey().destination
                       << " from client: " << key.clientName() );
        return true;
    }
    const size_t recordCount = present->hops.size();
    const size_t cacheCount = pathStatusCache_->hopCount();
    if ( recordCount != cacheCount ) {
        TRACE_FOR( 4, kIsPathUpdateRequired,
                   "Path array lengths from cache: " << cacheCount
                                                     << " from shmtab: " << recordCount );
        return true;
    }
    for ( size_t i = 0; i < recordCount; ++i ) {
        const HopIndex index = HopIndex::fromWide( i );
        const Net::IpGenAddr& recorded = present->hops[index];
        const Net::IpGenAddr cached = pathStatusCache_->path()->path( index );
        if ( !( recorded == cached ) ) {
            TRACE_FOR( 4, kIsPathUpdateRequired,
                       "Path status hop " << i << " " << recorded
                                          << " differs from cache: " << cached );
            return true;
        }
    }
    if ( present->refreshRespSeq >= pathStatusInfo_->lastRefreshReqSeq() ) {
        return false;
    }
    TRACE_FOR( 4, kIsPathUpdateRequired,
               "RefreshReqSeq needs updation for path: "
                   << key.pathKey().destination << " from client: " << key.clientName() );
    return true;
}

void PathStatusUpdateSm::publishPathStatus() {
    const bool failedBefore = publishFailed_;
    publishFailed_ = false;
    const double now = Platform::now();
    const PathInfoKey& key = pathStatusInfo_->pathInfoKey();
    TRACE5( "called for: " << key.pathKey().destination
                           << " from client: " << key.clientName() );
    Status* table = pathStatusInfo_->cspfStatus().get();
    if ( !table ) {
        // Only a path built without a client table (a test) gets here.
        TRACE4( "no status table for path: " << key.pathKey().destination
                                             << " from client: " << key.clientName() );
        return;
    }
    PathStatus status;
    status.key = key.pathKey();
    status.lastUpdated = now;

    const std::optional<PathStatus> present = doReadPathStatus();
    if ( !doIsPathUpdateRequired( present ) ) {
        return;
    }
    status.changeCount = present ? present->changeCount : 0;
    if ( const PathArray* path = pathStatusCache_->path().get() ) {
        // The array holds at most 1024 hops, which the record holds too.
        status.hops.set( path->pathColl().data(), path->length() );
    }
    status.changeCount += 1;
    status.refreshRespSeq = pathStatusInfo_->lastRefreshReqSeq();
    // One whole-record write: the client sees one update.
    try {
        table->pathStatusIs( status );
    } catch ( const Platform::Error& e ) {
        // No room for the table (tmpfs full): the old record stays, the
        // refresh stays pending, and the next computation of the constraint,
        // one throttle interval away, tries again. Traced at level 0 once
        // until a write succeeds, then at level 4.
        if ( !failedBefore ) {
            TRACE0( "cannot write the path status of "
                    << key.pathKey().destination << " for client: " << key.clientName()
                    << ": " << e.what() );
        } else {
            TRACE4( "cannot write the path status of "
                    << key.pathKey().destination << " for client: " << key.clientName()
                    << ": " << e.what() );
        }
        publishFailed_ = true;
        constraintInfo_->cspfRequestCountInc( 1 );
        return;
    }
    TRACE4( "Wrote new path status for path: "
            << key.pathKey().destination << " for client: " << key.clientName()
            << " ChangeCount: " << status.changeCount
            << " RefreshRespSeq: " << status.refreshRespSeq );
}

void PathStatusUpdateSm::dumpState( Platform::DumpContext& context,
                                    unsigned indent ) const {
    Platform::objDumpLine( context, indent, "PathStatusUpdateSm %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent + 2, "Path: %s\n",
                           pathStatusInfo_->pathInfoKey().toString().c_str() );
    Platform::objDumpLine( context, indent + 2,
                           "PathStatusInfo: %p PathStatusCache: %p ConstraintInfo: %p\n",
                           static_cast<const void*>( pathStatusInfo_.get() ),
                           static_cast<const void*>( pathStatusCache_.get() ),
                           static_cast<const void*>( constraintInfo_.get() ) );
}

}  // namespace Cspf

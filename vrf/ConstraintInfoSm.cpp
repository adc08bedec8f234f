#include "vrf/ConstraintInfoSm.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "cspf/CspfImpl.h"
#include "platform/Assert.h"
#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "records/PathStatus.h"
#include "root/DedupConstraint.h"
#include "vrf/HopSelection.h"
#include "vrf/PathArray.h"

namespace Cspf {

ConstraintInfoSm::ConstraintInfoSm(
    Platform::Ptr<ConstraintInfo> constraintInfo, Platform::Ptr<CspfCliConfig> cliConfig,
    Platform::Ptr<ConstraintStats> constraintStats,
    Platform::Ptr<PathStatusCacheTable> pathStatusCacheTable,
    Platform::TaskScheduler& taskScheduler,
    std::shared_ptr<const AllTopoDbView> allTopoDbView )
    : constraintInfo_( std::move( constraintInfo ) ),
      cliConfig_( std::move( cliConfig ) ),
      constraintStats_( std::move( constraintStats ) ),
      pathStatusCacheTable_( std::move( pathStatusCacheTable ) ),
      taskScheduler_( &taskScheduler ),
      allTopoDbView_( std::move( allTopoDbView ) ) {
    CSPF_ASSERT( constraintInfo_ && constraintStats_ && pathStatusCacheTable_ &&
                 allTopoDbView_ );
    watch( constraintInfo_.get(), ConstraintInfo::cspfRequestCountTag,
           &ConstraintInfoSm::handleCspfRequestCount );
    if ( cliConfig_ ) {
        watch( cliConfig_.get(), CspfCliConfig::valueTag,
               &ConstraintInfoSm::handleThrottleConfig );
    }
}

ConstraintInfoSm::~ConstraintInfoSm() {
    unwatchAll();
    timerTask_.reset();
}

void ConstraintInfoSm::timerTaskIs( Platform::TaskScheduler& taskScheduler,
                                    uint32_t taskPriority, std::string taskName ) {
    timerTask_ = std::make_unique<Platform::TimerTask>(
        taskScheduler, taskPriority, std::move( taskName ),
        [this] { handleThrottleTimeout(); } );
}

void ConstraintInfoSm::handleInitialized() {
    // Named after the handle, as the VRF's dump prints it, so that a timer
    // of the scheduler's statistics can be told to its constraint.
    char pointer[32];
    std::snprintf( pointer, sizeof( pointer ), "%p",
                   static_cast<const void*>( constraintInfo_->handle() ) );
    timerTaskIs( *taskScheduler_, kTaskPriority,
                 std::string( "CSPF timer for " ) + pointer );
    handleThrottleConfig();
}

void ConstraintInfoSm::handleThrottleConfig() {
    const CspfCliConfigValue waits =
        cliConfig_ ? cliConfig_->value() : CspfCliConfigValue();
    initialInt_ = waits.initialWaitMs;
    holdInt_ = waits.holdWaitMs;
    maxInt_ = waits.maxWaitMs;
    constraintStats_->cspfCurrentDelayIs( initialInt_ );
    TRACE4( "CSPF throttle timer current delay set to " << initialInt_ << "ms" );
}

void ConstraintInfoSm::handleCspfRequestCount() {
    const PathConstraint constraint = doPathConstraint();
    if ( constraintStats_->cspfScheduled() ) {
        TRACE5( "CSPF already scheduled for constraint: " << constraint );
        CSPF_ASSERT( timerRunning() );
        return;
    }
    // Positive when the topology changed after the last run.
    const double elapsed =
        constraintInfo_->topoChangedAt() - constraintStats_->cspfLastRanAt();
    if ( !timerRunning() ) {
        // Idle: the quiet period is over.
        const double initialInt = initialInt_;
        CSPF_ASSERT( constraintStats()->cspfCurrentDelay() == initialInt );
        timerTask_->scheduleTaskDelay( constraintStats_->cspfCurrentDelay() / 1000.0 );
        timerRunningIs( true );
        constraintStats_->cspfScheduledIs( true );
        TRACE4( constraint << " CSPF scheduled for constraint with initial delay "
                           << constraintStats_->cspfCurrentDelay() << "ms" );
        if ( elapsed > 0 ) {
            constraintStats_->cspfCurrentDelayIs( holdInt_ );
            TRACE4( "Topology changed in a quiescent period. "
                    << "Next hold int: " << holdInt_ );
        }
        return;
    }
    // Holding: the run waits for the running timer, which is not re-armed.
    if ( elapsed > 0 ) {
        const double next = std::min( 2 * constraintStats_->cspfCurrentDelay(), maxInt_ );
        constraintStats_->cspfCurrentDelayIs( next );
        TRACE4( "Topology changed during the hold down interval. "
                << "Next hold int: " << next );
    }
    constraintStats_->cspfScheduledIs( true );
    TRACE4( "CSPF scheduled for constraint " << constraint
                                             << " during the hold down interval" );
}

void ConstraintInfoSm::handleThrottleTimeout() {
    // Publishing may, through other reactors, drop this one: it finishes
    // its handler first.
    const Platform::Ptr<ConstraintInfoSm> self( this );
    const PathConstraint constraint = doPathConstraint();
    if ( !constraintStats_->cspfScheduled() ) {
        TRACE4( "no CSPF scheduled for constraint "
                << constraint << " in the last " << constraintStats_->cspfCurrentDelay()
                << "throttle window. Stopping timer" );
        timerRunningIs( false );
        constraintStats_->cspfCurrentDelayIs( initialInt_ );
        TRACE4( "CSPF throttle timer current delay set to " << initialInt_ << "ms" );
        return;
    }
    // Cleared before the results go out, so that a request raised while
    // they are published waits for the next window instead of being lost.
    constraintStats_->cspfScheduledIs( false );
    const bool ran = doRunCspf();
    constraintStats_->cspfLastRanAtIs( Platform::now() );
    constraintStats_->cspfCountInc( 1 );
    if ( !ran ) {
        // The paths still wait for their results, and nothing else will
        // ask again for them: the run stays scheduled, backing off as under
        // churn, until one succeeds.
        // At least the hold wait and a millisecond: waits of 0 must not
        // make a record that stays bad a busy loop.
        constraintStats_->cspfCurrentDelayIs( std::min(
            std::max( { 2 * constraintStats_->cspfCurrentDelay(), holdInt_, 1.0 } ),
            maxInt_ ) );
        constraintStats_->cspfScheduledIs( true );
    }
    const double delay = constraintStats_->cspfCurrentDelay();
    timerTask_->scheduleTaskDelay( delay / 1000.0 );
    TRACE4( "CSPF backoff timer started for constraint: " << constraint << " with delay "
                                                          << delay << " ms" );
    TRACE4( "run cspf, cspfRequestCount " << constraintInfo_->cspfRequestCount() );
}

bool ConstraintInfoSm::doRunCspf() {
    Platform::Ptr<CspfData> cspfData;
    try {
        cspfData = cspfDataFactory( allTopoDbView_,
                                    allTopoDbView_->allTopoDbStatus()->ourTeRouterId() );
        for ( const auto& path : constraintInfo_->pathColl() ) {
            // Not a structured binding: clang 14 cannot capture one in a trace.
            const auto& key = path.first;
            TRACE5( "adding " << key.pathKey().destination
                              << " to CspfData::tep collection" );
            cspfData->tepIs( key.pathKey().destination, true );
        }
        if ( !cspfData->teps() ) {
            // The paths left while the run waited: nothing to compute.
            TRACE4( "no path uses constraint " << doPathConstraint()
                                               << ", not running CSPF" );
            return true;
        }
        cspfRunFactory( cspfData );
    } catch ( const Platform::Error& e ) {
        // A topology record refused while read (a corrupt router): the
        // paths keep their results until a later run succeeds.
        TRACE0( "CSPF run failed for constraint " << doPathConstraint() << ": "
                                                  << e.what() << ", retrying" );
        allTopoDbView_->refusedRetry();
        return false;
    }
    updatePathStatusCache( *cspfData );
    return true;
}

void ConstraintInfoSm::updatePathStatusCache( const CspfData& cspfData ) {
    // Every cache and owner first, then the hops: the lookups of one loop
    // overlap, the publishers woken below never see a walk half done, and a
    // path that leaves meanwhile takes its publisher with it, so its cache is
    // refreshed for no one.
    struct Path {
        Platform::Ptr<PathStatusCache> cache;
        uint32_t owner;
    };
    HopSelection selection( cspfData );
    std::vector<Path> paths;
    paths.reserve( constraintInfo_->paths() );
    for ( const auto& entry : constraintInfo_->pathColl() ) {
        const auto& key = entry.first;
        Platform::Ptr<PathStatusCache> cache =
            pathStatusCacheTable_->pathStatusCache( key );
        if ( !cache ) {
            TRACE5( "no PathStatusCache for " << key << ", skipping" );
            continue;
        }
        paths.push_back(
            { std::move( cache ), selection.owner( key.pathKey().destination ) } );
    }
    for ( const auto& [cache, owner] : paths ) {
        const Net::IpGenAddr& tep = cache->pathInfoKey().pathKey().destination;
        Platform::Ptr<const PathArray> path;
        try {
            const std::vector<Net::IpGenAddr>& hops =
                selection.hops( tep, owner, cache->path().get() );
            // An array is never changed once a cache holds it, so the same
            // hops keep the same array.
            if ( cache->path() && cache->path()->pathColl() == hops ) {
                path = cache->path();
            } else {
                path = Platform::create<PathArray>( hops );
            }
            if ( !hops.empty() ) {
                TRACE5( "creating path with " << hops.size() << " hops for tep " << tep );
            }
        } catch ( const Platform::Error& e ) {
            // The topology cannot give this path usable hops (too long, or
            // records that changed under the selection): the client is told
            // there is none rather than left waiting.
            TRACE0( "no usable hops for tep " << tep << ": " << e.what() );
            path = Platform::create<PathArray>();
        }
        cache->pathIs( path );
        cache->refreshedCountInc( 1 );
    }
}

PathConstraint ConstraintInfoSm::doPathConstraint() const {
    const auto& notifier = constraintInfo_->constraint();
    return notifier ? notifier->pathConstraint() : PathConstraint();
}

const char* ConstraintInfoSm::throttleState() const {
    if ( !timerRunning() ) {
        return "Idle";
    }
    return constraintStats_->cspfScheduled() ? "Scheduled" : "Holding";
}

void ConstraintInfoSm::dumpState( Platform::DumpContext& context,
                                  unsigned indent ) const {
    Platform::objDumpLine( context, indent, "ConstraintInfoSm %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent, " Throttle: %s, timer %s\n", throttleState(),
                           timerTask_ ? timerTask_->name().c_str() : "(none)" );
    Platform::objDumpLine(
        context, indent, " Throttle waits: initial %.0f ms, hold %.0f ms, max %.0f ms\n",
        initialInt_, holdInt_, maxInt_ );
}

}  // namespace Cspf

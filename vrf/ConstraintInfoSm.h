// Cspf::ConstraintInfoSm: the CSPF scheduler of one deduplicated constraint
// of a VRF and family.
//
//  - handleInitialized        the throttle timer, then handleThrottleConfig
//  - handleThrottleConfig     takes the operator's waits in; the delay goes
//                             back to the initial wait
//  - handleCspfRequestCount   a path of the constraint wants a computation:
//                             arm the timer, or grow the back-off
//  - handleThrottleTimeout    the timer fired: run CSPF and re-arm, or stop;
//                             a run that failed stays scheduled and backs off
//  - updatePathStatusCache    each path's hops into its PathStatusCache,
//                             which wakes its publisher
//
// The throttle is an exponential back-off with a cap:
//   Idle       timer off, delay = initial wait
//   Scheduled  timer on, a run waits for it
//   Holding    timer on, nothing waits
// Idle -> Scheduled on a request (the next delay becomes the hold wait when
// the topology changed since the last run); Scheduled -> Holding when the
// timer fires and CSPF runs, re-arming it with the delay; Holding ->
// Scheduled on a request (the delay doubles, up to the cap, when the topology
// changed); Holding -> Idle when the timer fires with nothing scheduled.
//
// VrfRootSm creates one per ConstraintInfo and deletes it, and with it the
// timer, when the constraint goes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cspf/CspfData.h"
#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "platform/TaskScheduler.h"
#include "platform/TimerTask.h"
#include "records/CspfCliConfig.h"
#include "records/PathConstraint.h"
#include "topo/AllTopoDbView.h"
#include "vrf/ConstraintInfo.h"
#include "vrf/ConstraintStats.h"
#include "vrf/PathTables.h"

namespace Cspf {

class ConstraintInfoSm : public Platform::Reactor, public Platform::Notifier {
  public:
    static constexpr uint32_t kTaskPriority = 0;

    // `cliConfig` may be null: the default waits.
    ConstraintInfoSm( Platform::Ptr<ConstraintInfo> constraintInfo,
                      Platform::Ptr<CspfCliConfig> cliConfig,
                      Platform::Ptr<ConstraintStats> constraintStats,
                      Platform::Ptr<PathStatusCacheTable> pathStatusCacheTable,
                      Platform::TaskScheduler& taskScheduler,
                      std::shared_ptr<const AllTopoDbView> allTopoDbView );
    ~ConstraintInfoSm() override;

    const Platform::Ptr<ConstraintInfo>& constraintInfo() const {
        return constraintInfo_;
    }
    const Platform::Ptr<CspfCliConfig>& cliConfig() const { return cliConfig_; }
    const Platform::Ptr<ConstraintStats>& constraintStats() const {
        return constraintStats_;
    }
    const Platform::Ptr<PathStatusCacheTable>& pathStatusCacheTable() const {
        return pathStatusCacheTable_;
    }
    const std::shared_ptr<const AllTopoDbView>& allTopoDbView() const {
        return allTopoDbView_;
    }
    const Platform::TimerTask* timerTask() const { return timerTask_.get(); }

    // The throttle timer is armed (Scheduled or Holding).
    CSPF_ATTR( bool, timerRunning, false )

    // The waits in force, in milliseconds. Taken in by handleThrottleConfig
    // only: the record may be rewritten before its notification arrives, and
    // the throttle must keep to the values it has acted on.
    double initialInt() const { return initialInt_; }
    double holdInt() const { return holdInt_; }
    double maxInt() const { return maxInt_; }

    // "Idle", "Scheduled" or "Holding".
    const char* throttleState() const;

    void handleInitialized();
    void handleThrottleConfig();
    void handleCspfRequestCount();
    void handleThrottleTimeout();
    // Gives every path of the constraint the hops `cspfData` holds for its
    // destination (none when it has no owner) and counts the refresh.
    void updatePathStatusCache( const CspfData& cspfData );

    void timerTaskIs( Platform::TaskScheduler& taskScheduler, uint32_t taskPriority,
                      std::string taskName );

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    // False when building or running the computation failed: the paths got
    // nothing and wait for a retry.
    bool doRunCspf();
    PathConstraint doPathConstraint() const;

    const Platform::Ptr<ConstraintInfo> constraintInfo_;
    const Platform::Ptr<CspfCliConfig> cliConfig_;
    const Platform::Ptr<ConstraintStats> constraintStats_;
    const Platform::Ptr<PathStatusCacheTable> pathStatusCacheTable_;
    Platform::TaskScheduler* const taskScheduler_;
    const std::shared_ptr<const AllTopoDbView> allTopoDbView_;
    std::unique_ptr<Platform::TimerTask> timerTask_;
    double initialInt_ = CspfCliConfigValue::kDefaultInitialWaitMs;
    double holdInt_ = CspfCliConfigValue::kDefaultHoldWaitMs;
    double maxInt_ = CspfCliConfigValue::kDefaultMaxWaitMs;
};

}  // namespace Cspf

// Cspf::ClientRefusals: why registered clients, or some of their VRFs and
// families, are not served, and the retry of those that failed for a local
// reason.
//
// The client reactors tell it of each refusal and of each part served again;
// it keeps the reasons in "te/cspf/clientStatus" (cspfctl client show) and,
// for a refusal worth a retry (the agent short of descriptors or memory, a
// table being replaced), arms one back-off timer for all of them: 1 s, then
// twice as long up to 64 s while retries keep failing. When it fires it runs
// the retry handler, which ClientDirSm sets to a pass over every refused
// part that may be retried.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "platform/TaskScheduler.h"
#include "platform/TimerTask.h"
#include "records/ClientStatus.h"

namespace Cspf {

class ClientRefusals : public Platform::Entity {
  public:
    static constexpr double kRetryInitialDelay = 1.0;  // seconds
    static constexpr double kRetryMaxDelay = 64.0;

    // `status` may be null: nothing is published.
    ClientRefusals( Platform::TaskScheduler& taskScheduler,
                    Platform::Ptr<ClientStatusWriter> status );

    // Whether a failure is worth a retry: a system call that ran short of
    // something that comes back, or raced a file being replaced.
    static bool retryable( const std::exception& e );

    // `part` of `client` is not served ("" the whole registration, "vrf V",
    // "vrf V af"); with `retry`, it is retried after the back-off.
    void refusedIs( const std::string& client, const std::string& part,
                    const std::string& reason, bool retry );
    // `part` of `client` is served, or no longer asked for.
    void servedIs( const std::string& client, const std::string& part );
    void clientDel( const std::string& client );

    void retryHandlerIs( std::function<void()> handler ) {
        retryHandler_ = std::move( handler );
    }
    bool retryScheduled() const { return retryTask_ && retryTask_->scheduled(); }
    double retryDelay() const { return retryDelay_; }

  private:
    void handleRetry();

    Platform::TaskScheduler& taskScheduler_;
    const Platform::Ptr<ClientStatusWriter> status_;
    std::function<void()> retryHandler_;
    // Made on the first retry, so that an agent that never needs one shows
    // no such task.
    std::unique_ptr<Platform::TimerTask> retryTask_;
    double retryDelay_ = kRetryInitialDelay;
    bool retried_ = false;  // a retry pass is running
    bool retryAgain_ = false;
};

}  // namespace Cspf

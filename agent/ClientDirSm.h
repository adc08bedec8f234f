// Cspf::ClientDirSm: the clients' directory "te/cspf/client" and the enable
// rule. The agent runs its path machinery while at least one client is
// served and the TE configuration is enabled with a router id other than
// 0.0.0.0; then there is one ClientSm per client served, otherwise none. An
// entry that is not a client is refused and not counted; one that could not
// be attached for a local reason is retried (ClientRefusals). At start it
// removes the result tables that no registered client expects.
#pragma once

#include <map>
#include <set>
#include <string>

#include "agent/ClientRefusals.h"
#include "agent/ClientSm.h"
#include "platform/DirectoryWatch.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/MountGroup.h"
#include "platform/Ptr.h"
#include "platform/TaskScheduler.h"
#include "records/AgentStatus.h"
#include "records/TeConfig.h"
#include "root/AllClientInfo.h"

namespace Cspf {

class ClientDirSm : public Platform::Reactor {
  public:
    ClientDirSm( Platform::EntityManager& entityMgr,
                 Platform::Ptr<Platform::DirectoryWatch> clientDir,
                 Platform::Ptr<TrafficEngineering::Config> teConfig,
                 Platform::Ptr<AgentStatus> agentStatus,
                 Platform::Ptr<AllClientInfo> v4AllClientInfo,
                 Platform::Ptr<AllClientInfo> v6AllClientInfo,
                 Platform::TaskScheduler& taskScheduler );
    ~ClientDirSm() override;

    // Stale result tables first, then the enable rule.
    void handleInitialized();
    // Enables (a ClientSm per client) or disables (none) the agent.
    void handleEnabled();
    // A client came or went.
    void handleClientDir( const std::string& name );
    void doCleanupStaleClientMounts();
    void doBuildExpectedPathList();
    void doPrepareToDie();

    bool agentEnabled() const { return agentStatus_->agentEnabled(); }
    Platform::Ptr<ClientSm> clientSm( const std::string& name ) const;
    size_t clientSms() const { return clientSm_.size(); }
    const std::set<std::string>& expectedStatusPath() const {
        return expectedStatusPath_;
    }
    const Platform::Ptr<ClientRefusals>& clientRefusals() const {
        return clientRefusals_;
    }

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void handleClientDirEntry( const std::string& name );
    // Every part refused for a local reason, again.
    void handleRetry();
    void clientSmIs( const std::string& name );
    void clientSmDel( const std::string& name );
    bool doShouldEnable() const;

    Platform::EntityManager& entityMgr_;
    const Platform::Ptr<Platform::DirectoryWatch> clientDir_;
    const Platform::Ptr<TrafficEngineering::Config> teConfig_;
    const Platform::Ptr<AgentStatus> agentStatus_;
    const Platform::Ptr<AllClientInfo> v4AllClientInfo_;
    const Platform::Ptr<AllClientInfo> v6AllClientInfo_;
    const Platform::Ptr<ClientRefusals> clientRefusals_;
    std::map<std::string, Platform::Ptr<ClientSm>> clientSm_;
    // Entries whose registration could not be attached for a local reason.
    std::set<std::string> retryClient_;
    std::set<std::string> expectedStatusPath_;
};

}  // namespace Cspf

// Cspf::Agent: the top object of the CSPF agent. The framework builds it
// through agentFactory, lets it declare its mounts (doInit) and calls
// doMountsComplete; the agent then builds the two family roots, the client
// directory reactor and the command channel, which live as long as it does.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "agent/ClientDirSm.h"
#include "platform/AgentBase.h"
#include "platform/CommandChannel.h"
#include "platform/DirectoryWatch.h"
#include "platform/DumpContext.h"
#include "platform/Ptr.h"
#include "platform/TaskScheduler.h"
#include "records/AgentStatus.h"
#include "records/TeConfig.h"
#include "root/CspfRoot.h"

namespace Cspf {

// Where the agent's command channel lives, below the agent's root.
constexpr const char* kCommandRequestDir = "agent/commandRequest/config/Cspf";

class Agent : public AgentBase::CAgent {
  public:
    explicit Agent( const std::string& name );
    ~Agent() override;

    // The agent status (the tree's one agent), the event loop's waiting mode,
    // tracing and the mounts. Throws Error when another agent runs on the tree.
    void doInit() override;
    // The roots, the client directory reactor and the command channel.
    void doMountsComplete( const Platform::MountStatus& mountStatus,
                           Platform::EntityManager& entityManager ) override;

    void v4CspfRootIs( Net::AddressFamily af, Platform::EntityManager& entityMgr,
                       Platform::Ptr<TrafficEngineering::Config> teConfig,
                       Platform::Ptr<Platform::DirectoryWatch> topoDbClientDir,
                       Platform::TaskScheduler& taskScheduler );
    void v6CspfRootIs( Net::AddressFamily af, Platform::EntityManager& entityMgr,
                       Platform::Ptr<TrafficEngineering::Config> teConfig,
                       Platform::Ptr<Platform::DirectoryWatch> topoDbClientDir,
                       Platform::TaskScheduler& taskScheduler );
    void clientDirSmIs( Platform::EntityManager& entityMgr,
                        Platform::Ptr<Platform::DirectoryWatch> clientDir,
                        Platform::Ptr<TrafficEngineering::Config> teConfig,
                        Platform::Ptr<AgentStatus> agentStatus,
                        Platform::Ptr<AllClientInfo> v4AllClientInfo,
                        Platform::Ptr<AllClientInfo> v6AllClientInfo );
    void cliRequestDirSmIs();

    Platform::TaskScheduler& scheduler() { return scheduler_; }
    const Platform::Ptr<AgentStatus>& agentStatus() const { return agentStatus_; }
    const Platform::Ptr<ClientDirSm>& clientDirSm() const { return clientDirSm_; }
    const Platform::Ptr<CspfRoot>& v4CspfRoot() const { return v4CspfRoot_; }
    const Platform::Ptr<CspfRoot>& v6CspfRoot() const { return v6CspfRoot_; }
    const Platform::Ptr<Platform::DirectoryWatch>& cliRequestDir() const {
        return cliRequestDir_;
    }
    // The command channel; null without an event loop.
    Platform::CommandChannel* cliRequestDirSm() const { return cliRequestDirSm_.get(); }
    bool revive() const { return revive_; }
    void reviveIs( bool revive ) { revive_ = revive; }

    // The diagnostic handlers by name, also when there is no channel.
    Platform::Ptr<Platform::AgentCommandCallback> commandCallback(
        const std::string& name ) const;
    void commandCallbackIs( const std::string& name,
                            Platform::Ptr<Platform::AgentCommandCallback> callback ) {
        commandCallback_[name] = std::move( callback );
    }

    // The client directory reactor, then the IPv4 and the IPv6 root.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void doClaimAgentStatus();

    Platform::TaskScheduler scheduler_;
    Platform::Ptr<AgentStatus> agentStatus_;
    Platform::Ptr<ClientDirSm> clientDirSm_;
    Platform::Ptr<CspfRoot> v4CspfRoot_;
    Platform::Ptr<CspfRoot> v6CspfRoot_;
    bool revive_ = true;
    Platform::Ptr<Platform::DirectoryWatch> cliRequestDir_;
    std::unique_ptr<Platform::CommandChannel> cliRequestDirSm_;
    Platform::Ptr<Platform::DirectoryWatch> topoDbClientDir_;
    Platform::Ptr<Platform::DirectoryWatch> topoDb6ClientDir_;
    std::map<std::string, Platform::Ptr<Platform::AgentCommandCallback>> commandCallback_;
};

// The agent that the exported dump entry point shows; null before start-up
// has finished.
Agent* cspfAgent();

}  // namespace Cspf

extern "C" {
// The framework's way to build the agent.
AgentBase::CAgent* agentFactory( const char* name );
// The developer's dump to standard output.
void dumpStateCallback();
}

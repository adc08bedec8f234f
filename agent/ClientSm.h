// Cspf::ClientSm: one registered client. It keeps a ClientVrfSm for every VRF
// that the client's registration lists, up to kMaxClientVrfs: the VRFs past
// the bound are refused, and taken in, in name order, as served ones go.
#pragma once

#include <map>
#include <string>

#include "agent/ClientRefusals.h"
#include "agent/ClientVrfSm.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/MountGroup.h"
#include "platform/Ptr.h"
#include "records/Client.h"
#include "records/VrfName.h"
#include "root/AllClientInfo.h"

namespace Cspf {

class ClientSm : public Platform::Reactor {
  public:
    // The VRFs one client may have served. Each costs the agent descriptors
    // and memory in every family the client lists (docs/agent.md): a client
    // listing thousands must not starve the others.
    static constexpr size_t kMaxClientVrfs = 64;

    ClientSm( std::string name, Platform::Ptr<Client> client,
              Platform::EntityManager& entityMgr,
              Platform::Ptr<AllClientInfo> v4AllClientInfo,
              Platform::Ptr<AllClientInfo> v6AllClientInfo,
              Platform::Ptr<ClientRefusals> clientRefusals );
    ~ClientSm() override;

    const std::string& name() const { return name_; }
    const Platform::Ptr<Client>& client() const { return client_; }

    // Every VRF the client lists.
    void handleInitialized();
    // A VRF was added to or removed from the client's list.
    void handleVrf( const L3::VrfName& vrfName );
    // Attaches again what failed for a local reason.
    void doRetryAttach();
    void doPrepareToDie();

    Platform::Ptr<ClientVrfSm> clientVrfSm( const L3::VrfName& vrfName ) const;
    void clientVrfSmIs( const L3::VrfName& vrfName );
    void clientVrfSmDel( const L3::VrfName& vrfName );
    size_t clientVrfSms() const { return clientVrfSm_.size(); }

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void handleClientEntry( const ClientEntry& entry );

    const std::string name_;
    const Platform::Ptr<Client> client_;
    Platform::EntityManager& entityMgr_;
    const Platform::Ptr<AllClientInfo> v4AllClientInfo_;
    const Platform::Ptr<AllClientInfo> v6AllClientInfo_;
    const Platform::Ptr<ClientRefusals> clientRefusals_;
    std::map<L3::VrfName, Platform::Ptr<ClientVrfSm>> clientVrfSm_;
};

}  // namespace Cspf

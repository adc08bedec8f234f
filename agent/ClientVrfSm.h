// Cspf::ClientVrfSm: one client in one VRF. Per address family the client
// lists, it holds the family's handle on the VRF (which keeps the VRF's path
// machinery alive) and a PathSm over the client's two tables in that VRF and
// family. The handle is taken before the PathSm is made and released after
// it is gone. Tables that could not be attached for a local reason are
// attached again on the refusals' retry; any refusal is published there.
#pragma once

#include <map>
#include <set>
#include <string>

#include "agent/ClientRefusals.h"
#include "agent/PathSm.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Error.h"
#include "platform/MountGroup.h"
#include "platform/Ptr.h"
#include "records/AddressFamily.h"
#include "records/Client.h"
#include "records/VrfName.h"
#include "root/AllClientInfo.h"
#include "root/CspfActiveVrfsDedupTable.h"
#include "root/DedupVrfHandle.h"

namespace Cspf {

class ClientVrfSm : public Platform::Reactor {
  public:
    ClientVrfSm( const L3::VrfName& vrfName, std::string clientName,
                 Platform::Ptr<Client> client, Platform::EntityManager& entityMgr,
                 Platform::Ptr<AllClientInfo> v4AllClientInfo,
                 Platform::Ptr<AllClientInfo> v6AllClientInfo,
                 Platform::Ptr<ClientRefusals> clientRefusals );
    ~ClientVrfSm() override;

    const L3::VrfName& vrfName() const { return vrfName_; }
    const std::string& clientName() const { return clientName_; }

    // Every family the client lists.
    void handleInitialized();
    // A family was added to or removed from the client's list.
    void handleAddressFamily( Net::AddressFamily af );
    void doInitPathSm( Net::AddressFamily af );
    void doCleanupPathSm( Net::AddressFamily af );
    // The families whose tables failed to attach for a local reason, again.
    void doRetryAttach();
    // Every family's PathSm and handle go.
    void doPrepareToDie();

    Platform::Ptr<PathSm> pathSm( Net::AddressFamily af ) const;
    Platform::Ptr<DedupVrfHandle> vrfDedupHandle( Net::AddressFamily af ) const;
    void vrfDedupHandleDel( Net::AddressFamily af );

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void handleClientEntry( const ClientEntry& entry );
    const Platform::Ptr<AllClientInfo>& allClientInfo( Net::AddressFamily af ) const;
    // "vrf V af": the part of the client a refusal names.
    std::string doPart( Net::AddressFamily af ) const;
    // Traced and published; retried when the failure is worth it.
    void doRefused( Net::AddressFamily af, const Platform::Error& e );

    const L3::VrfName vrfName_;
    const std::string clientName_;
    const Platform::Ptr<Client> client_;
    Platform::EntityManager& entityMgr_;
    const Platform::Ptr<AllClientInfo> v4AllClientInfo_;
    const Platform::Ptr<AllClientInfo> v6AllClientInfo_;
    const Platform::Ptr<ClientRefusals> clientRefusals_;
    std::map<Net::AddressFamily, Platform::Ptr<DedupVrfHandle>> vrfDedupHandle_;
    std::set<Net::AddressFamily> retryAf_;
    std::map<Net::AddressFamily, Platform::Ptr<PathSm>> pathSm_;
};

}  // namespace Cspf

// Cspf::ClientVrfSm: one client in one VRF. Per address family the client
// lists, it holds the family's handle on the VRF (which keeps the VRF's path
// machinery alive) and a PathSm over the client's two tables in that VRF and
// family. The handle is taken before the PathSm is made and released after
// it is gone.
#pragma once

#include <map>
#include <string>

#include "agent/PathSm.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
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
                 Platform::Ptr<AllClientInfo> v6AllClientInfo );
    ~ClientVrfSm() override;

    const L3::VrfName& vrfName() const { return vrfName_; }
    const std::string& clientName() const { return clientName_; }

    // Every family the client lists.
    void handleInitialized();
    // A family was added to or removed from the client's list.
    void handleAddressFamily( Net::AddressFamily af );
    void doInitPathSm( Net::AddressFamily af );
    void doCleanupPathSm( Net::AddressFamily af );
    // Every family's PathSm and handle go.
    void doPrepareToDie();

    Platform::Ptr<PathSm> pathSm( Net::AddressFamily af ) const;
    Platform::Ptr<DedupVrfHandle> vrfDedupHandle( Net::AddressFamily af ) const;
    void vrfDedupHandleDel( Net::AddressFamily af );

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void handleClientEntry( const ClientEntry& entry );
    const Platform::Ptr<AllClientInfo>& allClientInfo( Net::AddressFamily af ) const;

    const L3::VrfName vrfName_;
    const std::string clientName_;
    const Platform::Ptr<Client> client_;
    Platform::EntityManager& entityMgr_;
    const Platform::Ptr<AllClientInfo> v4AllClientInfo_;
    const Platform::Ptr<AllClientInfo> v6AllClientInfo_;
    std::map<Net::AddressFamily, Platform::Ptr<DedupVrfHandle>> vrfDedupHandle_;
    std::map<Net::AddressFamily, Platform::Ptr<PathSm>> pathSm_;
};

}  // namespace Cspf

// Cspf::CspfRoot: the world of one address family. It keeps one VrfRoot and
// its VrfRootSm per VRF that some client uses in the family (the active-VRF
// table's handles count the users) and shows them in the agent's dump.
#pragma once

#include "platform/Attribute.h"
#include "platform/DirectoryWatch.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/MountGroup.h"
#include "platform/Ptr.h"
#include "platform/TaskScheduler.h"
#include "records/AddressFamily.h"
#include "records/TeConfig.h"
#include "records/VrfName.h"
#include "root/AllClientInfo.h"
#include "root/CspfActiveVrfsNotifiee.h"
#include "vrf/VrfRoot.h"
#include "vrf/VrfRootSm.h"

namespace Cspf {

class CspfRoot : public Platform::Entity {
  public:
    // `teConfig` and `topoDbClientDir` may be null (tests).
    CspfRoot( Net::AddressFamily af, Platform::EntityManager& entityMgr,
              Platform::Ptr<TrafficEngineering::Config> teConfig,
              Platform::Ptr<Platform::DirectoryWatch> topoDbClientDir,
              Platform::TaskScheduler& taskScheduler );
    ~CspfRoot() override;

    // The lifetime notifiee, then the client info with its active-VRF table.
    void handleInitialized();

    Net::AddressFamily af() const { return af_; }
    const Platform::Ptr<AllClientInfo>& allClientInfo() const { return allClientInfo_; }
    const Platform::Ptr<CspfActiveVrfsNotifiee>& lifeTimeNotifiee() const {
        return lifeTimeNotifiee_;
    }

    CSPF_COLL( OrderedColl, L3::VrfName, Platform::Ptr<VrfRoot>, vrfRoot, vrfRoots )
    CSPF_COLL( OrderedColl, L3::VrfName, Platform::Ptr<VrfRootSm>, vrfRootSm, vrfRootSms )

    // Makes the VRF's root (RangeError "null ValidPtr" when the factory
    // yields nothing) and stores it.
    Platform::Ptr<VrfRoot> vrfRootIs(
        const L3::VrfName& vrfName, Net::AddressFamily af,
        Platform::EntityManager& entityMgr,
        Platform::Ptr<TrafficEngineering::Config> teConfig,
        Platform::Ptr<Platform::DirectoryWatch> topoDbClientDir,
        Platform::TaskScheduler& taskScheduler );
    Platform::Ptr<VrfRootSm> vrfRootSmIs( const L3::VrfName& vrfName,
                                          Platform::Ptr<VrfRoot> vrfRoot );

    // What a VRF needs from its family root to come to life.
    Platform::EntityManager& entityMgr() const { return *entityMgr_; }
    const Platform::Ptr<TrafficEngineering::Config>& teConfig() const {
        return teConfig_;
    }
    const Platform::Ptr<Platform::DirectoryWatch>& topoDbClientDir() const {
        return topoDbClientDir_;
    }
    Platform::TaskScheduler& taskScheduler() const { return *taskScheduler_; }

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const Net::AddressFamily af_;
    Platform::EntityManager* const entityMgr_;
    const Platform::Ptr<TrafficEngineering::Config> teConfig_;
    const Platform::Ptr<Platform::DirectoryWatch> topoDbClientDir_;
    Platform::TaskScheduler* const taskScheduler_;
    Platform::Ptr<CspfActiveVrfsNotifiee> lifeTimeNotifiee_;
    Platform::Ptr<AllClientInfo> allClientInfo_;
};

}  // namespace Cspf

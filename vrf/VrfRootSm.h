// Cspf::VrfRootSm: the reactor of one VrfRoot. It makes and deletes the
// per-path and per-constraint reactors as requests and constraints come and
// go, and turns topology and interface-address changes into topoChangedAt
// marks on the constraints concerned.
//
//  - handlePathStatusInfo( key )   a path appeared or went: its reactors
//                                  (configuration, status) and its cache
//  - handleNewConstraint( key )    a path changed constraint: its refresh
//                                  reactor and publisher, bound to the new one
//  - handleConstraintInfo( h )     a constraint appeared or went: its stats
//                                  and its scheduler over its own view
//  - handleTopoChanged             every constraint is marked
//  - handleIpIntfStatus, handleIp6Status and the address handlers
//                                  constraints excluding that interface
//
// The per-family root makes one per VrfRoot and deletes it before the VrfRoot.
#pragma once

#include <map>
#include <unordered_map>
#include <vector>

#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"
#include "records/VrfName.h"
#include "vrf/VrfRoot.h"

namespace Cspf {

class VrfRootSm : public Platform::Reactor {
  public:
    VrfRootSm( const L3::VrfName& vrfName, Platform::Ptr<VrfRoot> vrfRoot );
    ~VrfRootSm() override;

    const L3::VrfName& vrfName() const { return vrfName_; }
    const Platform::Ptr<VrfRoot>& vrfRoot() const { return vrfRoot_; }

    // Takes in the interface status, the constraints and the paths already
    // present, then marks every constraint with the topology's stamp.
    void handleInitialized();
    void handlePathStatusInfo( const PathInfoKey& key );
    void handleNewConstraint( const PathInfoKey& key );
    void handleConstraintInfo( const ConstraintHandleKey& handle );
    void handleTopoChanged();

    void handleIpIntfStatus( const Net::IntfId& intfId );
    void handleIpIntfStatusActiveAddr( const Net::IntfId& intfId );
    void handleSecondaryChange( const Net::IntfId& intfId, const Net::IpGenAddr& addr );
    void handleIp6Status( const Net::IntfId& intfId );
    void handleIp6AddressChange( const Net::IntfId& intfId, const Net::IpGenAddr& addr );

    // Every constraint gets the topology's stamp.
    void updateConstraintTopoChanged();
    // The constraints that exclude `intfId` get the present time.
    void updateConstraintTopoChanged( const Net::IntfId& intfId );

    // Fills a new cache from the client's existing result, if any.
    void initializePathStatusCache( const Platform::Ptr<PathStatusInfo>& pathStatusInfo,
                                    const Platform::Ptr<PathStatusCache>& cache );

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void doCreatePathSms( const PathInfoKey& key );
    void doDeletePathSms( const PathInfoKey& key );

    const L3::VrfName vrfName_;
    const Platform::Ptr<VrfRoot> vrfRoot_;
    // The constraint watcher of each path.
    std::unordered_map<PathInfoKey, Platform::SubscriptionPtr> constraintWatch_;
    // The address watchers of each interface face.
    std::map<Net::IntfId, std::vector<Platform::SubscriptionPtr>> intfWatch_;
};

}  // namespace Cspf

// Cspf::AllTopoDbSm: the reactor over one VRF's set of IS-IS level databases
// and over the traffic-engineering configuration.
//
//  - handleTopoDb( level )  one TopoDbSm per level present; a reactor is never
//                           re-pointed at another database, it is replaced
//  - handleTeRouterId       this router's TE router id into ourTeRouterId
//  - doCleanupStaleIntfIpToRouterIdEntries
//                           the published interface-address table outlives the
//                           agent: at start, entries that no level backs go
//
// The VRF root creates it with AllTopoDb and AllTopoDbStatus; deleting it
// deletes every TopoDbSm, and with them their RouterIdMaps.
#pragma once

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "records/IpGenAddr.h"
#include "records/TeConfig.h"
#include "topo/AllTopoDb.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/TopoDb.h"
#include "topo/TopoDbSm.h"
#include "topo/TopoId.h"

namespace Cspf {

class AllTopoDbSm : public Platform::Reactor, public Platform::Notifier {
  public:
    // `config` may be null: no configuration, no TE router id of our own.
    AllTopoDbSm( Platform::Ptr<AllTopoDb> allTopoDb,
                 Platform::Ptr<AllTopoDbStatus> allTopoDbStatus,
                 Platform::Ptr<TrafficEngineering::Config> config );
    ~AllTopoDbSm() override;

    const Platform::Ptr<AllTopoDb>& allTopoDb() const { return allTopoDb_; }
    const Platform::Ptr<AllTopoDbStatus>& allTopoDbStatus() const {
        return allTopoDbStatus_;
    }

    CSPF_COLL( OrderedColl, TopoId, Platform::Ptr<TopoDbSm>, topoDbSm, topoDbSms )
    // Finds the level's reactor or creates it over (`topoDb`, `status`).
    // Error ("Reinstantiating the pointer interface ...") when the existing
    // one was made with another database or status.
    Platform::Ptr<TopoDbSm> topoDbSmIs(
        TopoId topoId, const Platform::Ptr<Routing::Topology::TopoDb>& topoDb,
        const Platform::Ptr<AllTopoDbStatus>& status );

    // Creates the interface-address table, sets our TE router id, then
    // handleTopoDb().
    void handleInitialized();
    // Every level at once: start, or a change of the whole level set.
    void handleTopoDb();
    void handleTopoDb( const TopoId& topoId );
    void handleTeRouterId();

    void doSetOurTeRouterId();
    void doUpdateAllTopoDbStatus();
    void doCleanupStaleIntfIpToRouterIdEntries();

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void doDelTopoDbSm( TopoId topoId );
    // Whether some present level backs the published record (intfIp, routerId).
    bool doIsBacked( const Net::IpGenAddr& intfIp, const Net::IpGenAddr& routerId ) const;

    const Platform::Ptr<AllTopoDb> allTopoDb_;
    const Platform::Ptr<AllTopoDbStatus> allTopoDbStatus_;
    const Platform::Ptr<TrafficEngineering::Config> config_;
};

}  // namespace Cspf

// Cspf::TopoDbSm: the reactor over one IS-IS level's topology database.
//
// It keeps the level's derived state in AllTopoDbStatus current:
//  - handleRouter      the RouterIdMap (IGP <-> TE router id, duplicates set
//                      aside, the first claimant wins) and the links each
//                      owning router lists (routerToNeighbor)
//  - handleNeighbor    the interface addresses of each link (neighborToIntfIp)
//  - handleNetwork     a LAN change only moves the change stamp
//  - handleTeRouterIdChange
//                      resurrection of a duplicate router when its TE router
//                      id is freed, deferred through pendingRouterToHandle
//  - the free functions below: the interface-address maps, in memory
//    (IntfIpToNeighborTable) and published (IntfIpToRouterIdTable)
// Every change ends with topoChangedAt stamped.
//
// Invariant between handlers: the pair (link k of router r, address a) is in
// the IntfIpToNeighborTable, under AllTopoNeighborKey( level, k, te ), exactly
// when r owns te in the RouterIdMap, routerToNeighbor( r ) lists k and
// neighborToIntfIp( k ) records a. Adding and withdrawing therefore work from
// what was recorded, never from a record that may have changed since.
//
// The level's duplicate lists are written by this reactor only, which keeps
// their reverse (IGP router id -> the TE router id whose list holds it) so that
// handling a router does not scan every list.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "platform/Syslog.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/AllTopoKeys.h"
#include "topo/IntfIpToRouterId.h"
#include "topo/NeighborToIntfIp.h"
#include "topo/RouterId.h"
#include "topo/RouterToNeighbor.h"
#include "topo/TopoDb.h"
#include "topo/TopoId.h"
#include "topo/TopoKeys.h"

namespace Cspf {

CSPF_SYSLOG_MESSAGE( CSPF_DUPLICATE_TE_ROUTER_ID, Platform::SyslogSeverity::warning,
                     "Router with duplicate TE Router ID is ignored" );

// Makes the published record of `intfIp` name `routerId`; an equal record is
// not rewritten, so readers see no change. A null table is no table.
void addIntfIpToRouterId( IntfIpToRouterIdWriter* table, const Net::IpGenAddr& intfIp,
                          const Net::IpGenAddr& routerId );
// Deletes the published record of `intfIp` when there is one.
void deleteIntfIpToRouterId( IntfIpToRouterIdWriter* table,
                             const Net::IpGenAddr& intfIp );
// Records that the link `key` lists `intfIp` and publishes the address as the
// link's router's (key.teNeighborOf()).
void addNeighborKeyToIntfIp( AllTopoDbStatus& status, const AllTopoNeighborKey& key,
                             const Net::IpGenAddr& intfIp );
// Forgets that `key` lists `intfIp`. The last link gone takes the published
// record with it; otherwise a record that named the link's router is handed
// to the router of a remaining link.
void deleteNeighborKeyFromIntfIp( AllTopoDbStatus& status, const AllTopoNeighborKey& key,
                                  const Net::IpGenAddr& intfIp );

class TopoDbSm : public Platform::Reactor, public Platform::Notifier {
  public:
    TopoDbSm( TopoId topoId, Platform::Ptr<Routing::Topology::TopoDb> topoDb,
              Platform::Ptr<AllTopoDbStatus> allTopoDbStatus );
    ~TopoDbSm() override;

    TopoId topoId() const { return topoId_; }
    const Platform::Ptr<Routing::Topology::TopoDb>& topoDb() const { return topoDb_; }
    const Platform::Ptr<AllTopoDbStatus>& allTopoDbStatus() const {
        return allTopoDbStatus_;
    }
    // The level's map, from start-up on.
    const Platform::Ptr<RouterIdMap>& routerIdMap() const { return routerIdMap_; }

    CSPF_ENTITY_COLL( HashColl, Mpls::RouterId, RouterToNeighbor, routerToNeighbor,
                      routerToNeighbors )
    CSPF_ENTITY_COLL( HashColl, Routing::Topology::NeighborKey, NeighborToIntfIp,
                      neighborToIntfIp, neighborToIntfIps )
    // A duplicate router to handle again once the current router is handled.
    const std::optional<Mpls::RouterId>& pendingRouterToHandle() const {
        return pendingRouterToHandle_;
    }

    // Creates the level's RouterIdMap, then handles every router and then
    // every link the database already holds.
    void handleInitialized();
    void handleRouter( const Mpls::RouterId& key );
    void handleNeighbor( const Routing::Topology::NeighborKey& key );
    void handleNetwork( const Routing::Topology::NetworkId& key );
    // Runs inside the RouterIdMap's igpRouterId notification.
    void handleTeRouterIdChange( const Net::IpGenAddr& teRouterId );
    // Stops watching and deletes the level's RouterIdMap. Runs once: from the
    // owner before it lets go of the reactor, or from the destructor.
    void handleDestruction();

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void doHandleRouter( const Mpls::RouterId& key );
    void doHandleRouterGone( const Mpls::RouterId& key );
    void doTakeTeRouterId( const Mpls::RouterId& key, const Net::IpGenAddr& teRouterId );
    // Reads the router's own links into listed_, sorted; a bad key is skipped.
    void doReadListedNeighbors( const Mpls::RouterId& key,
                                const Routing::Topology::RouterView& view );
    void doHandleRouterDeletion( const Mpls::RouterId& igpRouterId,
                                 const Net::IpGenAddr& teRouterId );
    void doAddDuplicateRouter( const Mpls::RouterId& igpRouterId,
                               const Net::IpGenAddr& teRouterId );
    void doDelDuplicateRouter( const Mpls::RouterId& igpRouterId,
                               const Net::IpGenAddr& teRouterId );
    Net::IpGenAddr doFindDuplicateRouter( const Mpls::RouterId& igpRouterId ) const;
    // Publishes or withdraws every recorded address of one link.
    void doPublishNeighbor( const Routing::Topology::NeighborKey& key,
                            const Net::IpGenAddr& teRouterId );
    void doWithdrawNeighbor( const Routing::Topology::NeighborKey& key,
                             const Net::IpGenAddr& teRouterId );
    void doUpdateAllTopoDbStatus();

    const TopoId topoId_;
    const Platform::Ptr<Routing::Topology::TopoDb> topoDb_;
    const Platform::Ptr<AllTopoDbStatus> allTopoDbStatus_;
    Platform::Ptr<RouterIdMap> routerIdMap_;
    std::optional<Mpls::RouterId> pendingRouterToHandle_;
    // The TE router id that the pending router is to take over.
    Net::IpGenAddr pendingTeRouterId_;
    bool destroyed_ = false;
    // IGP router id -> the TE router id whose duplicate list holds it.
    std::unordered_map<Mpls::RouterId, Net::IpGenAddr> listedUnder_;
    // Reused by every router handled, so that reading a router's links
    // allocates nothing once warm.
    std::vector<uint8_t> routerBuffer_;
    std::vector<uint8_t> neighborBuffer_;
    std::vector<Routing::Topology::NeighborKey> listed_;
    std::vector<Routing::Topology::NeighborKey> unlisted_;
    std::vector<Net::IpGenAddr> unlistedAddrs_;
};

}  // namespace Cspf

// The agent's derived tables over the merged topology of one VRF:
//   AllTopoDbStatus        the VRF's root of them, with this router's TE id
//                          and the time of the last change that can alter a
//                          computed path
//   RouterIdMap            per level: IGP router id <-> TE router id
//   DuplicateRouters       per TE router id: the further IS-IS routers that
//                          claim it
//   IntfIpToNeighborTable  interface address -> the links that list it
//   IntfIpToNeighbor       one address of that table
// It also counts the topology's version (every handled router, link or LAN
// change and every change of our TE router id moves it), keeps what those
// changes touched until the compiled topology takes them, and holds that
// compiled topology, one per VRF.
// The reactors keep them; this file only holds the state, and notifies per
// key so that a reactor can follow one router or address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoKeys.h"
#include "topo/IntfIpToRouterId.h"
#include "topo/RouterId.h"
#include "topo/TopoChange.h"
#include "topo/TopoId.h"

namespace Cspf {

class AllTopoDb;
class AllTopoCompiler;

// The IS-IS routers other than the mapped one that advertise one TE router id.
class DuplicateRouters : public Platform::Entity {
  public:
    explicit DuplicateRouters( const Net::IpGenAddr& teRouterId )
        : teRouterId_( teRouterId ) {}

    const Net::IpGenAddr& teRouterId() const { return teRouterId_; }

    // A set: the value is always true.
    CSPF_COLL( OrderedColl, Mpls::RouterId, bool, router, routers )

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const Net::IpGenAddr teRouterId_;
};

// The router ids of one level. Kept by the per-topology reactor with the
// invariant that a TE router id maps to exactly one IGP router id; every
// further router claiming it sits in duplicateRouters instead of igpRouterId.
class RouterIdMap : public Platform::Entity {
  public:
    explicit RouterIdMap( TopoId topoId ) : topoId_( topoId ) {}

    TopoId topoId() const { return topoId_; }

    // IGP router id -> TE router id.
    CSPF_COLL( HashColl, Mpls::RouterId, Net::IpGenAddr, teRouterId, teRouterIds )
    // TE router id -> the one IGP router id it stands for.
    CSPF_COLL( HashColl, Net::IpGenAddr, Mpls::RouterId, igpRouterId, igpRouterIds )
    CSPF_ENTITY_COLL( OrderedColl, Net::IpGenAddr, DuplicateRouters, duplicateRouters,
                      duplicateRoutersCount )

    // The pairs in IGP router id order, then the duplicates.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const TopoId topoId_;
};

// One interface address and every link, over both levels, that lists it.
class IntfIpToNeighbor : public Platform::Entity {
  public:
    explicit IntfIpToNeighbor( const Net::IpGenAddr& intfIp ) : intfIp_( intfIp ) {}

    const Net::IpGenAddr& intfIp() const { return intfIp_; }

    // A set: the value is always true.
    CSPF_COLL( HashColl, AllTopoNeighborKey, bool, neighbor, neighbors )

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const Net::IpGenAddr intfIp_;
};

class IntfIpToNeighborTable : public Platform::Entity {
  public:
    CSPF_ENTITY_COLL( HashColl, Net::IpGenAddr, IntfIpToNeighbor, intfIpToNeighbor,
                      intfIpToNeighbors )

    // Addresses in address order, each with its links in key order.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

class AllTopoDbStatus : public Platform::Entity {
  public:
    // `intfIpToRouterIdTable` is the VRF's published table; tests may pass
    // null.
    explicit AllTopoDbStatus(
        Platform::Ptr<IntfIpToRouterIdWriter> intfIpToRouterIdTable );
    ~AllTopoDbStatus() override;

    const Platform::Ptr<IntfIpToRouterIdWriter>& intfIpToRouterIdTable() const {
        return intfIpToRouterIdTable_;
    }

    CSPF_ENTITY_COLL( OrderedColl, TopoId, RouterIdMap, routerIdMap, routerIdMaps )
    CSPF_ATTR( Platform::Ptr<IntfIpToNeighborTable>, intfIpToNeighborTable )
    CSPF_ATTR( Net::IpGenAddr, ourTeRouterId )
    // Seconds of the platform clock; 0 until the first change.
    CSPF_ATTR( double, topoChangedAt, 0.0 )

    // Creates the one table on first use and returns it.
    Platform::Ptr<IntfIpToNeighborTable> intfIpToNeighborTableIs();
    // Stamps a change that can alter a computed path with the clock's time.
    void topoChangedAtIsNow();

    // The topology's version; every handled change advances it.
    uint64_t topoVersion() const { return topoVersion_; }
    // Advances the version and keeps what the change touched.
    void topoChangeIs( const TopoChange& change );
    // Advances the version for a change too wide to name (a level came or
    // went): everything is compiled again.
    void topoVersionInc();
    // Hands the changes kept since the last call over; false when some were
    // not kept (too many, or one too wide to name), and the whole topology
    // must be compiled again.
    bool topoChangesTake( std::vector<TopoChange>& changes );

    // The VRF's compiled topology over `allTopoDb`, made on first use (and
    // again for another database set).
    Platform::Ptr<AllTopoCompiler> allTopoCompilerFor(
        const Platform::Ptr<AllTopoDb>& allTopoDb );

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    // Beyond this many changes since the last take, compiling everything
    // again is as cheap as following each.
    static constexpr size_t kMaxTopoChanges = 1 << 16;

    const Platform::Ptr<IntfIpToRouterIdWriter> intfIpToRouterIdTable_;
    uint64_t topoVersion_ = 0;
    std::vector<TopoChange> topoChanges_;
    bool topoChangesLost_ = true;
    Platform::Ptr<AllTopoCompiler> allTopoCompiler_;
};

}  // namespace Cspf

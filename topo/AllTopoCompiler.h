// Cspf::AllTopoCompiler: keeps the VRF's compiled topology up to date with
// the level databases and the id maps.
//
// Before a run asks, the compiled topology is brought up to date when the
// topology's version moved: the changes kept since (AllTopoDbStatus) name
// the routers, links and LANs that were handled, and only the compiled
// routers and LANs whose answers can depend on those records are compiled
// again. What depends on what is remembered per level from the records as
// last compiled: the links each IGP router lists (a link's two-way check
// reads the far end's record and links), the LANs each lists and the
// members each LAN lists. A level that comes or goes, or changes not kept,
// compile everything again.
//
// Compiling goes through AllTopoDbReader, the view's rules on demand, so the
// answers and the traces are those of the rules themselves; the traces are
// written when the routers and LANs concerned are compiled.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/DumpContext.h"
#include "platform/Ptr.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoCompiled.h"
#include "topo/AllTopoDb.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/AllTopoKeys.h"
#include "topo/TopoChange.h"

namespace Cspf {

class AllTopoCompiler : public Platform::RefCounted {
  public:
    // `allTopoDbStatus` owns the compiler.
    AllTopoCompiler( Platform::Ptr<AllTopoDb> allTopoDb,
                     AllTopoDbStatus* allTopoDbStatus );

    const Platform::Ptr<AllTopoDb>& allTopoDb() const { return allTopoDb_; }

    // The compiled topology, brought up to date first when the version moved.
    const AllTopoCompiled& compiled();
    // Compiles everything again, whether the version moved or not.
    void rebuild();
    // The routers and LANs whose records were refused are compiled again at
    // the next ask, whether the version moved or not: a failed run's retry
    // reads them anew.
    void refusedRetry();

    // What the last update compiled: routers and LANs, and whether it was
    // the whole topology.
    struct Stats {
        uint64_t updates = 0;
        uint64_t rebuilds = 0;
        size_t lastRouters = 0;
        size_t lastNetworks = 0;
    };
    const Stats& stats() const { return stats_; }
    // The memory of the dependency records, beside the compiled topology's.
    size_t indexBytes() const;

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    // One IGP router of a level as last compiled.
    struct Igp {
        Net::IpGenAddr teRouterId;               // zero when it had none
        std::vector<Mpls::RouterId> farRouters;  // of its point-to-point links
        std::vector<Routing::Topology::NetworkId> networks;
    };
    struct Level {
        const Routing::Topology::TopoDb* topoDb = nullptr;
        const RouterIdMap* routerIdMap = nullptr;
        std::unordered_map<Mpls::RouterId, Igp> igp;
        // IGP router -> the routers whose point-to-point links lead to it.
        std::unordered_map<Mpls::RouterId, std::vector<Mpls::RouterId>> listedBy;
        // LAN -> the routers its record lists, and the reverse.
        std::unordered_map<Routing::Topology::NetworkId, std::vector<Mpls::RouterId>>
            members;
        std::unordered_map<Mpls::RouterId, std::vector<Routing::Topology::NetworkId>>
            memberOf;
    };

    bool doLevelsChanged() const;
    void doUpdate( const std::vector<TopoChange>& changes );
    void doRouterChanged( TopoId topoId, Level& level, const Mpls::RouterId& id );
    void doNeighborChanged( TopoId topoId, Level& level,
                            const Routing::Topology::NeighborKey& key );
    void doNetworkChanged( TopoId topoId, Level& level,
                           const Routing::Topology::NetworkId& id );
    // The TE router id the level maps an IGP router to, marked for compiling
    // with the one it was compiled under.
    void doDirtyIgp( Level& level, const Mpls::RouterId& id );
    void doCompile();
    void doCompileRouter( const AllTopoDbReader& reader,
                          const Net::IpGenAddr& teRouterId );
    void doCompileNetwork( const AllTopoDbReader& reader, const AllTopoNetworkId& id );

    const Platform::Ptr<AllTopoDb> allTopoDb_;
    AllTopoDbStatus* const allTopoDbStatus_;
    AllTopoCompiled compiled_;
    std::map<TopoId, Level> levels_;
    bool built_ = false;
    uint64_t version_ = 0;
    Net::IpGenAddr ourTeRouterId_;
    std::unordered_set<Net::IpGenAddr> dirtyRouters_;
    std::unordered_set<AllTopoNetworkId> dirtyNetworks_;
    // Compiled with an error, and whether their retry is due.
    std::unordered_set<Net::IpGenAddr> refusedRouters_;
    std::unordered_set<AllTopoNetworkId> refusedNetworks_;
    bool retryDue_ = false;
    std::vector<TopoChange> changes_;
    std::vector<uint8_t> buffer_;
    Stats stats_;
};

}  // namespace Cspf

// Cspf::AllTopoDbReader: the view's rules computed on demand from the tables.
//
// Merges the IS-IS levels into routers keyed by TE router id, hides links
// that fail the two-way check and the transit links of overloaded routers,
// and applies a constraint (an excluded interface) to the computing router's
// own links. Nothing is cached: every call reads the level databases and the
// id maps afresh. The compiled topology is built and updated through it, and
// it is the reference the compiled view is tested against. Its traces carry
// the signatures of the view operations whose rules they report.
//
// Records are read in place from the shared-memory tables, never copied
// whole: a router of 500 neighbor keys costs a lookup, not 18 KB of copying.
// An IS-IS writer may change a record while a call reads it; each public
// call checks at its end that every record it read is unchanged, and runs
// again when one was not, so a call answers from one consistent snapshot of
// the records it touched.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "platform/Ptr.h"
#include "platform/ShmTable.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoDb.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/AllTopoKeys.h"
#include "topo/AllTopoViews.h"
#include "topo/TopoRecords.h"

namespace Platform {
class TableReaderBase;
}
namespace Ip {
class Status;
}
namespace Ip6 {
class Status;
}

namespace Cspf {

class DedupConstraintLifeTimeNotifier;

class AllTopoDbReader {
  public:
    // Exactly one of the interface statuses is set: the family of the VRF
    // that owns the computation (both may be null in tools that exclude
    // nothing).
    AllTopoDbReader( Platform::Ptr<AllTopoDb> allTopoDb,
                     Platform::Ptr<AllTopoDbStatus> allTopoDbStatus,
                     Platform::Ptr<Ip::Status> ipStatus,
                     Platform::Ptr<Ip6::Status> ip6Status,
                     Platform::Ptr<DedupConstraintLifeTimeNotifier> constraint );
    ~AllTopoDbReader();

    const Platform::Ptr<AllTopoDb>& allTopoDb() const { return allTopoDb_; }
    const Platform::Ptr<AllTopoDbStatus>& allTopoDbStatus() const {
        return allTopoDbStatus_;
    }
    const Platform::Ptr<Ip::Status>& ipStatus() const { return ipStatus_; }
    const Platform::Ptr<Ip6::Status>& ip6Status() const { return ip6Status_; }
    const Platform::Ptr<DedupConstraintLifeTimeNotifier>& constraint() const {
        return constraint_;
    }

    // The router over every level that knows it; an empty router (zero TE
    // router id) when none does. A router record of more than 500 neighbor
    // keys is reported and refused with CorruptionError.
    AllTopoRouter router( const Net::IpGenAddr& teRouterId ) const;
    // The LAN's routers that pass the checks; empty when the level or the
    // LAN is unknown.
    AllTopoNetwork network( const AllTopoNetworkId& allTopoNetworkId ) const;
    // The link record of the key's level; a default record carrying the key
    // when the level or the record is missing.
    Routing::Topology::Neighbor neighbor( const AllTopoNeighborKey& key ) const;
    // The metrics of neighbor( key ), read in place without decoding the
    // rest of the record: all zero when the record is missing or bad.
    struct LinkMetric {
        bool teMetricPresent = false;
        uint32_t teMetric = 0;
        uint32_t igpMetric = 0;
    };
    LinkMetric neighborMetric( const AllTopoNeighborKey& key ) const;

    // What a run needs of router( teRouterId ), from one call: the same links
    // and end points in the same order, each link with what neighborMetric
    // gives for it, read from the record its checks read rather than looked
    // up again. The caller owns the storage and reuses it from call to call;
    // it carries nothing from one call to the next.
    // With the metrics come the link's interface addresses (in `addrs`, from
    // `intfFirst`) and its first neighbor address, the hop over the link.
    struct RouterLink {
        AllTopoNeighborKey key;
        LinkMetric metric;
        uint32_t intfFirst = 0;
        uint32_t intfCount = 0;
        // Unset when the link lists none; `nbrAddrBad` when the first one
        // fails to decode.
        Net::IpGenAddr nbrAddr;
        bool nbrAddrBad = false;
    };
    struct RouterLinks {
        Net::IpGenAddr teRouterId;  // zero when no level knows the router
        std::vector<RouterLink> links;
        std::vector<Net::IpGenAddr> teps;
        std::vector<Net::IpGenAddr> addrs;
    };
    // Fills `out`, cleared first.
    void routerLinks( const Net::IpGenAddr& teRouterId, RouterLinks& out ) const;
    // The router( teRouterId ) answer those links and end points make.
    static AllTopoRouter allTopoRouter( const Net::IpGenAddr& teRouterId,
                                        std::span<const RouterLink> links,
                                        std::span<const Net::IpGenAddr> teps );
    // What hop selection needs of neighbor( key ), read in place without
    // decoding the rest of the record: the count of one of its address lists
    // and the first address of that list. `found` is false when the level or
    // the record is missing or bad (a bad one is reported).
    enum class AddrList { interfaceAddrs, neighborAddrs };
    struct LinkFirstAddr {
        bool found = false;
        uint32_t count = 0;
        Net::IpGenAddr addr;  // unset when the list is empty
    };
    LinkFirstAddr neighborFirstAddr( const AllTopoNeighborKey& key, AddrList list ) const;
    // Whether the level's record of the router that advertises `neighborKey`
    // lists it, read in place; false when the level or the record is missing.
    bool routerListsNeighbor( TopoId topoId,
                              const Routing::Topology::NeighborKey& neighborKey ) const;
    // Whether the constraint admits the link (of the computing router).
    bool neighborAllowed( const Routing::Topology::Neighbor& neighbor ) const;
    // The same rule over a link's interface addresses.
    bool neighborAllowed( std::span<const Net::IpGenAddr> interfaceAddrs ) const;
    // Whether a constraint other than the default one is set.
    bool constrained() const;
    bool twoWayCheckPassed( const AllTopoNeighborKey& key ) const;
    bool twoWayCheckP2P( const AllTopoNeighborKey& key ) const;
    bool twoWayCheckLan( const AllTopoNeighborKey& key ) const;

  private:
    // The addresses of a link record, in place: what the two-way check and
    // the TEPs need, without decoding the whole record. Equal addresses are
    // equal bytes.
    struct LinkAddrs {
        static constexpr size_t kAddrSize = sizeof( Net::IpGenAddr );
        const uint8_t* interfaces = nullptr;
        uint32_t interfaceCount = 0;
        const uint8_t* neighbors = nullptr;
        uint32_t neighborCount = 0;
        bool interfaceHas( const uint8_t* addr ) const;
        // Some neighbor address of this end is an interface address of `other`.
        bool crosses( const LinkAddrs& other ) const;
    };

    struct Read {
        const Platform::TableReaderBase* table;
        Platform::RecordRef ref;
    };

    // Runs one public call until it completes over records that stayed
    // unchanged; nested calls run inside the outer one's snapshot.
    template <typename F>
    auto doStable( F&& call ) const;
    bool doReadsUnchanged( size_t from ) const;

    // In-place reads, each remembered for the end-of-call check. A missing
    // record reads as absent (false).
    // A corrupt router is refused with CorruptionError when `strict`, else
    // reported and read as absent.
    bool doRouter( const Routing::Topology::TopoDb& db, const Mpls::RouterId& id,
                   Routing::Topology::RouterView* view, bool strict ) const;
    bool doNetwork( const Routing::Topology::TopoDb& db,
                    const Routing::Topology::NetworkId& id,
                    Routing::Topology::NetworkView* view ) const;
    bool doNeighbor( const Routing::Topology::TopoDb& db,
                     const Routing::Topology::NeighborKey& key,
                     Routing::Topology::Neighbor* neighbor ) const;
    bool doLinkAddrs( const Routing::Topology::TopoDb& db,
                      const Routing::Topology::NeighborKey& key, LinkAddrs* addrs ) const;
    bool doFind( const Platform::TableReaderBase& table, bool found,
                 const Platform::RecordRef& ref ) const;
    // A record that failed its checks: torn by a writer (the call runs
    // again) or corrupt (reported and rethrown as CorruptionError).
    // Reports a record that failed its checks; false when it was torn.
    bool doReported( const Platform::TableReaderBase& table,
                     const Platform::RecordRef& ref, const std::exception& error ) const;
    [[noreturn]] void doBadRecord( const Platform::TableReaderBase& table,
                                   const Platform::RecordRef& ref,
                                   const std::exception& error ) const;

    // router() and routerLinks(); the metrics only when `metrics`.
    void doRouterCall( const Net::IpGenAddr& teRouterId, RouterLinks& out,
                       bool metrics ) const;
    AllTopoNetwork doNetworkCall( const AllTopoNetworkId& allTopoNetworkId ) const;
    // The metrics of a link record that doLinkAddrs accepted.
    LinkMetric doLinkMetric( const Platform::TableReaderBase& table,
                             const Platform::RecordRef& ref ) const;
    // `listed`: the caller iterates the advertising router's own keys, so
    // only the far side needs checking (and, point-to-point, these are the
    // link's addresses).
    bool doTwoWayCheckP2P( const AllTopoNeighborKey& key,
                           const Routing::Topology::TopoDb* topoDb,
                           const LinkAddrs* listed ) const;
    bool doTwoWayCheckLan( const AllTopoNeighborKey& key,
                           const Routing::Topology::TopoDb* topoDb, bool listed ) const;
    bool doNeighborAllowedV4( std::span<const Net::IpGenAddr> interfaceAddrs,
                              const Net::IntfId& intfId ) const;
    bool doNeighborAllowedV6( std::span<const Net::IpGenAddr> interfaceAddrs,
                              const Net::IntfId& intfId ) const;
    const Routing::Topology::TopoDb* doTopoDb( TopoId topoId ) const;
    const RouterIdMap* doRouterIdMap( TopoId topoId ) const;

    Platform::Ptr<AllTopoDb> allTopoDb_;
    Platform::Ptr<AllTopoDbStatus> allTopoDbStatus_;
    Platform::Ptr<Ip::Status> ipStatus_;
    Platform::Ptr<Ip6::Status> ip6Status_;
    Platform::Ptr<DedupConstraintLifeTimeNotifier> constraint_;
    mutable std::vector<Read> reads_;
    mutable unsigned depth_ = 0;
};

}  // namespace Cspf

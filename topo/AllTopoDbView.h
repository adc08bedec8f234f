// Cspf::AllTopoDbView: the topology as one CSPF computation sees it.
//
// Merges the IS-IS levels into routers keyed by TE router id, hides links
// that fail the two-way check and the transit links of overloaded routers,
// and applies the computation's constraint (an excluded interface) to the
// computing router's own links. Routers and LANs are answered from the VRF's
// compiled topology (AllTopoCompiled), shared by every constraint and brought
// up to date when the topology's version moved; the constraint alone is
// applied per call, against the live interface status. Link records and the
// two-way checks of any key are read on demand (AllTopoDbReader).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/Ptr.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoCompiled.h"
#include "topo/AllTopoCompiler.h"
#include "topo/AllTopoDb.h"
#include "topo/AllTopoDbReader.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/AllTopoKeys.h"
#include "topo/AllTopoViews.h"
#include "topo/TopoRecords.h"

namespace Ip {
class Status;
}
namespace Ip6 {
class Status;
}

namespace Cspf {

class DedupConstraintLifeTimeNotifier;

class AllTopoDbView {
  public:
    // Exactly one of the interface statuses is set: the family of the VRF
    // that owns the computation (both may be null in tools that exclude
    // nothing).
    AllTopoDbView( Platform::Ptr<AllTopoDb> allTopoDb,
                   Platform::Ptr<AllTopoDbStatus> allTopoDbStatus,
                   Platform::Ptr<Ip::Status> ipStatus,
                   Platform::Ptr<Ip6::Status> ip6Status,
                   Platform::Ptr<DedupConstraintLifeTimeNotifier> constraint );
    ~AllTopoDbView();

    const Platform::Ptr<AllTopoDb>& allTopoDb() const { return reader_.allTopoDb(); }
    const Platform::Ptr<AllTopoDbStatus>& allTopoDbStatus() const {
        return reader_.allTopoDbStatus();
    }
    const Platform::Ptr<Ip::Status>& ipStatus() const { return reader_.ipStatus(); }
    const Platform::Ptr<Ip6::Status>& ip6Status() const { return reader_.ip6Status(); }
    const Platform::Ptr<DedupConstraintLifeTimeNotifier>& constraint() const {
        return reader_.constraint();
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
    Routing::Topology::Neighbor neighbor( const AllTopoNeighborKey& key ) const {
        return reader_.neighbor( key );
    }
    // Whether the constraint admits the link (of the computing router).
    bool neighborAllowed( const Routing::Topology::Neighbor& neighbor ) const {
        return reader_.neighborAllowed( neighbor );
    }
    bool twoWayCheckPassed( const AllTopoNeighborKey& key ) const {
        return reader_.twoWayCheckPassed( key );
    }
    bool twoWayCheckP2P( const AllTopoNeighborKey& key ) const {
        return reader_.twoWayCheckP2P( key );
    }
    bool twoWayCheckLan( const AllTopoNeighborKey& key ) const {
        return reader_.twoWayCheckLan( key );
    }

    // What a run needs of router( teRouterId ): the same links and end
    // points in the same order, each link with its metric and the hop over
    // it. Valid until the next call (or until the topology is compiled
    // again, which no run does).
    using LinkMetric = AllTopoDbReader::LinkMetric;
    using RouterLink = AllTopoDbReader::RouterLink;
    struct RouterLinks {
        Net::IpGenAddr teRouterId;  // unset when no level knows the router
        std::span<const RouterLink> links;
        std::span<const Net::IpGenAddr> teps;
    };
    void routerLinks( const Net::IpGenAddr& teRouterId, RouterLinks& out ) const;
    // What a run needs of network( id ): its routers, in the same order.
    std::span<const Net::IpGenAddr> networkRouters( const AllTopoNetworkId& id ) const;

    // The compiled topology, up to date.
    const AllTopoCompiled& compiled() const { return compiler_->compiled(); }
    // After a failed run: what was refused is read anew at the next ask.
    void refusedRetry() const { compiler_->refusedRetry(); }
    const AllTopoDbReader& reader() const { return reader_; }

  private:
    const AllTopoDbReader reader_;
    const Platform::Ptr<AllTopoCompiler> compiler_;
    // Our router's links and end points under the constraint, per call.
    mutable std::vector<RouterLink> constrainedLinks_;
    mutable std::vector<Net::IpGenAddr> constrainedTeps_;
};

}  // namespace Cspf

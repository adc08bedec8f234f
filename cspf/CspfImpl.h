// Cspf::CspfRun: one constrained shortest-path-first computation, the heart
// of the CSPF implementation (hence the file's name, which its assertions
// report).
//
// A Dijkstra search from CspfData::source over the topology view, whose
// priority queue is the data's tent. Three twists: LANs are nodes of
// their own, entered at the cost of the link into them and left at no cost;
// every router keeps all of its equal-cost last links; and a LAN reached
// again at equal cost through another router is expanded again, so that the
// routers behind it collect that alternative too. The constraint, the
// two-way checks and overload are the view's business: the run sees only
// what the view returns. There is no early exit: the whole reachable
// topology is settled, then every wanted TEP has its owner (the first router
// settled that advertises it) or none.
#pragma once

#include <cstdint>
#include <string_view>

#include "cspf/CspfData.h"
#include "cspf/CspfLinkInfo.h"
#include "platform/Ptr.h"
#include "topo/AllTopoDbView.h"

namespace Cspf {

class CspfRun : public Platform::RefCounted {
  public:
    // The largest path cost that may enter the tent.
    static constexpr uint32_t maxPathMetric = 4261412863u;  // 0xFDFFFFFF

    // Computes at once: on return the tent is empty and the results are in
    // the data.
    explicit CspfRun( Platform::Ptr<CspfData> cspfData );

    const Platform::Ptr<CspfData>& cspfData() const { return cspfData_; }

  private:
    void doRunCspf();
    // Puts the links of the router that `linkInfo` reaches (the source for
    // the empty info) into the tent. That router, as the view gave it, stays
    // in router_ until the next call, so that its TEPs need not be asked for
    // again.
    void doAddRouterNeighborsToTent( const CspfLinkInfo& linkInfo );
    void doAddNetworkRoutersToTent( const CspfLinkInfo& linkInfo );
    void doTraceAddNeighbor( std::string_view callerName, const CspfLinkInfo& linkInfo,
                             uint32_t metric ) const;
    void doSettleRouter( const CspfLinkInfo& linkInfo, const Net::IpGenAddr& router );

    const Platform::Ptr<CspfData> cspfData_;
    // The view's answer for the router expanded last.
    AllTopoDbView::RouterLinks router_;
};

Platform::Ptr<CspfRun> cspfRunFactory( Platform::Ptr<CspfData> cspfData );

}  // namespace Cspf

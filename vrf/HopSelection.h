// Hop selection: the hops of one path, read off a finished CSPF run.
//
//  - nexthopOnLink  the address that traffic is sent to over one last link
//  - HopSelection   the walk from the router that owns a TEP back to the
//                   source, one last link per router, first hop first
//
// Among equal-cost last links the walk keeps the hop of the previous result
// at the same distance from the TEP while it is still one of the choices, so
// that results do not flap; otherwise it draws one with rand(), which this
// system never seeds, over the collection's iteration order.
//
// ConstraintInfoSm uses it on the agent's runs and cspfctl compute on offline
// ones. Hops are read off the compiled topology the run read: a hop costs a
// lookup and a short scan, no table read.
#pragma once

#include <cstdint>
#include <vector>

#include "cspf/CspfData.h"
#include "cspf/CspfLinkInfo.h"
#include "platform/Error.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoDbView.h"
#include "vrf/PathArray.h"

namespace Cspf {

// A last link of the run that the compiled topology no longer backs: the
// topology changed between the run and the selection, or its records
// contradict each other (a LAN member without an address). The message
// names the failed check and the link. The path has no usable hops.
class HopSelectionError : public Platform::Error {
  public:
    using Platform::Error::Error;
};

// Over a point-to-point link, the far end's first address as the link record
// reports it; across a LAN (a router-in-network link), the first interface
// address of the far router's own link to that LAN. HopSelectionError when
// the records do not give one.
Net::IpGenAddr nexthopOnLink( const AllTopoDbView& view, const CspfLinkInfo& linkInfo );

// The hop selection of one finished run, for every path of it. The walks
// share most of their routers, so each settled router's last links (their
// hops and the routers they come from) are looked up once, on first use, and
// kept by the router's position in the run's tree. Valid while `cspfData`
// is.
class HopSelection {
  public:
    explicit HopSelection( const CspfData& cspfData );

    // The hops from the source to the router that owns `tep`, first hop
    // first; empty when no router owns it. `oldPath` is the previous result
    // of the same path (null for none), whose hops are kept where they are
    // still equal-cost choices. RangeError (the HopIndex text) for a path of
    // more than 1024 hops, HopSelectionError as nexthopOnLink. The list is
    // the selection's own, valid until the next call.
    const std::vector<Net::IpGenAddr>& hops( const Net::IpGenAddr& tep,
                                             const PathArray* oldPath );

    // The router that owns `tep`, as the walk starts from it: kNoOwner when
    // no router owns it. Looking up the owners of many paths in a loop of
    // their own lets the lookups overlap, where the walks would wait for
    // each one.
    static constexpr uint32_t kNoOwner = UINT32_MAX;
    uint32_t owner( const Net::IpGenAddr& tep ) const;
    // As hops( tep, oldPath ), from owner( tep ).
    const std::vector<Net::IpGenAddr>& hops( const Net::IpGenAddr& tep, uint32_t owner,
                                             const PathArray* oldPath );

  private:
    struct LastLink {
        const CspfLinkInfo* info;
        // The position of the router that advertises it; kNoOwner when the
        // run did not settle it, where the walk asserts.
        uint32_t from;
        bool resolved = false;
        Net::IpGenAddr hop;
    };
    // A settled router's last links in links_, in the path's order.
    struct Router {
        uint32_t first = 0;
        uint32_t count = 0;
        bool built = false;
    };

    const Router& doRouter( uint32_t position );
    const Net::IpGenAddr& doHop( uint32_t link );

    const CspfData& cspfData_;
    const AllTopoDbView& view_;
    const CspfData::ShortestPathMap& tree_;
    const uint32_t source_;
    std::vector<Router> routers_;
    std::vector<LastLink> links_;
    std::vector<Net::IpGenAddr> hops_;
};

}  // namespace Cspf

// Hop selection: the hops of one path, read off a finished CSPF run.
//
//  - nexthopOnLink  the address that traffic is sent to over one last link
//  - selectHops     the walk from the router that owns a TEP back to the
//                   source, one last link per router, first hop first
//
// Among equal-cost last links the walk keeps the hop of the previous result
// at the same distance from the TEP while it is still one of the choices, so
// that results do not flap; otherwise it draws one with rand(), which this
// system never seeds, over the collection's iteration order.
//
// Free functions, so that ConstraintInfoSm uses them on the agent's runs and
// cspfctl compute on offline ones. Links are read in place through the view:
// a hop costs a few lookups, not the decoding of a link record.
#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "cspf/CspfData.h"
#include "cspf/CspfLinkInfo.h"
#include "platform/Error.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoDbView.h"
#include "vrf/PathArray.h"

namespace Cspf {

// A last link of the run that the topology records no longer back: the
// IS-IS side changed them between the run and the selection, or they
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

// The hops from the source to the router that owns `tep` in `cspfData`,
// first hop first; empty when no router owns it. `oldPath` is the previous
// result of the same path (null for none), whose hops are kept where they are
// still equal-cost choices. RangeError (the HopIndex text) for a path of more
// than 1024 hops, HopSelectionError as nexthopOnLink.
//
// `cache`, when given, keeps the hop of every last link looked at, for the
// other paths of the same run: paths to many TEPs share most of their
// routers, and a link's hop is the same for all of them.
class HopCache;
std::vector<Net::IpGenAddr> selectHops( const CspfData& cspfData,
                                        const Net::IpGenAddr& tep,
                                        const PathArray* oldPath,
                                        HopCache* cache = nullptr );

// The hops of one run's last links, by settled router and position among
// its last links. Valid for one CspfData only.
class HopCache {
  public:
    Net::IpGenAddr hop( const AllTopoDbView& view, const Net::IpGenAddr& router,
                        size_t index, size_t lastLinks, const CspfLinkInfo& link );

  private:
    std::unordered_map<Net::IpGenAddr, std::vector<std::optional<Net::IpGenAddr>>> hops_;
};

}  // namespace Cspf

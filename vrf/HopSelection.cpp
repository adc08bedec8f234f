#include "vrf/HopSelection.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <string>

#include "platform/Assert.h"
#include "platform/Mivlog.h"
#include "records/PathStatus.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/TopoKeys.h"

namespace Cspf {

namespace {

using Routing::Topology::NeighborKey;

void doCheck( bool held, const char* check, const AllTopoNeighborKey& link ) {
    if ( !held ) {
        throw HopSelectionError( "hop selection: check \"" + std::string( check ) +
                                 "\" failed for link " + link.toString() );
    }
}

}  // namespace

Net::IpGenAddr nexthopOnLink( const AllTopoDbView& view, const CspfLinkInfo& linkInfo ) {
    const CspfLinkInfoKey& key = linkInfo.cspfLinkInfoKey();
    const AllTopoNeighborKey& link = key.allTopoNeighborKey();
    // The in-place read refuses an address count beyond the record's array
    // (reported as corrupt, read as missing), so the counts below are
    // consistent with the lists.
    if ( link.neighborType() == Routing::Topology::neighborTypeRouter() ) {
        const AllTopoDbView::LinkFirstAddr neighbor =
            view.neighborFirstAddr( link, AllTopoDbView::AddrList::neighborAddrs );
        doCheck( neighbor.found, "!!neighbor", link );
        doCheck( neighbor.count != 0, "neighbor.neighborAddrs()", link );
        return neighbor.addr;
    }
    // Across a LAN the hop is the far router's own address on it: its link
    // into the same LAN, at the same level.
    const Net::IpGenAddr& routerInNetwork = key.routerInNetwork();
    const Platform::Ptr<RouterIdMap> routerIdMap =
        view.allTopoDbStatus()->routerIdMap( link.topoId() );
    // The run reached the router through this level's id map.
    CSPF_ASSERT_AS( routerIdMap && routerIdMap->igpRouterIdHas( routerInNetwork ),
                    "routerIdMap->igpRouterIdHas( routerInNetwork )" );
    const NeighborKey reverseKey = NeighborKey::toNetwork(
        routerIdMap->igpRouterId( routerInNetwork ), link.neighborKey().networkId() );
    const AllTopoNeighborKey reverseAllTopoNeighborKey( link.topoId(), reverseKey,
                                                        routerInNetwork );
    doCheck( view.routerListsNeighbor( link.topoId(), reverseKey ),
             "router.neighborHas( reverseAllTopoNeighborKey )",
             reverseAllTopoNeighborKey );
    const AllTopoDbView::LinkFirstAddr neighbor = view.neighborFirstAddr(
        reverseAllTopoNeighborKey, AllTopoDbView::AddrList::interfaceAddrs );
    doCheck( neighbor.found, "neighbor != Routing::Topology::Neighbor()",
             reverseAllTopoNeighborKey );
    doCheck( neighbor.count != 0, "neighbor.interfaceAddrs()",
             reverseAllTopoNeighborKey );
    return neighbor.addr;
}

Net::IpGenAddr HopCache::hop( const AllTopoDbView& view, const Net::IpGenAddr& router,
                              size_t index, size_t lastLinks, const CspfLinkInfo& link ) {
    auto& hops = hops_[router];
    if ( hops.size() != lastLinks ) {
        hops.assign( lastLinks, std::nullopt );
    }
    if ( !hops[index] ) {
        hops[index] = nexthopOnLink( view, link );
    }
    return *hops[index];
}

std::vector<Net::IpGenAddr> selectHops( const CspfData& cspfData,
                                        const Net::IpGenAddr& tep,
                                        const PathArray* oldPath, HopCache* cache ) {
    std::vector<Net::IpGenAddr> hops;
    const Net::IpGenAddr owner = cspfData.routerWithTep( tep );
    if ( owner.isAddrZero() ) {
        TRACE5( "no path found for tep " << tep );
        return hops;
    }
    const AllTopoDbView& view = *cspfData.allTopoDbView();
    hops.reserve( 16 );
    // The old hop at the same distance from the TEP: the walk goes from the
    // TEP towards the source, the old list from the source towards the TEP.
    // The position moves at every step, whether or not it is used.
    const std::vector<Net::IpGenAddr>* old = oldPath ? &oldPath->pathColl() : nullptr;
    ptrdiff_t oldIndex = old ? static_cast<ptrdiff_t>( old->size() ) - 1 : -1;
    Net::IpGenAddr router = owner;
    while ( !( router == cspfData.source() ) ) {
        const CspfPath* cspfPath = cspfData.shortestPathFind( router );
        // The run settles a router's last links' routers before the router,
        // and only the source has no last link.
        CSPF_ASSERT( cspfPath && cspfPath->lastLinks() );
        if ( hops.size() > HopIndex::max ) {
            HopIndex::throwRangeError();
        }
        const Net::IpGenAddr* oldHop =
            old && oldIndex >= 0 ? &( *old )[static_cast<size_t>( oldIndex )] : nullptr;
        --oldIndex;
        for ( const auto& [key, lastLink] : *cspfPath ) {
            CSPF_ASSERT_AS( key.routerLink(), "lastLink.routerLink()" );
        }

        const CspfLinkInfo* chosen = nullptr;
        Net::IpGenAddr hop;
        const size_t n = cspfPath->lastLinks();
        auto hopOf = [&]( size_t index, const CspfLinkInfo& link ) {
            return cache ? cache->hop( view, router, index, n, link )
                         : nexthopOnLink( view, link );
        };
        if ( n == 1 ) {
            chosen = &cspfPath->begin()->second;
            hop = hopOf( 0, *chosen );
        } else {
            if ( oldHop ) {
                size_t index = 0;
                for ( const auto& [key, lastLink] : *cspfPath ) {
                    const Net::IpGenAddr candidate = hopOf( index++, lastLink );
                    if ( candidate == *oldHop ) {
                        chosen = &lastLink;
                        hop = candidate;
                        break;
                    }
                }
            }
            if ( chosen ) {
                TRACE7( "Retained old hop "
                        << hop << " for " << router << " from "
                        << chosen->cspfLinkInfoKey().allTopoNeighborKey().teNeighborOf()
                        << " for TEP " << tep );
            } else {
                const size_t index = static_cast<size_t>( std::rand() ) % n;
                auto it = cspfPath->begin();
                std::advance( it, static_cast<ptrdiff_t>( index ) );
                chosen = &it->second;
                hop = hopOf( index, *chosen );
                TRACE7( "Selecting index "
                        << index << " among " << n << " links for " << router << " from "
                        << chosen->cspfLinkInfoKey().allTopoNeighborKey().teNeighborOf()
                        << " for TEP " << tep );
            }
        }
        hops.push_back( hop );
        router = chosen->cspfLinkInfoKey().allTopoNeighborKey().teNeighborOf();
    }
    // Collected from the TEP back; clients want the first hop first.
    std::reverse( hops.begin(), hops.end() );
    return hops;
}

}  // namespace Cspf

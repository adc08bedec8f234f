#include "vrf/HopSelection.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <string>

#include "platform/Assert.h"
#include "platform/Mivlog.h"
#include "records/PathStatus.h"
#include "topo/AllTopoCompiled.h"
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
    const AllTopoCompiled& compiled = view.compiled();
    if ( link.neighborType() == Routing::Topology::neighborTypeRouter() ) {
        // The link as compiled for the router that advertises it.
        const AllTopoCompiled::Router* router = compiled.router( link.teNeighborOf() );
        const AllTopoDbView::RouterLink* found = nullptr;
        if ( router ) {
            // Within its router a link is named by its level and key.
            for ( const AllTopoDbView::RouterLink& candidate : router->links.links ) {
                if ( candidate.key.topoId() == link.topoId() &&
                     candidate.key.neighborKey() == link.neighborKey() ) {
                    found = &candidate;
                    break;
                }
            }
        }
        doCheck( found && !found->nbrAddrBad, "!!neighbor", link );
        doCheck( found->nbrAddr.isSet(), "neighbor.neighborAddrs()", link );
        return found->nbrAddr;
    }
    // Across a LAN the hop is the far router's own address on it: its link
    // into the same LAN, at the same level, compiled with the LAN.
    const Net::IpGenAddr& routerInNetwork = key.routerInNetwork();
    const AllTopoCompiled::Network* network = compiled.network( link.allTopoNetworkId() );
    const AllTopoCompiled::LanRouter* hop = nullptr;
    if ( network ) {
        for ( const AllTopoCompiled::LanRouter& candidate : network->hops ) {
            if ( candidate.teRouterId == routerInNetwork ) {
                hop = &candidate;
                break;
            }
        }
    }
    if ( !hop ) {
        // The LAN lost the router since the run.
        throw HopSelectionError( "hop selection: router " + routerInNetwork.toString() +
                                 " is no longer on the LAN of link " + link.toString() );
    }
    // The run reached the router through this level's id map.
    CSPF_ASSERT_AS( hop->check != AllTopoCompiled::LanHopCheck::unmapped,
                    "routerIdMap->igpRouterIdHas( routerInNetwork )" );
    const AllTopoNeighborKey reverseAllTopoNeighborKey(
        link.topoId(),
        NeighborKey::toNetwork( hop->igpRouterId, link.neighborKey().networkId() ),
        routerInNetwork );
    doCheck( hop->check != AllTopoCompiled::LanHopCheck::notListed,
             "router.neighborHas( reverseAllTopoNeighborKey )",
             reverseAllTopoNeighborKey );
    doCheck( hop->check != AllTopoCompiled::LanHopCheck::noRecord,
             "neighbor != Routing::Topology::Neighbor()", reverseAllTopoNeighborKey );
    doCheck( hop->check != AllTopoCompiled::LanHopCheck::noAddr,
             "neighbor.interfaceAddrs()", reverseAllTopoNeighborKey );
    return hop->hop;
}

HopSelection::HopSelection( const CspfData& cspfData )
    : cspfData_( cspfData ),
      view_( *cspfData.allTopoDbView() ),
      tree_( cspfData.shortestPathColl() ),
      source_( static_cast<uint32_t>( tree_.position( cspfData.source() ) ) ),
      routers_( tree_.size() ) {
    hops_.reserve( 16 );
}

const HopSelection::Router& HopSelection::doRouter( uint32_t position ) {
    // The run settles a router's last links' routers before the router, and
    // only the source has no last link.
    CSPF_ASSERT_AS( position < routers_.size(), "cspfPath && cspfPath->lastLinks()" );
    Router& router = routers_[position];
    if ( router.built ) {
        return router;
    }
    const CspfPath& path = tree_.atPosition( position ).second;
    CSPF_ASSERT_AS( path.lastLinks(), "cspfPath && cspfPath->lastLinks()" );
    router.first = static_cast<uint32_t>( links_.size() );
    router.count = static_cast<uint32_t>( path.lastLinks() );
    for ( const auto& [key, lastLink] : path ) {
        CSPF_ASSERT_AS( key.routerLink(), "lastLink.routerLink()" );
        const size_t from = tree_.position( key.allTopoNeighborKey().teNeighborOf() );
        links_.push_back( LastLink{
            &lastLink, from < tree_.size() ? static_cast<uint32_t>( from ) : kNoOwner,
            false, Net::IpGenAddr() } );
    }
    router.built = true;
    return router;
}

const Net::IpGenAddr& HopSelection::doHop( uint32_t link ) {
    LastLink& lastLink = links_[link];
    if ( !lastLink.resolved ) {
        // A link whose records fail is tried again by the next path: it
        // fails that path too, with the same error.
        lastLink.hop = nexthopOnLink( view_, *lastLink.info );
        lastLink.resolved = true;
    }
    return lastLink.hop;
}

uint32_t HopSelection::owner( const Net::IpGenAddr& tep ) const {
    const Net::IpGenAddr* owner = cspfData_.routerWithTepFind( tep );
    if ( !owner || owner->isAddrZero() ) {
        return kNoOwner;
    }
    // A router the tree lacks is past the end, where the walk asserts.
    return static_cast<uint32_t>( tree_.position( *owner ) );
}

const std::vector<Net::IpGenAddr>& HopSelection::hops( const Net::IpGenAddr& tep,
                                                       const PathArray* oldPath ) {
    return hops( tep, owner( tep ), oldPath );
}

const std::vector<Net::IpGenAddr>& HopSelection::hops( const Net::IpGenAddr& tep,
                                                       uint32_t owner,
                                                       const PathArray* oldPath ) {
    hops_.clear();
    if ( owner == kNoOwner ) {
        TRACE5( "no path found for tep " << tep );
        return hops_;
    }
    // The old hop at the same distance from the TEP: the walk goes from the
    // TEP towards the source, the old list from the source towards the TEP.
    // The position moves at every step, whether or not it is used.
    const std::vector<Net::IpGenAddr>* old = oldPath ? &oldPath->pathColl() : nullptr;
    ptrdiff_t oldIndex = old ? static_cast<ptrdiff_t>( old->size() ) - 1 : -1;
    uint32_t position = owner;
    while ( position != source_ ) {
        if ( hops_.size() > HopIndex::max ) {
            HopIndex::throwRangeError();
        }
        const Router& router = doRouter( position );
        const Net::IpGenAddr* oldHop =
            old && oldIndex >= 0 ? &( *old )[static_cast<size_t>( oldIndex )] : nullptr;
        --oldIndex;

        uint32_t chosen = router.first;
        if ( router.count > 1 ) {
            const Net::IpGenAddr& at = tree_.atPosition( position ).first;
            bool retained = false;
            if ( oldHop ) {
                for ( uint32_t i = 0; i < router.count && !retained; ++i ) {
                    if ( doHop( router.first + i ) == *oldHop ) {
                        chosen = router.first + i;
                        retained = true;
                    }
                }
            }
            if ( retained ) {
                TRACE7( "Retained old hop " << *oldHop << " for " << at << " from "
                                            << links_[chosen]
                                                   .info->cspfLinkInfoKey()
                                                   .allTopoNeighborKey()
                                                   .teNeighborOf()
                                            << " for TEP " << tep );
            } else {
                const uint32_t index =
                    static_cast<uint32_t>( std::rand() ) % router.count;
                chosen = router.first + index;
                TRACE7( "Selecting index " << index << " among " << router.count
                                           << " links for " << at << " from "
                                           << links_[chosen]
                                                  .info->cspfLinkInfoKey()
                                                  .allTopoNeighborKey()
                                                  .teNeighborOf()
                                           << " for TEP " << tep );
            }
        }
        hops_.push_back( doHop( chosen ) );
        position = links_[chosen].from;
    }
    // Collected from the TEP back; clients want the first hop first.
    std::reverse( hops_.begin(), hops_.end() );
    return hops_;
}

}  // namespace Cspf

#include "cspf/CspfImpl.h"

#include <span>
#include <utility>

#include "platform/Assert.h"
#include "platform/Mivlog.h"
#include "topo/TopoRecords.h"

namespace Cspf {

using Routing::Topology::neighborTypeNetwork;
using Routing::Topology::neighborTypeRouter;

namespace {

bool networkLink( const CspfLinkInfoKey& key ) {
    return key.neighborType() == neighborTypeNetwork() && !key.routerLink();
}

}  // namespace

CspfRun::CspfRun( Platform::Ptr<CspfData> cspfData )
    : cspfData_( std::move( cspfData ) ) {
    doRunCspf();
}

void CspfRun::doRunCspf() {
    CSPF_ASSERT( !cspfData()->tents() );
    CSPF_ASSERT( !cspfData()->shortestPaths() );
    CSPF_ASSERT( !cspfData()->routerWithTeps() );
    CSPF_ASSERT( !cspfData()->shortestPathForNetworks() );
    CSPF_ASSERT( cspfData()->teps() );
    CspfData& data = *cspfData_;

    const Net::IpGenAddr source = data.source();
    TRACE5( "adding source node " << source << " to shortestPath" );
    data.shortestPathIs( CspfPath( source ) );
    doAddRouterNeighborsToTent( CspfLinkInfo() );

    while ( data.tents() ) {
        const CspfLinkInfo linkInfo = data.tentDelFirst();
        const CspfLinkInfoKey& key = linkInfo.cspfLinkInfoKey();
        const AllTopoNeighborKey& allTopoNeighborKey = key.allTopoNeighborKey();
        CSPF_ASSERT( cspfData()->shortestPathHas( allTopoNeighborKey.teNeighborOf() ) );

        if ( networkLink( key ) ) {
            const AllTopoNetworkId network = allTopoNeighborKey.allTopoNetworkId();
            const uint32_t* settled = data.shortestPathForNetworkFind( network );
            if ( !settled ) {
                TRACE7( "adding network " << network << " with cost " << linkInfo.cost()
                                          << " to shortestPathForNetwork" );
                data.shortestPathForNetworkIs( network, linkInfo.cost() );
                doAddNetworkRoutersToTent( linkInfo );
                continue;
            }
            const uint32_t shortestPathCost = *settled;
            CSPF_ASSERT( shortestPathCost <= linkInfo.cost() );
            if ( shortestPathCost == linkInfo.cost() ) {
                TRACE7( "found another equal cost ("
                        << linkInfo.cost() << ") path for network " << network );
                doAddNetworkRoutersToTent( linkInfo );
            } else {
                TRACE7( "network " << network << " is already in shortestPathForNetwork"
                                   << " with cost " << shortestPathCost << ", "
                                   << "skipping..." );
            }
            continue;
        }

        Net::IpGenAddr router;
        if ( key.neighborType() == neighborTypeRouter() ) {
            router = allTopoNeighborKey.teNeighborId();
        } else {
            CSPF_ASSERT( cspfData()->shortestPathForNetworkHas(
                allTopoNeighborKey.allTopoNetworkId() ) );
            router = key.routerInNetwork();
        }
        CspfPath* cspfPathPtr = data.shortestPathFind( router );
        if ( !cspfPathPtr ) {
            doSettleRouter( linkInfo, router );
            continue;
        }
        CspfPath& cspfPath = *cspfPathPtr;
        if ( !cspfPath.lastLinks() ) {
            CSPF_ASSERT( cspfPath.teRouterId() == cspfData()->source() );
            TRACE7( "Path back to self found via " << key << ", skipping..." );
            continue;
        }
        const CspfLinkInfo& lastLink = cspfPath.begin()->second;
        CSPF_ASSERT( lastLink.cspfLinkInfoKey() <= linkInfo.cspfLinkInfoKey() );
        if ( lastLink.cspfLinkInfoKey().equalCost( key ) ) {
            TRACE7( "adding another equal cost path for router "
                    << router << " to shortestPath via " << key );
            cspfPath.lastLinkIs( linkInfo );
        } else {
            TRACE7( "router " << router << " is already in shortestPath, skipping..." );
        }
    }
    // The tent is empty now; what it and the tables grew into serves no one
    // after the run.
    data.shrinkToFit();
}

void CspfRun::doSettleRouter( const CspfLinkInfo& linkInfo,
                              const Net::IpGenAddr& router ) {
    CspfData& data = *cspfData_;
    TRACE7( "adding router " << router << " to shortestPath via "
                             << linkInfo.cspfLinkInfoKey() );
    CspfPath path( router );
    path.newLastLink( linkInfo );
    data.shortestPathIs( std::move( path ) );
    // The view answers the same within one run: the router it gave for the
    // expansion carries the TEPs too.
    doAddRouterNeighborsToTent( linkInfo );
    for ( const Net::IpGenAddr& tep : router_.teps ) {
        if ( !data.tepHas( tep ) ) {
            continue;
        }
        if ( const Net::IpGenAddr* owner = data.routerWithTepFind( tep ) ) {
            TRACE7( "already found TEP " << tep << " on router " << *owner
                                         << ", ignoring the same on router " << router );
            continue;
        }
        TRACE6( "found TEP " << tep << " on router " << router );
        data.routerWithTepIs( tep, router );
    }
}

void CspfRun::doAddRouterNeighborsToTent( const CspfLinkInfo& linkInfo ) {
    CspfData& data = *cspfData_;
    const CspfLinkInfoKey& sourceNode = linkInfo.cspfLinkInfoKey();
    Net::IpGenAddr routerId;
    if ( !linkInfo ) {
        routerId = data.source();
    } else if ( sourceNode.neighborType() == neighborTypeRouter() ) {
        routerId = sourceNode.allTopoNeighborKey().teNeighborId();
    } else {
        CSPF_ASSERT( !sourceNode.routerInNetwork().isAddrZero() );
        routerId = sourceNode.routerInNetwork();
    }
    // The links come compiled with their metrics.
    data.allTopoDbView()->routerLinks( routerId, router_ );
    for ( const AllTopoDbView::RouterLink& link : router_.links ) {
        const AllTopoNeighborKey& neighborKey = link.key;
        const AllTopoDbView::LinkMetric& neighbor = link.metric;
        const uint32_t metric =
            neighbor.teMetricPresent ? neighbor.teMetric : neighbor.igpMetric;
        if ( metric == 0 ) {
            TRACE7( "Not adding neighbor "
                    << neighborKey << " from topo " << neighborKey.topoId()
                    << " to tent list as its metric is zero, "
                    << "teMetricPresent " << neighbor.teMetricPresent );
            continue;
        }
        const uint64_t cost = uint64_t{ linkInfo.cost() } + metric;
        if ( cost > maxPathMetric ) {
            TRACE7( "Not adding neighbor " << neighborKey << " from topo "
                                           << neighborKey.topoId()
                                           << " to tent list as its path "
                                           << "cost is more than maximum path metric" );
            continue;
        }
        const CspfLinkInfo info( CspfLinkInfoKey( neighborKey, uint32_t( cost ) ) );
        doTraceAddNeighbor( __PRETTY_FUNCTION__, info, metric );
        CSPF_ASSERT_AS( data.tentAdd( info ),
                        "!cspfData()->tentHas( linkInfo.cspfLinkInfoKey() )" );
    }
}

void CspfRun::doAddNetworkRoutersToTent( const CspfLinkInfo& linkInfo ) {
    CspfData& data = *cspfData_;
    const std::span<const Net::IpGenAddr> routers = data.allTopoDbView()->networkRouters(
        linkInfo.cspfLinkInfoKey().allTopoNeighborKey().allTopoNetworkId() );
    for ( const Net::IpGenAddr& router : routers ) {
        CspfLinkInfoKey key = linkInfo.cspfLinkInfoKey();
        key.routerInNetworkIs( router );
        const CspfLinkInfo info( key );
        doTraceAddNeighbor( __PRETTY_FUNCTION__, info, 0 );
        CSPF_ASSERT_AS( data.tentAdd( info ),
                        "!cspfData()->tentHas( linkInfo.cspfLinkInfoKey() )" );
    }
}

void CspfRun::doTraceAddNeighbor( std::string_view callerName,
                                  const CspfLinkInfo& linkInfo, uint32_t metric ) const {
    const CspfLinkInfoKey& key = linkInfo.cspfLinkInfoKey();
    const AllTopoNeighborKey& link = key.allTopoNeighborKey();
    if ( key.neighborType() == neighborTypeNetwork() ) {
        const Mpls::RouterId lan = link.neighborKey().networkId().dr;
        if ( key.routerLink() ) {
            TRACE_FOR( 7, callerName,
                       "adding neighbor " << key.routerInNetwork() << " of "
                                          << link.teNeighborOf() << " on LAN " << lan
                                          << " to tent list from topo " << link.topoId()
                                          << " with cost " << key.cost() << " and metric "
                                          << metric );
        } else {
            TRACE_FOR( 7, callerName,
                       "adding network " << lan << " of " << link.teNeighborOf()
                                         << " to tent list from topo " << link.topoId()
                                         << " with cost " << key.cost() << " and metric "
                                         << metric );
        }
        return;
    }
    TRACE_FOR( 7, callerName,
               "adding neighbor " << link.teNeighborId() << " of " << link.teNeighborOf()
                                  << " on link " << link.neighborKey().linkId()
                                  << " to tent list from topo " << link.topoId()
                                  << " with cost " << key.cost() << " and metric "
                                  << metric );
}

Platform::Ptr<CspfRun> cspfRunFactory( Platform::Ptr<CspfData> cspfData ) {
    return Platform::Ptr<CspfRun>( new CspfRun( std::move( cspfData ) ) );
}

}  // namespace Cspf

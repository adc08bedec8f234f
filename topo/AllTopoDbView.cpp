#include "topo/AllTopoDbView.h"

#include <cstring>
#include <exception>
#include <utility>

#include "records/IpStatus.h"
#include "root/DedupConstraint.h"

namespace Cspf {

AllTopoDbView::AllTopoDbView( Platform::Ptr<AllTopoDb> allTopoDb,
                              Platform::Ptr<AllTopoDbStatus> allTopoDbStatus,
                              Platform::Ptr<Ip::Status> ipStatus,
                              Platform::Ptr<Ip6::Status> ip6Status,
                              Platform::Ptr<DedupConstraintLifeTimeNotifier> constraint )
    : reader_( allTopoDb, allTopoDbStatus, std::move( ipStatus ), std::move( ip6Status ),
               std::move( constraint ) ),
      compiler_( allTopoDbStatus->allTopoCompilerFor( allTopoDb ) ) {}

AllTopoDbView::~AllTopoDbView() = default;

void AllTopoDbView::routerLinks( const Net::IpGenAddr& teRouterId,
                                 RouterLinks& out ) const {
    const AllTopoCompiled::Router* router = compiled().router( teRouterId );
    if ( !router ) {
        out = RouterLinks();
        return;
    }
    if ( router->error ) {
        std::rethrow_exception( router->error );
    }
    const AllTopoDbReader::RouterLinks& links = router->links;
    out.teRouterId = links.teRouterId;
    if ( !( teRouterId == allTopoDbStatus()->ourTeRouterId() ) ||
         !reader_.constrained() ) {
        out.links = links.links;
        out.teps = links.teps;
        return;
    }
    // Our own links, under the constraint: a link it refuses brings neither
    // itself nor its addresses as end points.
    constrainedLinks_.clear();
    constrainedTeps_.clear();
    for ( const RouterLink& link : links.links ) {
        const std::span<const Net::IpGenAddr> addrs( links.addrs.data() + link.intfFirst,
                                                     link.intfCount );
        if ( !reader_.neighborAllowed( addrs ) ) {
            continue;
        }
        constrainedLinks_.push_back( link );
        for ( const Net::IpGenAddr& addr : addrs ) {
            bool known = false;
            for ( const Net::IpGenAddr& tep : constrainedTeps_ ) {
                known = known || std::memcmp( &tep, &addr, sizeof( addr ) ) == 0;
            }
            if ( !known ) {
                constrainedTeps_.push_back( addr );
            }
        }
    }
    constrainedTeps_.push_back( teRouterId );
    out.links = constrainedLinks_;
    out.teps = constrainedTeps_;
}

AllTopoRouter AllTopoDbView::router( const Net::IpGenAddr& teRouterId ) const {
    RouterLinks found;
    routerLinks( teRouterId, found );
    return AllTopoDbReader::allTopoRouter( found.teRouterId, found.links, found.teps );
}

std::span<const Net::IpGenAddr> AllTopoDbView::networkRouters(
    const AllTopoNetworkId& id ) const {
    const AllTopoCompiled::Network* network = compiled().network( id );
    if ( !network ) {
        return {};
    }
    if ( network->error ) {
        std::rethrow_exception( network->error );
    }
    return network->routers;
}

AllTopoNetwork AllTopoDbView::network( const AllTopoNetworkId& allTopoNetworkId ) const {
    const AllTopoCompiled::Network* network = compiled().network( allTopoNetworkId );
    if ( !network ) {
        return AllTopoNetwork();
    }
    if ( network->error ) {
        std::rethrow_exception( network->error );
    }
    AllTopoNetwork result( allTopoNetworkId );
    for ( const Net::IpGenAddr& router : network->routers ) {
        result.routerIs( router );
    }
    return result;
}

}  // namespace Cspf

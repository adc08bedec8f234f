#include "cspf/CspfData.h"

#include <utility>

namespace Cspf {

CspfData::CspfData( std::shared_ptr<const AllTopoDbView> allTopoDbView,
                    const Net::IpGenAddr& source )
    : allTopoDbView_( std::move( allTopoDbView ) ), source_( source ) {}

CspfLinkInfo CspfData::tent( const CspfLinkInfoKey& key ) const {
    const CspfLinkInfo* info = tent_.find( key );
    return info ? *info : CspfLinkInfo();
}

void CspfData::shortestPathIs( const CspfPath& path ) {
    shortestPath_.insert_or_assign( path.teRouterId(), path );
}

void CspfData::shortestPathIs( CspfPath&& path ) {
    const Net::IpGenAddr teRouterId = path.teRouterId();
    shortestPath_.insert_or_assign( teRouterId, std::move( path ) );
}

CspfPath CspfData::shortestPath( const Net::IpGenAddr& teRouterId ) const {
    const CspfPath* path = shortestPathFind( teRouterId );
    return path ? *path : CspfPath();
}

uint32_t CspfData::shortestPathForNetwork( const AllTopoNetworkId& id ) const {
    const uint32_t* cost = shortestPathForNetwork_.find( id );
    return cost ? *cost : 0;
}

Net::IpGenAddr CspfData::routerWithTep( const Net::IpGenAddr& tep ) const {
    const Net::IpGenAddr* owner = routerWithTep_.find( tep );
    return owner ? *owner : Net::IpGenAddr();
}

void CspfData::shrinkToFit() {
    if ( tent_.empty() ) {
        tent_.clear();  // which gives its room back
    }
    shortestPath_.shrinkToFit();
    shortestPathForNetwork_.shrinkToFit();
    routerWithTep_.shrinkToFit();
}

Platform::Ptr<CspfData> cspfDataFactory(
    std::shared_ptr<const AllTopoDbView> allTopoDbView, const Net::IpGenAddr& source ) {
    return Platform::Ptr<CspfData>( new CspfData( std::move( allTopoDbView ), source ) );
}

}  // namespace Cspf

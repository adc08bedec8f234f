#include "cspf/CspfData.h"

#include <utility>

namespace Cspf {

CspfData::CspfData( std::shared_ptr<const AllTopoDbView> allTopoDbView,
                    const Net::IpGenAddr& source )
    : allTopoDbView_( std::move( allTopoDbView ) ), source_( source ) {}

CspfLinkInfo CspfData::tent( const CspfLinkInfoKey& key ) const {
    auto it = tent_.find( key );
    return it == tent_.end() ? CspfLinkInfo() : it->second;
}

void CspfData::shortestPathIs( const CspfPath& path ) {
    shortestPath_.insert_or_assign( path.teRouterId(), path );
}

CspfPath CspfData::shortestPath( const Net::IpGenAddr& teRouterId ) const {
    const CspfPath* path = shortestPathFind( teRouterId );
    return path ? *path : CspfPath();
}

CspfPath* CspfData::shortestPathFind( const Net::IpGenAddr& teRouterId ) {
    auto it = shortestPath_.find( teRouterId );
    return it == shortestPath_.end() ? nullptr : &it->second;
}

const CspfPath* CspfData::shortestPathFind( const Net::IpGenAddr& teRouterId ) const {
    auto it = shortestPath_.find( teRouterId );
    return it == shortestPath_.end() ? nullptr : &it->second;
}

uint32_t CspfData::shortestPathForNetwork( const AllTopoNetworkId& id ) const {
    auto it = shortestPathForNetwork_.find( id );
    return it == shortestPathForNetwork_.end() ? 0 : it->second;
}

Net::IpGenAddr CspfData::routerWithTep( const Net::IpGenAddr& tep ) const {
    auto it = routerWithTep_.find( tep );
    return it == routerWithTep_.end() ? Net::IpGenAddr() : it->second;
}

Platform::Ptr<CspfData> cspfDataFactory(
    std::shared_ptr<const AllTopoDbView> allTopoDbView, const Net::IpGenAddr& source ) {
    return Platform::Ptr<CspfData>( new CspfData( std::move( allTopoDbView ), source ) );
}

}  // namespace Cspf

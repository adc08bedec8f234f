#include "client/RecordConversion.h"

#include "platform/Error.h"
#include "platform/PathComponent.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"

namespace cspf {

const char* familyName( Family family ) {
    return family == Family::ipv6 ? "ipv6" : "ipv4";
}

Net::AddressFamily toAddressFamily( Family family ) {
    return family == Family::ipv6 ? Net::AddressFamily::ipv6 : Net::AddressFamily::ipv4;
}

L3::VrfName toVrfName( const std::string& vrf ) {
    return L3::VrfName( vrf );
}

Cspf::PathKey toPathKey( const Table& table, const std::string& destination,
                         uint32_t id ) {
    const Net::IpGenAddr addr = Net::IpGenAddr::parse( destination, "destination" );
    if ( addr.af() != toAddressFamily( table.family ) ) {
        throw Platform::Error( "destination '" + Platform::printableName( destination ) +
                               "' is not an " +
                               ( table.family == Family::ipv6 ? "IPv6" : "IPv4" ) +
                               " address (table " + familyName( table.family ) +
                               " of VRF " + Platform::printableName( table.vrf ) + ")" );
    }
    return Cspf::PathKey( addr, id );
}

Cspf::PathConstraint toConstraint( const std::string& excludeInterface ) {
    if ( excludeInterface.empty() ) {
        return Cspf::PathConstraint();
    }
    return Cspf::PathConstraint( Net::IntfId( excludeInterface ) );
}

PathRequest toRequest( const Cspf::PathConfig& config ) {
    PathRequest request;
    request.destination = config.key.destination.toString();
    request.id = config.key.id;
    request.excludeInterface = config.constraint.excludeInterface.name();
    request.autoUpdate = config.autoUpdate;
    request.refreshReqSeq = config.refreshReqSeq;
    return request;
}

PathResult toResult( const Cspf::PathStatus& status ) {
    PathResult result;
    result.destination = status.key.destination.toString();
    result.id = status.key.id;
    result.refreshRespSeq = status.refreshRespSeq;
    result.changeCount = status.changeCount;
    result.lastUpdated = status.lastUpdated;
    result.hops.reserve( status.hops.size() );
    for ( const Net::IpGenAddr& hop : status.hops ) {
        result.hops.push_back( hop.toString() );
    }
    return result;
}

}  // namespace cspf

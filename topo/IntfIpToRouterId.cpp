#include "topo/IntfIpToRouterId.h"

namespace Cspf {

std::string intfIpToRouterIdPath( const L3::VrfName& vrf ) {
    return "te/cspf/intfIpToRouterId/vrf/" + vrf.name();
}

Net::IpGenAddr IntfIpToRouterIdRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( len != sizeof( Net::IpGenAddr ) ) {
        throw Platform::DeserializationError(
            "routerId", "record of " + std::to_string( len ) + " bytes, expected 20" );
    }
    return Net::IpGenAddr::fromRecord( in, "routerId" );
}

}  // namespace Cspf

#include "records/AddressFamily.h"

#include <ostream>

#include "platform/Error.h"
#include "platform/PathComponent.h"

namespace Net {

std::string toString( AddressFamily af ) {
    switch ( af ) {
        case AddressFamily::ipv4:
            return "ipv4";
        case AddressFamily::ipv6:
            return "ipv6";
    }
    return "AddressFamily(" + std::to_string( static_cast<uint32_t>( af ) ) + ")";
}

std::ostream& operator<<( std::ostream& os, AddressFamily af ) {
    return os << toString( af );
}

AddressFamily parseAddressFamily( std::string_view text ) {
    if ( text == "ipv4" ) {
        return AddressFamily::ipv4;
    }
    if ( text == "ipv6" ) {
        return AddressFamily::ipv6;
    }
    throw Platform::DeserializationError(
        "addressFamily",
        "expected 'ipv4' or 'ipv6', got '" + Platform::printableName( text ) + "'" );
}

}  // namespace Net

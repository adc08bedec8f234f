#include "records/VrfName.h"

#include <cstring>
#include <ostream>

#include "platform/Error.h"
#include "platform/PathComponent.h"

namespace L3 {

VrfName::VrfName( std::string_view name ) : name_( name ) {
    Platform::validatePathComponent( name, "VRF" );
    if ( name.size() > kMaxLength ) {
        throw Platform::NameError( "invalid VRF name '" +
                                   Platform::printableName( name ) +
                                   "': is longer than 63 bytes" );
    }
}

uint32_t VrfName::hash() const {
    uint32_t h = 2166136261u;
    for ( char c : name_ ) {
        h ^= static_cast<uint8_t>( c );
        h *= 16777619u;
    }
    return h;
}

std::ostream& operator<<( std::ostream& os, const VrfName& vrf ) {
    return os << vrf.name();
}

VrfNameRecord VrfNameRecord::encode( const VrfName& vrf ) {
    VrfNameRecord record;
    record.length = static_cast<uint8_t>( vrf.name().size() );
    std::memcpy( record.bytes, vrf.name().data(), vrf.name().size() );
    return record;
}

VrfName VrfNameRecord::decode() const {
    if ( length > VrfName::kMaxLength ) {
        throw Platform::DeserializationError(
            "vrfName", "length " + std::to_string( length ) + " is above 63" );
    }
    for ( size_t i = length; i < VrfName::kMaxLength; ++i ) {
        if ( bytes[i] != 0 ) {
            throw Platform::DeserializationError(
                "vrfName",
                "byte " + std::to_string( i ) + " after the name is not zero" );
        }
    }
    try {
        return VrfName( std::string_view( bytes, length ) );
    } catch ( const Platform::NameError& e ) {
        throw Platform::DeserializationError( "vrfName", e.what() );
    }
}

}  // namespace L3

#include "records/TeConfig.h"

#include <cstring>
#include <string>

#include "platform/Error.h"

namespace TrafficEngineering {

void ConfigRecord::encodeValue( const Value& v, std::vector<uint8_t>& out ) {
    if ( !v.routerId.isV4() ) {
        throw Platform::TypeError( "te/config routerId must be an IPv4 address, not " +
                                   v.routerId.toString() );
    }
    out.assign( maxValueSize, 0 );
    out[0] = v.enabled ? 1 : 0;
    std::memcpy( out.data() + 4, v.routerId.bytes(), 4 );
}

ConfigValue ConfigRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( len != maxValueSize ) {
        throw Platform::DeserializationError(
            "config", "length " + std::to_string( len ) + ", expected 8" );
    }
    if ( in[0] > 1 || in[1] || in[2] || in[3] ) {
        throw Platform::DeserializationError( "config",
                                              "bad enabled byte or non-zero padding" );
    }
    ConfigValue v;
    v.enabled = in[0] == 1;
    v.routerId = Net::IpGenAddr::fromBytes( Net::AddressFamily::ipv4, in + 4 );
    return v;
}

}  // namespace TrafficEngineering

#include "records/AgentStatus.h"

#include <string>

#include "platform/Error.h"

namespace Cspf {

void AgentStatusRecord::encodeValue( const Value& v, std::vector<uint8_t>& out ) {
    out.assign( maxValueSize, 0 );
    out[0] = v ? 1 : 0;
}

bool AgentStatusRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( len != maxValueSize ) {
        throw Platform::DeserializationError(
            "agentStatus", "length " + std::to_string( len ) + ", expected 4" );
    }
    if ( in[0] > 1 || in[1] || in[2] || in[3] ) {
        throw Platform::DeserializationError( "agentStatus",
                                              "bad flag byte or non-zero padding" );
    }
    return in[0] == 1;
}

}  // namespace Cspf

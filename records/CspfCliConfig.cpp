#include "records/CspfCliConfig.h"

#include <cstring>
#include <string>

#include "platform/Error.h"

namespace Cspf {

std::string cspfCliConfigProblem( const CspfCliConfigValue& v ) {
    const auto ms = []( uint32_t value ) { return std::to_string( value ) + " ms"; };
    if ( v.maxWaitMs == 0 ) {
        return "maxWaitMs must not be 0";
    }
    if ( v.maxWaitMs > CspfCliConfigValue::kMaxMaxWaitMs ) {
        return "maxWaitMs " + ms( v.maxWaitMs ) + " is above the largest cap, " +
               ms( CspfCliConfigValue::kMaxMaxWaitMs );
    }
    if ( v.initialWaitMs > v.maxWaitMs ) {
        return "initialWaitMs " + ms( v.initialWaitMs ) + " is above maxWaitMs " +
               ms( v.maxWaitMs );
    }
    if ( v.holdWaitMs > v.maxWaitMs ) {
        return "holdWaitMs " + ms( v.holdWaitMs ) + " is above maxWaitMs " +
               ms( v.maxWaitMs );
    }
    return "";
}

void CspfCliConfigRecord::encodeValue( const Value& v, std::vector<uint8_t>& out ) {
    const std::string problem = cspfCliConfigProblem( v );
    if ( !problem.empty() ) {
        throw Platform::RangeError( std::string( kCspfCliConfigPath ) + ": " + problem );
    }
    out.assign( maxValueSize, 0 );
    std::memcpy( out.data(), &v.initialWaitMs, 4 );
    std::memcpy( out.data() + 4, &v.holdWaitMs, 4 );
    std::memcpy( out.data() + 8, &v.maxWaitMs, 4 );
}

CspfCliConfigValue CspfCliConfigRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( len != maxValueSize ) {
        throw Platform::DeserializationError(
            "cspfCliConfig", "length " + std::to_string( len ) + ", expected 12" );
    }
    CspfCliConfigValue v;
    std::memcpy( &v.initialWaitMs, in, 4 );
    std::memcpy( &v.holdWaitMs, in + 4, 4 );
    std::memcpy( &v.maxWaitMs, in + 8, 4 );
    const std::string problem = cspfCliConfigProblem( v );
    if ( !problem.empty() ) {
        throw Platform::DeserializationError( "cspfCliConfig", problem );
    }
    return v;
}

}  // namespace Cspf

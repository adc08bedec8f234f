#include "records/PathConfig.h"

#include <charconv>
#include <cstring>
#include <ostream>

#include "platform/Error.h"
#include "platform/PathComponent.h"
#include "platform/ValueForm.h"

namespace Cspf {

namespace {

constexpr std::string_view kType = "Cspf::PathConfig";

}  // namespace

PathConfig::PathConfig( std::string_view text ) {
    Platform::ValueForm form( text, kType, "pathConfig" );
    if ( form.fields().size() != 4 ) {
        throw Platform::DeserializationError(
            "pathConfig",
            "expected the fields key, refreshReqSeq, autoUpdate and constraint" );
    }
    key = PathKey( form.field( "key" ) );
    refreshReqSeq =
        Platform::parseU32Field( form.field( "refreshReqSeq" ), "refreshReqSeq" );
    autoUpdate = Platform::parseBoolField( form.field( "autoUpdate" ), "autoUpdate" );
    constraint = PathConstraint( form.field( "constraint" ) );
}

bool PathConfig::operator==( const PathConfig& other ) const {
    return key == other.key && refreshReqSeq == other.refreshReqSeq &&
           autoUpdate == other.autoUpdate && constraint == other.constraint;
}

std::string PathConfig::toString() const {
    return Platform::ValueFormWriter( kType )
        .field( "key", key.toString() )
        .field( "refreshReqSeq", std::to_string( refreshReqSeq ) )
        .field( "autoUpdate", autoUpdate ? "true" : "false" )
        .field( "constraint", constraint.toString() )
        .str();
}

void PathConfig::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "%s\n", toString().c_str() );
}

PathConfig decodePathConfig( const void* buf, size_t len ) {
    if ( len != sizeof( PathConfig ) ) {
        throw Platform::DeserializationError(
            "pathConfig", "record of " + std::to_string( len ) + " bytes, expected 40" );
    }
    const auto* bytes = static_cast<const uint8_t*>( buf );
    uint8_t flag[4];
    std::memcpy( flag, bytes + offsetof( PathConfig, autoUpdate ), sizeof( flag ) );
    if ( flag[0] > 1 || flag[1] || flag[2] || flag[3] ) {
        throw Platform::DeserializationError(
            "autoUpdate", "bytes " + std::to_string( flag[0] ) + " " +
                              std::to_string( flag[1] ) + " " +
                              std::to_string( flag[2] ) + " " +
                              std::to_string( flag[3] ) + " are not a bool" );
    }
    PathConfig config;
    config.key = PathKey::fromRecord( bytes + offsetof( PathConfig, key ), "key" );
    std::memcpy( &config.refreshReqSeq, bytes + offsetof( PathConfig, refreshReqSeq ),
                 sizeof( config.refreshReqSeq ) );
    config.autoUpdate = flag[0] == 1;
    config.constraint =
        PathConstraint::fromRecord( bytes + offsetof( PathConfig, constraint ) );
    return config;
}

std::ostream& operator<<( std::ostream& os, const PathConfig& config ) {
    return os << config.toString();
}

}  // namespace Cspf

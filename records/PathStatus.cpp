#include "records/PathStatus.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <ostream>

#include "platform/Error.h"
#include "platform/ValueForm.h"

namespace Cspf {

namespace {

// Shortest text that reads back as the same double.
std::string doubleText( double v ) {
    char buf[32];
    auto [end, ec] = std::to_chars( buf, buf + sizeof( buf ), v );
    return ec == std::errc() ? std::string( buf, end ) : std::string( "nan" );
}

}  // namespace

std::string PathStatus::toString() const {
    std::string hopText = "[";
    for ( const auto& hop : hops ) {
        if ( hopText.size() > 1 ) {
            hopText += ", ";
        }
        hopText += hop.toString();
    }
    hopText += "]";
    return Platform::ValueFormWriter( "Cspf::PathStatus" )
        .field( "key", key.toString() )
        .field( "refreshRespSeq", std::to_string( refreshRespSeq ) )
        .field( "changeCount", std::to_string( changeCount ) )
        .field( "lastUpdated", doubleText( lastUpdated ) )
        .field( "hops", hopText )
        .str();
}

void PathStatus::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine(
        context, indent,
        "PathStatus %s refreshRespSeq %u changeCount %u lastUpdated %s "
        "hops %zu\n",
        key.toString().c_str(), refreshRespSeq, changeCount,
        doubleText( lastUpdated ).c_str(), hops.size() );
    for ( const auto& hop : hops ) {
        Platform::objDumpLine( context, indent + 2, "%s\n", hop.toString().c_str() );
    }
}

std::ostream& operator<<( std::ostream& os, const PathStatus& status ) {
    return os << status.toString();
}

size_t encodePathStatus( const PathStatus& status, void* buf, size_t cap ) {
    auto hopCount = static_cast<uint32_t>( status.hops.size() );
    size_t size = pathStatusRecordSize( hopCount );
    if ( cap < size ) {
        throw Platform::InvalidSizeError(
            "encodePathStatus needs " + std::to_string( size ) +
            " bytes, the buffer has " + std::to_string( cap ) );
    }
    PathStatusRecordHeader header;
    header.key = status.key;
    header.refreshRespSeq = status.refreshRespSeq;
    header.changeCount = status.changeCount;
    header.lastUpdated = status.lastUpdated;
    header.hopCount = hopCount;
    auto* out = static_cast<uint8_t*>( buf );
    std::memcpy( out, &header, kPathStatusFixedSize );
    if ( hopCount > 0 ) {
        std::memcpy( out + kPathStatusFixedSize, status.hops.data(),
                     hopCount * sizeof( Net::IpGenAddr ) );
    }
    return size;
}

PathStatus decodePathStatus( const void* buf, size_t len ) {
    const auto* in = static_cast<const uint8_t*>( buf );
    if ( len < kPathStatusFixedSize ) {
        throw Platform::DeserializationError(
            "pathStatus", "record of " + std::to_string( len ) +
                              " bytes is shorter than its 44-byte fixed part" );
    }
    uint32_t hopCount;
    std::memcpy( &hopCount, in + offsetof( PathStatusRecordHeader, hopCount ),
                 sizeof( hopCount ) );
    if ( hopCount > kMaxHops ) {
        HopIndex::throwRangeError();
    }
    if ( len != pathStatusRecordSize( hopCount ) ) {
        throw Platform::DeserializationError(
            "pathStatus", "record of " + std::to_string( len ) + " bytes does not hold " +
                              std::to_string( hopCount ) + " hops (" +
                              std::to_string( pathStatusRecordSize( hopCount ) ) +
                              " bytes)" );
    }
    PathStatus status;
    status.key =
        PathKey::fromRecord( in + offsetof( PathStatusRecordHeader, key ), "key" );
    std::memcpy( &status.refreshRespSeq,
                 in + offsetof( PathStatusRecordHeader, refreshRespSeq ),
                 sizeof( status.refreshRespSeq ) );
    std::memcpy( &status.changeCount,
                 in + offsetof( PathStatusRecordHeader, changeCount ),
                 sizeof( status.changeCount ) );
    std::memcpy( &status.lastUpdated,
                 in + offsetof( PathStatusRecordHeader, lastUpdated ),
                 sizeof( status.lastUpdated ) );
    if ( !std::isfinite( status.lastUpdated ) ) {
        // NaN would make the status unequal to itself.
        throw Platform::DeserializationError( "pathStatus", "lastUpdated is not finite" );
    }
    for ( uint32_t i = 0; i < hopCount; ++i ) {
        const uint8_t* hop = in + pathStatusRecordSize( i );
        uint32_t afWord;
        std::memcpy( &afWord, hop, sizeof( afWord ) );
        if ( afWord > 2 ) {
            throw Platform::DeserializationError(
                "hops", "hop " + std::to_string( i ) + " has address family word " +
                            std::to_string( afWord ) );
        }
        status.hops.append( Net::IpGenAddr::fromRecord( hop, "hops" ) );
    }
    return status;
}

}  // namespace Cspf

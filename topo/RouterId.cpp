#include "topo/RouterId.h"

#include <cstdio>
#include <cstring>
#include <ostream>

#include "platform/Error.h"

namespace Mpls {

namespace {

int hexDigit( char c ) {
    if ( c >= '0' && c <= '9' ) {
        return c - '0';
    }
    if ( c >= 'a' && c <= 'f' ) {
        return c - 'a' + 10;
    }
    if ( c >= 'A' && c <= 'F' ) {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

RouterId RouterId::fromSystemId( std::string_view text ) {
    auto bad = [&]( const char* why ) {
        return Platform::DeserializationError( "systemId",
                                               "'" + std::string( text ) + "' " + why );
    };
    if ( text.size() != 14 || text[4] != '.' || text[9] != '.' ) {
        throw bad( "is not of the form xxxx.xxxx.xxxx" );
    }
    uint64_t value = 0;
    for ( size_t i = 0; i < text.size(); ++i ) {
        if ( i == 4 || i == 9 ) {
            continue;
        }
        int d = hexDigit( text[i] );
        if ( d < 0 ) {
            throw bad( "holds a character that is not a hex digit" );
        }
        value = value << 4 | static_cast<uint64_t>( d );
    }
    if ( value == 0 ) {
        return RouterId();
    }
    return RouterId( Protocol::isis, static_cast<uint32_t>( value >> 16 ),
                     static_cast<uint16_t>( value & 0xffff ) );
}

RouterId RouterId::fromRecord( const void* record, std::string_view attribute ) {
    // The members are private, so their offsets are checked here.
    static_assert( offsetof( RouterId, protocol_ ) == 0 );
    static_assert( offsetof( RouterId, rtrIdValue_ ) == 4 );
    static_assert( offsetof( RouterId, lblSpaceValue_ ) == 8 );
    static_assert( offsetof( RouterId, pad_ ) == 10 );
    RouterId id;
    std::memcpy( &id, record, sizeof( id ) );
    if ( id.protocol_ > static_cast<uint32_t>( Protocol::isis ) ) {
        throw Platform::DeserializationError(
            std::string( attribute ),
            "unknown router id protocol " + std::to_string( id.protocol_ ) );
    }
    if ( id.pad_ != 0 ) {
        throw Platform::DeserializationError( std::string( attribute ),
                                              "router id padding is not zero" );
    }
    return id;
}

bool RouterId::operator<( const RouterId& other ) const {
    if ( protocol_ != other.protocol_ ) {
        return protocol_ < other.protocol_;
    }
    if ( rtrIdValue_ != other.rtrIdValue_ ) {
        return rtrIdValue_ < other.rtrIdValue_;
    }
    return lblSpaceValue_ < other.lblSpaceValue_;
}

uint32_t RouterId::hash() const {
    return fnv1a( this, sizeof( *this ) );
}

std::string RouterId::toString() const {
    char buf[32];
    if ( protocol() == Protocol::isis || empty() ) {
        std::snprintf( buf, sizeof( buf ), "%04x.%04x.%04x", rtrIdValue_ >> 16,
                       rtrIdValue_ & 0xffff, static_cast<unsigned>( lblSpaceValue_ ) );
    } else {
        std::snprintf( buf, sizeof( buf ), "%u.%u.%u.%u/%u", rtrIdValue_ >> 24,
                       rtrIdValue_ >> 16 & 0xff, rtrIdValue_ >> 8 & 0xff,
                       rtrIdValue_ & 0xff, static_cast<unsigned>( lblSpaceValue_ ) );
    }
    return buf;
}

std::ostream& operator<<( std::ostream& os, const RouterId& id ) {
    return os << id.toString();
}

uint32_t fnv1a( const void* bytes, size_t len, uint32_t h ) {
    const auto* p = static_cast<const uint8_t*>( bytes );
    for ( size_t i = 0; i < len; ++i ) {
        h ^= p[i];
        h *= 16777619u;
    }
    return h;
}

}  // namespace Mpls

#include "records/IpGenAddr.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <ostream>

#include "platform/Error.h"
#include "platform/PathComponent.h"

namespace Net {

namespace {

constexpr uint32_t kV4 = static_cast<uint32_t>( AddressFamily::ipv4 );
constexpr uint32_t kV6 = static_cast<uint32_t>( AddressFamily::ipv6 );

// RFC 5952: lowercase hex without leading zeros, the longest run of two or
// more zero groups (the first of equal runs) as "::", and IPv4-mapped
// addresses in mixed notation. inet_ntop is not used because its mixed
// notation also covers the deprecated IPv4-compatible form.
std::string v6Text( const uint8_t* b ) {
    uint16_t groups[8];
    for ( int i = 0; i < 8; ++i ) {
        groups[i] = static_cast<uint16_t>( b[2 * i] << 8 | b[2 * i + 1] );
    }
    char buf[64];
    bool mapped = groups[5] == 0xffff;
    for ( int i = 0; i < 5; ++i ) {
        mapped = mapped && groups[i] == 0;
    }
    if ( mapped ) {
        std::snprintf( buf, sizeof( buf ), "::ffff:%u.%u.%u.%u", b[12], b[13], b[14],
                       b[15] );
        return buf;
    }
    int bestStart = -1;
    int bestLen = 1;  // a single zero group is not shortened
    for ( int i = 0; i < 8; ) {
        if ( groups[i] != 0 ) {
            ++i;
            continue;
        }
        int j = i;
        while ( j < 8 && groups[j] == 0 ) {
            ++j;
        }
        if ( j - i > bestLen ) {
            bestStart = i;
            bestLen = j - i;
        }
        i = j;
    }
    std::string out;
    for ( int i = 0; i < 8; ++i ) {
        if ( i == bestStart ) {
            out += "::";
            i += bestLen - 1;
            continue;
        }
        if ( !out.empty() && out.back() != ':' ) {
            out += ':';
        }
        std::snprintf( buf, sizeof( buf ), "%x", groups[i] );
        out += buf;
    }
    return out;
}

}  // namespace

IpGenAddr::IpGenAddr( std::string_view text ) : IpGenAddr( parse( text, "ipGenAddr" ) ) {}

IpGenAddr IpGenAddr::parse( std::string_view text, std::string_view attribute ) {
    // inet_pton wants a terminated string; no address text is longer than this.
    char buf[INET6_ADDRSTRLEN + 1] = {};
    IpGenAddr addr;
    bool v6 = text.find( ':' ) != std::string_view::npos;
    if ( text.size() < sizeof( buf ) && text.find( '\0' ) == std::string_view::npos ) {
        std::memcpy( buf, text.data(), text.size() );
        if ( inet_pton( v6 ? AF_INET6 : AF_INET, buf, addr.addr_ ) == 1 ) {
            addr.af_ = v6 ? kV6 : kV4;
            return addr;
        }
    }
    throw Platform::DeserializationError(
        std::string( attribute ), std::string( "'" ) + Platform::printableName( text ) +
                                      "' is not an " + ( v6 ? "IPv6" : "IPv4" ) +
                                      " address" );
}

IpGenAddr IpGenAddr::v4( uint32_t hostOrder ) {
    IpGenAddr addr;
    addr.af_ = kV4;
    addr.addr_[0] = static_cast<uint8_t>( hostOrder >> 24 );
    addr.addr_[1] = static_cast<uint8_t>( hostOrder >> 16 );
    addr.addr_[2] = static_cast<uint8_t>( hostOrder >> 8 );
    addr.addr_[3] = static_cast<uint8_t>( hostOrder );
    return addr;
}

IpGenAddr IpGenAddr::fromBytes( AddressFamily af, const uint8_t* bytes ) {
    IpGenAddr addr;
    switch ( af ) {
        case AddressFamily::ipv4:
            std::memcpy( addr.addr_, bytes, 4 );
            break;
        case AddressFamily::ipv6:
            std::memcpy( addr.addr_, bytes, kAddrBytes );
            break;
        default:
            throw Platform::TypeError( "IpGenAddr::fromBytes needs ipv4 or ipv6, got " +
                                       Net::toString( af ) );
    }
    addr.af_ = static_cast<uint32_t>( af );
    return addr;
}

IpGenAddr IpGenAddr::fromRecord( const void* record, std::string_view attribute ) {
    IpGenAddr addr;
    std::memcpy( &addr.af_, record, sizeof( addr.af_ ) );
    std::memcpy( addr.addr_, static_cast<const uint8_t*>( record ) + sizeof( addr.af_ ),
                 kAddrBytes );
    size_t used;
    switch ( addr.af_ ) {
        case 0:
            used = 0;
            break;
        case kV4:
            used = 4;
            break;
        case kV6:
            used = kAddrBytes;
            break;
        default:
            throw Platform::DeserializationError( std::string( attribute ),
                                                  "address family word " +
                                                      std::to_string( addr.af_ ) +
                                                      " is not 0, 1 or 2" );
    }
    for ( size_t i = used; i < kAddrBytes; ++i ) {
        if ( addr.addr_[i] != 0 ) {
            throw Platform::DeserializationError( std::string( attribute ),
                                                  "address byte " + std::to_string( i ) +
                                                      " is not zero for family word " +
                                                      std::to_string( addr.af_ ) );
        }
    }
    return addr;
}

uint32_t IpGenAddr::v4Value() const {
    if ( !isV4() ) {
        throw Platform::TypeError( "IpGenAddr::v4Value of the non-IPv4 address " +
                                   toString() );
    }
    return static_cast<uint32_t>( addr_[0] ) << 24 |
           static_cast<uint32_t>( addr_[1] ) << 16 |
           static_cast<uint32_t>( addr_[2] ) << 8 | addr_[3];
}

uint32_t IpGenAddr::hash() const {
    uint32_t h = 2166136261u;
    auto mix = [&h]( uint8_t byte ) {
        h ^= byte;
        h *= 16777619u;
    };
    for ( int shift = 0; shift < 32; shift += 8 ) {
        mix( static_cast<uint8_t>( af_ >> shift ) );
    }
    for ( uint8_t byte : addr_ ) {
        mix( byte );
    }
    return h;
}

std::string IpGenAddr::toString() const {
    if ( isV6() ) {
        return v6Text( addr_ );
    }
    if ( !isV4() ) {
        return "0.0.0.0";
    }
    char buf[16];
    std::snprintf( buf, sizeof( buf ), "%u.%u.%u.%u", addr_[0], addr_[1], addr_[2],
                   addr_[3] );
    return buf;
}

std::ostream& operator<<( std::ostream& os, const IpGenAddr& addr ) {
    return os << addr.toString();
}

}  // namespace Net

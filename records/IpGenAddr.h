// Net::IpGenAddr: an IPv4 or IPv6 address together with its family.
//
// The class is its own record: 20 bytes, a 32-bit little-endian family word
// (0 not set, 1 IPv4, 2 IPv6) and 16 address bytes in network order. An IPv4
// address uses the first 4 bytes; the other 12 stay zero, and a not-set
// address is all zero, so equal addresses are equal bytes.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "records/AddressFamily.h"

namespace Net {

class IpGenAddr {
  public:
    static constexpr size_t kAddrBytes = 16;

    constexpr IpGenAddr() = default;
    // "10.0.0.1" or "2001:db8::1"; bad text raises DeserializationError
    // naming attribute "ipGenAddr".
    explicit IpGenAddr( std::string_view text );
    // As above, naming `attribute` in the error.
    static IpGenAddr parse( std::string_view text, std::string_view attribute );

    static IpGenAddr v4( uint32_t hostOrder );
    // `bytes` holds 4 (IPv4) or 16 (IPv6) bytes in network order.
    static IpGenAddr fromBytes( AddressFamily af, const uint8_t* bytes );
    // Reads a 20-byte record that may hold anything (shared memory): raises
    // DeserializationError naming `attribute` unless the family word is 0, 1
    // or 2 and the bytes the family does not use are zero.
    static IpGenAddr fromRecord( const void* record, std::string_view attribute );

    // AddressFamily{} (the word 0) when not set.
    AddressFamily af() const { return static_cast<AddressFamily>( af_ ); }
    uint32_t afWord() const { return af_; }
    bool isSet() const { return af_ != 0; }
    bool isV4() const { return af_ == static_cast<uint32_t>( AddressFamily::ipv4 ); }
    bool isV6() const { return af_ == static_cast<uint32_t>( AddressFamily::ipv6 ); }
    // The IPv4 address in host order; TypeError for any other family.
    uint32_t v4Value() const;
    const uint8_t* bytes() const { return addr_; }
    // 0.0.0.0 for IPv4, :: for IPv6; an address that is not set counts as zero.
    // The bytes a family does not use are zero, so all 16 bytes tell.
    bool isAddrZero() const {
        static constexpr uint8_t kZero[kAddrBytes] = {};
        return std::memcmp( addr_, kZero, kAddrBytes ) == 0;
    }

    // Inline: every table of the agent compares addresses in its hot loops.
    bool operator==( const IpGenAddr& other ) const {
        return af_ == other.af_ && std::memcmp( addr_, other.addr_, kAddrBytes ) == 0;
    }
    // Family, then bytes.
    bool operator<( const IpGenAddr& other ) const {
        if ( af_ != other.af_ ) {
            return af_ < other.af_;
        }
        return std::memcmp( addr_, other.addr_, kAddrBytes ) < 0;
    }
    // Stable across processes: FNV-1a over the 20 record bytes.
    uint32_t hash() const;

    // Dotted quad, or RFC 5952 text for IPv6; "0.0.0.0" when not set.
    std::string toString() const;

  private:
    uint32_t af_ = 0;
    uint8_t addr_[kAddrBytes] = {};
};

static_assert( std::endian::native == std::endian::little,
               "records are stored little-endian" );
static_assert( sizeof( IpGenAddr ) == 20 );
static_assert( alignof( IpGenAddr ) == 4 );
static_assert( std::is_standard_layout_v<IpGenAddr> );
static_assert( std::is_trivially_copyable_v<IpGenAddr> );

std::ostream& operator<<( std::ostream& os, const IpGenAddr& addr );

}  // namespace Net

template <>
struct std::hash<Net::IpGenAddr> {
    size_t operator()( const Net::IpGenAddr& addr ) const { return addr.hash(); }
};

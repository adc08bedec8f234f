// Net::IntfId: an interface name in one 64-bit word.
//
// Records that name an interface (a path constraint's excluded interface)
// carry it in 8 bytes. The encoding is exact: every encodable name decodes
// back to the same text, and each name has exactly one value, so ids compare
// and hash like the names. A name that cannot be encoded is refused, never
// shortened. The encoding is laid out in docs/records.md:
//   bit 63 = 0: structured, "<Prefix><n>[/<n>[/<n>]][.<n>]" with a known prefix;
//   bit 63 = 1: text, up to nine characters of a-z A-Z 0-9 - _.
// The value 0 is the empty name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Net {

class IntfId {
  public:
    constexpr IntfId() = default;
    // Raises NameError "interface name '<name>' cannot be encoded: <reason>".
    explicit IntfId( std::string_view name );
    // A value read from a record. Shared memory may hold garbage: a value that is
    // not the encoding of some name raises DeserializationError naming "intfId".
    static IntfId fromValue( uint64_t value );

    uint64_t value() const { return value_; }
    bool empty() const { return value_ == 0; }
    // The exact text the id was made from. An id copied from a record without
    // fromValue() may be garbage; it prints as "<bad IntfId 0x...>".
    std::string name() const;
    std::string toString() const { return name(); }

    bool operator==( const IntfId& other ) const = default;
    bool operator<( const IntfId& other ) const { return value_ < other.value_; }
    // Stable across processes: the low word XOR the high word.
    uint32_t hash() const {
        return static_cast<uint32_t>( value_ ) ^ static_cast<uint32_t>( value_ >> 32 );
    }

  private:
    uint64_t value_ = 0;
};

static_assert( sizeof( IntfId ) == 8 );
static_assert( std::is_standard_layout_v<IntfId> );
static_assert( std::is_trivially_copyable_v<IntfId> );

std::ostream& operator<<( std::ostream& os, const IntfId& id );

}  // namespace Net

template <>
struct std::hash<Net::IntfId> {
    size_t operator()( const Net::IntfId& id ) const { return id.hash(); }
};

// Cspf::PathKey: what names one requested path within a client's table.
//
// A client may ask for several paths to the same destination (with different
// constraints, say); `id` tells them apart. The class is its own record:
// destination (20 bytes) at offset 0, id (u32) at offset 20.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>

#include "records/IpGenAddr.h"

namespace Cspf {

class PathKey {
  public:
    Net::IpGenAddr destination;
    uint32_t id = 0;

    PathKey() = default;
    PathKey( const Net::IpGenAddr& dest, uint32_t pathId )
        : destination( dest ), id( pathId ) {}
    // Reads the string form back; raises DeserializationError.
    explicit PathKey( std::string_view text );
    template <std::input_iterator It>
    requires std::same_as < std::iter_value_t<It>,
    char > PathKey( It begin, It end )
        : PathKey( std::string_view( std::string( begin, end ) ) ) {}

    // Reads a 24-byte record that may hold anything (shared memory); raises
    // DeserializationError naming `attribute` for a bad destination.
    static PathKey fromRecord( const void* record, std::string_view attribute );

    bool operator==( const PathKey& other ) const = default;
    bool operator<( const PathKey& other ) const;  // destination, then id
    uint32_t hash() const;

    // "Value('Cspf::PathKey', ** {'destination': 10.0.0.1, 'id': 7})"
    std::string toString() const;
};

static_assert( sizeof( PathKey ) == 24 );
static_assert( alignof( PathKey ) == 4 );
static_assert( offsetof( PathKey, destination ) == 0 );
static_assert( offsetof( PathKey, id ) == 20 );
static_assert( std::is_standard_layout_v<PathKey> );
static_assert( std::is_trivially_copyable_v<PathKey> );

std::ostream& operator<<( std::ostream& os, const PathKey& key );

}  // namespace Cspf

template <>
struct std::hash<Cspf::PathKey> {
    size_t operator()( const Cspf::PathKey& key ) const { return key.hash(); }
};

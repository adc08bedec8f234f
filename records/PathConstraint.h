// Cspf::PathConstraint: what a requested path must avoid.
//
// Requests with equal constraints share one constrained topology run, so
// hash() is stable across processes and versions (it may be stored and
// compared by another process): the 64-bit interface id folded to 32 bits,
// 0 for the default constraint. The class is its own 8-byte record.
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

#include "records/IntfId.h"

namespace Cspf {

class PathConstraint {
  public:
    // The empty id excludes nothing.
    Net::IntfId excludeInterface;

    PathConstraint() = default;
    explicit PathConstraint( Net::IntfId exclude ) : excludeInterface( exclude ) {}
    // Reads the string form back; any failure, an interface name that cannot
    // be encoded included, raises DeserializationError naming "pathConstraint".
    explicit PathConstraint( std::string_view text );
    template <std::input_iterator It>
    requires std::same_as < std::iter_value_t<It>,
    char > PathConstraint( It begin, It end )
        : PathConstraint( std::string_view( std::string( begin, end ) ) ) {}

    // Reads an 8-byte record that may hold anything; raises
    // DeserializationError naming "intfId" for a value that is no interface.
    static PathConstraint fromRecord( const void* record );

    bool isDefault() const { return excludeInterface.empty(); }
    bool operator==( const PathConstraint& other ) const = default;
    uint32_t hash() const { return excludeInterface.hash(); }

    // "Value('Cspf::PathConstraint', ** {'excludeInterface': Ethernet1})"
    std::string toString() const;
};

static_assert( sizeof( PathConstraint ) == 8 );
static_assert( alignof( PathConstraint ) == 8 );
static_assert( offsetof( PathConstraint, excludeInterface ) == 0 );
static_assert( std::is_standard_layout_v<PathConstraint> );
static_assert( std::is_trivially_copyable_v<PathConstraint> );

std::ostream& operator<<( std::ostream& os, const PathConstraint& constraint );

}  // namespace Cspf

template <>
struct std::hash<Cspf::PathConstraint> {
    size_t operator()( const Cspf::PathConstraint& c ) const { return c.hash(); }
};

// BoundedIndex: an unsigned 32-bit value that can only hold [Min, Max].
//
// Counts and indices read from shared memory or from clients are bounded by
// the layouts that hold them (1024 hops, 500 neighbors, ...). Carrying the
// bound in the type means a value is checked once, where it enters, and every
// later user may rely on it. The name is part of the type so that the error
// says which bound was broken.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace Platform {

// A string literal usable as a template argument: BoundedIndex< "HopIndex", ... >.
template <size_t N>
struct FixedString {
    char chars[N] = {};
    constexpr FixedString( const char ( &text )[N] ) {
        for ( size_t i = 0; i < N; ++i ) {
            chars[i] = text[i];
        }
    }
    constexpr std::string_view view() const { return { chars, N - 1 }; }
};

template <FixedString Name, uint32_t Min, uint32_t Max>
class BoundedIndex {
    static_assert( Min <= Max, "empty range" );

  public:
    static constexpr uint32_t min = Min;
    static constexpr uint32_t max = Max;
    static constexpr std::string_view name() { return Name.view(); }

    constexpr BoundedIndex() = default;
    constexpr explicit BoundedIndex( uint32_t value ) : value_( checked( value ) ) {}

    constexpr uint32_t value() const { return value_; }
    constexpr void valueIs( uint32_t value ) { value_ = checked( value ); }

    // Values wider than 32 bits (a size_t count) are checked before narrowing.
    static BoundedIndex fromWide( uint64_t value ) {
        if ( value > Max ) {
            throwRangeError();
        }
        return BoundedIndex( static_cast<uint32_t>( value ) );
    }

    constexpr auto operator<=>( const BoundedIndex& ) const = default;

    // "HopIndex::value < HopIndex::min or > HopIndex::max not allowed"
    [[noreturn]] static void throwRangeError() {
        std::string n( name() );
        throw RangeError( n + "::value < " + n + "::min or > " + n +
                          "::max not allowed" );
    }

  private:
    static constexpr uint32_t checked( uint32_t value ) {
        if ( value > Max ) {
            throwRangeError();
        }
        if constexpr ( Min > 0 ) {
            if ( value < Min ) {
                throwRangeError();
            }
        }
        return value;
    }

    uint32_t value_ = Min;
};

template <FixedString Name, uint32_t Min, uint32_t Max>
std::ostream& operator<<( std::ostream& os, const BoundedIndex<Name, Min, Max>& index ) {
    return os << index.value();
}

}  // namespace Platform

template <Platform::FixedString Name, uint32_t Min, uint32_t Max>
struct std::hash<Platform::BoundedIndex<Name, Min, Max>> {
    size_t operator()( const Platform::BoundedIndex<Name, Min, Max>& index ) const {
        return std::hash<uint32_t>()( index.value() );
    }
};

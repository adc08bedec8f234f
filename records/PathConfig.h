// Cspf::PathConfig: one path that a client asks for.
//
// A client writes one PathConfig per requested path into its request table;
// the agent answers with a PathStatus under the same key. Raising
// refreshReqSeq asks for a fresh computation; the agent echoes it back as
// PathStatus::refreshRespSeq. With autoUpdate the agent also recomputes on
// topology changes.
//
// The class is its own 40-byte record:
//   0  key            PathKey (24)
//   24 refreshReqSeq  u32
//   28 autoUpdate     one byte, 0 or 1, then three zero bytes
//   32 constraint     PathConstraint (8)
// Writing it is a plain copy; reading bytes of unknown origin goes through
// decodePathConfig(), because a bool byte other than 0 or 1 is not a bool.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/DumpContext.h"
#include "records/PathConstraint.h"
#include "records/PathKey.h"

namespace Cspf {

class PathConfig {
  public:
    PathKey key;
    uint32_t refreshReqSeq = 0;
    bool autoUpdate = false;
    uint8_t autoUpdatePad[3] = {};  // always zero
    PathConstraint constraint;

    PathConfig() = default;
    PathConfig( const PathKey& k, uint32_t reqSeq, bool autoUpd, const PathConstraint& c )
        : key( k ), refreshReqSeq( reqSeq ), autoUpdate( autoUpd ), constraint( c ) {}
    // Reads the string form back; raises DeserializationError.
    explicit PathConfig( std::string_view text );
    template <std::input_iterator It>
    requires std::same_as < std::iter_value_t<It>,
    char > PathConfig( It begin, It end )
        : PathConfig( std::string_view( std::string( begin, end ) ) ) {}

    bool operator==( const PathConfig& other ) const;

    // "Value('Cspf::PathConfig', ** {'key': ..., 'refreshReqSeq': 3,
    //  'autoUpdate': true, 'constraint': ...})"
    std::string toString() const;
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

static_assert( sizeof( PathConfig ) == 40 );
static_assert( alignof( PathConfig ) == 8 );
static_assert( offsetof( PathConfig, key ) == 0 );
static_assert( offsetof( PathConfig, refreshReqSeq ) == 24 );
static_assert( offsetof( PathConfig, autoUpdate ) == 28 );
static_assert( offsetof( PathConfig, autoUpdatePad ) == 29 );
static_assert( offsetof( PathConfig, constraint ) == 32 );
static_assert( sizeof( bool ) == 1 );
static_assert( std::is_standard_layout_v<PathConfig> );
static_assert( std::is_trivially_copyable_v<PathConfig> );

// Reads a record that may hold anything (shared memory). Raises
// DeserializationError naming "pathConfig" for a length other than 40,
// "key" for a bad destination, "autoUpdate" for a byte other than 0 or 1 or a
// non-zero pad byte, and "intfId" for a bad excluded interface.
PathConfig decodePathConfig( const void* buf, size_t len );

std::ostream& operator<<( std::ostream& os, const PathConfig& config );

}  // namespace Cspf

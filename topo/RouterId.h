// Mpls::RouterId: the identity of a router in a link-state database.
//
// The class is its own record, 12 bytes:
//   0  protocol       u32, Mpls::Protocol (0 none, 1 isis)
//   4  rtrIdValue     u32
//   8  lblSpaceValue  u16
//   10 pad            2 bytes, always zero
// An IS-IS system id (6 bytes) fits as rtrIdValue = its first 4 bytes and
// lblSpaceValue = its last 2, both big-endian, so that ids order like their
// text. The all-zero id is the empty id: no router.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Mpls {

enum class Protocol : uint32_t {
    none = 0,
    isis = 1,
};

class RouterId {
  public:
    constexpr RouterId() = default;
    constexpr RouterId( Protocol protocol, uint32_t rtrId, uint16_t lblSpace )
        : protocol_( static_cast<uint32_t>( protocol ) ),
          rtrIdValue_( rtrId ),
          lblSpaceValue_( lblSpace ) {}

    // "1921.6800.1001": 12 hex digits in three dotted groups of four. Bad text
    // raises DeserializationError naming "systemId". The zero system id reads
    // as the empty id, which prints the same way.
    static RouterId fromSystemId( std::string_view text );
    // Reads a 12-byte record that may hold anything (shared memory); raises
    // DeserializationError naming `attribute` for an unknown protocol or a
    // non-zero pad.
    static RouterId fromRecord( const void* record, std::string_view attribute );

    Protocol protocol() const { return static_cast<Protocol>( protocol_ ); }
    uint32_t rtrIdValue() const { return rtrIdValue_; }
    uint16_t lblSpaceValue() const { return lblSpaceValue_; }
    bool empty() const {
        return protocol_ == 0 && rtrIdValue_ == 0 && lblSpaceValue_ == 0;
    }

    bool operator==( const RouterId& other ) const = default;
    bool operator<( const RouterId& other ) const;  // protocol, rtrId, lblSpace
    // Stable across processes: FNV-1a over the 12 record bytes.
    uint32_t hash() const;

    // The system id form for IS-IS ids and for the empty id, else
    // "<dotted rtrId>/<lblSpace>".
    std::string toString() const;

  private:
    uint32_t protocol_ = 0;
    uint32_t rtrIdValue_ = 0;
    uint16_t lblSpaceValue_ = 0;
    uint16_t pad_ = 0;
};

static_assert( std::endian::native == std::endian::little,
               "records are stored little-endian" );
static_assert( sizeof( RouterId ) == 12 );
static_assert( alignof( RouterId ) == 4 );
static_assert( std::is_standard_layout_v<RouterId> );
static_assert( std::is_trivially_copyable_v<RouterId> );

std::ostream& operator<<( std::ostream& os, const RouterId& id );

// FNV-1a over raw record bytes, continuing from `h`; shared by the topology keys.
uint32_t fnv1a( const void* bytes, size_t len, uint32_t h = 2166136261u );

}  // namespace Mpls

template <>
struct std::hash<Mpls::RouterId> {
    size_t operator()( const Mpls::RouterId& id ) const { return id.hash(); }
};

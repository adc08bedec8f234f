// Cspf::PathStatus: the agent's answer for one requested path, and its record.
//
// The in-memory value holds only the hops it has. The record is variable in
// size so that a table stores a 3-hop path in 104 bytes rather than 20 KB:
//   0  key             PathKey (24)
//   24 refreshRespSeq  u32, the refreshReqSeq this result answers
//   28 changeCount     u32, bumped whenever the hops change
//   32 lastUpdated     f64, platform clock seconds (8-aligned when the record is)
//   40 hopCount        u32, at most 1024
//   44 hops            hopCount x IpGenAddr (20)
// The codec copies with memcpy and never reads a field in place, so a record
// may sit at any address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <type_traits>

#include "platform/BoundedIndex.h"
#include "platform/DumpContext.h"
#include "platform/PodArray.h"
#include "records/IpGenAddr.h"
#include "records/PathKey.h"

namespace Cspf {

constexpr size_t kMaxHops = 1024;
using HopIndex = Platform::BoundedIndex<"HopIndex", 0, kMaxHops - 1>;
using HopArray = Platform::PodArray<Net::IpGenAddr, kMaxHops, HopIndex>;

class PathStatus {
  public:
    PathKey key;
    uint32_t refreshRespSeq = 0;
    uint32_t changeCount = 0;
    double lastUpdated = 0.0;
    HopArray hops;

    bool operator==( const PathStatus& other ) const = default;

    // "Value('Cspf::PathStatus', ** {'key': ..., 'refreshRespSeq': 1,
    //  'changeCount': 2, 'lastUpdated': 1000.5, 'hops': [10.0.0.1, 10.0.0.2]})"
    std::string toString() const;
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

std::ostream& operator<<( std::ostream& os, const PathStatus& status );

// The fixed part of the record. Only its first 44 bytes are stored: the hops
// follow hopCount directly, not after the struct's tail padding.
struct PathStatusRecordHeader {
    PathKey key;
    uint32_t refreshRespSeq = 0;
    uint32_t changeCount = 0;
    double lastUpdated = 0.0;
    uint32_t hopCount = 0;
};

static_assert( offsetof( PathStatusRecordHeader, key ) == 0 );
static_assert( offsetof( PathStatusRecordHeader, refreshRespSeq ) == 24 );
static_assert( offsetof( PathStatusRecordHeader, changeCount ) == 28 );
static_assert( offsetof( PathStatusRecordHeader, lastUpdated ) == 32 );
static_assert( offsetof( PathStatusRecordHeader, hopCount ) == 40 );
static_assert( sizeof( PathStatusRecordHeader ) == 48 );
static_assert( alignof( PathStatusRecordHeader ) == 8 );
static_assert( std::is_standard_layout_v<PathStatusRecordHeader> );
static_assert( std::is_trivially_copyable_v<PathStatusRecordHeader> );

constexpr size_t kPathStatusFixedSize =
    offsetof( PathStatusRecordHeader, hopCount ) + sizeof( uint32_t );
static_assert( kPathStatusFixedSize == 44 );

constexpr size_t pathStatusRecordSize( uint32_t hopCount ) {
    return kPathStatusFixedSize + sizeof( Net::IpGenAddr ) * hopCount;
}
static_assert( pathStatusRecordSize( 0 ) == 44 );
static_assert( pathStatusRecordSize( kMaxHops ) == 20524 );

// Writes the record of `status` into `buf` and returns its size; raises
// InvalidSizeError when `cap` is smaller than pathStatusRecordSize().
size_t encodePathStatus( const PathStatus& status, void* buf, size_t cap );

// Reads a record that may hold anything (shared memory). Raises RangeError
// (the HopIndex text) for a hop count above 1024, and DeserializationError
// naming "pathStatus" for a length that does not match the hop count or a
// lastUpdated that is not finite, "key" for a bad destination and "hops"
// for a bad hop address.
PathStatus decodePathStatus( const void* buf, size_t len );

}  // namespace Cspf

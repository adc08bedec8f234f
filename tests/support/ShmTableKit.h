// Shared-memory tables of test records: a u32 key, byte-string values, and
// the places in the file (offsets as in docs/state-tree.md) that tests read
// or damage behind the table's back.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/ShmTable.h"

namespace TestKit {

struct ShmKey {
    uint32_t id;
    uint32_t pad = 0;
};

inline Platform::TableLayout shmLayout( const std::string& typeName,
                                        uint32_t maxValueSize = 4096 ) {
    return Platform::TableLayout{
        typeName, Platform::tableLayoutHash( typeName + ":key u32:value bytes" ),
        sizeof( ShmKey ), maxValueSize };
}

inline bool put( Platform::ShmTableWriter& w, uint32_t id, const std::string& v ) {
    const ShmKey k{ id };
    return w.set( &k, v.data(), static_cast<uint32_t>( v.size() ) );
}

inline void del( Platform::ShmTableWriter& w, uint32_t id ) {
    const ShmKey k{ id };
    w.del( &k );
}

template <typename T>
std::string value( const T& table, uint32_t id ) {
    const ShmKey k{ id };
    std::vector<uint8_t> v;
    return table.get( &k, v ) ? std::string( v.begin(), v.end() ) : "<absent>";
}

inline uint32_t idOf( const uint8_t* key ) {
    ShmKey k;
    std::memcpy( &k, key, sizeof( k ) );
    return k.id;
}

inline std::vector<uint8_t> readFile( const std::string& path ) {
    std::ifstream in( path, std::ios::binary );
    return std::vector<uint8_t>( std::istreambuf_iterator<char>( in ), {} );
}

template <typename T>
T load( const std::vector<uint8_t>& file, size_t at ) {
    T v{};
    if ( at + sizeof( T ) <= file.size() ) {
        std::memcpy( &v, file.data() + at, sizeof( T ) );
    }
    return v;
}

// The file's header words that locate the index, and a slot's fields.
constexpr size_t kSlotSizeAt = 116, kIndexOffsetAt = 120, kIndexCapacityAt = 128;
constexpr size_t kSlotLenAt = 24, kSlotStateAt = 28, kSlotHashAt = 32, kSlotKeyAt = 40;

struct LiveSlot {
    uint32_t index;   // in the index
    uint64_t offset;  // in the file
    uint64_t hash;    // the stored key hash
};

// Every live record's slot, by key id.
inline std::map<uint32_t, LiveSlot> liveSlots( const std::vector<uint8_t>& file ) {
    std::map<uint32_t, LiveSlot> out;
    const uint32_t slotSize = load<uint32_t>( file, kSlotSizeAt );
    const uint64_t indexOffset = load<uint64_t>( file, kIndexOffsetAt );
    const uint32_t capacity = load<uint32_t>( file, kIndexCapacityAt );
    for ( uint32_t i = 0; i < capacity; ++i ) {
        const uint64_t at = indexOffset + uint64_t( i ) * slotSize;
        if ( load<uint32_t>( file, at + kSlotStateAt ) == 1 ) {
            out[load<uint32_t>( file, at + kSlotKeyAt )] =
                LiveSlot{ i, at, load<uint64_t>( file, at + kSlotHashAt ) };
        }
    }
    return out;
}

// Writes `n` bytes at `offset` of the file, behind every writer's back.
inline bool patchFile( const std::string& path, uint64_t offset, const void* bytes,
                       size_t n ) {
    const int fd = ::open( path.c_str(), O_RDWR | O_CLOEXEC );
    const bool ok = fd >= 0 && pwrite( fd, bytes, n, static_cast<off_t>( offset ) ) ==
                                   static_cast<ssize_t>( n );
    ::close( fd );
    return ok;
}

// Clears the "not mid-write" bit of a record's seqlock word, as a writer that
// died inside a write leaves it.
inline bool breakSeqlockOf( const std::string& path, uint32_t id ) {
    const std::vector<uint8_t> file = readFile( path );
    const auto slots = liveSlots( file );
    const auto it = slots.find( id );
    if ( it == slots.end() ) {
        return false;
    }
    const uint8_t word = file[it->second.offset] ^ 1;
    return patchFile( path, it->second.offset, &word, 1 );
}

// The keys a sync reports.
inline std::vector<uint32_t> syncedKeys( Platform::ShmTableReader& r ) {
    std::vector<uint32_t> keys;
    r.sync( [&]( const uint8_t* key ) { keys.push_back( idOf( key ) ); } );
    return keys;
}

}  // namespace TestKit

// Fuzz target "table_file": a table file as a peer may leave it, attached and
// read every way the agent reads one, damaged again while mapped, then taken
// over by a writer, which must either refuse it or keep a sound table.
//
// Input: the file's bytes up to the size its header claims (all of them when
// the input is shorter), then in-place damages of 13 bytes each (u32 offset,
// u8 width 1..8, u64 value) made while a reader has the file mapped. The
// header's type name chooses how records decode: a peer record type, or plain
// bytes under the generic layout of the test tables.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>

#include "tests/fuzz/PeerRecords.h"
#include "tests/support/ShmTableKit.h"
#include "tests/support/TempDir.h"

using namespace Platform;

namespace {

constexpr size_t kTypeNameAt = 16, kTypeNameBytes = 64, kFileSizeAt = 96;
constexpr size_t kDamageBytes = 13;

struct Kind {
    TableLayout layout;
    // Decodes a record as the agent would; null for plain bytes.
    void ( *decode )( const uint8_t* key, const uint8_t* value, size_t len ) = nullptr;
};

const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all = [] {
        std::vector<Kind> out{ { TestKit::shmLayout( "Test::Fuzz", 2048 ) } };
        Fuzz::forEachPeerRecord( [&]<typename R>( size_t ) {
            out.push_back( { tableLayoutOf<R>(), &Fuzz::decodeRecord<R> } );
        } );
        return out;
    }();
    return all;
}

const Kind& kindOf( const uint8_t* data, size_t size ) {
    if ( size >= kTypeNameAt + kTypeNameBytes ) {
        const char* name = reinterpret_cast<const char*>( data + kTypeNameAt );
        const std::string type( name, strnlen( name, kTypeNameBytes ) );
        for ( const Kind& k : kinds() ) {
            if ( k.layout.typeName == type ) {
                return k;
            }
        }
    }
    return kinds().front();
}

// Every way a reader reads: sync, lookups of each key it knows, values in
// place, then another sync. Only Platform::Error may come out.
void readAll( ShmTableReader& r, const Kind& kind ) {
    auto read = [&]( const uint8_t* key ) {
        try {
            std::vector<uint8_t> value;
            if ( r.get( key, value ) && kind.decode ) {
                static const uint8_t none = 0;
                kind.decode( key, value.empty() ? &none : value.data(), value.size() );
            }
            r.has( key );
            RecordRef ref;
            if ( r.find( key, ref ) ) {
                uint8_t sum = 0;
                for ( uint32_t i = 0; i < ref.len; ++i ) {
                    sum ^= ref.bytes[i];
                }
                *static_cast<volatile uint8_t*>( &sum ) = sum;
                r.unchanged( ref );
            }
        } catch ( const Error& ) {
        }
    };
    for ( int round = 0; round < 2; ++round ) {
        try {
            r.sync( read );
        } catch ( const Error& ) {
        }
        std::vector<std::string> keys;
        for ( const auto& entry : r.versions() ) {
            keys.push_back( entry.first );
        }
        for ( const std::string& key : keys ) {
            read( reinterpret_cast<const uint8_t*>( key.data() ) );
        }
    }
}

// A writer that attaches to the damaged file refuses it with an Error or
// keeps a sound table. Returns what is wrong, empty when nothing.
std::string writeAfter( const std::string& path, const TableLayout& layout ) {
    std::unique_ptr<ShmTableWriter> w;
    try {
        w = std::make_unique<ShmTableWriter>( path, layout );
    } catch ( const Error& ) {
        return {};
    }
    try {
        std::vector<std::string> keys;
        std::string wrong;
        w->forEach( [&]( const uint8_t* key, const uint8_t*, uint32_t len ) {
            keys.emplace_back( reinterpret_cast<const char*>( key ), layout.keySize );
            if ( len > layout.maxValueSize ) {
                wrong = "kept a value of " + std::to_string( len ) + " bytes";
            }
        } );
        if ( !wrong.empty() ) {
            return wrong;
        }
        if ( keys.size() != w->size() ) {
            return "size " + std::to_string( w->size() ) + " but " +
                   std::to_string( keys.size() ) + " records";
        }
        ShmTableReader r( path, layout );
        for ( const std::string& k : keys ) {
            std::vector<uint8_t> a, b;
            if ( !w->get( k.data(), a ) || !r.get( k.data(), b ) || a != b ) {
                return "a record reads differently through a reader";
            }
        }
        for ( const std::string& k : keys ) {
            w->del( k.data() );
            if ( w->has( k.data() ) ) {
                return "a record is still there after its removal";
            }
        }
        const std::string key( layout.keySize, '\x5a' );
        const std::string value = std::string( "after" ).substr(
            0, std::min<size_t>( 5, layout.maxValueSize ) );
        w->set( key.data(), value.data(), static_cast<uint32_t>( value.size() ) );
        w->flush();
        r.sync( {} );
        std::vector<uint8_t> got;
        if ( !r.get( key.data(), got ) ||
             std::string( got.begin(), got.end() ) != value ) {
            return "a new record is not readable";
        }
    } catch ( const Error& e ) {
        return std::string( "the table it kept is unsound: " ) + e.what();
    }
    return {};
}

void damage( const std::string& path, const uint8_t* at, size_t bytes, size_t fileSize ) {
    for ( ; bytes >= kDamageBytes && fileSize;
          at += kDamageBytes, bytes -= kDamageBytes ) {
        uint32_t offset;
        uint64_t value;
        std::memcpy( &offset, at, sizeof( offset ) );
        std::memcpy( &value, at + 5, sizeof( value ) );
        offset %= fileSize;
        const size_t width = std::min<size_t>( at[4] % 8 + 1, fileSize - offset );
        TestKit::patchFile( path, offset, &value, width );
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
    static const TestKit::TempDir dir( "fuzztable" );
    static const std::string path = dir / "table";
    for ( const auto& entry : std::filesystem::directory_iterator( dir.path() ) ) {
        std::filesystem::remove( entry.path() );
    }
    uint64_t claimed = size;
    if ( size >= kFileSizeAt + sizeof( claimed ) ) {
        std::memcpy( &claimed, data + kFileSizeAt, sizeof( claimed ) );
    }
    const size_t fileSize = static_cast<size_t>( std::min<uint64_t>( claimed, size ) );
    {
        std::ofstream out( path, std::ios::binary );
        out.write( reinterpret_cast<const char*>( data ),
                   static_cast<std::streamsize>( fileSize ) );
        Fuzz::check( bool( out.flush() ), "cannot write " + path );
    }
    const Kind& kind = kindOf( data, fileSize );

    std::unique_ptr<ShmTableReader> r;
    try {
        r = std::make_unique<ShmTableReader>( path, kind.layout );
    } catch ( const Error& ) {
    }
    if ( r ) {
        readAll( *r, kind );
    }
    damage( path, data + fileSize, size - fileSize, fileSize );
    if ( r ) {
        readAll( *r, kind );
    }
    const std::string wrong = writeAfter( path, kind.layout );
    Fuzz::check( wrong.empty(), "writer over a damaged table: " + wrong );
    if ( r ) {
        readAll( *r, kind );  // follows the writer's new file
    }
    return 0;
}

// Hostile table files: a sound table with random bytes of its header, ring,
// index or heap corrupted (or cut short) is attached by a reader, synced, read
// key by key and iterated; only Platform::Error may come out. A writer over
// such a file either starts from a sound table or refuses with an Error.
//
// The iterations run in child processes, a batch each, so that a crash, a
// sanitizer report or a hang fails the test with the iteration that caused
// it; an iteration is replayed from its seed.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <random>

#include "platform/Error.h"
#include "tests/support/Child.h"
#include "tests/support/ShmTableKit.h"
#include "tests/support/TempDir.h"

using namespace Platform;
using namespace TestKit;

namespace {

constexpr uint32_t kMaxValue = 2048;

TableLayout layout() {
    return shmLayout( "Test::Fuzz", kMaxValue );
}

// Where the file keeps what the corruption aims at (docs/state-tree.md).
struct Field {
    uint32_t offset;
    uint32_t width;
};
constexpr Field kHeaderFields[] = {
    { 8, 4 },   { 12, 4 },  { 16, 8 },   // format, headerSize, typeName
    { 80, 8 },  { 88, 4 },  { 92, 4 },   // layoutHash, keySize, maxValueSize
    { 96, 8 },  { 104, 8 }, { 112, 4 },  // fileSize, ringOffset, ringCapacity
    { 116, 4 }, { 120, 8 }, { 128, 4 },  // slotSize, indexOffset, indexCapacity
    { 132, 4 }, { 136, 8 }, { 144, 8 },  // writerPid, heapOffset, heapEnd
    { 152, 8 }, { 160, 8 }, { 168, 4 },  // tableId, changeSeq, replaced
    { 172, 4 }, { 176, 4 }, { 184, 8 },  // liveCount, tombstones, heapTop
    { 192, 8 }, { 240, 8 }, { 456, 8 },  // freeList[0], [6], [33]
    { 528, 8 }, { 536, 1 },              // freeList[42], bell
};
constexpr Field kSlotFields[] = { { 0, 8 },  { 8, 8 },  { 16, 8 }, { 24, 4 },
                                  { 28, 4 }, { 32, 8 }, { 40, 4 } };
constexpr Field kRingFields[] = { { 0, 8 }, { 8, 4 } };

// Damages `f` as the seeded `rng` says; returns what it did.
std::string corrupt( std::vector<uint8_t>& f, std::mt19937_64& rng ) {
    const uint64_t ringOffset = load<uint64_t>( f, 104 );
    const uint32_t ringCap = load<uint32_t>( f, 112 ),
                   slotSize = load<uint32_t>( f, 116 );
    const uint64_t indexOffset = load<uint64_t>( f, 120 );
    const uint32_t indexCap = load<uint32_t>( f, 128 );
    const uint64_t heapOffset = load<uint64_t>( f, 136 );
    std::vector<uint64_t> interesting = {
        0, 1, 2, 3, 0x7f, 0x80, 0xff, 0x7fffffff, 0x80000000, 0x80000001, 0xffffffff };
    interesting.insert( interesting.end(), { 1ull << 32, 1ull << 63, ~0ull, f.size(),
                                             f.size() - 1, heapOffset, heapOffset - 1,
                                             indexOffset, kMaxValue, kMaxValue + 1 } );
    std::string what;
    auto overwrite = [&]( uint64_t at, uint32_t width ) {
        uint64_t v = rng() % 3 ? interesting[rng() % interesting.size()] : rng();
        if ( rng() % 4 == 0 ) {
            v = load<uint64_t>( f, at ) + ( rng() % 2 ? 1 : -1 );
        }
        width = static_cast<uint32_t>( std::min<uint64_t>( width, f.size() - at ) );
        std::memcpy( f.data() + at, &v, width );
        what += " [" + std::to_string( at ) + "+" + std::to_string( width ) +
                "]=" + std::to_string( v );
    };
    auto scribble = [&]( uint64_t from, uint64_t to ) {
        const uint64_t at = from + rng() % std::max<uint64_t>( to - from, 1 );
        if ( at < f.size() ) {
            const uint8_t old = f[at];
            f[at] = rng() % 2 ? static_cast<uint8_t>( rng() ) : old ^ ( 1u << rng() % 8 );
            what += " byte " + std::to_string( at ) + " " + std::to_string( old ) + "->" +
                    std::to_string( f[at] );
        }
    };
    const int edits = 1 + static_cast<int>( rng() % 6 );
    for ( int e = 0; e < edits; ++e ) {
        switch ( rng() % 4 ) {
            case 0:  // header
                if ( rng() % 2 ) {
                    const Field fl = kHeaderFields[rng() % std::size( kHeaderFields )];
                    overwrite( fl.offset, fl.width );
                } else {
                    scribble( 0, 544 );
                }
                break;
            case 1: {  // ring
                const Field fl = kRingFields[rng() % std::size( kRingFields )];
                const uint64_t entry =
                    ringOffset + ( rng() % std::max( ringCap, 1u ) ) * 16;
                if ( rng() % 2 && entry + 16 <= f.size() ) {
                    overwrite( entry + fl.offset, fl.width );
                } else {
                    scribble( ringOffset, indexOffset );
                }
                break;
            }
            case 2: {  // index
                const Field fl = kSlotFields[rng() % std::size( kSlotFields )];
                const uint64_t slot = indexOffset + ( rng() % std::max( indexCap, 1u ) ) *
                                                        uint64_t( slotSize );
                if ( rng() % 3 && slot + slotSize <= f.size() ) {
                    overwrite( slot + fl.offset, fl.width );
                } else {
                    scribble( indexOffset, heapOffset );
                }
                break;
            }
            default:  // heap
                scribble( heapOffset, f.size() );
                break;
        }
    }
    if ( rng() % 10 == 0 ) {
        const size_t len = rng() % 2 ? rng() % 4096 : rng() % f.size();
        f.resize( len );
        what += " truncated to " + std::to_string( len );
    } else if ( rng() % 30 == 0 ) {
        f.resize( f.size() + 4096, 0x5a );
        what += " extended by 4096";
    }
    return what;
}

// File offset of the live slot that holds `id`; 0 when none.
uint64_t slotOf( const std::vector<uint8_t>& f, uint32_t id ) {
    const auto slots = liveSlots( f );
    return slots.count( id ) ? slots.at( id ).offset : 0;
}

// Reads a damaged table every way a reader can; only Error may come out.
void readAll( ShmTableReader& r, const std::set<uint32_t>& ids ) {
    std::vector<uint8_t> v;
    auto read = [&]( const void* key ) {
        try {
            r.get( key, v );
            r.has( key );
        } catch ( const Error& ) {
        }
    };
    try {
        r.sync( read );
    } catch ( const Error& ) {
    }
    for ( uint32_t id : ids ) {
        const ShmKey k{ id };
        read( &k );
    }
    const auto versions = r.versions();  // the keys the reader iterates
    for ( const auto& [key, version] : versions ) {
        read( key.data() );
    }
    try {
        r.sync( read );
    } catch ( const Error& ) {
    }
}

void readAll( const std::string& path, const std::set<uint32_t>& ids ) {
    std::unique_ptr<ShmTableReader> r;
    try {
        r = std::make_unique<ShmTableReader>( path, layout() );
    } catch ( const Error& ) {
        return;
    }
    readAll( *r, ids );
}

// Attaches a writer to a damaged table: it either refuses with an Error or
// ends up with a sound table. Returns what is wrong, empty when nothing.
std::string writeAfter( const std::string& path ) {
    std::unique_ptr<ShmTableWriter> w;
    try {
        w = std::make_unique<ShmTableWriter>( path, layout() );
    } catch ( const Error& ) {
        return {};
    }
    try {
        std::vector<ShmKey> keys;
        w->forEach( [&]( const uint8_t* key, const uint8_t*, uint32_t len ) {
            ShmKey& k = keys.emplace_back();
            std::memcpy( &k, key, sizeof( k ) );  // the pad too, however damaged
            if ( len > kMaxValue ) {
                throw std::runtime_error( "kept a value of " + std::to_string( len ) );
            }
        } );
        if ( keys.size() != w->size() ) {
            return "size " + std::to_string( w->size() ) + " but " +
                   std::to_string( keys.size() ) + " records";
        }
        ShmTableReader r( path, layout() );
        for ( const ShmKey& k : keys ) {
            std::vector<uint8_t> a, b;
            if ( !w->get( &k, a ) || !r.get( &k, b ) || a != b ) {
                return "record " + std::to_string( k.id ) + " reads differently";
            }
        }
        for ( const ShmKey& k : keys ) {
            w->del( &k );
            if ( w->has( &k ) ) {
                return "record " + std::to_string( k.id ) +
                       " still there after its removal";
            }
        }
        put( *w, 1, "after" );
        r.sync( {} );
        if ( value( r, 1 ) != "after" ) {
            return "a new record is not readable";
        }
    } catch ( const Error& e ) {
        return std::string( "the table it kept is unsound: " ) + e.what();
    }
    return {};
}

class ShmTableFuzzTest : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directory( dir_ / "t" ); }

    // A sound table: `n` records of varied sizes, some removed, and more
    // changes than the ring holds when `churn`.
    std::vector<uint8_t> makeTemplate( uint32_t n, bool churn, std::set<uint32_t>& ids ) {
        std::filesystem::remove_all( dir_ / "t" );
        std::filesystem::create_directory( dir_ / "t" );
        {
            ShmTableWriter w( path_, layout() );
            std::mt19937 rng( n );
            for ( int round = 0; round < ( churn ? 8 : 1 ); ++round ) {
                for ( uint32_t id = 0; id < n; ++id ) {
                    const uint32_t len = rng() % 4 == 0 ? rng() % kMaxValue : rng() % 100;
                    put( w, id, std::string( len, static_cast<char>( 'a' + id % 26 ) ) );
                    ids.insert( id );
                }
            }
            for ( uint32_t id = 0; id < n; id += 5 ) {
                del( w, id );
            }
        }
        return readFile( path_ );
    }

    bool writeFile( const std::vector<uint8_t>& bytes ) {
        std::error_code ec;
        std::filesystem::remove_all( dir_ / "t", ec );
        std::filesystem::create_directory( dir_ / "t", ec );
        std::ofstream out( path_, std::ios::binary );
        out.write( reinterpret_cast<const char*>( bytes.data() ),
                   static_cast<std::streamsize>( bytes.size() ) );
        return bool( out.flush() );
    }

    // Runs `fn` in a child that reports the iteration it is in through a
    // pipe. Returns the last iteration begun and how the child ended: its
    // exit code, -SIGNAL, or -1000 when an iteration hung.
    std::pair<int, int> runChild( const std::function<int( int progressFd )>& fn,
                                  double secondsPerIteration ) {
        Pipe progress;
        const pid_t pid = forkChild( [&] { return fn( progress.w ); } );
        progress.closeWrite();
        int last = -1, got;
        while ( readFull( progress.r, &got, sizeof( got ), secondsPerIteration ) ) {
            last = got;
        }
        return { last, reapChild( pid, secondsPerIteration ) };
    }

    TempDir dir_{ "shmfuzztest" };
    const std::string path_ = dir_ / "t/table";
};

TEST_F( ShmTableFuzzTest, DamagedTablesGiveErrorsNeverCrashes ) {
    constexpr uint64_t kSeed = 0x5eed'2024;
    constexpr int kIterations = 3000, kBatch = 250;
    std::vector<std::vector<uint8_t>> templates;
    std::vector<std::set<uint32_t>> ids( 3 );
    templates.push_back( makeTemplate( 24, false, ids[0] ) );
    templates.push_back( makeTemplate( 300, true, ids[1] ) );
    templates.push_back( makeTemplate( 0, false, ids[2] ) );
    for ( const auto& t : templates ) {
        ASSERT_GT( t.size(), 4096u );
    }

    for ( int first = 0; first < kIterations; first += kBatch ) {
        const auto [last, code] = runChild(
            [&]( int progress ) {
                for ( int i = first; i < first + kBatch; ++i ) {
                    std::mt19937_64 rng( kSeed + static_cast<uint64_t>( i ) );
                    const size_t t = rng() % templates.size();
                    std::vector<uint8_t> bytes = templates[t];
                    corrupt( bytes, rng );
                    if ( !writeFile( bytes ) ) {
                        return 2;
                    }
                    if ( ::write( progress, &i, sizeof( i ) ) != sizeof( i ) ) {
                        return 2;
                    }
                    readAll( path_, ids[t] );
                    const std::string wrong = writeAfter( path_ );
                    if ( !wrong.empty() ) {
                        fprintf( stderr, "iteration %d: writer: %s\n", i, wrong.c_str() );
                        return 3;
                    }
                }
                return 0;
            },
            20 );
        if ( code != 0 ) {
            std::mt19937_64 rng( kSeed + static_cast<uint64_t>( last ) );
            const size_t t = rng() % templates.size();
            std::vector<uint8_t> bytes = templates[t];
            const std::string what = corrupt( bytes, rng );
            FAIL() << "iteration " << last << " (template " << t << "," << what << ") "
                   << ( code == -1000 ? "hung"
                        : code < 0    ? "crashed with signal " + std::to_string( -code )
                                   : "failed with exit code " + std::to_string( code ) );
        }
    }
}

// Damages that random bytes rarely make, done under a reader that has the
// table mapped: it must not trust the words it checked at attach.
TEST_F( ShmTableFuzzTest, HandMadeDamagesGiveErrorsNeverHangs ) {
    struct Patch {
        uint64_t at;  // in the slot of record 3 when `inSlot`
        uint64_t value;
        uint32_t width;
        bool inSlot;
    };
    struct Case {
        const char* what;
        std::vector<Patch> patches;
    } cases[] = {
        { "a record length above 2 GiB", { { kSlotLenAt, 0x80000001, 4, true } } },
        { "two live records with key 2", { { kSlotKeyAt, 2, 4, true } } },
        { "index capacity and change sequence scribbled on",
          { { kIndexCapacityAt, 1u << 30, 4, false }, { 160, 1u << 20, 8, false } } },
    };
    for ( const Case& c : cases ) {
        std::set<uint32_t> ids;
        const std::vector<uint8_t> bytes = makeTemplate( 24, false, ids );
        const uint64_t slot = slotOf( bytes, 3 );
        ASSERT_NE( slot, 0u );
        ASSERT_TRUE( writeFile( bytes ) );
        for ( uint32_t id = 0; id < 64; ++id ) {
            ids.insert( id );  // absent keys probe the index too
        }
        const auto [last, code] = runChild(
            [&]( int ) {
                ShmTableReader r( path_, layout() );
                for ( const Patch& p : c.patches ) {
                    if ( !patchFile( path_, p.at + ( p.inSlot ? slot : 0 ), &p.value,
                                     p.width ) ) {
                        return 2;
                    }
                }
                readAll( r, ids );
                readAll( path_, ids );
                const std::string wrong = writeAfter( path_ );
                if ( !wrong.empty() ) {
                    fprintf( stderr, "%s: writer: %s\n", c.what, wrong.c_str() );
                }
                return wrong.empty() ? 0 : 3;
            },
            10 );
        EXPECT_EQ( code, 0 ) << c.what << ": "
                             << ( code == -1000 ? "hung"
                                  : code < 0
                                      ? "crashed with signal " + std::to_string( -code )
                                      : "failed" );
    }
}

// One value outside the heap, as a damaged writer may leave it: that record
// reads as corrupt, and the rest of the table stays readable and notified.
TEST_F( ShmTableFuzzTest, OneBadRecordDoesNotHideTheRest ) {
    ShmTableWriter w( path_, layout() );
    for ( uint32_t id = 1; id <= 3; ++id ) {
        put( w, id, "value" );
    }
    w.flush();
    const std::vector<uint8_t> bytes = readFile( path_ );
    const uint64_t slot = slotOf( bytes, 2 );
    ASSERT_NE( slot, 0u );
    const uint64_t outside = bytes.size() + 4096;
    ASSERT_TRUE( patchFile( path_, slot + 16, &outside, 8 ) );

    std::unique_ptr<ShmTableReader> r;
    ASSERT_NO_THROW( r = std::make_unique<ShmTableReader>( path_, layout() ) );
    EXPECT_THROW( value( *r, 2 ), CorruptionError );
    EXPECT_NE( value( *r, 1 ), "<absent>" );
    // More changes than the ring holds: the reader resynchronises.
    for ( int n = 0; n < 2000; ++n ) {
        put( w, 3, std::to_string( n ) );
    }
    w.flush();
    std::vector<uint32_t> reported;
    EXPECT_NO_THROW( reported = syncedKeys( *r ) );
    EXPECT_EQ( std::count( reported.begin(), reported.end(), 3u ), 1 );
}

}  // namespace

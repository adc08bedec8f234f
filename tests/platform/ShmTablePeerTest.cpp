// Tables against peers that break them from outside the format: a file cut
// short while mapped, a sparse file whose header claims a huge index, a
// tmpfs that fills up under a writer, a live writer that leaves its records
// half-written. Each case runs in a child process, so that a SIGBUS or a
// stall fails the test instead of ending or hanging it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/Error.h"
#include "tests/support/Child.h"
#include "tests/support/ShmTableKit.h"
#include "tests/support/SmallTmpfs.h"
#include "tests/support/TempDir.h"

using namespace Platform;
using namespace TestKit;

namespace {

TableLayout layout() {
    return shmLayout( "Test::Peer" );
}

// Whether `fn` throws CorruptionError whose text has `what`.
template <typename F>
bool corrupt( F&& fn, const std::string& what ) {
    try {
        fn();
    } catch ( const CorruptionError& e ) {
        if ( std::string( e.what() ).find( what ) != std::string::npos ) {
            return true;
        }
        fprintf( stderr, "unexpected: %s\n", e.what() );
    }
    return false;
}

std::string ended( int code ) {
    return code == -1000 ? "hung"
           : code < 0    ? "died of signal " + std::to_string( -code )
                         : "failed at step " + std::to_string( code );
}

class ShmTablePeerTest : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directory( small_ ); }

    TempDir dir_{ "shmpeertest" };
    const std::string path_ = dir_ / "table";
    const std::string small_ = dir_ / "small";  // where a small tmpfs goes
};

TEST_F( ShmTablePeerTest, FileCutShortWhileMappedIsReportedNeverSigbus ) {
    const int code = reapChild(
        forkChild( [&] {
            ShmTableWriter w( path_, layout() ), other( dir_ / "other", layout() );
            for ( uint32_t id = 0; id < 200; ++id ) {
                put( w, id, std::string( 100, 'v' ) );
                put( other, id, "o" );
            }
            ShmTableReader r( path_, layout() ), r2( dir_ / "other", layout() );
            RecordRef ref;
            const ShmKey k{ 7 };
            if ( !r.find( &k, ref ) || truncate( path_.c_str(), 4096 ) != 0 ) {
                return 1;
            }
            // Lookups, in-place reads and the sync: a corruption of this table.
            if ( !corrupt( [&] { value( r, 7 ); }, "truncated while mapped" ) ||
                 r.unchanged( ref ) ) {
                return 2;
            }
            if ( !corrupt( [&] { syncedKeys( r ); }, "truncated" ) ||
                 r.versions().size() != 200 ) {
                return 3;  // nor was any key told removed
            }
            if ( value( r2, 7 ) != "o" ) {
                return 4;
            }
            // The writer cut short goes on, and moves to a sound file.
            put( w, 500, "after" );
            w.flush();
            if ( value( ShmTableReader( path_, layout() ), 500 ) != "after" ) {
                return 5;
            }
            return 0;
        } ),
        30 );
    EXPECT_EQ( code, 0 ) << ended( code );
}

TEST_F( ShmTablePeerTest, IndexLargerThanItsFileOrItsRecordsIsRefused ) {
    {
        ShmTableWriter w( path_, layout() );
        for ( uint32_t id = 0; id < 3; ++id ) {
            put( w, id, "v" );
        }
    }
    const std::vector<uint8_t> sound = readFile( path_ );
    const uint32_t slotSize = load<uint32_t>( sound, kSlotSizeAt );
    const uint64_t indexOffset = load<uint64_t>( sound, kIndexOffsetAt );
    const uint64_t heapBytes = sound.size() - load<uint64_t>( sound, 136 );
    // The header of the same table with an index of `capacity` slots.
    auto withIndex = [&]( uint32_t capacity ) {
        std::vector<uint8_t> f( sound.begin(), sound.begin() + indexOffset );
        const uint64_t heapOffset = indexOffset + uint64_t{ capacity } * slotSize;
        const uint64_t size = heapOffset + heapBytes;
        std::memcpy( f.data() + kIndexCapacityAt, &capacity, 4 );
        std::memcpy( f.data() + 136, &heapOffset, 8 );
        std::memcpy( f.data() + 144, &size, 8 );
        std::memcpy( f.data() + 96, &size, 8 );
        return std::make_pair( f, size );
    };
    // 2^23 slots, which cost nothing in a sparse file, on a tmpfs that could
    // not give the pages a scan of them faults in.
    const std::string sparse = small_ + "/table";
    const int code = inSmallTmpfs(
        small_, 4 << 20,
        [&] {
            const auto [header, size] = withIndex( 1u << 23 );
            std::ofstream( sparse, std::ios::binary )
                .write( reinterpret_cast<const char*>( header.data() ),
                        static_cast<std::streamsize>( header.size() ) );
            struct stat before, after;
            if ( truncate( sparse.c_str(), static_cast<off_t>( size ) ) != 0 ||
                 stat( sparse.c_str(), &before ) != 0 ) {
                return 1;
            }
            if ( !corrupt( [&] { ShmTableReader( sparse, layout() ); }, "sparse" ) ) {
                return 2;
            }
            stat( sparse.c_str(), &after );
            return after.st_blocks == before.st_blocks ? 0 : 3;
        },
        60 );
    if ( code == kNoTmpfs ) {
        GTEST_SKIP() << kNoTmpfsWhy;
    }
    EXPECT_EQ( code, 0 ) << "sparse: " << ended( code );

    // Every page there, but 4096 slots for 3 records: no writer leaves that.
    auto [bytes, size] = withIndex( 4096 );
    bytes.resize( size );
    std::ofstream( path_, std::ios::binary | std::ios::trunc )
        .write( reinterpret_cast<const char*>( bytes.data() ),
                static_cast<std::streamsize>( bytes.size() ) );
    EXPECT_TRUE( corrupt( [&] { ShmTableReader( path_, layout() ); },
                          "an index of 4096 slots for 3 records" ) );
}

TEST_F( ShmTablePeerTest, FileWithHolesIsRefusedUntilItsWriterFillsThem ) {
    {
        ShmTableWriter w( path_, layout() );
        for ( uint32_t id = 0; id < 50; ++id ) {
            put( w, id, "v" );
        }
    }
    // A table as an older writer left it: its zero pages never allocated.
    const std::string holed = path_ + ".holed";
    ASSERT_EQ( system( ( "cp --sparse=always " + path_ + " " + holed + " && mv " + holed +
                         " " + path_ )
                           .c_str() ),
               0 );
    struct stat st;
    ASSERT_EQ( stat( path_.c_str(), &st ), 0 );
    if ( st.st_blocks * 512 >= st.st_size ) {
        GTEST_SKIP() << "this file system made the copy without holes";
    }
    EXPECT_TRUE( corrupt( [&] { ShmTableReader( path_, layout() ); }, "sparse" ) );
    { ShmTableWriter w( path_, layout() ); }
    EXPECT_EQ( value( ShmTableReader( path_, layout() ), 49 ), "v" );
}

TEST_F( ShmTablePeerTest, FullTmpfsRefusesGrowthAndKeepsTheTable ) {
    const std::string path = small_ + "/table";
    const int code = inSmallTmpfs(
        small_, 512 << 10,
        [&] {
            ShmTableWriter w( path, layout() );
            uint32_t stored = 0;
            try {
                for ( ; stored < 10'000; ++stored ) {
                    put( w, stored, std::string( 1000, 'x' ) );
                }
                return 1;
            } catch ( const Error& e ) {
                const std::string why = e.what();
                if ( why.find( path ) == std::string::npos ||
                     why.find( "No space left" ) == std::string::npos ) {
                    fprintf( stderr, "%s\n", why.c_str() );
                    return 2;
                }
            }
            ShmTableReader r( path, layout() );
            if ( r.versions().size() != stored || w.size() != stored ) {
                return 3;
            }
            for ( const auto& entry : std::filesystem::directory_iterator( small_ ) ) {
                if ( entry.path().filename() != "table" ) {
                    return 4;  // a temporary file left behind
                }
            }
            // What needs no new file still works; a new table is refused.
            std::ofstream fill( small_ + "/filler", std::ios::binary );
            const std::string page( 4096, 'f' );
            while ( fill.write( page.data(), 4096 ).flush() ) {
            }
            put( w, 0, std::string( 1000, 'y' ) );
            if ( value( r, 0 ) != std::string( 1000, 'y' ) ) {
                return 5;
            }
            try {
                ShmTableWriter( small_ + "/second", layout() );
                return 6;
            } catch ( const Error& ) {
            }
            return std::filesystem::exists( small_ + "/second" ) ? 7 : 0;
        },
        60 );
    if ( code == kNoTmpfs ) {
        GTEST_SKIP() << kNoTmpfsWhy;
    }
    EXPECT_EQ( code, 0 ) << ended( code );
}

// A writer that lives and keeps 60 records half-written costs a reader one
// wait in all until it changes the table again, not one per lookup (a
// minute here).
TEST_F( ShmTablePeerTest, LiveWriterKeepingRecordsTornCostsOneWait ) {
    constexpr uint32_t kTorn = 60;
    Pipe ready;
    const pid_t writer = forkChild( [&] {
        ShmTableWriter w( path_, layout() );
        for ( uint32_t id = 0; id < kTorn; ++id ) {
            put( w, id, "v" );
        }
        for ( uint32_t id = 0; id < kTorn; ++id ) {
            breakSeqlockOf( path_, id );
        }
        poke( ready );
        pause();  // holds the writer's lock until killed
        return 0;
    } );
    ready.closeWrite();
    ASSERT_TRUE( awaitPoke( ready, 10 ) );
    const int code =
        reapChild( forkChild( [&] {
                       ShmTableReader r( path_, layout() );
                       for ( uint32_t id = 0; id < kTorn; ++id ) {
                           if ( !corrupt( [&] { value( r, id ); }, "half-written" ) ) {
                               return 1;
                           }
                       }
                       return 0;
                   } ),
                   20 );
    kill( writer, SIGKILL );
    reapChild( writer, 10 );
    EXPECT_EQ( code, 0 ) << ended( code );
}

}  // namespace

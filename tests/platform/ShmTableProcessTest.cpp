// Shared-memory tables across processes: torn reads, notification of final
// changes through ring overruns, a writer killed mid-stream and its lock, and
// the bell seen through inotify.
//
// Every other process is a fork() of the test binary that runs one function
// and _exits; it reports through pipes and its exit code, never through the
// test framework. Every wait is bounded by count and by time, so a fault
// fails the test instead of hanging it.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <random>

#include "platform/Error.h"
#include "tests/support/Child.h"
#include "tests/support/ShmTableKit.h"
#include "tests/support/TempDir.h"

using namespace Platform;
using namespace TestKit;

namespace {

TableLayout layout() {
    return shmLayout( "Test::Process" );
}

uint64_t fnv( const uint8_t* p, size_t n ) {
    uint64_t h = 0xcbf29ce484222325ull;
    for ( size_t i = 0; i < n; ++i ) {
        h = ( h ^ p[i] ) * 0x100000001b3ull;
    }
    return h;
}

// A value that proves its own integrity: the key id, a run of one byte whose
// length changes from write to write (so values move between size classes),
// and a hash of both.
std::string sealedValue( uint32_t id, uint64_t round ) {
    const size_t run = ( round * 37 + id * 11 ) % 240;
    std::string v( 4 + run + 8, '\0' );
    std::memcpy( v.data(), &id, 4 );
    std::memset( v.data() + 4, 'a' + static_cast<int>( ( round + id ) % 26 ), run );
    const uint64_t h = fnv( reinterpret_cast<const uint8_t*>( v.data() ), 4 + run );
    std::memcpy( v.data() + 4 + run, &h, 8 );
    return v;
}

bool sealedValueOk( uint32_t id, const std::vector<uint8_t>& v ) {
    const size_t body = v.size() - 8;
    return v.size() >= 12 && load<uint32_t>( v, 0 ) == id &&
           load<uint64_t>( v, body ) == fnv( v.data(), body );
}

// Writes every key sealed, pokes `ready`, then rewrites them round after
// round for `seconds`. The number of writes made.
uint64_t writeSealed( const std::string& path, uint32_t keys, uint64_t base,
                      double seconds, const Pipe& ready ) {
    ShmTableWriter w( path, layout() );
    for ( uint32_t id = 0; id < keys; ++id ) {
        put( w, id, sealedValue( id, base ) );
    }
    w.flush();
    poke( ready );
    const double end = monoNow() + seconds;
    uint64_t writes = 0;
    for ( uint64_t n = 1; n < 100'000'000 && monoNow() < end; ++n ) {
        for ( uint32_t id = 0; id < keys; ++id ) {
            writes += put( w, id, sealedValue( id, base + n ) );
        }
        w.flush();
    }
    return writes;
}

struct ReadCounts {
    uint64_t reads = 0;
    uint64_t bad = 0;
    uint64_t absent = 0;
    uint64_t errors = 0;
};

// Reads the sealed keys round and round for `seconds` or until `stop` is
// readable, following the file every `syncEvery` reads as the writer grows
// or replaces it. Only a CorruptionError is counted; any other error ends
// the reader.
ReadCounts readSealed( const std::string& path, uint32_t keys, double seconds,
                       uint32_t syncEvery, int stop = -1 ) {
    ShmTableReader r( path, layout() );
    ReadCounts c;
    std::vector<uint8_t> v;
    const double end = monoNow() + seconds;
    for ( uint64_t i = 0; i < 200'000'000 && monoNow() < end; ++i ) {
        const ShmKey k{ static_cast<uint32_t>( i % keys ) };
        try {
            if ( i % syncEvery == 0 ) {
                if ( stop >= 0 && readable( stop, 0 ) ) {
                    break;
                }
                r.sync( {} );
            }
            ++c.reads;
            if ( !r.get( &k, v ) ) {
                ++c.absent;
            } else if ( !sealedValueOk( k.id, v ) ) {
                ++c.bad;
            }
        } catch ( const CorruptionError& ) {
            ++c.errors;  // a record the writer died inside, or a probe across it
        }
    }
    return c;
}

using State = std::map<uint32_t, std::string>;

// The first key on which two states disagree, for failure messages.
std::string diff( const State& got, const State& want ) {
    const auto [g, w] = std::mismatch( got.begin(), got.end(), want.begin(), want.end() );
    auto show = []( State::const_iterator it, const State& m ) {
        return it == m.end()
                   ? std::string( "<end>" )
                   : std::to_string( it->first ) + "=" + it->second.substr( 0, 12 );
    };
    return " first difference: " + show( g, got ) + " instead of " + show( w, want );
}

// Reader-side view that a test keeps from notifications alone.
struct Mirror {
    State values;
    std::vector<uint32_t> reported;  // keys of the last sync, in order

    void sync( ShmTableReader& r ) {
        reported.clear();
        r.sync( [&]( const uint8_t* key ) { take( r, idOf( key ) ); } );
    }
    // What a reader does when told of `id`.
    void take( const ShmTableReader& r, uint32_t id ) {
        reported.push_back( id );
        const std::string v = value( r, id );
        if ( v == "<absent>" ) {
            values.erase( id );
        } else {
            values[id] = v;
        }
    }
    std::set<uint32_t> reportedSet() const {
        return std::set<uint32_t>( reported.begin(), reported.end() );
    }
};

struct Command {
    char op;
    uint32_t id;
};

class ShmTableProcessTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for ( pid_t pid : children_ ) {
            kill( pid, SIGKILL );
            waitpid( pid, nullptr, 0 );
        }
    }

    pid_t spawn( const std::function<int()>& fn ) {
        const pid_t pid = forkChild( fn );
        EXPECT_GT( pid, 0 ) << "fork: " << std::strerror( errno );
        if ( pid > 0 ) {
            children_.push_back( pid );
        }
        return pid;
    }
    int reap( pid_t pid, double seconds ) {
        children_.erase( std::remove( children_.begin(), children_.end(), pid ),
                         children_.end() );
        return reapChild( pid, seconds );
    }

    // A writer process that applies each command sent to it, flushes and
    // acknowledges; 'Q' ends it. It acknowledges once attached, too.
    pid_t spawnWriter( std::function<void( ShmTableWriter&, const Command& )> apply ) {
        const pid_t pid = spawn( [this, apply] {
            ShmTableWriter w( path_, layout() );
            poke( ack_ );
            Command c{};
            while ( readFull( command_.r, &c, sizeof( c ), 30 ) && c.op != 'Q' ) {
                apply( w, c );
                w.flush();
                poke( ack_ );
            }
            return c.op == 'Q' ? 0 : 1;
        } );
        EXPECT_TRUE( awaitPoke( ack_, 10 ) ) << "the writer did not attach";
        return pid;
    }
    void order( char op, uint32_t id = 0 ) {
        const Command c{ op, id };
        writeFull( command_.w, &c, sizeof( c ) );
        if ( op != 'Q' ) {
            ASSERT_TRUE( awaitPoke( ack_, 30 ) ) << "no ack of " << op;
        }
    }
    void quit( pid_t writer ) {
        order( 'Q' );
        EXPECT_EQ( reap( writer, 30 ), 0 );
    }

    TempDir dir_{ "shmproctest" };
    const std::string path_ = dir_ / "table";
    std::vector<pid_t> children_;
    Pipe command_, ack_;
};

// ------------------------------------------------------------ torn reads

TEST_F( ShmTableProcessTest, ReadersNeverSeeATornValue ) {
    constexpr uint32_t kKeys = 64;
    Pipe ready, written;
    const pid_t writer = spawn( [&] {
        const uint64_t writes = writeSealed( path_, kKeys, 0, 1.0, ready );
        writeFull( written.w, &writes, sizeof( writes ) );
        return 0;
    } );
    written.closeWrite();
    ASSERT_TRUE( awaitPoke( ready, 10 ) );

    Pipe results;
    std::vector<pid_t> readers;
    for ( int n = 0; n < 2; ++n ) {
        readers.push_back( spawn( [&] {
            const ReadCounts c = readSealed( path_, kKeys, 1.0, 1024 );
            writeFull( results.w, &c, sizeof( c ) );
            return 0;
        } ) );
    }
    results.closeWrite();
    for ( pid_t pid : readers ) {
        ReadCounts c;
        ASSERT_TRUE( readFull( results.r, &c, sizeof( c ), 30 ) );
        EXPECT_EQ( c.bad, 0u ) << "torn values among " << c.reads << " reads";
        EXPECT_EQ( c.absent, 0u );
        EXPECT_EQ( c.errors, 0u );
        EXPECT_GT( c.reads, 10'000u );
        EXPECT_EQ( reap( pid, 30 ), 0 );
    }
    uint64_t writes = 0;
    ASSERT_TRUE( readFull( written.r, &writes, sizeof( writes ), 30 ) );
    EXPECT_GT( writes, 10'000u );
    EXPECT_EQ( reap( writer, 30 ), 0 );
}

// Values of the largest size class (above 512 KiB) freed and reused across
// flushes: what another process reads stays intact.
TEST_F( ShmTableProcessTest, LargestValuesAreFreedAndReusedIntact ) {
    TableLayout big = shmLayout( "Test::Big", 1u << 20 );
    const size_t kLen = 600 * 1024;
    const pid_t writer = spawn( [&] {
        ShmTableWriter w( path_, big );
        // Record 1 is removed after record 2 is written.
        for ( const char c : std::string( "ab-cd" ) ) {
            c == '-' ? del( w, 1 ) : (void)put( w, c - 'a' + 1, std::string( kLen, c ) );
            w.flush();
        }
        return 0;
    } );
    ASSERT_EQ( reap( writer, 30 ), 0 ) << "the writer failed";
    ShmTableReader r( path_, big );
    EXPECT_EQ( value( r, 1 ), "<absent>" );
    for ( const auto& [id, c] : { std::pair{ 2u, 'b' }, { 3u, 'c' }, { 4u, 'd' } } ) {
        EXPECT_TRUE( value( r, id ) == std::string( kLen, c ) ) << "record " << id;
    }
}

// ------------------------------------------------------------ notification

struct Op {
    uint32_t id;
    bool del;
    std::string value;
};

// A seeded script of sets, deletes and re-adds over `keys` keys.
std::vector<Op> script( uint32_t seed, size_t n, uint32_t keys ) {
    std::mt19937 rng( seed );
    std::vector<Op> ops;
    for ( size_t i = 0; i < n; ++i ) {
        // A hot few keys see most deletes and re-adds.
        const uint32_t id = rng() % 4 == 0 ? rng() % 8 : rng() % keys;
        if ( rng() % 5 == 0 ) {
            ops.push_back( { id, true, {} } );
        } else {
            ops.push_back(
                { id, false,
                  "v" + std::to_string( i ) + std::string( rng() % 120, '.' ) } );
        }
    }
    return ops;
}

// Plays ops [from, to) into `w` when given, else into `state`.
void run( const std::vector<Op>& ops, size_t from, size_t to, ShmTableWriter* w,
          State* state = nullptr ) {
    for ( size_t i = from; i < to; ++i ) {
        if ( w ) {
            ops[i].del ? del( *w, ops[i].id ) : (void)put( *w, ops[i].id, ops[i].value );
        } else if ( ops[i].del ) {
            state->erase( ops[i].id );
        } else {
            ( *state )[ops[i].id] = ops[i].value;
        }
    }
}

TEST_F( ShmTableProcessTest, EveryFinalChangeIsReportedThroughRingOverruns ) {
    constexpr uint32_t kKeys = 400;
    constexpr size_t kRandomOps = 60'000, kBurstOps = 5'000, kBurstEvery = 1'500;
    const std::vector<Op> ops = script( 7, kRandomOps + kBurstOps, kKeys );
    State afterRandom, afterBurst;
    run( ops, 0, kRandomOps, nullptr, &afterRandom );
    afterBurst = afterRandom;
    run( ops, kRandomOps, ops.size(), nullptr, &afterBurst );

    const pid_t writer = spawnWriter( [&]( ShmTableWriter& w, const Command& c ) {
        if ( c.op == 'R' ) {
            // Bursts longer than the ring with pauses between them, so the
            // reader syncs both inside a burst and after a ring overrun.
            std::mt19937 rng( 11 );
            for ( size_t from = 0; from < kRandomOps; from += kBurstEvery ) {
                for ( size_t i = from; i < std::min( from + kBurstEvery, kRandomOps );
                      i += 100 ) {
                    run( ops, i, std::min( i + 100, kRandomOps ), &w );
                    w.flush();
                }
                usleep( rng() % 3000 );
            }
        } else {
            run( ops, kRandomOps, ops.size(), &w );
        }
    } );
    ShmTableReader r( path_, layout() );
    Mirror mirror;

    // Syncs at random moments while the writer runs, then once at the end.
    const Command random{ 'R', 0 };
    writeFull( command_.w, &random, sizeof( random ) );
    std::mt19937 rng( 5 );
    int syncs = 0;
    bool done = false;
    const double end = monoNow() + 60;
    while ( !done && syncs < 1'000'000 && monoNow() < end ) {
        if ( readable( ack_.r, static_cast<int>( rng() % 3 ) ) ) {
            done = awaitPoke( ack_, 1 );
        }
        mirror.sync( r );
        ++syncs;
    }
    ASSERT_TRUE( done ) << "the writer did not finish";
    mirror.sync( r );
    EXPECT_TRUE( mirror.values == afterRandom )
        << "after " << syncs << " syncs:" << diff( mirror.values, afterRandom );
    EXPECT_EQ( r.versions().size(), afterRandom.size() );

    // Far more than the ring between two syncs.
    order( 'B' );
    mirror.sync( r );
    std::set<uint32_t> differ;
    for ( uint32_t id = 0; id < kKeys; ++id ) {
        if ( afterRandom.count( id ) != afterBurst.count( id ) ||
             ( afterRandom.count( id ) && afterRandom[id] != afterBurst[id] ) ) {
            differ.insert( id );
        }
    }
    EXPECT_EQ( mirror.reportedSet(), differ );
    EXPECT_EQ( mirror.reported.size(), mirror.reportedSet().size() )
        << "a key reported twice";
    EXPECT_TRUE( mirror.values == afterBurst ) << diff( mirror.values, afterBurst );
    mirror.sync( r );
    EXPECT_TRUE( mirror.reported.empty() );
    quit( writer );
}

// The value a reader takes in while it is told of a change may already be
// newer than the change: it must still hear when that newer state goes.
TEST_F( ShmTableProcessTest, ValueTakenInDuringASyncIsNeverLeftStale ) {
    constexpr uint32_t kId = 7;
    const pid_t writer = spawnWriter( [&]( ShmTableWriter& w, const Command& c ) {
        c.op == 'D' ? del( w, kId )
                    : (void)put( w, kId, c.op == 'A' ? "again" : "first" );
    } );
    order( 'F' );
    ShmTableReader r( path_, layout() );
    std::string seen = value( r, kId );
    order( 'D' );
    bool told = false;
    r.sync( [&]( const uint8_t* ) {
        if ( !told ) {
            told = true;
            order( 'A' );  // the writer adds the key back meanwhile
        }
        seen = value( r, kId );
    } );
    ASSERT_TRUE( told );
    ASSERT_EQ( seen, "again" );
    order( 'D' );
    r.sync( [&]( const uint8_t* ) { seen = value( r, kId ); } );
    EXPECT_EQ( seen, "<absent>" )
        << "the removal of what the reader last saw was not reported";
    quit( writer );
}

// A key that moves to another slot, learnt of through a change of its old
// slot, must be followed there: when it leaves that slot before the reader
// reads it, the reader still hears that it went.
TEST_F( ShmTableProcessTest, KeyThatMovesSlotIsFollowedThere ) {
    // Three keys with one home slot in a 64-slot index, learnt from a scratch
    // table's stored hashes.
    std::map<uint64_t, std::vector<uint32_t>> byHome;
    {
        const std::string scratch = dir_ / "scratch";
        ShmTableWriter w( scratch, layout() );
        for ( uint32_t id = 1; id <= 2000; ++id ) {
            put( w, id, "x" );
        }
        for ( const auto& [id, slot] : liveSlots( readFile( scratch ) ) ) {
            byHome[slot.hash & 63].push_back( id );
        }
    }
    std::vector<uint32_t> same;
    for ( const auto& [home, ids] : byHome ) {
        if ( ids.size() >= 3 ) {
            same = ids;
            break;
        }
    }
    ASSERT_GE( same.size(), 3u );
    const uint32_t x = same[0], k = same[1], j = same[2];
    const uint32_t y = same.back() + 1;  // anything else
    auto slotOf = [&]( uint32_t id ) { return liveSlots( readFile( path_ ) )[id].index; };

    const pid_t writer =
        spawnWriter( [n = 0]( ShmTableWriter& w, const Command& c ) mutable {
            c.op == 'D' ? del( w, c.id )
                        : (void)put( w, c.id, "v" + std::to_string( n ) );
            ++n;
        } );
    order( 'S', x );
    order( 'S', k );  // behind x, one slot on
    order( 'S', y );
    ShmTableReader r( path_, layout() );
    Mirror mirror;
    for ( uint32_t id : { x, k, y } ) {
        mirror.take( r, id );
    }
    order( 'D', x );
    mirror.sync( r );
    const uint32_t home = slotOf( k ) - 1;
    order( 'D', k );
    order( 'S', y );
    order( 'S', k );  // back at home, where x was
    ASSERT_EQ( slotOf( k ), home );

    // While the reader is told of y, k leaves its new slot and j takes it.
    bool moved = false;
    mirror.reported.clear();
    r.sync( [&]( const uint8_t* key ) {
        const uint32_t id = idOf( key );
        mirror.take( r, id );
        if ( id == y && !moved ) {
            moved = true;
            order( 'D', k );
            order( 'S', j );
        }
    } );
    ASSERT_TRUE( moved );
    ASSERT_EQ( slotOf( j ), home );
    mirror.sync( r );
    EXPECT_EQ( mirror.values.count( k ), 0u )
        << "the reader still holds " << mirror.values[k];
    const ShmKey gone{ k };
    EXPECT_EQ( r.versions().count( std::string( (const char*)&gone, sizeof( gone ) ) ),
               0u );
    quit( writer );
}

// A table removed and made again by another process between two syncs: the
// new file's record versions start over, and may equal the old ones. Removed
// for good, it reports every key once more.
TEST_F( ShmTableProcessTest, TableRemadeBetweenTwoSyncsReportsItsKeys ) {
    auto writeTable = [&]( const std::string& v, bool removeFirst ) {
        return spawn( [=, this] {
            if ( removeFirst && unlink( path_.c_str() ) != 0 ) {
                return 1;
            }
            ShmTableWriter w( path_, layout() );
            for ( uint32_t id = 1; id <= 3; ++id ) {
                put( w, id, v );
            }
            return 0;
        } );
    };
    ASSERT_EQ( reap( writeTable( "old", false ), 30 ), 0 );
    ShmTableReader r( path_, layout() );
    Mirror mirror;
    mirror.sync( r );
    ASSERT_EQ( reap( writeTable( "new", true ), 30 ), 0 );
    mirror.sync( r );
    EXPECT_EQ( mirror.reportedSet(), ( std::set<uint32_t>{ 1, 2, 3 } ) );
    EXPECT_EQ( value( r, 2 ), "new" );

    ASSERT_EQ( unlink( path_.c_str() ), 0 );
    mirror.sync( r );
    EXPECT_EQ( mirror.reported.size(), 3u );
    EXPECT_TRUE( mirror.values.empty() );
    EXPECT_FALSE( r.attached() );
    ASSERT_EQ( reap( writeTable( "new", false ), 30 ), 0 );
    mirror.sync( r );
    EXPECT_EQ( mirror.reportedSet(), ( std::set<uint32_t>{ 1, 2, 3 } ) );
    EXPECT_EQ( mirror.values.size(), 3u );
}

// ------------------------------------------------------ killed writers, the lock

TEST_F( ShmTableProcessTest, KilledWriterLeavesAReadableTableThatTheNextWriterKeeps ) {
    constexpr uint32_t kKeys = 200;
    std::mt19937 rng( 3 );
    for ( int round = 0; round < 4; ++round ) {
        SCOPED_TRACE( "round " + std::to_string( round ) );
        Pipe ready;
        const pid_t writer = spawn( [&] {
            writeSealed( path_, kKeys, static_cast<uint64_t>( round ) << 32, 30, ready );
            return 0;  // killed long before
        } );
        ASSERT_TRUE( awaitPoke( ready, 10 ) );

        // A reader process reads through the kill and after it.
        Pipe stop, results;
        const pid_t reader = spawn( [&] {
            const ReadCounts c = readSealed( path_, kKeys, 30, 256, stop.r );
            writeFull( results.w, &c, sizeof( c ) );
            return 0;
        } );
        results.closeWrite();
        usleep( 1000 + rng() % 40'000 );
        try {
            ShmTableWriter second( path_, layout() );
            ADD_FAILURE() << "a second writer attached";
        } catch ( const Error& e ) {
            EXPECT_NE( std::string( e.what() ).find( "already has a writer" ),
                       std::string::npos )
                << e.what();
            EXPECT_NE( std::string( e.what() ).find( path_ ), std::string::npos )
                << e.what();
        }
        ASSERT_EQ( kill( writer, SIGKILL ), 0 );
        EXPECT_EQ( reap( writer, 10 ), -SIGKILL );
        usleep( 20'000 );
        poke( stop );
        ReadCounts c;
        ASSERT_TRUE( readFull( results.r, &c, sizeof( c ), 30 ) ) << "reader hung";
        EXPECT_EQ( reap( reader, 10 ), 0 );
        EXPECT_EQ( c.bad, 0u );
        EXPECT_EQ( c.absent, 0u );
        EXPECT_GT( c.reads, 0u );

        // Every record reads as complete or as corrupt, at once.
        ShmTableReader r( path_, layout() );
        Mirror mirror;
        mirror.sync( r );
        std::map<uint32_t, std::vector<uint8_t>> complete;
        std::set<uint32_t> broken;
        const double start = monoNow();
        for ( uint32_t id = 0; id < kKeys; ++id ) {
            const ShmKey k{ id };
            std::vector<uint8_t> v;
            try {
                ASSERT_TRUE( r.get( &k, v ) );
                EXPECT_TRUE( sealedValueOk( id, v ) );
                complete[id] = v;
            } catch ( const CorruptionError& ) {
                broken.insert( id );
            }
        }
        EXPECT_LT( monoNow() - start, 5.0 ) << "reads behind a dead writer waited";
        EXPECT_LT( broken.size(), kKeys );

        // The lock died with its writer. The next writer keeps every complete
        // record and drops at most the one its writer died inside.
        ShmTableWriter w( path_, layout() );
        EXPECT_GE( w.size(), kKeys - 1 );
        for ( const auto& [id, v] : complete ) {
            EXPECT_EQ( value( w, id ), std::string( v.begin(), v.end() ) )
                << "complete record " << id;
        }
        mirror.sync( r );
        EXPECT_EQ( r.versions().size(), w.size() );
        for ( uint32_t id = 0; id < kKeys; ++id ) {
            EXPECT_EQ( value( r, id ), value( w, id ) );
        }
        // Only a dropped record can have changed for the reader.
        for ( uint32_t id : mirror.reported ) {
            EXPECT_EQ( broken.count( id ), 1u ) << id;
            EXPECT_EQ( value( w, id ), "<absent>" );
        }
    }
}

// A record a writer died inside: readers see it as corrupt at once, and the
// next writer drops it. A reader that meets such a record asks whether a
// writer lives by trying the lock; that question must not turn a new writer
// away.
TEST_F( ShmTableProcessTest, HalfWrittenRecordIsCorruptAndTheNextWriterDropsIt ) {
    {
        ShmTableWriter w( path_, layout() );
        for ( uint32_t id = 0; id < 10; ++id ) {
            put( w, id, "value " + std::to_string( id ) );
        }
    }
    ShmTableReader r( path_, layout() );
    Mirror mirror;
    mirror.sync( r );
    ASSERT_EQ( reap( spawn( [&] { return breakSeqlockOf( path_, 5 ) ? 0 : 1; } ), 10 ),
               0 );

    const double start = monoNow();
    EXPECT_THROW( value( r, 5 ), CorruptionError );
    // A live writer would get a second to finish; a dead one gets none.
    EXPECT_LT( monoNow() - start, 0.5 );
    for ( uint32_t id = 0; id < 10; ++id ) {
        try {
            EXPECT_EQ( value( r, id ), "value " + std::to_string( id ) );
        } catch ( const CorruptionError& ) {
            // Only record 5, or a key whose probe crosses its slot.
        }
    }
    {
        ShmTableWriter w( path_, layout() );
        EXPECT_EQ( w.size(), 9u );
        EXPECT_EQ( value( w, 5 ), "<absent>" );
        mirror.sync( r );
        EXPECT_EQ( mirror.reportedSet(), ( std::set<uint32_t>{ 5 } ) );
        EXPECT_EQ( value( r, 5 ), "<absent>" );
        EXPECT_EQ( value( r, 6 ), "value 6" );
        put( w, 5, "v" );
    }

    // Each new writer drops the record and finds it half-written again,
    // while another process keeps probing it.
    ASSERT_TRUE( breakSeqlockOf( path_, 5 ) );
    Pipe ready, stop;
    const pid_t prober = spawn( [&] {
        ShmTableReader probe( path_, layout() );
        poke( ready );
        const double end = monoNow() + 30;
        for ( uint64_t i = 0; i < 100'000'000 && monoNow() < end; ++i ) {
            if ( i % 64 == 0 ) {
                if ( readable( stop.r, 0 ) ) {
                    break;
                }
                probe.sync( {} );
            }
            try {
                value( probe, 5 );
            } catch ( const CorruptionError& ) {
            }
        }
        return 0;
    } );
    ASSERT_TRUE( awaitPoke( ready, 10 ) );
    int attempts = 0, refused = 0;
    std::string why;
    const double end = monoNow() + 20;
    while ( attempts < 200 && monoNow() < end ) {
        ++attempts;
        try {
            ShmTableWriter w( path_, layout() );
            put( w, 5, "v" );
        } catch ( const Error& e ) {
            ++refused;
            why = e.what();
            continue;
        }
        ASSERT_TRUE( breakSeqlockOf( path_, 5 ) );
        usleep( 2000 );  // the prober moves to the new file and meets the record
    }
    poke( stop );
    EXPECT_EQ( reap( prober, 30 ), 0 );
    EXPECT_EQ( refused, 0 ) << refused << " of " << attempts
                            << " attaches refused: " << why;
}

// ------------------------------------------------------------ inotify

TEST_F( ShmTableProcessTest, ReaderProcessWakesOnTheBellOfAWriterProcess ) {
    constexpr uint32_t kStop = 100'000, kMany = 2'000;
    {
        ShmTableWriter w( path_, layout() );
        put( w, 0, "start" );
    }
    Pipe ready, seen;
    const pid_t reader = spawn( [&] {
        ShmTableReader r( path_, layout() );
        int in = inotify_init1( IN_CLOEXEC | IN_NONBLOCK );
        int wd = -1;
        ino_t watched = 0;
        // Watches the file the reader has mapped; a writer that replaces the
        // file rings the old one, after which the new one is watched.
        auto watchFile = [&] {
            struct stat st;
            if ( fstat( r.fd(), &st ) != 0 || st.st_ino == watched ) {
                return false;
            }
            if ( wd >= 0 ) {
                inotify_rm_watch( in, wd );
            }
            wd = inotify_add_watch( in, path_.c_str(), IN_MODIFY | IN_ATTRIB );
            watched = st.st_ino;
            return true;
        };
        bool stopped = false;
        auto doSync = [&] {
            r.sync( [&]( const uint8_t* key ) {
                const uint32_t id = idOf( key );
                value( r, id );  // what a reader told of a key does
                writeFull( seen.w, &id, sizeof( id ) );
                stopped = stopped || id == kStop;
            } );
        };
        watchFile();
        poke( ready );
        int wakes = 0;
        const double end = monoNow() + 60;
        while ( !stopped && monoNow() < end ) {
            if ( !readable( in, 100 ) ) {
                continue;  // only the bell may make this reader sync
            }
            char buf[4096];
            while ( read( in, buf, sizeof( buf ) ) > 0 ) {
            }
            ++wakes;
            doSync();
            if ( watchFile() ) {
                doSync();  // what the new file got before the watch
            }
        }
        return stopped && wakes > 0 ? 0 : 1;
    } );
    seen.closeWrite();
    ASSERT_TRUE( awaitPoke( ready, 10 ) );

    auto expectSeen = [&]( std::set<uint32_t> want ) {
        uint32_t id;
        while ( !want.empty() && readFull( seen.r, &id, sizeof( id ), 10 ) ) {
            want.erase( id );
        }
        EXPECT_TRUE( want.empty() ) << want.size() << " keys not reported, first "
                                    << ( want.empty() ? 0 : *want.begin() );
    };
    // Re-attaching replaces the file: the reader follows it.
    ShmTableWriter w( path_, layout() );
    for ( uint32_t id = 1; id <= 5; ++id ) {
        put( w, id, "one at a time" );
        w.flush();
        expectSeen( { id } );
    }
    // Growth replaces the file in the middle of a batch.
    std::set<uint32_t> many;
    for ( uint32_t id = 10; id < 10 + kMany; ++id ) {
        put( w, id, std::string( id % 300, 'g' ) );
        many.insert( id );
    }
    w.flush();
    expectSeen( many );
    put( w, 1, "changed after growth" );
    w.flush();
    expectSeen( { 1 } );
    put( w, kStop, "stop" );
    w.flush();
    expectSeen( { kStop } );
    EXPECT_EQ( reap( reader, 30 ), 0 );
}

}  // namespace

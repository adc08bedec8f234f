// Shared-memory tables across processes: torn reads, notification of final
// changes through ring overruns, a writer killed mid-stream, the writer lock,
// and the bell seen through inotify.
//
// Every other process is a fork() of the test binary that runs one function
// and _exits; it reports through pipes and its exit code, never through the
// test framework. Every wait is bounded by count and by time, so a fault
// fails the test instead of hanging it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/ShmTable.h"

using namespace Platform;

namespace {

struct Key {
    uint32_t id;
    uint32_t pad = 0;
};

TableLayout layout() {
    return TableLayout{ "Test::Process",
                        tableLayoutHash( "Test::Process:key u32:value bytes" ),
                        sizeof( Key ), 4096 };
}

double monoNow() {
    timespec ts;
    clock_gettime( CLOCK_MONOTONIC, &ts );
    return static_cast<double>( ts.tv_sec ) + static_cast<double>( ts.tv_nsec ) * 1e-9;
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
    if ( v.size() < 12 ) {
        return false;
    }
    const size_t body = v.size() - 8;
    uint32_t got;
    std::memcpy( &got, v.data(), 4 );
    for ( size_t i = 5; i < body; ++i ) {
        if ( v[i] != v[4] ) {
            return false;
        }
    }
    uint64_t h;
    std::memcpy( &h, v.data() + body, 8 );
    return got == id && h == fnv( v.data(), body );
}

bool put( ShmTableWriter& w, uint32_t id, const std::string& v ) {
    Key k{ id };
    return w.set( &k, v.data(), static_cast<uint32_t>( v.size() ) );
}

template <typename T>
std::string value( const T& t, uint32_t id ) {
    Key k{ id };
    std::vector<uint8_t> v;
    return t.get( &k, v ) ? std::string( v.begin(), v.end() ) : "<absent>";
}

uint32_t idOf( const uint8_t* key ) {
    Key k;
    std::memcpy( &k, key, sizeof( k ) );
    return k.id;
}

struct Pipe {
    Pipe() {
        int fds[2];
        if ( pipe2( fds, O_CLOEXEC ) == 0 ) {
            r = fds[0];
            w = fds[1];
        }
    }
    ~Pipe() {
        ::close( r );
        closeWrite();
    }
    // Once the children that write have been forked: their exit is then an
    // end of file instead of a wait until the timeout.
    void closeWrite() {
        ::close( w );
        w = -1;
    }
    int r = -1;
    int w = -1;
};

bool writeFull( int fd, const void* data, size_t n ) {
    const auto* p = static_cast<const uint8_t*>( data );
    while ( n ) {
        ssize_t k = ::write( fd, p, n );
        if ( k < 0 && errno == EINTR ) {
            continue;
        }
        if ( k <= 0 ) {
            return false;
        }
        p += k;
        n -= static_cast<size_t>( k );
    }
    return true;
}

// False on end of file or when `seconds` pass first.
bool readFull( int fd, void* data, size_t n, double seconds ) {
    auto* p = static_cast<uint8_t*>( data );
    const double end = monoNow() + seconds;
    while ( n ) {
        const double left = end - monoNow();
        if ( left <= 0 ) {
            return false;
        }
        pollfd pfd{ fd, POLLIN, 0 };
        if ( poll( &pfd, 1, static_cast<int>( left * 1000 ) + 1 ) <= 0 ) {
            continue;
        }
        ssize_t k = ::read( fd, p, n );
        if ( k < 0 && errno == EINTR ) {
            continue;
        }
        if ( k <= 0 ) {
            return false;
        }
        p += k;
        n -= static_cast<size_t>( k );
    }
    return true;
}

bool readable( int fd, int timeoutMs ) {
    pollfd pfd{ fd, POLLIN, 0 };
    return poll( &pfd, 1, timeoutMs ) > 0;
}

void signal( const Pipe& p, char c = 1 ) {
    writeFull( p.w, &c, 1 );
}
bool awaitSignal( const Pipe& p, double seconds, char* got = nullptr ) {
    char c;
    if ( !readFull( p.r, &c, 1, seconds ) ) {
        return false;
    }
    if ( got ) {
        *got = c;
    }
    return true;
}

struct SlotInfo {
    uint32_t slot;
    uint64_t hash;
};

// Where each live record sits in the index, and its stored key hash.
std::map<uint32_t, SlotInfo> liveSlots( const std::string& path ) {
    std::map<uint32_t, SlotInfo> out;
    int fd = ::open( path.c_str(), O_RDONLY | O_CLOEXEC );
    struct stat st;
    if ( fd < 0 || fstat( fd, &st ) != 0 ) {
        ::close( fd );
        return out;
    }
    std::vector<uint8_t> f( static_cast<size_t>( st.st_size ) );
    const bool ok = pread( fd, f.data(), f.size(), 0 ) == st.st_size;
    ::close( fd );
    uint32_t slotSize = 0, capacity = 0;
    uint64_t indexOffset = 0;
    if ( ok ) {
        std::memcpy( &slotSize, f.data() + 116, 4 );
        std::memcpy( &indexOffset, f.data() + 120, 8 );
        std::memcpy( &capacity, f.data() + 128, 4 );
    }
    for ( uint32_t i = 0; i < capacity; ++i ) {
        const uint8_t* slot = f.data() + indexOffset + uint64_t( i ) * slotSize;
        uint32_t state, id;
        uint64_t hash;
        std::memcpy( &state, slot + 28, 4 );
        std::memcpy( &hash, slot + 32, 8 );
        std::memcpy( &id, slot + 40, 4 );
        if ( state == 1 ) {
            out[id] = SlotInfo{ i, hash };
        }
    }
    return out;
}

// Clears the "not mid-write" bit of a record's seqlock word, as a writer that
// died inside a write leaves it. The slot is found from the header's index
// geometry (offsets as in docs/state-tree.md), by key.
bool breakSeqlockOf( const std::string& path, uint32_t id ) {
    constexpr size_t kSlotSizeAt = 116, kIndexOffsetAt = 120, kIndexCapacityAt = 128;
    constexpr size_t kStateAt = 28, kKeyAt = 40;
    int fd = ::open( path.c_str(), O_RDWR | O_CLOEXEC );
    struct stat st;
    if ( fd < 0 || fstat( fd, &st ) != 0 ) {
        ::close( fd );
        return false;
    }
    const size_t size = static_cast<size_t>( st.st_size );
    void* p = mmap( nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
    ::close( fd );
    if ( p == MAP_FAILED ) {
        return false;
    }
    auto* base = static_cast<uint8_t*>( p );
    uint32_t slotSize, capacity;
    uint64_t indexOffset;
    std::memcpy( &slotSize, base + kSlotSizeAt, 4 );
    std::memcpy( &indexOffset, base + kIndexOffsetAt, 8 );
    std::memcpy( &capacity, base + kIndexCapacityAt, 4 );
    const Key want{ id };
    bool found = false;
    for ( uint32_t i = 0; i < capacity && !found; ++i ) {
        uint8_t* slot = base + indexOffset + static_cast<uint64_t>( i ) * slotSize;
        uint32_t state;
        std::memcpy( &state, slot + kStateAt, 4 );
        if ( state == 1 && std::memcmp( slot + kKeyAt, &want, sizeof( want ) ) == 0 ) {
            slot[0] ^= 1;
            found = true;
        }
    }
    munmap( p, size );
    return found;
}

// The keys on which two states disagree, for failure messages.
std::string diff( const std::map<uint32_t, std::string>& got,
                  const std::map<uint32_t, std::string>& want ) {
    auto show = [&]( const std::map<uint32_t, std::string>& m, uint32_t id ) {
        auto it = m.find( id );
        return it == m.end() ? std::string( "<absent>" ) : it->second;
    };
    std::set<uint32_t> ids;
    for ( const auto* m : { &got, &want } ) {
        for ( const auto& [id, v] : *m ) {
            ids.insert( id );
        }
    }
    std::string out;
    for ( uint32_t id : ids ) {
        if ( show( got, id ) != show( want, id ) ) {
            out += " key " + std::to_string( id ) + ": " +
                   show( got, id ).substr( 0, 12 ) + " instead of " +
                   show( want, id ).substr( 0, 12 ) + ";";
        }
    }
    return out;
}

// Reader-side view that a test keeps from notifications alone.
struct Mirror {
    std::map<uint32_t, std::string> values;
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

class ShmTableProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/dev/shm/shmproctest-XXXXXX";
        ASSERT_NE( mkdtemp( tmpl ), nullptr );
        dir_ = tmpl;
        path_ = dir_ + "/table";
    }
    void TearDown() override {
        for ( pid_t pid : children_ ) {
            kill( pid, SIGKILL );
            waitpid( pid, nullptr, 0 );
        }
        std::filesystem::remove_all( dir_ );
    }

    // Runs `fn` in a child; its result is the exit code.
    pid_t spawn( const std::function<int()>& fn ) {
        fflush( nullptr );
        const pid_t pid = fork();
        if ( pid == 0 ) {
            int code = 90;
            try {
                code = fn();
            } catch ( const std::exception& e ) {
                fprintf( stderr, "child %d: %s\n", getpid(), e.what() );
                code = 91;
            } catch ( ... ) {
                code = 92;
            }
            _exit( code );
        }
        EXPECT_GT( pid, 0 ) << "fork: " << std::strerror( errno );
        if ( pid > 0 ) {
            children_.push_back( pid );
        }
        return pid;
    }

    // The child's exit code; -SIGNAL when a signal ended it; -1000 when it
    // was still running after `seconds` (it is killed then).
    int reap( pid_t pid, double seconds ) {
        const double end = monoNow() + seconds;
        int status = 0;
        pid_t got = 0;
        while ( ( got = waitpid( pid, &status, WNOHANG ) ) == 0 && monoNow() < end ) {
            usleep( 1000 );
        }
        int result;
        if ( got == pid ) {
            result = WIFEXITED( status ) ? WEXITSTATUS( status ) : -WTERMSIG( status );
        } else {
            kill( pid, SIGKILL );
            waitpid( pid, nullptr, 0 );
            result = -1000;
        }
        children_.erase( std::remove( children_.begin(), children_.end(), pid ),
                         children_.end() );
        return result;
    }

    std::string dir_;
    std::string path_;
    std::vector<pid_t> children_;
};

// ------------------------------------------------------------ torn reads

struct ReadCounts {
    uint64_t reads = 0;
    uint64_t bad = 0;
    uint64_t absent = 0;
    uint64_t errors = 0;
};

TEST_F( ShmTableProcessTest, ReadersNeverSeeATornValue ) {
    constexpr uint32_t kKeys = 64;
    constexpr double kRunSeconds = 1.0;
    Pipe ready, written;
    const pid_t writer = spawn( [&] {
        ShmTableWriter w( path_, layout() );
        for ( uint32_t id = 0; id < kKeys; ++id ) {
            put( w, id, sealedValue( id, 0 ) );
        }
        w.flush();
        signal( ready );
        const double end = monoNow() + kRunSeconds;
        uint64_t writes = 0;
        for ( uint64_t round = 1; round < 100'000'000 && monoNow() < end; ++round ) {
            for ( uint32_t id = 0; id < kKeys; ++id ) {
                writes += put( w, id, sealedValue( id, round ) );
            }
            w.flush();
        }
        writeFull( written.w, &writes, sizeof( writes ) );
        return 0;
    } );
    written.closeWrite();
    ASSERT_TRUE( awaitSignal( ready, 10 ) );

    Pipe results;
    std::vector<pid_t> readers;
    for ( int n = 0; n < 2; ++n ) {
        readers.push_back( spawn( [&] {
            ShmTableReader r( path_, layout() );
            ReadCounts c;
            std::vector<uint8_t> v;
            const double end = monoNow() + kRunSeconds;
            for ( uint64_t i = 0; i < 200'000'000 && monoNow() < end; ++i ) {
                if ( i % 1024 == 0 ) {
                    r.sync( {} );  // follows the file when the writer grows it
                }
                const Key k{ static_cast<uint32_t>( i % kKeys ) };
                try {
                    ++c.reads;
                    if ( !r.get( &k, v ) ) {
                        ++c.absent;
                    } else if ( !sealedValueOk( k.id, v ) ) {
                        ++c.bad;
                    }
                } catch ( const Error& ) {
                    ++c.errors;
                }
            }
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
    TableLayout big = layout();
    big.typeName = "Test::Big";
    big.maxValueSize = 1u << 20;
    const size_t kLen = 600 * 1024;
    const pid_t writer = spawn( [&] {
        ShmTableWriter w( path_, big );
        auto putBig = [&]( uint32_t id, char c ) {
            put( w, id, std::string( kLen, c ) );
            w.flush();
        };
        putBig( 1, 'a' );
        putBig( 2, 'b' );
        w.del( &(const Key&)Key{ 1 } );
        w.flush();
        putBig( 3, 'c' );
        putBig( 4, 'd' );
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

void apply( const std::vector<Op>& ops, size_t from, size_t to,
            std::map<uint32_t, std::string>& state ) {
    for ( size_t i = from; i < to; ++i ) {
        if ( ops[i].del ) {
            state.erase( ops[i].id );
        } else {
            state[ops[i].id] = ops[i].value;
        }
    }
}

void run( ShmTableWriter& w, const std::vector<Op>& ops, size_t from, size_t to ) {
    for ( size_t i = from; i < to; ++i ) {
        Key k{ ops[i].id };
        if ( ops[i].del ) {
            w.del( &k );
        } else {
            put( w, ops[i].id, ops[i].value );
        }
    }
}

TEST_F( ShmTableProcessTest, EveryFinalChangeIsReportedThroughRingOverruns ) {
    constexpr uint32_t kKeys = 400;
    constexpr size_t kRandomOps = 60'000, kBurstOps = 5'000, kBurstEvery = 1'500;
    const std::vector<Op> ops = script( 7, kRandomOps + kBurstOps, kKeys );
    std::map<uint32_t, std::string> afterRandom, afterBurst;
    apply( ops, 0, kRandomOps, afterRandom );
    afterBurst = afterRandom;
    apply( ops, kRandomOps, ops.size(), afterBurst );
    // The last batch: one key changed twice, one added and removed again, one
    // removed, one added.
    const uint32_t changed = afterBurst.begin()->first;
    const uint32_t removed = std::next( afterBurst.begin() )->first;
    std::vector<uint32_t> absent;
    for ( uint32_t id = 0; absent.size() < 2; ++id ) {
        if ( !afterBurst.count( id ) ) {
            absent.push_back( id );
        }
    }
    const uint32_t transient = absent[0], added = absent[1];

    Pipe command, ack;
    const pid_t writer = spawn( [&] {
        ShmTableWriter w( path_, layout() );
        signal( ack );
        char c = 0;
        while ( awaitSignal( command, 30, &c ) && c != 'Q' ) {
            if ( c == 'R' ) {
                // Bursts longer than the ring with pauses between them, so the
                // reader syncs both inside a burst and after a ring overrun.
                std::mt19937 rng( 11 );
                for ( size_t from = 0; from < kRandomOps; from += kBurstEvery ) {
                    for ( size_t i = from; i < std::min( from + kBurstEvery, kRandomOps );
                          i += 100 ) {
                        run( w, ops, i, std::min( i + 100, kRandomOps ) );
                        w.flush();
                    }
                    usleep( rng() % 3000 );
                }
            } else if ( c == 'B' ) {
                run( w, ops, kRandomOps, ops.size() );
            } else if ( c == 'S' ) {
                put( w, changed, "first" );
                put( w, changed, "second" );
                put( w, transient, "brief" );
                w.del( &(const Key&)Key{ transient } );
                w.del( &(const Key&)Key{ removed } );
                put( w, added, "new" );
            }
            w.flush();
            signal( ack );
        }
        return c == 'Q' ? 0 : 1;
    } );
    ASSERT_TRUE( awaitSignal( ack, 10 ) );
    ShmTableReader r( path_, layout() );
    Mirror mirror;

    // Syncs at random moments while the writer runs, then once at the end.
    signal( command, 'R' );
    std::mt19937 rng( 5 );
    int syncs = 0;
    bool done = false;
    const double end = monoNow() + 60;
    while ( !done && syncs < 1'000'000 && monoNow() < end ) {
        if ( readable( ack.r, static_cast<int>( rng() % 3 ) ) ) {
            done = awaitSignal( ack, 1 );
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
    signal( command, 'B' );
    ASSERT_TRUE( awaitSignal( ack, 30 ) );
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

    // A sync right after the last change reports each changed key once.
    signal( command, 'S' );
    ASSERT_TRUE( awaitSignal( ack, 30 ) );
    mirror.sync( r );
    EXPECT_EQ( mirror.reported.size(), 3u );
    EXPECT_EQ( mirror.reportedSet(), ( std::set<uint32_t>{ changed, removed, added } ) );
    EXPECT_EQ( mirror.values[changed], "second" );
    EXPECT_EQ( mirror.values.count( removed ), 0u );
    EXPECT_EQ( mirror.values[added], "new" );
    mirror.sync( r );
    EXPECT_TRUE( mirror.reported.empty() );

    signal( command, 'Q' );
    EXPECT_EQ( reap( writer, 30 ), 0 );
}

// The value a reader takes in while it is told of a change may already be
// newer than the change: it must still hear when that newer state goes.
TEST_F( ShmTableProcessTest, ValueTakenInDuringASyncIsNeverLeftStale ) {
    constexpr uint32_t kId = 7;
    Pipe command, ack;
    const pid_t writer = spawn( [&] {
        ShmTableWriter w( path_, layout() );
        put( w, kId, "first" );
        w.flush();
        signal( ack );
        char c = 0;
        while ( awaitSignal( command, 30, &c ) && c != 'Q' ) {
            if ( c == 'D' ) {
                w.del( &(const Key&)Key{ kId } );
            } else {
                put( w, kId, "again" );
            }
            w.flush();
            signal( ack );
        }
        return c == 'Q' ? 0 : 1;
    } );
    ASSERT_TRUE( awaitSignal( ack, 10 ) );
    ShmTableReader r( path_, layout() );
    std::string seen = value( r, kId );
    auto order = [&]( char c ) {
        signal( command, c );
        ASSERT_TRUE( awaitSignal( ack, 10 ) );
    };
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
    signal( command, 'Q' );
    EXPECT_EQ( reap( writer, 30 ), 0 );
}

// A key that moves to another slot, learnt of through a change of its old
// slot, must be followed there: when it leaves that slot before the reader
// reads it, the reader still hears that it went.
TEST_F( ShmTableProcessTest, KeyThatMovesSlotIsFollowedThere ) {
    // Three keys with one home slot in a 64-slot index, learnt from a scratch
    // table's stored hashes.
    std::map<uint64_t, std::vector<uint32_t>> byHome;
    {
        const std::string scratch = dir_ + "/scratch";
        ShmTableWriter w( scratch, layout() );
        for ( uint32_t id = 1; id <= 2000; ++id ) {
            put( w, id, "x" );
        }
        for ( const auto& [id, info] : liveSlots( scratch ) ) {
            byHome[info.hash & 63].push_back( id );
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

    struct Command {
        char op;
        uint32_t id;
    };
    Pipe command, ack;
    const pid_t writer = spawn( [&] {
        ShmTableWriter w( path_, layout() );
        signal( ack );
        Command c{};
        for ( int n = 0; readFull( command.r, &c, sizeof( c ), 30 ) && c.op != 'Q';
              ++n ) {
            if ( c.op == 'D' ) {
                w.del( &(const Key&)Key{ c.id } );
            } else {
                put( w, c.id, "v" + std::to_string( n ) );
            }
            w.flush();
            signal( ack );
        }
        return c.op == 'Q' ? 0 : 1;
    } );
    ASSERT_TRUE( awaitSignal( ack, 10 ) );
    auto order = [&]( char op, uint32_t id ) {
        const Command c{ op, id };
        writeFull( command.w, &c, sizeof( c ) );
        ASSERT_TRUE( awaitSignal( ack, 10 ) );
    };
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
    const uint32_t home = liveSlots( path_ )[k].slot - 1;
    order( 'D', k );
    order( 'S', y );
    order( 'S', k );  // back at home, where x was
    ASSERT_EQ( liveSlots( path_ )[k].slot, home );

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
    ASSERT_EQ( liveSlots( path_ )[j].slot, home );
    mirror.sync( r );
    EXPECT_EQ( mirror.values.count( k ), 0u )
        << "the reader still holds " << mirror.values[k];
    const Key gone{ k };
    EXPECT_EQ( r.versions().count( std::string( (const char*)&gone, sizeof( gone ) ) ),
               0u );
    const Command quit{ 'Q', 0 };
    writeFull( command.w, &quit, sizeof( quit ) );
    EXPECT_EQ( reap( writer, 30 ), 0 );
}

// A table removed and made again by another process between two syncs: the
// new file's record versions start over, and may equal the old ones.
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
}

// ------------------------------------------------------------ killed writers

TEST_F( ShmTableProcessTest, KilledWriterLeavesAReadableTableThatTheNextWriterKeeps ) {
    constexpr uint32_t kKeys = 200;
    std::mt19937 rng( 3 );
    for ( int round = 0; round < 4; ++round ) {
        SCOPED_TRACE( "round " + std::to_string( round ) );
        Pipe ready;
        const pid_t writer = spawn( [&] {
            ShmTableWriter w( path_, layout() );
            const uint64_t base = static_cast<uint64_t>( round ) << 32;
            for ( uint32_t id = 0; id < kKeys; ++id ) {
                put( w, id, sealedValue( id, base ) );
            }
            w.flush();
            signal( ready );
            const double end = monoNow() + 30;  // killed long before
            for ( uint64_t n = 1; n < 100'000'000 && monoNow() < end; ++n ) {
                for ( uint32_t id = 0; id < kKeys; ++id ) {
                    put( w, id, sealedValue( id, base + n ) );
                }
                w.flush();
            }
            return 0;
        } );
        ASSERT_TRUE( awaitSignal( ready, 10 ) );

        // A reader process reads through the kill and after it.
        Pipe stop, results;
        const pid_t reader = spawn( [&] {
            ShmTableReader r( path_, layout() );
            ReadCounts c;
            std::vector<uint8_t> v;
            const double end = monoNow() + 30;
            for ( uint64_t i = 0; i < 200'000'000 && monoNow() < end; ++i ) {
                if ( i % 256 == 0 ) {
                    if ( readable( stop.r, 0 ) ) {
                        break;
                    }
                    try {
                        r.sync( {} );
                    } catch ( const CorruptionError& ) {
                        ++c.errors;  // a key whose probe crosses that record
                    }
                }
                const Key k{ static_cast<uint32_t>( i % kKeys ) };
                try {
                    ++c.reads;
                    if ( !r.get( &k, v ) ) {
                        ++c.absent;
                    } else if ( !sealedValueOk( k.id, v ) ) {
                        ++c.bad;
                    }
                } catch ( const CorruptionError& ) {
                    ++c.errors;  // a record the writer died inside
                }
            }
            writeFull( results.w, &c, sizeof( c ) );
            return 0;
        } );
        results.closeWrite();
        usleep( 1000 + rng() % 40'000 );
        ASSERT_EQ( kill( writer, SIGKILL ), 0 );
        EXPECT_EQ( reap( writer, 10 ), -SIGKILL );
        usleep( 20'000 );
        signal( stop );
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
            const Key k{ id };
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

        // The next writer keeps every complete record and drops at most the
        // one it died inside.
        {
            ShmTableWriter w( path_, layout() );
            EXPECT_GE( w.size(), kKeys - 1 );
            for ( const auto& [id, v] : complete ) {
                const Key k{ id };
                std::vector<uint8_t> now;
                ASSERT_TRUE( w.get( &k, now ) ) << "complete record " << id << " lost";
                EXPECT_EQ( now, v );
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
}

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
    // A writer that died inside a write of record 5.
    const pid_t editor = spawn( [&] { return breakSeqlockOf( path_, 5 ) ? 0 : 1; } );
    ASSERT_EQ( reap( editor, 10 ), 0 );

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

    ShmTableWriter w( path_, layout() );
    EXPECT_EQ( w.size(), 9u );
    EXPECT_EQ( value( w, 5 ), "<absent>" );
    mirror.sync( r );
    EXPECT_EQ( mirror.reportedSet(), ( std::set<uint32_t>{ 5 } ) );
    EXPECT_EQ( value( r, 5 ), "<absent>" );
    EXPECT_EQ( value( r, 6 ), "value 6" );
}

// ------------------------------------------------------------ writer lock

TEST_F( ShmTableProcessTest, SecondWriterIsRefusedAndTheLockDiesWithItsWriter ) {
    Pipe ready, hold;
    const pid_t first = spawn( [&] {
        ShmTableWriter w( path_, layout() );
        put( w, 1, "kept" );
        w.flush();
        signal( ready );
        awaitSignal( hold, 60 );
        return 0;
    } );
    ASSERT_TRUE( awaitSignal( ready, 10 ) );
    try {
        ShmTableWriter w( path_, layout() );
        ADD_FAILURE() << "a second writer attached";
    } catch ( const Error& e ) {
        EXPECT_NE( std::string( e.what() ).find( "already has a writer" ),
                   std::string::npos )
            << e.what();
        EXPECT_NE( std::string( e.what() ).find( path_ ), std::string::npos ) << e.what();
    }
    const pid_t second = spawn( [&] {
        try {
            ShmTableWriter w( path_, layout() );
            return 0;
        } catch ( const Error& ) {
            return 3;
        }
    } );
    EXPECT_EQ( reap( second, 30 ), 3 );

    ASSERT_EQ( kill( first, SIGKILL ), 0 );
    EXPECT_EQ( reap( first, 10 ), -SIGKILL );
    ShmTableWriter w( path_, layout() );
    EXPECT_EQ( value( w, 1 ), "kept" );
}

// A reader that meets a half-written record asks whether a writer lives by
// trying the lock; that question must not turn a new writer away.
TEST_F( ShmTableProcessTest,
        ReaderProbingADeadWritersRecordDoesNotLockOutTheNextWriter ) {
    {
        ShmTableWriter w( path_, layout() );
        for ( uint32_t id = 0; id < 8; ++id ) {
            put( w, id, "v" );
        }
    }
    ASSERT_TRUE( breakSeqlockOf( path_, 3 ) );
    Pipe ready, stop;
    const pid_t prober = spawn( [&] {
        ShmTableReader r( path_, layout() );
        signal( ready );
        const double end = monoNow() + 30;
        for ( uint64_t i = 0; i < 100'000'000 && monoNow() < end; ++i ) {
            if ( i % 64 == 0 ) {
                if ( readable( stop.r, 0 ) ) {
                    break;
                }
                r.sync( {} );
            }
            try {
                value( r, 3 );
            } catch ( const CorruptionError& ) {
            }
        }
        return 0;
    } );
    ASSERT_TRUE( awaitSignal( ready, 10 ) );
    int attempts = 0, refused = 0;
    std::string why;
    const double end = monoNow() + 20;
    while ( attempts < 200 && monoNow() < end ) {
        ++attempts;
        try {
            ShmTableWriter w( path_, layout() );
            put( w, 3, "v" );  // the attach dropped it
        } catch ( const Error& e ) {
            ++refused;
            why = e.what();
            continue;
        }
        ASSERT_TRUE( breakSeqlockOf( path_, 3 ) );
        usleep( 2000 );  // the prober moves to the new file and meets the record
    }
    signal( stop );
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
    struct Seen {
        uint32_t id;
        uint32_t len;
    };
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
                Seen s{ id, static_cast<uint32_t>( value( r, id ).size() ) };
                writeFull( seen.w, &s, sizeof( s ) );
                stopped = stopped || id == kStop;
            } );
        };
        watchFile();
        signal( ready );
        int wakes = 0;
        const double end = monoNow() + 60;
        while ( !stopped && monoNow() < end ) {
            pollfd pfd{ in, POLLIN, 0 };
            if ( poll( &pfd, 1, 100 ) <= 0 ) {
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
    ASSERT_TRUE( awaitSignal( ready, 10 ) );

    auto expectSeen = [&]( std::set<uint32_t> want ) {
        Seen s;
        while ( !want.empty() && readFull( seen.r, &s, sizeof( s ), 10 ) ) {
            want.erase( s.id );
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

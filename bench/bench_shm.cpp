// Shared-memory tables: how fast one writer stores small records, how long a
// change takes to reach an idle reader in another process, what a lookup in
// a 100,000-record table costs, and how many bytes of table a record takes.
//
// Keys are 24 bytes (the size of a path key). The latency figure is taken
// with CLOCK_MONOTONIC, which both processes share: the writer puts its time
// stamp in the record itself, the reader subtracts it from its own clock when
// its sync reports the key.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/Error.h"
#include "platform/ShmTable.h"

using namespace Platform;

namespace {

struct Key24 {
    uint64_t a, b, c;
};
static_assert( sizeof( Key24 ) == 24 );

Key24 keyOf( uint64_t i ) {
    uint64_t x = ( i + 1 ) * 0x9e3779b97f4a7c15ull;
    return Key24{ x, x ^ ( x >> 29 ), i };
}

TableLayout layout( uint32_t maxValueSize ) {
    return TableLayout{ "Bench::Record", tableLayoutHash( "Bench::Record:key 24:bytes" ),
                        24, maxValueSize };
}

int64_t monotonicNs() {
    timespec ts;
    clock_gettime( CLOCK_MONOTONIC, &ts );
    return static_cast<int64_t>( ts.tv_sec ) * 1'000'000'000 + ts.tv_nsec;
}

class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/dev/shm/benchshm-XXXXXX";
        if ( mkdtemp( tmpl ) ) {
            dir_ = tmpl;
        }
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all( dir_, ec );
    }
    std::string table() const { return dir_ + "/table"; }

  private:
    std::string dir_;
};

constexpr uint64_t kRecords = 100'000;

// Overwrites of 40-byte values among 100,000 keys, a flush every 1000.
void BM_ShmWrite( benchmark::State& state ) {
    TempDir dir;
    ShmTableWriter w( dir.table(), layout( 40 ) );
    std::vector<Key24> keys;
    for ( uint64_t i = 0; i < kRecords; ++i ) {
        keys.push_back( keyOf( i ) );
    }
    uint8_t value[40] = {};
    for ( const Key24& k : keys ) {
        w.set( &k, value, sizeof( value ) );
    }
    w.flush();
    uint64_t n = 0;
    for ( auto _ : state ) {
        const uint64_t stamp = n + 1;
        std::memcpy( value, &stamp, sizeof( stamp ) );
        w.set( &keys[n % kRecords], value, sizeof( value ) );
        if ( ++n % 1000 == 0 ) {
            w.flush();
        }
    }
    w.flush();
    state.SetItemsProcessed( static_cast<int64_t>( state.iterations() ) );
}
BENCHMARK( BM_ShmWrite );

struct Stamp {
    int64_t writtenNs;
    int64_t sample;  // -1: the reader stops
};

// The reader process: blocked in epoll on an inotify watch of the table
// file; on each wake it syncs and sends back, per reported key, the time
// from the writer's stamp to the report.
int runReader( const std::string& path, int readyFd, int latencyFd ) {
    ShmTableReader r( path, layout( sizeof( Stamp ) ) );
    const int in = inotify_init1( IN_CLOEXEC | IN_NONBLOCK );
    const int ep = epoll_create1( EPOLL_CLOEXEC );
    epoll_event ev{};
    ev.events = EPOLLIN;
    if ( in < 0 || ep < 0 || inotify_add_watch( in, path.c_str(), IN_MODIFY ) < 0 ||
         epoll_ctl( ep, EPOLL_CTL_ADD, in, &ev ) != 0 ) {
        return 1;
    }
    char one = 1;
    if ( write( readyFd, &one, 1 ) != 1 ) {
        return 1;
    }
    bool stop = false;
    std::vector<uint8_t> v;
    while ( !stop ) {
        if ( epoll_wait( ep, &ev, 1, 10'000 ) <= 0 ) {
            return 2;  // the writer is gone
        }
        char buf[4096];
        while ( read( in, buf, sizeof( buf ) ) > 0 ) {
        }
        r.sync( [&]( const uint8_t* key ) {
            Stamp s;
            if ( !r.get( key, v ) || v.size() != sizeof( s ) ) {
                return;
            }
            std::memcpy( &s, v.data(), sizeof( s ) );
            const int64_t latency = monotonicNs() - s.writtenNs;
            stop = s.sample < 0;
            if ( write( latencyFd, &latency, sizeof( latency ) ) != sizeof( latency ) ) {
                stop = true;
            }
        } );
    }
    return 0;
}

bool readWithin( int fd, void* data, size_t n, int timeoutMs ) {
    pollfd pfd{ fd, POLLIN, 0 };
    return poll( &pfd, 1, timeoutMs ) > 0 &&
           read( fd, data, n ) == static_cast<ssize_t>( n );
}

// One change at a time from this process to an idle reader process.
void BM_ShmNotifyLatency( benchmark::State& state ) {
    constexpr int kWarmup = 50, kSamples = 1000;
    for ( auto _ : state ) {
        TempDir dir;
        const std::string path = dir.table();
        ShmTableWriter w( path, layout( sizeof( Stamp ) ) );
        const Key24 key = keyOf( 0 );
        Stamp s{ monotonicNs(), 0 };
        w.set( &key, &s, sizeof( s ) );
        w.flush();
        int ready[2], latency[2];
        if ( pipe2( ready, O_CLOEXEC ) != 0 || pipe2( latency, O_CLOEXEC ) != 0 ) {
            state.SkipWithError( "pipe" );
            return;
        }
        fflush( nullptr );
        const pid_t pid = fork();
        if ( pid == 0 ) {
            int code = 3;
            try {
                code = runReader( path, ready[1], latency[1] );
            } catch ( const std::exception& ) {
            }
            _exit( code );
        }
        char c;
        std::vector<double> samples;
        bool ok = readWithin( ready[0], &c, 1, 10'000 );
        for ( int i = 0; ok && i < kWarmup + kSamples; ++i ) {
            usleep( 300 );  // the reader goes back to sleep in epoll
            s = Stamp{ monotonicNs(), i };
            w.set( &key, &s, sizeof( s ) );
            w.flush();
            int64_t ns;
            ok = readWithin( latency[0], &ns, sizeof( ns ), 10'000 );
            if ( ok && i >= kWarmup ) {
                samples.push_back( static_cast<double>( ns ) / 1000.0 );
            }
        }
        s = Stamp{ monotonicNs(), -1 };
        w.set( &key, &s, sizeof( s ) );
        w.flush();
        int status = 0;
        for ( int waited = 0; waitpid( pid, &status, WNOHANG ) == 0; ++waited ) {
            if ( waited == 2000 ) {
                kill( pid, SIGKILL );
            }
            usleep( 1000 );
        }
        for ( int fd : { ready[0], ready[1], latency[0], latency[1] } ) {
            close( fd );
        }
        if ( !ok || samples.size() != kSamples ) {
            state.SkipWithError( "the reader process did not report every change" );
            return;
        }
        std::sort( samples.begin(), samples.end() );
        state.counters["median_us"] = samples[samples.size() / 2];
        state.counters["p99_us"] = samples[samples.size() * 99 / 100];
        state.counters["max_us"] = samples.back();
    }
}
BENCHMARK( BM_ShmNotifyLatency )->Iterations( 1 )->Unit( benchmark::kMillisecond );

// Reader lookups of random present keys in a table of range(0) records; the
// 1,000-record table, which stays in cache, is the reference.
void BM_ShmLookup( benchmark::State& state ) {
    const uint64_t records = static_cast<uint64_t>( state.range( 0 ) );
    TempDir dir;
    ShmTableWriter w( dir.table(), layout( 40 ) );
    uint8_t value[40] = {};
    for ( uint64_t i = 0; i < records; ++i ) {
        const Key24 k = keyOf( i );
        w.set( &k, value, sizeof( value ) );
    }
    w.flush();
    ShmTableReader r( dir.table(), layout( 40 ) );
    std::mt19937_64 rng( 1 );
    std::vector<Key24> probes;
    for ( int i = 0; i < ( 1 << 16 ); ++i ) {
        probes.push_back( keyOf( rng() % records ) );
    }
    std::vector<uint8_t> v;
    uint64_t found = 0;
    size_t i = 0;
    for ( auto _ : state ) {
        found += r.get( &probes[i++ & ( probes.size() - 1 )], v );
    }
    benchmark::DoNotOptimize( found );
    if ( found != static_cast<uint64_t>( state.iterations() ) ) {
        state.SkipWithError( "a present key was not found" );
    }
    state.SetItemsProcessed( static_cast<int64_t>( state.iterations() ) );
}
BENCHMARK( BM_ShmLookup )->ArgName( "records" )->Arg( 1'000 )->Arg( kRecords );

// Reference in the same run: an in-process std::unordered_map of the same
// keys and 40-byte values, looked up and copied out the same way.
void BM_StdUnorderedMapLookup( benchmark::State& state ) {
    struct Hash {
        size_t operator()( const Key24& k ) const { return k.a ^ ( k.b * 31 ) ^ k.c; }
    };
    struct Eq {
        bool operator()( const Key24& x, const Key24& y ) const {
            return x.a == y.a && x.b == y.b && x.c == y.c;
        }
    };
    const uint64_t records = static_cast<uint64_t>( state.range( 0 ) );
    std::unordered_map<Key24, std::vector<uint8_t>, Hash, Eq> map;
    for ( uint64_t i = 0; i < records; ++i ) {
        map.emplace( keyOf( i ), std::vector<uint8_t>( 40 ) );
    }
    std::mt19937_64 rng( 1 );
    std::vector<Key24> probes;
    for ( int i = 0; i < ( 1 << 16 ); ++i ) {
        probes.push_back( keyOf( rng() % records ) );
    }
    std::vector<uint8_t> v;
    uint64_t found = 0;
    size_t i = 0;
    for ( auto _ : state ) {
        auto it = map.find( probes[i++ & ( probes.size() - 1 )] );
        if ( it != map.end() ) {
            v.assign( it->second.begin(), it->second.end() );
            ++found;
        }
    }
    benchmark::DoNotOptimize( found );
    state.SetItemsProcessed( static_cast<int64_t>( state.iterations() ) );
}
BENCHMARK( BM_StdUnorderedMapLookup )
    ->ArgName( "records" )
    ->Arg( 1'000 )
    ->Arg( kRecords );

// Bytes of table per record for 100,000 path-status-sized values: 44 bytes
// and 20 per hop.
void BM_ShmBytesPerRecord( benchmark::State& state ) {
    const uint32_t len = 44 + 20 * static_cast<uint32_t>( state.range( 0 ) );
    for ( auto _ : state ) {
        TempDir dir;
        ShmTableWriter w( dir.table(), layout( 44 + 20 * 1024 ) );
        std::vector<uint8_t> value( len, 0x5a );
        for ( uint64_t i = 0; i < kRecords; ++i ) {
            const Key24 k = keyOf( i );
            w.set( &k, value.data(), len );
        }
        w.flush();
        state.counters["resident_per_record"] =
            static_cast<double>( w.residentBytes() ) / kRecords;
        state.counters["file_per_record"] =
            static_cast<double>( w.fileBytes() ) / kRecords;
    }
}
BENCHMARK( BM_ShmBytesPerRecord )
    ->ArgName( "hops" )
    ->Arg( 0 )
    ->Arg( 3 )
    ->Iterations( 1 )
    ->Unit( benchmark::kMillisecond );

}  // namespace

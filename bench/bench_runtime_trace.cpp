// Cost of a trace: disabled (the load of the level mask and one branch, which
// is all that stays in a traced function), enabled into a sink that drops the
// line (building and cutting the line), and enabled into a real file (one
// write() per line). BM_TraceReference is the same loop with no trace in it.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "platform/Mivlog.h"

namespace {

struct Input {
    std::string key = "10.0.0.1/32 via default";
    int hops = 4;
    double cost = 12.5;
};

void traceOne( const Input& in ) {
    TRACE5( "for path: " << in.key << " hops " << in.hops << " cost " << in.cost );
}

void BM_TraceReference( benchmark::State& state ) {
    Input in;
    for ( auto _ : state ) {
        benchmark::DoNotOptimize( in.hops );
    }
}
BENCHMARK( BM_TraceReference );

void BM_TraceDisabledNoArguments( benchmark::State& state ) {
    Mivlog::levelsIs( Mivlog::kNoLevels );
    Input in;
    for ( auto _ : state ) {
        TRACE5( "nothing" );
        benchmark::DoNotOptimize( in.hops );
    }
}
BENCHMARK( BM_TraceDisabledNoArguments );

void BM_TraceDisabledWithString( benchmark::State& state ) {
    Mivlog::levelsIs( Mivlog::kAllLevels & ~( 1u << 5 ) );
    Input in;
    for ( auto _ : state ) {
        traceOne( in );
        benchmark::DoNotOptimize( in.hops );
    }
    Mivlog::levelsIs( Mivlog::kNoLevels );
}
BENCHMARK( BM_TraceDisabledWithString );

void BM_TraceEnabledNullSink( benchmark::State& state ) {
    Mivlog::sinkIs(
        []( std::string_view line ) { benchmark::DoNotOptimize( line.data() ); } );
    Mivlog::levelsIs( 1u << 5 );
    Input in;
    for ( auto _ : state ) {
        traceOne( in );
        benchmark::DoNotOptimize( in.hops );
    }
    Mivlog::levelsIs( Mivlog::kNoLevels );
    Mivlog::sinkIs( nullptr );
}
BENCHMARK( BM_TraceEnabledNullSink );

void BM_TraceEnabledFile( benchmark::State& state ) {
    char dirTemplate[] = "/tmp/mivlogbench-XXXXXX";
    if ( !mkdtemp( dirTemplate ) ) {
        state.SkipWithError( "no temporary directory" );
        return;
    }
    Mivlog::Options options;
    options.maxFileBytes = 8u << 20;  // two files of 8 MiB bound the disk used
    Mivlog::init( std::string( dirTemplate ) + "/bench.mv", options );
    Mivlog::levelsIs( 1u << 5 );
    Input in;
    for ( auto _ : state ) {
        traceOne( in );
    }
    state.counters["rotations"] = static_cast<double>( Mivlog::stats().rotations );
    Mivlog::shutdown();
    std::filesystem::remove_all( dirTemplate );
}
BENCHMARK( BM_TraceEnabledFile );

}  // namespace

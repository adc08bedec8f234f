// Replays inputs through a fuzz target without libFuzzer: each argument is a
// file or a directory of files (taken in name order). Built with the normal
// compiler, so that every build's test run replays the committed corpus.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/FuzzCheck.h"

int main( int argc, char** argv ) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for ( int i = 1; i < argc; ++i ) {
        if ( fs::is_directory( argv[i] ) ) {
            for ( const auto& entry : fs::directory_iterator( argv[i] ) ) {
                inputs.push_back( entry.path() );
            }
        } else {
            inputs.emplace_back( argv[i] );
        }
    }
    std::sort( inputs.begin(), inputs.end() );
    if ( inputs.empty() ) {
        std::fprintf( stderr, "no inputs to replay\n" );
        return 2;
    }
    for ( const auto& path : inputs ) {
        std::ifstream in( path, std::ios::binary );
        const std::vector<uint8_t> bytes( std::istreambuf_iterator<char>( in ), {} );
        if ( !in.eof() && in.fail() ) {
            std::fprintf( stderr, "cannot read %s\n", path.c_str() );
            return 2;
        }
        std::fprintf( stderr, "replaying %s (%zu bytes)\n", path.c_str(), bytes.size() );
        LLVMFuzzerTestOneInput( bytes.data(), bytes.size() );
    }
    std::printf( "replayed %zu inputs\n", inputs.size() );
    return 0;
}

// Fuzz target "topology_file": the text of a topology file, given to the
// loader and to the research-format importers. Whatever is accepted must make
// records for both levels or be refused with an Error, and must survive its
// own writer: parseTopology( toJson( t ) ) == t. An importer's topology passes
// the loader's validation.
#include <string_view>

#include "tests/fuzz/FuzzCheck.h"
#include "tools/TopologyImport.h"
#include "tools/TopologyLoad.h"

using namespace Cspf::TopoFile;

namespace {

void checkAccepted( const Topology& topology, const char* by ) {
    const std::string what = std::string( "a topology accepted by " ) + by;
    try {
        validateTopology( topology, "fuzz" );
    } catch ( const Platform::Error& e ) {
        Fuzz::check( false, what + " fails validation: " + e.what() );
    }
    for ( int level = 1; level <= 2; ++level ) {
        try {
            levelRecords( topology, level, "fuzz" );
        } catch ( const TopologyError& ) {
        }
    }
    const std::string json = toJson( topology );
    try {
        Fuzz::check( parseTopology( json, "fuzz" ) == topology,
                     what + " reads back differently from its JSON" );
    } catch ( const Platform::Error& e ) {
        Fuzz::check( false, what + " is refused in its own JSON: " + e.what() );
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
    const std::string_view text( reinterpret_cast<const char*>( data ), size );
    try {
        checkAccepted( parseTopology( text, "fuzz" ), "the loader" );
    } catch ( const TopologyError& ) {
    }
    try {
        checkAccepted( parseRepetita( text, "fuzz" ).topology, "the REPETITA importer" );
    } catch ( const TopologyError& ) {
    }
    try {
        checkAccepted( parseNetdice( text, "fuzz" ).topology, "the NetDice importer" );
    } catch ( const TopologyError& ) {
    }
    return 0;
}

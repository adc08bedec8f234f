// What every fuzz target shares: the libFuzzer entry point, and the check
// that turns a broken property into a crash the fuzzer keeps as its finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size );

namespace Fuzz {

// Not an assertion of the product: a property of the decoder under test that
// this input broke.
inline void check( bool ok, const std::string& what ) {
    if ( !ok ) {
        std::fprintf( stderr, "fuzz check failed: %s\n", what.c_str() );
        std::abort();
    }
}

}  // namespace Fuzz

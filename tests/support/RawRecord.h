// A table record written as raw bytes under the type and layout of `Record`:
// what a writer that skips the checks, or a peer gone wrong, could leave.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace TestKit {

template <typename Record>
struct RawRecord : Record {
    using Value = std::vector<uint8_t>;
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) { out = v; }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return Value( in, in + len );
    }
};

}  // namespace TestKit

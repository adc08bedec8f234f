// A one-byte singleton record for platform tests; `Name` is its type name,
// so that tests can also make a table of another type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Error.h"

namespace TestKit {

template <const char* Name>
struct ByteRecord {
    using Value = uint8_t;
    static constexpr const char* typeName = Name;
    static constexpr const char* layout = "u8; v1";
    static constexpr uint32_t maxValueSize = 1;
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        out.assign( 1, v );
    }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        if ( len != 1 ) {
            throw Platform::DeserializationError( "byte", "1 byte expected" );
        }
        return in[0];
    }
};

}  // namespace TestKit

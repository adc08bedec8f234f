// Fuzz target "records": one record of a type the agent reads from a peer.
// Input: a byte choosing the type (its position in PeerRecords), the key's
// bytes (zero-filled when short), then the value's bytes.
#include <algorithm>

#include "tests/fuzz/PeerRecords.h"

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
    if ( size == 0 ) {
        return 0;
    }
    const size_t type = data[0] % std::tuple_size_v<Fuzz::PeerRecords>;
    Fuzz::forEachPeerRecord( [&]<typename R>( size_t index ) {
        if ( index != type ) {
            return;
        }
        uint8_t key[R::keySize] = {};
        const size_t keyBytes = std::min<size_t>( size - 1, R::keySize );
        std::memcpy( key, data + 1, keyBytes );
        // A copy of its own size, so that a read past the value is caught.
        const std::vector<uint8_t> value( data + 1 + keyBytes, data + size );
        static const uint8_t none = 0;
        Fuzz::decodeRecord<R>( key, value.empty() ? &none : value.data(), value.size() );
    } );
    return 0;
}

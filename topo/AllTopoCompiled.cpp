#include "topo/AllTopoCompiled.h"

namespace Cspf {

namespace {

template <typename T>
size_t capacityBytes( const std::vector<T>& v ) {
    return v.capacity() * sizeof( T );
}

// What an unordered map holds beyond its members: the bucket array and a
// node header per member.
template <typename Map>
size_t tableBytes( const Map& map ) {
    return map.bucket_count() * sizeof( void* ) +
           map.size() * ( sizeof( typename Map::value_type ) + 2 * sizeof( void* ) );
}

}  // namespace

void AllTopoCompiled::clear() {
    routers_.clear();
    networks_.clear();
}

size_t AllTopoCompiled::bytes() const {
    size_t total = sizeof( *this ) + tableBytes( routers_ ) + tableBytes( networks_ );
    for ( const auto& [id, router] : routers_ ) {
        total += capacityBytes( router.links.links ) +
                 capacityBytes( router.links.teps ) + capacityBytes( router.links.addrs );
    }
    for ( const auto& [id, network] : networks_ ) {
        total += capacityBytes( network.routers ) + capacityBytes( network.hops );
    }
    return total;
}

void AllTopoCompiled::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent,
                           "Compiled topology: %zu routers, %zu LANs, %zu bytes\n",
                           routers_.size(), networks_.size(), bytes() );
}

}  // namespace Cspf

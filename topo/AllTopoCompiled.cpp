#include "topo/AllTopoCompiled.h"

namespace Cspf {

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

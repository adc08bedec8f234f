#include "topo/RouterToNeighbor.h"

namespace Cspf {

void RouterToNeighbor::dumpState( Platform::DumpContext& context,
                                  unsigned indent ) const {
    Platform::objDumpLine( context, indent, "IGP Router ID: %s\n",
                           routerId_.toString().c_str() );
    for ( const auto& [key, present] : neighborColl() ) {
        Platform::objDumpLine( context, indent + 2, "NeighborKey: %s\n",
                               key.stringValue().c_str() );
    }
}

}  // namespace Cspf

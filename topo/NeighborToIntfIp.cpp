#include "topo/NeighborToIntfIp.h"

namespace Cspf {

void NeighborToIntfIp::dumpState( Platform::DumpContext& context,
                                  unsigned indent ) const {
    Platform::objDumpLine( context, indent, "NeighborKey: %s\n",
                           neighborKey_.stringValue().c_str() );
    for ( const auto& [addr, present] : intfIpColl() ) {
        Platform::objDumpLine( context, indent + 2, "Interface IP: %s\n",
                               addr.toString().c_str() );
    }
}

}  // namespace Cspf

#include "topo/AllTopoDb.h"

namespace Cspf {

void AllTopoDb::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    for ( const auto& [topoId, db] : topoDbColl() ) {
        Platform::objDumpLine( context, indent, "Topology %s\n",
                               toString( topoId ).c_str() );
        Platform::ObjDumpChild( db, context, indent + 2 );
    }
}

}  // namespace Cspf

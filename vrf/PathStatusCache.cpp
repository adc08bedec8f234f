#include "vrf/PathStatusCache.h"

namespace Cspf {

void PathStatusCache::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "PathStatusCache %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent, "Path Refresh Count: %u \n",
                           refreshedCount() );
    Platform::objDumpLine( context, indent, "Path to destination: \n" );
    if ( path() ) {
        path()->dumpState( context, indent );
    }
}

}  // namespace Cspf

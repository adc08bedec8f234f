#include "vrf/PathConfigInfo.h"

#include <utility>

namespace Cspf {

PathConfigInfo::PathConfigInfo( const PathInfoKey& pathInfoKey,
                                Platform::Ptr<const Config> cspfConfig )
    : pathInfoKey_( pathInfoKey ), cspfConfig_( std::move( cspfConfig ) ) {}

void PathConfigInfo::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "PathConfigInfo %p\n",
                           static_cast<const void*>( this ) );
    Platform::objDumpLine( context, indent, "ChangeCount: %u\n", changeCount() );
}

}  // namespace Cspf

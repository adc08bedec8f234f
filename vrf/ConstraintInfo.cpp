#include "vrf/ConstraintInfo.h"

#include <string>
#include <utility>

#include "platform/Age.h"

namespace Cspf {

ConstraintInfo::ConstraintInfo(
    ConstraintHandleKey handle,
    Platform::Ptr<const DedupConstraintLifeTimeNotifier> constraint )
    : handle_( handle ), constraint_( std::move( constraint ) ) {}

void ConstraintInfo::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, " CSPF request count: %u\n",
                           cspfRequestCount() );
    Platform::objDumpAge( context, indent, " Last topology change seen",
                          topoChangedAt() );
    // Once the handle has gone the notifier reports the default constraint,
    // which excludes nothing: an empty name.
    const std::string exclude =
        constraint_ ? constraint_->pathConstraint().excludeInterface.name() : "";
    Platform::objDumpLine( context, indent, " Constraint exclude interface: %s\n",
                           exclude.c_str() );
    Platform::objDumpLine( context, indent, " TEPs using this constraint: \n" );
    for ( const auto& [key, used] : pathColl() ) {
        Platform::objDumpLine( context, indent, "  %s\n", key.toString().c_str() );
    }
}

}  // namespace Cspf

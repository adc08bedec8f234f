#include "vrf/ConstraintStats.h"

#include <utility>

#include "platform/Age.h"

namespace Cspf {

ConstraintStats::ConstraintStats(
    ConstraintHandleKey handle,
    Platform::Ptr<const DedupConstraintLifeTimeNotifier> constraint )
    : handle_( handle ), constraint_( std::move( constraint ) ) {}

void ConstraintStats::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, " CSPF scheduled: %s\n",
                           cspfScheduled() ? "Yes" : "No" );
    Platform::objDumpLine( context, indent, " CSPF current delay: %0.2f ms\n",
                           cspfCurrentDelay() );
    Platform::objDumpLine( context, indent, " CSPF run count: %u\n", cspfCount() );
    Platform::objDumpAge( context, indent, " CSPF last ran", cspfLastRanAt() );
}

}  // namespace Cspf

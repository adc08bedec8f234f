#include "root/AllClientInfo.h"

#include "root/CspfRoot.h"

namespace Cspf {

void AllClientInfo::handleInitialized() {
    activeVrfsDedupTable_ = Platform::create<CspfActiveVrfsDedupTable>();
    activeVrfsDedupTable_->lifeTimeNotifieeIs( cspfRoot_->lifeTimeNotifiee().get() );
}

}  // namespace Cspf

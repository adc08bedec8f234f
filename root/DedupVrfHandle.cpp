#include "root/DedupVrfHandle.h"

#include "platform/Assert.h"

namespace Cspf {

bool DedupVrfHandle::compare( const Platform::DedupHandle& other ) const {
    const auto* vrf = dynamic_cast<const DedupVrfHandle*>( &other );
    return vrf && vrf->vrfName_ == vrfName_;
}

DedupVrfHandle& DedupVrfHandle::fromDedupHandle( Platform::DedupHandle& handle ) {
    auto* castHandle = dynamic_cast<DedupVrfHandle*>( &handle );
    CSPF_ASSERT( castHandle );
    return *castHandle;
}

}  // namespace Cspf

#include "root/CspfActiveVrfsDedupTable.h"

namespace Cspf {

CspfActiveVrfsDedupTable::CspfActiveVrfsDedupTable()
    : hashTable_( new Platform::DedupHashTable ) {}

CspfActiveVrfsDedupTable::~CspfActiveVrfsDedupTable() = default;

Platform::Ptr<DedupVrfHandle> CspfActiveVrfsDedupTable::dedupFromVrfName(
    const L3::VrfName& vrfName ) {
    const Platform::Ptr<Platform::DedupHandle> candidate( new DedupVrfHandle( vrfName ) );
    const Platform::Ptr<Platform::DedupHandle> handle = hashTable_->dedup( candidate );
    return Platform::Ptr<DedupVrfHandle>( &DedupVrfHandle::fromDedupHandle( *handle ) );
}

}  // namespace Cspf

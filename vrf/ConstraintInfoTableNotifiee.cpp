#include "vrf/ConstraintInfoTableNotifiee.h"

#include <utility>

#include "platform/Assert.h"
#include "platform/Entity.h"

namespace Cspf {

ConstraintInfoTableNotifiee::ConstraintInfoTableNotifiee(
    Platform::Ptr<ConstraintInfoTable> constraintInfoTable )
    : constraintInfoTable_( std::move( constraintInfoTable ) ) {
    CSPF_ASSERT( constraintInfoTable_ );
}

void ConstraintInfoTableNotifiee::handleInsert( Platform::DedupHandle& inserted ) {
    // Only DedupConstraints live in a constraint table. The inserting caller
    // holds a reference, so a Ptr of our own is safe here.
    const Platform::Ptr<DedupConstraint> handle(
        dynamic_cast<DedupConstraint*>( &inserted ) );
    CSPF_ASSERT( handle );
    CSPF_ASSERT( !constraintInfoTable()->constraintInfo( handle.ptr() ) );
    constraintInfoTable()->constraintInfoIs(
        handle.ptr(), Platform::create<DedupConstraintLifeTimeNotifier>( handle.ptr() ) );
}

void ConstraintInfoTableNotifiee::handleRemove( Platform::DedupHandle& removed ) {
    // The handle is still whole for the call, but on its way out: only its
    // address is used.
    const Platform::DedupHandle* handle = &removed;
    CSPF_ASSERT( constraintInfoTable()->constraintInfo( handle ) );
    constraintInfoTable()->constraintInfoDel( handle );
}

void ConstraintInfoTableNotifiee::handleNotificationStop( Platform::DedupHashTable& ) {
    // Handles still held by paths live on unlinked and are never announced
    // again; their ConstraintInfos go with the VRF's tables.
    watching_ = false;
}

}  // namespace Cspf

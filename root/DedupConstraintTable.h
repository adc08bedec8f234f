// Cspf::DedupConstraintTable: the handles of the distinct constraints of one
// VRF and family, and the notifiee that keeps per-constraint state in step.
//
// The table owns the DedupHashTable the handles live in. Its one notifiee
// hears every insertion and removal of a handle; the VRF's per-constraint
// table derives from DedupConstraintTableNotifiee to create and delete the
// state kept for each handle.
#pragma once

#include <cstddef>

#include "platform/Dedup.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "root/DedupConstraint.h"

namespace Cspf {

// The base does nothing: a notifiee overrides what it cares about.
class DedupConstraintTableNotifiee : public Platform::DedupTableNotifiee {
  public:
    // A new constraint entered the table.
    void handleInsert( Platform::DedupHandle& handle ) override;
    // The last holder of a constraint let it go; the handle is still valid
    // for the duration of the call.
    void handleRemove( Platform::DedupHandle& handle ) override;
    // The table is going away; no more notifications follow.
    void handleNotificationStop( Platform::DedupHashTable& table ) override;
};

// Held through a Ptr: dedup() takes a reference on the table for the call.
class DedupConstraintTable : public Platform::Entity {
  public:
    DedupConstraintTable();
    ~DedupConstraintTable() override;
    DedupConstraintTable( const DedupConstraintTable& ) = delete;
    DedupConstraintTable& operator=( const DedupConstraintTable& ) = delete;

    // The handle of `content`, made and inserted if it is new.
    Platform::Ptr<DedupConstraint> dedup( const DedupConstraintContent& content );

    void dedupTableNotifieeIs( DedupConstraintTableNotifiee* notifiee );
    DedupConstraintTableNotifiee* dedupTableNotifiee() const { return notifiee_; }

    size_t size() const { return hashTable_->size(); }
    Platform::DedupHashTable& hashTable() const { return *hashTable_; }

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    Platform::Ptr<Platform::DedupHashTable> hashTable_;
    DedupConstraintTableNotifiee* notifiee_ = nullptr;
};

}  // namespace Cspf

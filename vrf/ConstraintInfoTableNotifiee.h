// Cspf::ConstraintInfoTableNotifiee: keeps a VRF's ConstraintInfoTable in step
// with the handles of its DedupConstraintTable, one ConstraintInfo per handle
// for exactly the handle's time in the table.
//
// Installed with DedupConstraintTable::dedupTableNotifieeIs( notifiee ). The
// table keeps a plain pointer to it: the owner (the VRF root) uninstalls it,
// or lets the dedup table go first, before the notifiee goes. It holds the
// ConstraintInfoTable, so a handle released late in a teardown still finds
// its entry.
#pragma once

#include "platform/Dedup.h"
#include "platform/Ptr.h"
#include "root/DedupConstraintTable.h"
#include "vrf/PathTables.h"

namespace Cspf {

class ConstraintInfoTableNotifiee : public DedupConstraintTableNotifiee,
                                    public Platform::RefCounted {
  public:
    explicit ConstraintInfoTableNotifiee(
        Platform::Ptr<ConstraintInfoTable> constraintInfoTable );
    ConstraintInfoTableNotifiee( const ConstraintInfoTableNotifiee& ) = delete;
    ConstraintInfoTableNotifiee& operator=( const ConstraintInfoTableNotifiee& ) = delete;

    const Platform::Ptr<ConstraintInfoTable>& constraintInfoTable() const {
        return constraintInfoTable_;
    }
    // False once the dedup table has said it is going away.
    bool watching() const { return watching_; }

    // Creates the handle's ConstraintInfo; there must be none yet.
    void handleInsert( Platform::DedupHandle& inserted ) override;
    // Deletes the handle's ConstraintInfo; it must exist.
    void handleRemove( Platform::DedupHandle& removed ) override;
    void handleNotificationStop( Platform::DedupHashTable& table ) override;

  private:
    const Platform::Ptr<ConstraintInfoTable> constraintInfoTable_;
    bool watching_ = true;
};

}  // namespace Cspf

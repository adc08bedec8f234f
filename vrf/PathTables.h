// The keyed tables of a VRF's path bookkeeping (the client's own tables are
// records/PathTables.h). Each is an entity with one collection, notified per
// key, so that a reactor watching a table learns which path or constraint
// came, changed or went:
//   PathConfigInfoTable   PathInfoKey -> PathConfigInfo    path intake
//   PathStatusInfoTable   PathInfoKey -> PathStatusInfo    path intake
//   PathStatusCacheTable  PathInfoKey -> PathStatusCache   VrfRootSm
//   ConstraintInfoTable   handle      -> ConstraintInfo    ConstraintInfoTableNotifiee
//   ConstraintStatsTable  handle      -> ConstraintStats   VrfRootSm
// The right column says who creates and deletes the entries. Path tables hash
// PathInfoKey; constraint tables key on the handle's identity.
#pragma once

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "vrf/ConstraintInfo.h"
#include "vrf/ConstraintStats.h"
#include "vrf/PathConfigInfo.h"
#include "vrf/PathInfoKey.h"
#include "vrf/PathStatusCache.h"
#include "vrf/PathStatusInfo.h"

namespace Cspf {

// pathConfigInfoIs( key, cspfConfig ) finds or creates.
class PathConfigInfoTable : public Platform::Entity {
  public:
    CSPF_ENTITY_COLL( HashColl, PathInfoKey, PathConfigInfo, pathConfigInfo,
                      pathConfigInfos )
    // Entries in key order.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

// pathStatusInfoIs( key, cspfStatus ) finds or creates.
class PathStatusInfoTable : public Platform::Entity {
  public:
    CSPF_ENTITY_COLL( HashColl, PathInfoKey, PathStatusInfo, pathStatusInfo,
                      pathStatusInfos )
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

// pathStatusCacheIs( key ) finds or creates.
class PathStatusCacheTable : public Platform::Entity {
  public:
    CSPF_ENTITY_COLL( HashColl, PathInfoKey, PathStatusCache, pathStatusCache,
                      pathStatusCaches )
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

// constraintInfoIs( handle, lifeTimeNotifier ) finds or creates.
class ConstraintInfoTable : public Platform::Entity {
  public:
    CSPF_ENTITY_COLL( HashColl, ConstraintHandleKey, ConstraintInfo, constraintInfo,
                      constraintInfos )
    // Entries in the order of their constraints' string forms.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

// constraintStatsIs( handle, lifeTimeNotifier ) finds or creates.
class ConstraintStatsTable : public Platform::Entity {
  public:
    CSPF_ENTITY_COLL( HashColl, ConstraintHandleKey, ConstraintStats, constraintStats,
                      constraintStatsCount )
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;
};

}  // namespace Cspf

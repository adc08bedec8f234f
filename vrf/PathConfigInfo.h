// Cspf::PathConfigInfo: the agent's note that a client asked for one path.
//
// The request itself stays in the client's shared-memory table and is read
// from there by pathInfoKey().pathKey(); this record only says that it exists
// and counts the client's writes of it, so that PathConfigInfoSm re-reads the
// request after each one. Path intake creates it together with the path's
// PathStatusInfo and deletes both together.
#pragma once

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "records/PathTables.h"
#include "vrf/PathInfoKey.h"

namespace Cspf {

class PathConfigInfo : public Platform::Entity {
  public:
    // `cspfConfig` is the client's request table of the path's VRF and family;
    // tests may pass null.
    PathConfigInfo( const PathInfoKey& pathInfoKey,
                    Platform::Ptr<const Config> cspfConfig );

    const PathInfoKey& pathInfoKey() const { return pathInfoKey_; }
    const Platform::Ptr<const Config>& cspfConfig() const { return cspfConfig_; }

    // +1 for every write of the client's PathConfig under this key; 0 until
    // the first.
    CSPF_COUNTER( changeCount )

    // "PathConfigInfo <address>" and "ChangeCount: <n>".
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const PathInfoKey pathInfoKey_;
    const Platform::Ptr<const Config> cspfConfig_;
};

}  // namespace Cspf

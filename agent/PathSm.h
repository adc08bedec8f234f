// Cspf::PathSm: path intake for one client, VRF and family. It mirrors the
// client's requests (its Cspf::Config table) into the VRF's bookkeeping
// tables, where the VRF machinery picks them up, and removes the bookkeeping
// and the published result when a request goes. At start it removes results
// whose request is gone; when it is deleted it removes everything of its
// client in the VRF and family.
#pragma once

#include <string>

#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "records/AddressFamily.h"
#include "records/PathKey.h"
#include "records/PathTables.h"
#include "records/VrfName.h"
#include "vrf/PathTables.h"

namespace Cspf {

class PathSm : public Platform::Reactor {
  public:
    // Fatal assertion "pathConfigInfoTable()" without the VRF's tables.
    PathSm( Net::AddressFamily af, const L3::VrfName& vrfName, std::string name,
            Platform::Ptr<Config> cspfConfig, Platform::Ptr<Status> cspfStatus,
            Platform::Ptr<PathConfigInfoTable> pathConfigInfoTable,
            Platform::Ptr<PathStatusInfoTable> pathStatusInfoTable );

    Net::AddressFamily af() const { return af_; }
    const L3::VrfName& vrfName() const { return vrfName_; }
    const std::string& name() const { return name_; }
    const Platform::Ptr<Config>& cspfConfig() const { return cspfConfig_; }
    const Platform::Ptr<Status>& cspfStatus() const { return cspfStatus_; }
    const Platform::Ptr<PathConfigInfoTable>& pathConfigInfoTable() const {
        return pathConfigInfoTable_;
    }
    const Platform::Ptr<PathStatusInfoTable>& pathStatusInfoTable() const {
        return pathStatusInfoTable_;
    }

    // Stale results first, then every request.
    void handleInitialized();
    // One request was added, changed or removed.
    void handleCspfConfig( const PathKey& key );
    // Every request present.
    void handleCspfConfig();
    void doCleanupStalePathEntries();
    // Removes the bookkeeping and the result of every request.
    void doPrepareToDie();

    // The family, each request with its result, then results without request.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    void doDeletePath( const PathKey& key );

    const Net::AddressFamily af_;
    const L3::VrfName vrfName_;
    const std::string name_;
    const Platform::Ptr<Config> cspfConfig_;
    const Platform::Ptr<Status> cspfStatus_;
    const Platform::Ptr<PathConfigInfoTable> pathConfigInfoTable_;
    const Platform::Ptr<PathStatusInfoTable> pathStatusInfoTable_;
};

}  // namespace Cspf

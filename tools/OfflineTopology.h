// Cspf::OfflineTopology: a topology file seen through the agent's own model,
// for work away from a running agent (cspfctl compute and topo show, tests,
// benchmarks).
//
// The file is loaded into a private state tree; the agent's level databases,
// topology reactors and view follow it, and computations are the agent's
// CSPF run. The computing router's interfaces are those the file gives it:
// their addresses act as the interface address status, so that an excluded
// interface is resolved exactly as the agent would resolve it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cspf/CspfData.h"
#include "platform/Ptr.h"
#include "platform/StateTree.h"
#include "records/AddressFamily.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"
#include "records/IpStatus.h"
#include "records/TeConfig.h"
#include "root/DedupConstraint.h"
#include "root/DedupConstraintTable.h"
#include "tools/TopologyFile.h"
#include "topo/AllTopoDb.h"
#include "topo/AllTopoDbSm.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/AllTopoDbView.h"
#include "topo/IntfIpToRouterId.h"

namespace Cspf {

class OfflineTopology {
  public:
    // Loads `topology` into a fresh tree in a new directory under `parentDir`
    // (removed with the object). Throws TopologyError for a bad topology and
    // Error when the tree cannot be made.
    explicit OfflineTopology( TopoFile::Topology topology,
                              const std::string& parentDir = "/dev/shm" );
    ~OfflineTopology();
    OfflineTopology( const OfflineTopology& ) = delete;
    OfflineTopology& operator=( const OfflineTopology& ) = delete;

    const TopoFile::Topology& topology() const { return topology_; }
    const Platform::Ptr<AllTopoDb>& allTopoDb() const { return allTopoDb_; }
    const Platform::Ptr<AllTopoDbStatus>& allTopoDbStatus() const { return status_; }
    const Platform::Ptr<AllTopoDbSm>& allTopoDbSm() const { return allTopoDbSm_; }

    // The file's router with this TE router id; null when none.
    const TopoFile::Router* routerByTeRouterId( const Net::IpGenAddr& teRouterId ) const;

    // Makes `teRouterId` the computing router: this router's configuration
    // and interface status become the file's router's. NameError when no
    // router of the file has that TE router id.
    void sourceIs( const Net::IpGenAddr& teRouterId );
    const Net::IpGenAddr& source() const { return source_; }

    // The view of one computation from the source for `af`, excluding
    // `exclude` (the empty id excludes nothing).
    std::shared_ptr<const AllTopoDbView> view( const Net::IntfId& exclude,
                                               Net::AddressFamily af );
    // One run from the source: the data holds the tree and the TEP owners.
    // With no TEP wanted, the tree alone is computed.
    Platform::Ptr<CspfData> compute( const std::vector<Net::IpGenAddr>& teps,
                                     const Net::IntfId& exclude = Net::IntfId(),
                                     Net::AddressFamily af = Net::AddressFamily::ipv4 );

  private:
    void doSync();

    TopoFile::Topology topology_;
    std::string root_;
    std::unique_ptr<Platform::StateTree> tree_;
    Platform::Ptr<TrafficEngineering::ConfigWriter> configWriter_;
    Platform::Ptr<TrafficEngineering::Config> config_;
    Platform::Ptr<Ip::StatusWriter> ipStatusWriter_;
    Platform::Ptr<Ip::Status> ipStatus_;
    Platform::Ptr<IntfIpToRouterIdWriter> intfIpToRouterId_;
    Platform::Ptr<AllTopoDb> allTopoDb_;
    Platform::Ptr<AllTopoDbStatus> status_;
    Platform::Ptr<AllTopoDbSm> allTopoDbSm_;
    Platform::Ptr<DedupConstraintTable> dedupTable_;
    // Held for the object's life: a view's constraint reads as the default
    // once its handle is gone.
    std::map<Net::IntfId, Platform::Ptr<DedupConstraint>> constraints_;
    Net::IpGenAddr source_;
};

}  // namespace Cspf

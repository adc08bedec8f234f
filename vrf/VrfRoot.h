// Cspf::VrfRoot: everything path computation needs for one VRF and family.
//
// It owns the VRF's bookkeeping tables (vrf/PathTables.h), its constraint
// dedup table, the mounted IS-IS level databases with the topology reactors
// over them, the published interface-address table, and the collections of
// per-path and per-constraint reactors that VrfRootSm fills. The per-family
// root makes one per active VRF through vrfRootFactory and lets it go when
// the VRF is no longer used; the root's PathConfigInfoTable and
// PathStatusInfoTable are the ones path intake writes.
//
// The agent also registers itself as a client of the topology database: a
// one-record table "<parentDir>/cspf/<vrf>" (Routing::Topology::Client),
// present while the VrfRoot lives.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Attribute.h"
#include "platform/DirectoryWatch.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/MountGroup.h"
#include "platform/Ptr.h"
#include "platform/Table.h"
#include "platform/TaskScheduler.h"
#include "records/AddressFamily.h"
#include "records/CspfCliConfig.h"
#include "records/IpStatus.h"
#include "records/TeConfig.h"
#include "records/VrfName.h"
#include "root/DedupConstraintTable.h"
#include "topo/AllTopoDb.h"
#include "topo/AllTopoDbSm.h"
#include "topo/AllTopoDbStatus.h"
#include "topo/AllTopoDbView.h"
#include "topo/IntfIpToRouterId.h"
#include "topo/TopoDb.h"
#include "vrf/ConstraintInfoSm.h"
#include "vrf/ConstraintInfoTableNotifiee.h"
#include "vrf/PathConfigInfoSm.h"
#include "vrf/PathRefreshSm.h"
#include "vrf/PathStatusInfoSm.h"
#include "vrf/PathStatusUpdateSm.h"
#include "vrf/PathTables.h"

namespace Routing::Topology {

// The name under which this agent enters the topology client directories.
constexpr const char* kTopoDbClientName = "cspf";

// One client's registration for the topology of one VRF: the entry is the
// request, its value says for which address family.
struct ClientValue {
    Net::AddressFamily af = Net::AddressFamily::ipv4;
    bool operator==( const ClientValue& other ) const = default;
};

struct ClientRecord {
    using Value = ClientValue;
    static constexpr const char* typeName = "Routing::Topology::Client";
    static constexpr const char* layout = "value Client 4: af u8, pad 3; v1";
    static constexpr uint32_t maxValueSize = 4;
    static void encodeValue( const Value& v, std::vector<uint8_t>& out );
    // DeserializationError naming "client" for a wrong length, an unknown
    // family or non-zero padding.
    static Value decodeValue( const uint8_t* in, size_t len );
};

using Client = Platform::SingletonReader<ClientRecord>;
using ClientWriter = Platform::SingletonWriter<ClientRecord>;

// "<clientDir>/cspf/<vrf>"
std::string topoDbClientPath( const std::string& clientDir, const L3::VrfName& vrf );

}  // namespace Routing::Topology

namespace Cspf {

class VrfRoot : public Platform::Entity {
  public:
    // `teConfig` and `parentDir` may be null (tests): no TE router id of our
    // own, no topology client entry.
    VrfRoot( const L3::VrfName& vrfName, Net::AddressFamily af,
             Platform::EntityManager& entityMgr,
             Platform::Ptr<TrafficEngineering::Config> teConfig,
             Platform::Ptr<Platform::DirectoryWatch> parentDir,
             Platform::TaskScheduler& taskScheduler );
    // Lets go of everything as handleDestruction does, but leaves the topology
    // client entry and the router-id table in the tree when the owner did not
    // run it: the end of the agent is not the end of the VRF.
    ~VrfRoot() override;

    const L3::VrfName& vrfName() const { return vrfName_; }
    Net::AddressFamily af() const { return af_; }
    Platform::EntityManager& entityMgr() const { return *entityMgr_; }
    const Platform::Ptr<TrafficEngineering::Config>& teConfig() const {
        return teConfig_;
    }
    const Platform::Ptr<Platform::DirectoryWatch>& parentDir() const {
        return parentDir_;
    }
    Platform::TaskScheduler& taskScheduler() const { return *taskScheduler_; }

    const Platform::Ptr<Routing::Topology::ClientWriter>& topoDbClient() const {
        return topoDbClient_;
    }
    const Platform::Ptr<Routing::Topology::TopoDb>& isisL1TopoDb() const {
        return isisL1TopoDb_;
    }
    const Platform::Ptr<Routing::Topology::TopoDb>& isisL2TopoDb() const {
        return isisL2TopoDb_;
    }
    const Platform::Ptr<AllTopoDb>& allTopoDb() const { return allTopoDb_; }
    const Platform::Ptr<AllTopoDbStatus>& allTopoDbStatus() const {
        return allTopoDbStatus_;
    }
    const Platform::Ptr<AllTopoDbSm>& allTopoDbSm() const { return allTopoDbSm_; }
    // The topology as a computation that excludes nothing sees it.
    const std::shared_ptr<const AllTopoDbView>& allTopoDbView() const {
        return allTopoDbView_;
    }
    const Platform::Ptr<IntfIpToRouterIdWriter>& intfIpToRouterIdTable() const {
        return intfIpToRouterIdTable_;
    }
    const Platform::Ptr<Ip::Status>& ipStatus() const { return ipStatus_; }
    const Platform::Ptr<Ip6::Status>& ip6Status() const { return ip6Status_; }
    // The CSPF settings; null when they are not mounted (the default waits).
    const Platform::Ptr<CspfCliConfig>& cliConfig() const { return cliConfig_; }

    const Platform::Ptr<DedupConstraintTable>& dedupConstraintTable() const {
        return dedupConstraintTable_;
    }
    const Platform::Ptr<ConstraintInfoTableNotifiee>& constraintInfoTableNotifiee()
        const {
        return constraintInfoTableNotifiee_;
    }
    const Platform::Ptr<PathConfigInfoTable>& pathConfigInfoTable() const {
        return pathConfigInfoTable_;
    }
    const Platform::Ptr<PathStatusInfoTable>& pathStatusInfoTable() const {
        return pathStatusInfoTable_;
    }
    const Platform::Ptr<PathStatusCacheTable>& pathStatusCacheTable() const {
        return pathStatusCacheTable_;
    }
    const Platform::Ptr<ConstraintInfoTable>& constraintInfoTable() const {
        return constraintInfoTable_;
    }
    const Platform::Ptr<ConstraintStatsTable>& constraintStatsTable() const {
        return constraintStatsTable_;
    }

    // The reactors of each path, kept by VrfRootSm.
    CSPF_COLL( HashColl, PathInfoKey, Platform::Ptr<PathConfigInfoSm>, pathConfigInfoSm,
               pathConfigInfoSms )
    CSPF_COLL( HashColl, PathInfoKey, Platform::Ptr<PathStatusInfoSm>, pathStatusInfoSm,
               pathStatusInfoSms )
    CSPF_COLL( HashColl, PathInfoKey, Platform::Ptr<PathRefreshSm>, pathRefreshSm,
               pathRefreshSms )
    CSPF_COLL( HashColl, PathInfoKey, Platform::Ptr<PathStatusUpdateSm>,
               pathStatusUpdateSm, pathStatusUpdateSms )
    // The scheduler of each constraint, by handle.
    CSPF_COLL( HashColl, ConstraintHandleKey, Platform::Ptr<ConstraintInfoSm>,
               constraintInfoSm, constraintInfoSms )

    // Creates the router-id table, reads the CSPF settings, mounts the level
    // databases, enters the topology client and starts the topology reactors.
    void handleInitialized();
    // The end of the VRF (its last client left): drops every reactor, the
    // topology client entry and the router-id table. Runs once.
    void handleDestruction();

    // Deletes the reactors of one path and its cache, in this order:
    // configuration, status, publisher, refresh, cache.
    void pathSmsDel( const PathInfoKey& key );

    void doMountTopoDb();
    void enableTopoDbClient();
    void disableTopoDbClient();
    void doSetIpStatus();

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    // handleDestruction's work; the tree's entries go only when `vrfEnds`.
    void doLetGo( bool vrfEnds );

    // The manager's entity at `path` of type T, or a new one made by `make`
    // and registered there, so that both families of a VRF share one.
    template <typename T, typename Make>
    Platform::Ptr<T> doSharedEntity( const std::string& path, Make make );
    // Unregisters `path` from the manager when nobody else holds its entity;
    // true when it did.
    bool doReleaseEntity( const std::string& path );

    const L3::VrfName vrfName_;
    const Net::AddressFamily af_;
    Platform::EntityManager* const entityMgr_;
    const Platform::Ptr<TrafficEngineering::Config> teConfig_;
    const Platform::Ptr<Platform::DirectoryWatch> parentDir_;
    Platform::TaskScheduler* const taskScheduler_;

    Platform::Ptr<Routing::Topology::ClientWriter> topoDbClient_;
    std::string topoDbClientPath_;
    Platform::Ptr<Routing::Topology::TopoDb> isisL1TopoDb_;
    Platform::Ptr<Routing::Topology::TopoDb> isisL2TopoDb_;
    Platform::Ptr<AllTopoDb> allTopoDb_;
    Platform::Ptr<AllTopoDbStatus> allTopoDbStatus_;
    Platform::Ptr<AllTopoDbSm> allTopoDbSm_;
    std::shared_ptr<const AllTopoDbView> allTopoDbView_;
    Platform::Ptr<IntfIpToRouterIdWriter> intfIpToRouterIdTable_;
    Platform::Ptr<Ip::Status> ipStatus_;
    Platform::Ptr<Ip6::Status> ip6Status_;
    Platform::Ptr<CspfCliConfig> cliConfig_;

    Platform::Ptr<DedupConstraintTable> dedupConstraintTable_;
    Platform::Ptr<ConstraintInfoTableNotifiee> constraintInfoTableNotifiee_;
    Platform::Ptr<PathConfigInfoTable> pathConfigInfoTable_;
    Platform::Ptr<PathStatusInfoTable> pathStatusInfoTable_;
    Platform::Ptr<PathStatusCacheTable> pathStatusCacheTable_;
    Platform::Ptr<ConstraintInfoTable> constraintInfoTable_;
    Platform::Ptr<ConstraintStatsTable> constraintStatsTable_;
    bool destroyed_ = false;
};

// The per-family root's way to make one.
Platform::Ptr<VrfRoot> vrfRootFactory( const L3::VrfName& vrfName, Net::AddressFamily af,
                                       Platform::EntityManager& entityMgr,
                                       Platform::Ptr<TrafficEngineering::Config> teConfig,
                                       Platform::Ptr<Platform::DirectoryWatch> parentDir,
                                       Platform::TaskScheduler& taskScheduler );

}  // namespace Cspf

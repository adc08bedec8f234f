#include "tools/OfflineTopology.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

#include "cspf/CspfImpl.h"
#include "platform/Entity.h"
#include "platform/Error.h"
#include "records/VrfName.h"
#include "root/DedupConstraint.h"
#include "root/DedupConstraintTable.h"
#include "tools/TopologyLoad.h"
#include "topo/TopoDb.h"

namespace Cspf {

using Platform::create;

OfflineTopology::OfflineTopology( TopoFile::Topology topology,
                                  const std::string& parentDir )
    : topology_( std::move( topology ) ) {
    std::string tmpl = parentDir + "/cspf-offline-XXXXXX";
    if ( !mkdtemp( tmpl.data() ) ) {
        throw Platform::Error( "cannot make a private state tree in " + parentDir + ": " +
                               std::strerror( errno ) );
    }
    root_ = tmpl;
    try {
        tree_ = std::make_unique<Platform::StateTree>( root_ );
        const L3::VrfName vrf;
        TopoFile::loadIntoTree( topology_, *tree_, vrf );
        configWriter_ = create<TrafficEngineering::ConfigWriter>(
            *tree_, nullptr, TrafficEngineering::kConfigPath );
        config_ = create<TrafficEngineering::Config>( *tree_, nullptr,
                                                      TrafficEngineering::kConfigPath );
        ipStatusWriter_ = create<Ip::StatusWriter>( *tree_, nullptr, Ip::kStatusPath );
        ipStatus_ = create<Ip::Status>( *tree_, nullptr );
        intfIpToRouterId_ = create<IntfIpToRouterIdWriter>( *tree_, nullptr,
                                                            intfIpToRouterIdPath( vrf ) );
        allTopoDb_ = create<AllTopoDb>();
        status_ = create<AllTopoDbStatus>( intfIpToRouterId_ );
        dedupTable_ = create<DedupConstraintTable>();
        for ( int level = 1; level <= 2; ++level ) {
            bool present = false;
            for ( const auto& router : topology_.routers ) {
                present = present || router.inLevel( unsigned( level ) );
            }
            if ( present ) {
                allTopoDb_->topoDbIs(
                    level == 1 ? TopoId::isisL1 : TopoId::isisL2,
                    create<Routing::Topology::TopoDb>( *tree_, nullptr, level, vrf ) );
            }
        }
        allTopoDbSm_ = create<AllTopoDbSm>( allTopoDb_, status_, config_ );
    } catch ( ... ) {
        std::error_code ignored;
        std::filesystem::remove_all( root_, ignored );
        throw;
    }
}

OfflineTopology::~OfflineTopology() {
    // The reactors and readers go before the files they follow.
    allTopoDbSm_ = nullptr;
    constraints_.clear();
    status_ = nullptr;
    allTopoDb_ = nullptr;
    ipStatus_ = nullptr;
    config_ = nullptr;
    std::error_code ignored;
    std::filesystem::remove_all( root_, ignored );
}

const TopoFile::Router* OfflineTopology::routerByTeRouterId(
    const Net::IpGenAddr& teRouterId ) const {
    for ( const auto& router : topology_.routers ) {
        if ( router.teRouterId && *router.teRouterId == teRouterId ) {
            return &router;
        }
    }
    return nullptr;
}

void OfflineTopology::sourceIs( const Net::IpGenAddr& teRouterId ) {
    const TopoFile::Router* router = routerByTeRouterId( teRouterId );
    if ( !router ) {
        throw Platform::NameError( "no router of the topology has TE router id " +
                                   teRouterId.toString() );
    }
    // The router's interfaces, in file order: the first IPv4 address of an
    // interface is its active one, any further ones secondary.
    std::map<Net::IntfId, Ip::IntfAddrs> interfaces;
    auto attach = [&]( const TopoFile::Attachment& a ) {
        if ( a.router != router->name || a.interface.empty() ) {
            return;
        }
        Ip::IntfAddrs& addrs = interfaces[a.interface];
        if ( a.ipv4 ) {
            const Ip::AddrWithMask v4{ a.ipv4->addr, a.ipv4->prefixLength };
            if ( addrs.active.addr.isAddrZero() ) {
                addrs.active = v4;
            } else if ( !( addrs.active == v4 ) ) {
                addrs.secondary.push_back( v4 );
            }
        }
        if ( a.ipv6 ) {
            addrs.ip6.push_back( { a.ipv6->addr, a.ipv6->prefixLength } );
        }
    };
    for ( const auto& link : topology_.links ) {
        for ( const auto& end : link.ends ) {
            attach( end );
        }
    }
    for ( const auto& lan : topology_.lans ) {
        for ( const auto& member : lan.members ) {
            attach( member );
        }
    }
    const std::set<Net::IntfId> present = ipStatusWriter_->keys();
    for ( const Net::IntfId& intf : present ) {
        if ( !interfaces.count( intf ) ) {
            ipStatusWriter_->intfAddrsDel( intf );
        }
    }
    for ( const auto& [intf, addrs] : interfaces ) {
        ipStatusWriter_->intfAddrsIs( intf, addrs );
    }
    TrafficEngineering::ConfigValue config;
    config.enabled = true;
    if ( teRouterId.isV4() ) {
        config.routerId = teRouterId;
    }
    configWriter_->valueIs( config );
    doSync();
    if ( !teRouterId.isV4() ) {
        status_->ourTeRouterIdIs( teRouterId );
    }
    source_ = teRouterId;
}

void OfflineTopology::doSync() {
    config_->sync();
    ipStatus_->sync();
    for ( const auto& [level, db] : allTopoDb_->topoDbColl() ) {
        db->sync();
    }
}

std::shared_ptr<const AllTopoDbView> OfflineTopology::view( const Net::IntfId& exclude,
                                                            Net::AddressFamily af ) {
    Platform::Ptr<DedupConstraint>& handle = constraints_[exclude];
    if ( !handle ) {
        handle =
            dedupTable_->dedup( DedupConstraintContent( PathConstraint( exclude ) ) );
    }
    const bool v6 = af == Net::AddressFamily::ipv6;
    return std::make_shared<const AllTopoDbView>(
        allTopoDb_, status_, v6 ? nullptr : ipStatus_,
        v6 ? ipStatus_->ip6Status() : nullptr,
        create<DedupConstraintLifeTimeNotifier>( handle.get() ) );
}

Platform::Ptr<CspfData> OfflineTopology::compute( const std::vector<Net::IpGenAddr>& teps,
                                                  const Net::IntfId& exclude,
                                                  Net::AddressFamily af ) {
    Platform::Ptr<CspfData> data = cspfDataFactory( view( exclude, af ), source_ );
    for ( const Net::IpGenAddr& tep : teps ) {
        data->tepIs( tep, true );
    }
    if ( !data->teps() ) {
        // A run wants a TEP; the source's own is never owned, so asking for
        // it computes the tree alone.
        data->tepIs( source_, true );
    }
    cspfRunFactory( data );
    if ( teps.empty() ) {
        data->tepDelAll();
    }
    return data;
}

}  // namespace Cspf

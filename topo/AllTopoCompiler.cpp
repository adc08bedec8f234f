#include "topo/AllTopoCompiler.h"

#include <algorithm>
#include <utility>

#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "records/IpStatus.h"
#include "root/DedupConstraint.h"
#include "topo/TopoDb.h"

namespace Cspf {

using Routing::Topology::NeighborIndex;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkId;
using Routing::Topology::RouterIndex;

namespace {

template <typename T>
void eraseOne( std::vector<T>& v, const T& value ) {
    const auto it = std::find( v.begin(), v.end(), value );
    if ( it != v.end() ) {
        *it = v.back();
        v.pop_back();
    }
}

}  // namespace

AllTopoCompiler::AllTopoCompiler( Platform::Ptr<AllTopoDb> allTopoDb,
                                  AllTopoDbStatus* allTopoDbStatus )
    : allTopoDb_( std::move( allTopoDb ) ), allTopoDbStatus_( allTopoDbStatus ) {}

const AllTopoCompiled& AllTopoCompiler::compiled() {
    // Asked at every router a run expands: the common case is two compares.
    const bool ourMoved = !( allTopoDbStatus_->ourTeRouterId() == ourTeRouterId_ );
    if ( built_ && allTopoDbStatus_->topoVersion() == version_ && !ourMoved &&
         !retryDue_ ) {
        return compiled_;
    }
    retryDue_ = false;
    // A level that comes or goes advances the version too.
    if ( !built_ || doLevelsChanged() ) {
        rebuild();
        return compiled_;
    }
    version_ = allTopoDbStatus_->topoVersion();
    if ( !allTopoDbStatus_->topoChangesTake( changes_ ) ) {
        rebuild();
        return compiled_;
    }
    doUpdate( changes_ );
    return compiled_;
}

void AllTopoCompiler::refusedRetry() {
    if ( refusedRouters_.empty() && refusedNetworks_.empty() ) {
        return;
    }
    dirtyRouters_.insert( refusedRouters_.begin(), refusedRouters_.end() );
    dirtyNetworks_.insert( refusedNetworks_.begin(), refusedNetworks_.end() );
    retryDue_ = true;
}

bool AllTopoCompiler::doLevelsChanged() const {
    if ( levels_.size() != allTopoDb_->topoDbColl().size() ) {
        return true;
    }
    for ( const auto& [topoId, topoDb] : allTopoDb_->topoDbColl() ) {
        const auto it = levels_.find( topoId );
        const auto* map = allTopoDbStatus_->routerIdMapColl().find( topoId );
        if ( it == levels_.end() || it->second.topoDb != topoDb.get() ||
             it->second.routerIdMap != ( map ? map->get() : nullptr ) ) {
            return true;
        }
    }
    return false;
}

void AllTopoCompiler::rebuild() {
    TRACE4( "compiling the whole topology" );
    allTopoDbStatus_->topoChangesTake( changes_ );
    version_ = allTopoDbStatus_->topoVersion();
    ourTeRouterId_ = allTopoDbStatus_->ourTeRouterId();
    levels_.clear();
    compiled_.clear();
    dirtyRouters_.clear();
    dirtyNetworks_.clear();
    refusedRouters_.clear();
    refusedNetworks_.clear();
    retryDue_ = false;
    for ( const auto& [topoId, topoDb] : allTopoDb_->topoDbColl() ) {
        Level& level = levels_[topoId];
        level.topoDb = topoDb.get();
        const auto* map = allTopoDbStatus_->routerIdMapColl().find( topoId );
        level.routerIdMap = map ? map->get() : nullptr;
        level.igp.reserve( topoDb->routers().size() );
        for ( const auto& [id, version] : topoDb->routers() ) {
            doRouterChanged( topoId, level, id );
        }
        for ( const auto& [id, version] : topoDb->networks() ) {
            doNetworkChanged( topoId, level, id );
        }
        // The id map may name a router whose record is gone already.
        if ( level.routerIdMap ) {
            for ( const auto& [te, igp] : level.routerIdMap->igpRouterIdColl() ) {
                dirtyRouters_.insert( te );
            }
        }
    }
    built_ = true;
    ++stats_.rebuilds;
    doCompile();
}

void AllTopoCompiler::doUpdate( const std::vector<TopoChange>& changes ) {
    for ( const TopoChange& change : changes ) {
        const auto it = levels_.find( change.topoId );
        if ( change.kind == TopoChange::Kind::ourTeRouterId || it == levels_.end() ) {
            continue;
        }
        switch ( change.kind ) {
            case TopoChange::Kind::router:
                doRouterChanged( change.topoId, it->second, change.routerId );
                break;
            case TopoChange::Kind::neighbor:
                doNeighborChanged( change.topoId, it->second, change.neighborKey );
                break;
            case TopoChange::Kind::network:
                doNetworkChanged( change.topoId, it->second, change.networkId );
                break;
            case TopoChange::Kind::ourTeRouterId:
                break;
        }
    }
    // Overload and the constraint apply by whether a router is ours.
    const Net::IpGenAddr& ours = allTopoDbStatus_->ourTeRouterId();
    if ( !( ours == ourTeRouterId_ ) ) {
        dirtyRouters_.insert( ourTeRouterId_ );
        dirtyRouters_.insert( ours );
        ourTeRouterId_ = ours;
    }
    doCompile();
}

void AllTopoCompiler::doDirtyIgp( Level& level, const Mpls::RouterId& id ) {
    Igp& igp = level.igp[id];
    if ( igp.teRouterId.isSet() ) {
        dirtyRouters_.insert( igp.teRouterId );
    }
    const Net::IpGenAddr* te =
        level.routerIdMap ? level.routerIdMap->teRouterIdColl().find( id ) : nullptr;
    igp.teRouterId = te ? *te : Net::IpGenAddr();
    if ( te ) {
        dirtyRouters_.insert( *te );
    }
}

void AllTopoCompiler::doRouterChanged( TopoId topoId, Level& level,
                                       const Mpls::RouterId& id ) {
    doDirtyIgp( level, id );
    Igp& igp = level.igp[id];
    for ( const Mpls::RouterId& far : igp.farRouters ) {
        eraseOne( level.listedBy[far], id );
    }
    for ( const NetworkId& network : igp.networks ) {
        dirtyNetworks_.insert( AllTopoNetworkId( topoId, network ) );
    }
    igp.farRouters.clear();
    igp.networks.clear();
    if ( level.topoDb->routerHas( id ) ) {
        try {
            const Routing::Topology::RouterView view =
                level.topoDb->routerView( id, buffer_ );
            for ( uint32_t i = 0; i < view.neighborCount(); ++i ) {
                NeighborKey key;
                try {
                    key = view.neighborKey( NeighborIndex( i ) );
                } catch ( const Platform::Error& ) {
                    continue;
                }
                if ( key.isRouter() ) {
                    igp.farRouters.push_back( key.neighborRouterId() );
                    level.listedBy[key.neighborRouterId()].push_back( id );
                } else if ( key.isNetwork() ) {
                    igp.networks.push_back( key.networkId() );
                    dirtyNetworks_.insert( AllTopoNetworkId( topoId, key.networkId() ) );
                }
            }
        } catch ( const Platform::Error& ) {
            // A record that cannot be read lists nothing; the compile reports it.
        }
    }
    // The routers whose links lead here read this record in their two-way
    // checks and its TE router id into their link keys; the LANs that list
    // it read both too.
    if ( const auto it = level.listedBy.find( id ); it != level.listedBy.end() ) {
        for ( const Mpls::RouterId& from : it->second ) {
            doDirtyIgp( level, from );
        }
    }
    if ( const auto it = level.memberOf.find( id ); it != level.memberOf.end() ) {
        for ( const NetworkId& network : it->second ) {
            dirtyNetworks_.insert( AllTopoNetworkId( topoId, network ) );
        }
    }
}

void AllTopoCompiler::doNeighborChanged( TopoId topoId, Level& level,
                                         const NeighborKey& key ) {
    doDirtyIgp( level, key.routerId() );
    if ( key.isRouter() ) {
        // The far end's links back are checked against this one.
        doDirtyIgp( level, key.neighborRouterId() );
    } else if ( key.isNetwork() ) {
        dirtyNetworks_.insert( AllTopoNetworkId( topoId, key.networkId() ) );
    }
}

void AllTopoCompiler::doNetworkChanged( TopoId topoId, Level& level,
                                        const NetworkId& id ) {
    dirtyNetworks_.insert( AllTopoNetworkId( topoId, id ) );
    // Its members' links into it are checked against its record.
    std::vector<Mpls::RouterId>& members = level.members[id];
    for ( const Mpls::RouterId& member : members ) {
        eraseOne( level.memberOf[member], id );
        doDirtyIgp( level, member );
    }
    members.clear();
    if ( level.topoDb->networkHas( id ) ) {
        try {
            const Routing::Topology::NetworkView view =
                level.topoDb->networkView( id, buffer_ );
            for ( uint32_t i = 0; i < view.routerCount(); ++i ) {
                const Mpls::RouterId member = view.router( RouterIndex( i ) );
                members.push_back( member );
                level.memberOf[member].push_back( id );
                doDirtyIgp( level, member );
            }
        } catch ( const Platform::Error& ) {
            // The compile reports it.
        }
    }
    if ( members.empty() ) {
        level.members.erase( id );
    }
}

void AllTopoCompiler::doCompile() {
    const AllTopoDbReader reader( allTopoDb_,
                                  Platform::Ptr<AllTopoDbStatus>( allTopoDbStatus_ ),
                                  nullptr, nullptr, nullptr );
    for ( const Net::IpGenAddr& te : dirtyRouters_ ) {
        if ( te.isSet() ) {
            doCompileRouter( reader, te );
        }
    }
    for ( const AllTopoNetworkId& id : dirtyNetworks_ ) {
        doCompileNetwork( reader, id );
    }
    ++stats_.updates;
    stats_.lastRouters = dirtyRouters_.size();
    stats_.lastNetworks = dirtyNetworks_.size();
    TRACE5( "compiled " << dirtyRouters_.size() << " routers and "
                        << dirtyNetworks_.size() << " LANs" );
    dirtyRouters_.clear();
    dirtyNetworks_.clear();
}

void AllTopoCompiler::doCompileRouter( const AllTopoDbReader& reader,
                                       const Net::IpGenAddr& teRouterId ) {
    AllTopoCompiled::Router router;
    try {
        reader.routerLinks( teRouterId, router.links );
    } catch ( const Platform::Error& ) {
        router.error = std::current_exception();
        router.links = AllTopoDbReader::RouterLinks();
        router.links.teRouterId = teRouterId;
    }
    if ( router.error ) {
        refusedRouters_.insert( teRouterId );
    } else {
        refusedRouters_.erase( teRouterId );
    }
    if ( !router.links.teRouterId.isSet() ) {
        compiled_.routerDel( teRouterId );
        return;
    }
    router.links.links.shrink_to_fit();
    router.links.teps.shrink_to_fit();
    router.links.addrs.shrink_to_fit();
    compiled_.routerIs( teRouterId ) = std::move( router );
}

void AllTopoCompiler::doCompileNetwork( const AllTopoDbReader& reader,
                                        const AllTopoNetworkId& id ) {
    AllTopoCompiled::Network network;
    AllTopoNetwork lan;
    try {
        lan = reader.network( id );
    } catch ( const Platform::Error& ) {
        network.error = std::current_exception();
        compiled_.networkIs( id ) = std::move( network );
        refusedNetworks_.insert( id );
        return;
    }
    refusedNetworks_.erase( id );
    if ( lan.allTopoNetworkId() == AllTopoNetworkId() ) {
        compiled_.networkDel( id );
        return;
    }
    const auto* map = allTopoDbStatus_->routerIdMapColl().find( id.topoId() );
    const RouterIdMap* routerIdMap = map ? map->get() : nullptr;
    for ( const Net::IpGenAddr& te : lan.router() ) {
        network.routers.push_back( te );
        // Across the LAN the hop is the router's own address on it: its own
        // link into the LAN, through the level's id map.
        AllTopoCompiled::LanRouter& hop = network.hops.emplace_back();
        hop.teRouterId = te;
        const Mpls::RouterId* igp =
            routerIdMap ? routerIdMap->igpRouterIdColl().find( te ) : nullptr;
        if ( !igp ) {
            hop.check = AllTopoCompiled::LanHopCheck::unmapped;
            continue;
        }
        hop.igpRouterId = *igp;
        const NeighborKey reverseKey = NeighborKey::toNetwork( *igp, id.networkId() );
        try {
            if ( !reader.routerListsNeighbor( id.topoId(), reverseKey ) ) {
                hop.check = AllTopoCompiled::LanHopCheck::notListed;
                continue;
            }
            const AllTopoDbReader::LinkFirstAddr first = reader.neighborFirstAddr(
                AllTopoNeighborKey( id.topoId(), reverseKey, te ),
                AllTopoDbReader::AddrList::interfaceAddrs );
            if ( !first.found ) {
                hop.check = AllTopoCompiled::LanHopCheck::noRecord;
            } else if ( !first.count ) {
                hop.check = AllTopoCompiled::LanHopCheck::noAddr;
            } else {
                hop.hop = first.addr;
            }
        } catch ( const Platform::Error& ) {
            hop.check = AllTopoCompiled::LanHopCheck::noRecord;
        }
    }
    compiled_.networkIs( id ) = std::move( network );
}

size_t AllTopoCompiler::indexBytes() const {
    size_t total = 0;
    for ( const auto& [topoId, level] : levels_ ) {
        total += tableBytes( level.igp ) + tableBytes( level.listedBy ) +
                 tableBytes( level.members ) + tableBytes( level.memberOf );
        for ( const auto& [id, igp] : level.igp ) {
            total += capacityBytes( igp.farRouters ) + capacityBytes( igp.networks );
        }
        for ( const auto& [id, from] : level.listedBy ) {
            total += capacityBytes( from );
        }
        for ( const auto& [id, members] : level.members ) {
            total += capacityBytes( members );
        }
        for ( const auto& [id, networks] : level.memberOf ) {
            total += capacityBytes( networks );
        }
    }
    return total;
}

void AllTopoCompiler::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent,
                           "Topology version compiled: %llu, updates %llu, full builds "
                           "%llu\n",
                           static_cast<unsigned long long>( version_ ),
                           static_cast<unsigned long long>( stats_.updates ),
                           static_cast<unsigned long long>( stats_.rebuilds ) );
    compiled_.dumpState( context, indent + 2 );
}

}  // namespace Cspf

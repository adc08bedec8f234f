#include "topo/AllTopoDbStatus.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "topo/AllTopoCompiler.h"

namespace Cspf {

namespace {

template <typename Coll>
auto sortedKeys( const Coll& coll ) {
    auto keys = coll.keys();
    std::sort( keys.begin(), keys.end() );
    return keys;
}

// The neighbor-table column: the level and the link as its router names it;
// the TE router ids follow from the router and add nothing to read.
std::string neighborColumn( const AllTopoNeighborKey& key ) {
    return toString( key.topoId() ) + " " + key.neighborKey().stringValue();
}

}  // namespace

void DuplicateRouters::dumpState( Platform::DumpContext& context,
                                  unsigned indent ) const {
    Platform::objDumpLine( context, indent, "TE Router ID: %15s\n",
                           teRouterId_.toString().c_str() );
    Platform::objDumpLine( context, indent + 2, "Duplicate routers\n" );
    for ( const auto& [routerId, present] : routerColl() ) {
        Platform::objDumpLine( context, indent + 4, "%15s\n",
                               routerId.toString().c_str() );
    }
}

void RouterIdMap::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Topology %s\n",
                           toString( topoId_ ).c_str() );
    Platform::objDumpLine( context, indent + 2, "%15s       %15s\n", "IGP Router ID",
                           "TE Router ID" );
    for ( const Mpls::RouterId& igp : sortedKeys( teRouterIdColl() ) ) {
        Platform::objDumpLine( context, indent + 2, "%15s   >   %15s\n",
                               igp.toString().c_str(),
                               teRouterId( igp ).toString().c_str() );
    }
    for ( const auto& [te, duplicates] : duplicateRoutersColl() ) {
        Platform::ObjDumpChild( duplicates, context, indent + 2 );
    }
}

void IntfIpToNeighbor::dumpState( Platform::DumpContext& context,
                                  unsigned indent ) const {
    const std::string addr = intfIp_.toString();
    const auto keys = sortedKeys( neighborColl() );
    if ( keys.empty() ) {
        Platform::objDumpLine( context, indent, "%15s   >   %45s\n", addr.c_str(), "" );
        return;
    }
    // The address heads its first link only, so that its links read as a block.
    bool first = true;
    for ( const AllTopoNeighborKey& key : keys ) {
        Platform::objDumpLine( context, indent, "%15s   >   %45s\n",
                               first ? addr.c_str() : "", neighborColumn( key ).c_str() );
        first = false;
    }
}

void IntfIpToNeighborTable::dumpState( Platform::DumpContext& context,
                                       unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Neighbor to Interface-IP Table\n" );
    Platform::objDumpLine( context, indent + 2, "%15s       %41s (%u)\n", "Interface IP",
                           "Neighbor Keys", unsigned( intfIpToNeighbors() ) );
    for ( const Net::IpGenAddr& addr : sortedKeys( intfIpToNeighborColl() ) ) {
        Platform::ObjDumpChild( intfIpToNeighbor( addr ), context, indent + 2 );
    }
}

Platform::Ptr<IntfIpToNeighborTable> AllTopoDbStatus::intfIpToNeighborTableIs() {
    if ( !intfIpToNeighborTable_ ) {
        intfIpToNeighborTableIs( Platform::create<IntfIpToNeighborTable>() );
    }
    return intfIpToNeighborTable_;
}

void AllTopoDbStatus::topoChangedAtIsNow() {
    topoChangedAtIs( Platform::now() );
}

void AllTopoDbStatus::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Our TE Router ID: %s\n",
                           ourTeRouterId_.toString().c_str() );
    Platform::objDumpLine( context, indent, "Per-topology Router ID maps\n" );
    for ( const auto& [topoId, map] : routerIdMapColl() ) {
        Platform::ObjDumpChild( map, context, indent + 2 );
    }
    Platform::ObjDumpChild( intfIpToNeighborTable_, context, indent );
}

AllTopoDbStatus::AllTopoDbStatus(
    Platform::Ptr<IntfIpToRouterIdWriter> intfIpToRouterIdTable )
    : intfIpToRouterIdTable_( std::move( intfIpToRouterIdTable ) ) {}

AllTopoDbStatus::~AllTopoDbStatus() = default;

void AllTopoDbStatus::topoChangeIs( const TopoChange& change ) {
    ++topoVersion_;
    if ( topoChangesLost_ ) {
        return;
    }
    if ( topoChanges_.size() >= kMaxTopoChanges ) {
        topoVersionInc();
        return;
    }
    topoChanges_.push_back( change );
}

void AllTopoDbStatus::topoVersionInc() {
    ++topoVersion_;
    topoChanges_.clear();
    topoChangesLost_ = true;
}

bool AllTopoDbStatus::topoChangesTake( std::vector<TopoChange>& changes ) {
    changes.clear();
    changes.swap( topoChanges_ );
    const bool kept = !topoChangesLost_;
    topoChangesLost_ = false;
    return kept;
}

Platform::Ptr<AllTopoCompiler> AllTopoDbStatus::allTopoCompilerFor(
    const Platform::Ptr<AllTopoDb>& allTopoDb ) {
    if ( !allTopoCompiler_ || !( allTopoCompiler_->allTopoDb() == allTopoDb ) ) {
        allTopoCompiler_ =
            Platform::Ptr<AllTopoCompiler>( new AllTopoCompiler( allTopoDb, this ) );
    }
    return allTopoCompiler_;
}

}  // namespace Cspf

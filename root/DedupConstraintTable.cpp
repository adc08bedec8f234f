#include "root/DedupConstraintTable.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "platform/Assert.h"

namespace Cspf {

void DedupConstraintTableNotifiee::handleInsert( Platform::DedupHandle& ) {}

void DedupConstraintTableNotifiee::handleRemove( Platform::DedupHandle& ) {}

void DedupConstraintTableNotifiee::handleNotificationStop( Platform::DedupHashTable& ) {}

DedupConstraintTable::DedupConstraintTable()
    : hashTable_( new Platform::DedupHashTable ) {}

DedupConstraintTable::~DedupConstraintTable() = default;

Platform::Ptr<DedupConstraint> DedupConstraintTable::dedup(
    const DedupConstraintContent& content ) {
    // A notifiee reacting to the insertion may drop the last outside
    // reference to this table; it must survive until the call returns. A
    // table that nobody holds would be deleted by this very guard.
    CSPF_ASSERT( refCount() > 0 );
    Platform::Ptr<DedupConstraintTable> self( this );
    return DedupConstraint::dedupContent( *hashTable_, content );
}

void DedupConstraintTable::dedupTableNotifieeIs(
    DedupConstraintTableNotifiee* notifiee ) {
    notifiee_ = notifiee;
    hashTable_->notifieeIs( notifiee );
}

void DedupConstraintTable::dumpState( Platform::DumpContext& context,
                                      unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Constraint Table: %zu handles\n", size() );
    // Sorted by content so that dumps of equal tables read the same.
    std::vector<std::pair<std::string, const DedupConstraint*>> handles;
    hashTable_->forEach( [&]( const Platform::DedupHandle& h ) {
        const auto& handle = static_cast<const DedupConstraint&>( h );
        handles.emplace_back( handle.content().toString(), &handle );
    } );
    std::sort( handles.begin(), handles.end(),
               []( const auto& a, const auto& b ) { return a.first < b.first; } );
    for ( const auto& entry : handles ) {
        entry.second->dumpState( context, indent + 2 );
    }
}

}  // namespace Cspf

#include "vrf/PathTables.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace Cspf {

namespace {

// Hash tables iterate in no useful order; dumps of equal tables must read the
// same, so the keys are sorted first.
template <typename Coll>
void dumpPathTable( Platform::DumpContext& context, unsigned indent, const char* name,
                    const Coll& coll ) {
    Platform::objDumpLine( context, indent, "%s: %zu entries\n", name, coll.size() );
    auto keys = coll.keys();
    std::sort( keys.begin(), keys.end() );
    for ( const PathInfoKey& key : keys ) {
        Platform::objDumpLine( context, indent + 2, "%s\n", key.toString().c_str() );
        Platform::ObjDumpChild( coll.get( key ), context, indent + 4 );
    }
}

// By the constraint's string form: addresses differ from run to run.
template <typename Coll>
void dumpConstraintTable( Platform::DumpContext& context, unsigned indent,
                          const char* name, const Coll& coll ) {
    Platform::objDumpLine( context, indent, "%s: %zu entries\n", name, coll.size() );
    std::vector<std::pair<std::string, ConstraintHandleKey>> entries;
    for ( const auto& [handle, entry] : coll ) {
        entries.emplace_back(
            entry->constraint() ? entry->constraint()->content().toString() : "",
            handle );
    }
    std::sort( entries.begin(), entries.end() );
    for ( const auto& [text, handle] : entries ) {
        Platform::objDumpLine( context, indent + 2, "Constraint Handle: %p %s\n",
                               static_cast<const void*>( handle ), text.c_str() );
        Platform::ObjDumpChild( coll.get( handle ), context, indent + 4 );
    }
}

}  // namespace

void PathConfigInfoTable::dumpState( Platform::DumpContext& context,
                                     unsigned indent ) const {
    dumpPathTable( context, indent, "PathConfigInfoTable", pathConfigInfoColl() );
}

void PathStatusInfoTable::dumpState( Platform::DumpContext& context,
                                     unsigned indent ) const {
    dumpPathTable( context, indent, "PathStatusInfoTable", pathStatusInfoColl() );
}

void PathStatusCacheTable::dumpState( Platform::DumpContext& context,
                                      unsigned indent ) const {
    dumpPathTable( context, indent, "PathStatusCacheTable", pathStatusCacheColl() );
}

void ConstraintInfoTable::dumpState( Platform::DumpContext& context,
                                     unsigned indent ) const {
    dumpConstraintTable( context, indent, "ConstraintInfoTable", constraintInfoColl() );
}

void ConstraintStatsTable::dumpState( Platform::DumpContext& context,
                                      unsigned indent ) const {
    dumpConstraintTable( context, indent, "ConstraintStatsTable", constraintStatsColl() );
}

}  // namespace Cspf

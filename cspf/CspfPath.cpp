#include "cspf/CspfPath.h"

#include <algorithm>
#include <ostream>
#include <vector>

#include "platform/Error.h"
#include "platform/ValueForm.h"

namespace Cspf {

CspfPath CspfPath::fromString( std::string_view ) {
    throw Platform::TypeError(
        "!\"No String constructor for CspfPath - has collection\"" );
}

bool CspfPath::newLastLink( const CspfLinkInfo& info ) {
    return lastLink_.emplace( info.cspfLinkInfoKey(), info ).second;
}

void CspfPath::lastLinkIs( const CspfLinkInfo& info ) {
    lastLink_.insert_or_assign( info.cspfLinkInfoKey(), info );
}

CspfLinkInfo CspfPath::lastLink( const CspfLinkInfoKey& key ) const {
    auto it = lastLink_.find( key );
    return it == lastLink_.end() ? CspfLinkInfo() : it->second;
}

std::string CspfPath::toString() const {
    // A hash map's order depends on its history, and the text must not.
    std::vector<const LastLinkMap::value_type*> members;
    members.reserve( lastLink_.size() );
    for ( const auto& member : lastLink_ ) {
        members.push_back( &member );
    }
    std::sort( members.begin(), members.end(),
               []( const auto* a, const auto* b ) { return a->first < b->first; } );
    std::string lastLinks = "{";
    for ( size_t i = 0; i < members.size(); ++i ) {
        if ( i ) {
            lastLinks += ", ";
        }
        lastLinks += members[i]->first.toString();
        lastLinks += ": ";
        lastLinks += members[i]->second.toString();
    }
    lastLinks += "}";
    return Platform::ValueFormWriter( "Cspf::CspfPath" )
        .field( "teRouterId", teRouterId_.toString() )
        .field( "lastLink", lastLinks )
        .str();
}

std::ostream& operator<<( std::ostream& os, const CspfPath& path ) {
    return os << path.toString();
}

}  // namespace Cspf

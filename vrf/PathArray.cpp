#include "vrf/PathArray.h"

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Error.h"

namespace Cspf {

PathArray::PathArray( const std::vector<Net::IpGenAddr>& hops ) {
    if ( hops.size() > kMaxHops ) {
        HopIndex::throwRangeError();
    }
    hops_ = hops;
}

Net::IpGenAddr PathArray::path( HopIndex index ) const {
    return index.value() < hops_.size() ? hops_[index.value()] : Net::IpGenAddr();
}

void PathArray::pathIs( HopIndex index, const Net::IpGenAddr& addr ) {
    const size_t i = index.value();
    if ( i > hops_.size() ) {
        throw Platform::RangeError( "PathArray::pathIs index " + std::to_string( i ) +
                                    " past length " + std::to_string( hops_.size() ) );
    }
    if ( i == hops_.size() ) {
        hops_.push_back( addr );
    } else if ( hops_[i] == addr ) {
        return;
    } else {
        hops_[i] = addr;
    }
    notify( &pathTag, &index );
}

void PathArray::pathDel( HopIndex index ) {
    const size_t from = index.value();
    if ( from >= hops_.size() ) {
        return;
    }
    // Every index whose hop changes or vanishes, as a collection would tell.
    std::vector<HopIndex> changed;
    for ( size_t i = from; i < hops_.size(); ++i ) {
        if ( i + 1 == hops_.size() || !( hops_[i] == hops_[i + 1] ) ) {
            changed.emplace_back( static_cast<uint32_t>( i ) );
        }
    }
    hops_.erase( hops_.begin() + static_cast<std::ptrdiff_t>( from ) );
    for ( const HopIndex& i : changed ) {
        notify( &pathTag, &i );
    }
}

void PathArray::pathDelAll() {
    // From the end, so that no hop moves and each index is told once.
    while ( !hops_.empty() ) {
        pathDel( HopIndex( static_cast<uint32_t>( hops_.size() - 1 ) ) );
    }
}

void PathArray::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    for ( const Net::IpGenAddr& hop : hops_ ) {
        Platform::objDumpLine( context, indent, " %s\n", hop.toString().c_str() );
    }
}

}  // namespace Cspf

#include "topo/AllTopoViews.h"

#include <algorithm>
#include <ostream>
#include <vector>

#include "platform/Error.h"
#include "platform/ValueForm.h"

namespace Cspf {

namespace {

// "[a, b]" in the members' order: a hash set's own order depends on its
// history, and the text must not.
template <typename Set>
std::string setString( const Set& set ) {
    std::vector<typename Set::value_type> members( set.begin(), set.end() );
    std::sort( members.begin(), members.end() );
    std::string text = "[";
    for ( size_t i = 0; i < members.size(); ++i ) {
        if ( i ) {
            text += ", ";
        }
        text += members[i].toString();
    }
    return text + "]";
}

}  // namespace

AllTopoRouter AllTopoRouter::fromString( std::string_view ) {
    throw Platform::TypeError(
        "No String constructor for AllTopoRouter - has collection" );
}

std::string AllTopoRouter::toString() const {
    return Platform::ValueFormWriter( "Cspf::AllTopoRouter" )
        .field( "teRouterId", teRouterId_.toString() )
        .field( "neighbor", setString( neighbor_ ) )
        .field( "tep", setString( tep_ ) )
        .str();
}

std::ostream& operator<<( std::ostream& os, const AllTopoRouter& router ) {
    return os << router.toString();
}

AllTopoNetwork AllTopoNetwork::fromString( std::string_view ) {
    throw Platform::TypeError(
        "No String constructor for AllTopoNetwork - has collection" );
}

std::string AllTopoNetwork::toString() const {
    return Platform::ValueFormWriter( "Cspf::AllTopoNetwork" )
        .field( "allTopoNetworkId", allTopoNetworkId_.toString() )
        .field( "router", setString( router_ ) )
        .str();
}

std::ostream& operator<<( std::ostream& os, const AllTopoNetwork& network ) {
    return os << network.toString();
}

}  // namespace Cspf

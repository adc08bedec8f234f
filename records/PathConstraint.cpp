#include "records/PathConstraint.h"

#include <cstring>
#include <ostream>

#include "platform/Error.h"
#include "platform/ValueForm.h"

namespace Cspf {

namespace {
constexpr std::string_view kType = "Cspf::PathConstraint";
}

PathConstraint::PathConstraint( std::string_view text ) {
    Platform::ValueForm form( text, kType, "pathConstraint" );
    if ( form.fields().size() != 1 ) {
        throw Platform::DeserializationError( "pathConstraint",
                                              "expected the one field excludeInterface" );
    }
    try {
        excludeInterface = Net::IntfId( form.field( "excludeInterface" ) );
    } catch ( const Platform::DeserializationError& ) {
        throw;
    } catch ( const Platform::Error& e ) {
        // A name the id cannot hold is bad input here, not a bad argument.
        throw Platform::DeserializationError( "pathConstraint", e.what() );
    }
}

PathConstraint PathConstraint::fromRecord( const void* record ) {
    uint64_t value;
    std::memcpy( &value, record, sizeof( value ) );
    return PathConstraint( Net::IntfId::fromValue( value ) );
}

std::string PathConstraint::toString() const {
    return Platform::ValueFormWriter( kType )
        .field( "excludeInterface", excludeInterface.name() )
        .str();
}

std::ostream& operator<<( std::ostream& os, const PathConstraint& constraint ) {
    return os << constraint.toString();
}

}  // namespace Cspf

#include "topo/TopoId.h"

#include <ostream>

#include "platform/Error.h"
#include "root/DedupConstraint.h"

namespace Cspf {

std::string toString( TopoId id ) {
    switch ( id ) {
        case TopoId::isisL1:
            return "isisL1";
        case TopoId::isisL2:
            return "isisL2";
    }
    return "TopoId(" + std::to_string( unsigned( id ) ) + ")";
}

TopoId topoIdFromString( std::string_view text ) {
    if ( text == "isisL1" ) {
        return TopoId::isisL1;
    }
    if ( text == "isisL2" ) {
        return TopoId::isisL2;
    }
    throw Platform::DeserializationError( "topoId",
                                          "unknown level '" + std::string( text ) + "'" );
}

uint32_t topoIdHash( TopoId id ) {
    const uint8_t byte = static_cast<uint8_t>( id );
    return oneAtATimeFinal( oneAtATimeHash( &byte, 1 ) );
}

std::ostream& operator<<( std::ostream& os, TopoId id ) {
    return os << toString( id );
}

}  // namespace Cspf

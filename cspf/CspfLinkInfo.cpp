#include "cspf/CspfLinkInfo.h"

#include <ostream>

#include "platform/Error.h"
#include "platform/ValueForm.h"

namespace Cspf {

namespace {
constexpr std::string_view kType = "Cspf::CspfLinkInfo";
}

CspfLinkInfo::CspfLinkInfo( std::string_view text ) {
    Platform::ValueForm form( text, kType, "cspfLinkInfo" );
    if ( form.fields().size() != 1 ) {
        throw Platform::DeserializationError( "cspfLinkInfo",
                                              "expected the one field cspfLinkInfoKey" );
    }
    cspfLinkInfoKey_ = CspfLinkInfoKey( form.field( "cspfLinkInfoKey" ) );
}

std::string CspfLinkInfo::toString() const {
    return Platform::ValueFormWriter( kType )
        .field( "cspfLinkInfoKey", cspfLinkInfoKey_.toString() )
        .str();
}

std::ostream& operator<<( std::ostream& os, const CspfLinkInfo& info ) {
    return os << info.toString();
}

}  // namespace Cspf

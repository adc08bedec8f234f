#include "records/Client.h"

#include "platform/PathComponent.h"
#include "platform/ValueForm.h"

namespace Cspf {

Client::Client( std::string name ) : name_( std::move( name ) ) {
    Platform::validatePathComponent( name_, "client" );
}

namespace {

std::string toString( const L3::VrfName& vrf ) {
    return vrf.name();
}

template <typename Coll>
std::string listForm( const Coll& coll ) {
    std::string out = "[";
    for ( const auto& [key, present] : coll ) {
        if ( !present ) {
            continue;
        }
        if ( out.size() > 1 ) {
            out += ", ";
        }
        out += toString( key );
    }
    return out + "]";
}

std::string tablePath( const char* kind, const L3::VrfName& vrf, Net::AddressFamily af,
                       const std::string& client ) {
    return std::string( "te/cspf/" ) + kind + "/vrf/" + vrf.name() + "/" +
           Net::toString( af ) + "/" + client;
}

}  // namespace

std::string Client::toString() const {
    using Net::toString;
    return Platform::ValueFormWriter( "Cspf::Client" )
        .field( "name", name_ )
        .field( "vrf", listForm( vrfColl() ) )
        .field( "addressFamily", listForm( addressFamilyColl() ) )
        .str();
}

void Client::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Client %s\n", name_.c_str() );
    for ( const auto& [vrf, present] : vrfColl() ) {
        Platform::objDumpLine( context, indent + 2, "Vrf: %s%s\n", vrf.name().c_str(),
                               present ? "" : " (off)" );
    }
    for ( const auto& [af, present] : addressFamilyColl() ) {
        Platform::objDumpLine( context, indent + 2, "Address family: %s%s\n",
                               Net::toString( af ).c_str(), present ? "" : " (off)" );
    }
}

std::string pathConfigTablePath( const L3::VrfName& vrf, Net::AddressFamily af,
                                 const std::string& client ) {
    return tablePath( "config", vrf, af, client );
}

std::string pathStatusTablePath( const L3::VrfName& vrf, Net::AddressFamily af,
                                 const std::string& client ) {
    return tablePath( "status", vrf, af, client );
}

}  // namespace Cspf

#include "records/PathKey.h"

#include <charconv>
#include <cstring>
#include <ostream>

#include "platform/Error.h"
#include "platform/PathComponent.h"
#include "platform/ValueForm.h"

namespace Cspf {

namespace {

constexpr std::string_view kType = "Cspf::PathKey";

}  // namespace

PathKey::PathKey( std::string_view text ) {
    Platform::ValueForm form( text, kType, "pathKey" );
    if ( form.fields().size() != 2 ) {
        throw Platform::DeserializationError( "pathKey",
                                              "expected the fields destination and id" );
    }
    destination = Net::IpGenAddr::parse( form.field( "destination" ), "destination" );
    id = Platform::parseU32Field( form.field( "id" ), "id" );
}

PathKey PathKey::fromRecord( const void* record, std::string_view attribute ) {
    PathKey key;
    key.destination = Net::IpGenAddr::fromRecord( record, attribute );
    std::memcpy( &key.id, static_cast<const char*>( record ) + offsetof( PathKey, id ),
                 sizeof( key.id ) );
    return key;
}

bool PathKey::operator<( const PathKey& other ) const {
    if ( destination == other.destination ) {
        return id < other.id;
    }
    return destination < other.destination;
}

uint32_t PathKey::hash() const {
    return destination.hash() * 0x9e3779b1u ^ id;
}

std::string PathKey::toString() const {
    return Platform::ValueFormWriter( kType )
        .field( "destination", destination.toString() )
        .field( "id", std::to_string( id ) )
        .str();
}

std::ostream& operator<<( std::ostream& os, const PathKey& key ) {
    return os << key.toString();
}

}  // namespace Cspf

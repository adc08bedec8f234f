#include "vrf/PathInfoKey.h"

#include <ostream>
#include <unordered_map>

#include "platform/Error.h"
#include "platform/ValueForm.h"

namespace Cspf {

namespace {

constexpr std::string_view kType = "Cspf::PathInfoKey";
constexpr std::string_view kAttribute = "pathInfoKey";
constexpr std::string_view kNameField = "'clientName': ";
constexpr std::string_view kKeyField = ", 'pathKey': ";

// Names by text. Never destroyed: keys held by static objects may be released
// after any static table would have gone.
std::unordered_map<std::string_view, const InternedClientName*>& internTable() {
    static auto* table =
        new std::unordered_map<std::string_view, const InternedClientName*>();
    return *table;
}

// FNV-1a: stable across processes and cheap for short names.
uint32_t nameHash( std::string_view name ) {
    uint32_t h = 2166136261u;
    for ( char c : name ) {
        h ^= static_cast<uint8_t>( c );
        h *= 16777619u;
    }
    return h;
}

const std::string& emptyName() {
    static const std::string empty;
    return empty;
}

}  // namespace

Platform::Ptr<const InternedClientName> InternedClientName::intern(
    std::string_view name ) {
    auto& table = internTable();
    if ( auto it = table.find( name ); it != table.end() ) {
        return Platform::Ptr<const InternedClientName>( it->second );
    }
    auto* created = new InternedClientName( name, nameHash( name ) );
    table.emplace( created->text(), created );
    return Platform::Ptr<const InternedClientName>( created );
}

void InternedClientName::lastRefGone() {
    internTable().erase( text_ );
    delete this;
}

PathInfoKey::PathInfoKey( std::string_view clientName, const PathKey& pathKey )
    : name_( clientName.empty() ? nullptr : InternedClientName::intern( clientName ) ),
      pathKey_( pathKey ) {}

PathInfoKey::PathInfoKey( std::string_view text ) {
    // Read by hand rather than through ValueForm: a client name is any valid
    // path component, commas and brackets included, and the field after it is
    // a PathKey form, which never holds the text "'pathKey': ". So the last
    // occurrence of that separator ends the name, whatever the name holds.
    auto fail = [&]( const std::string& why ) {
        throw Platform::DeserializationError(
            std::string( kAttribute ), why + " in \"" + std::string( text ) + "\"" );
    };
    const std::string prefix = "Value('" + std::string( kType ) + "', ** {";
    if ( !text.starts_with( prefix ) ) {
        fail( "expected a value form of " + std::string( kType ) );
    }
    if ( text.size() < prefix.size() + 2 || !text.ends_with( "})" ) ) {
        fail( "unterminated value form" );
    }
    std::string_view body = text.substr( prefix.size(), text.size() - prefix.size() - 2 );
    if ( !body.starts_with( kNameField ) ) {
        fail( "expected the field clientName first" );
    }
    body.remove_prefix( kNameField.size() );
    const size_t separator = body.rfind( kKeyField );
    if ( separator == std::string_view::npos ) {
        fail( "expected the field pathKey after clientName" );
    }
    const std::string_view name = body.substr( 0, separator );
    pathKey_ = PathKey( body.substr( separator + kKeyField.size() ) );
    // The unset destination prints as 0.0.0.0 too; it is the one a key holds
    // (no TEP is 0.0.0.0), and the empty key must read back as itself.
    if ( pathKey_.destination.isV4() && pathKey_.destination.isAddrZero() ) {
        pathKey_.destination = Net::IpGenAddr();
    }
    if ( !name.empty() ) {
        name_ = InternedClientName::intern( name );
    }
}

const std::string& PathInfoKey::clientName() const {
    return name_ ? name_->text() : emptyName();
}

bool PathInfoKey::operator<( const PathInfoKey& other ) const {
    if ( name_ != other.name_ ) {
        // Interned: different pointers are different names.
        return clientName() < other.clientName();
    }
    return pathKey_ < other.pathKey_;
}

uint32_t PathInfoKey::hash() const {
    uint32_t h = name_ ? name_->hash() : 0;
    h ^= pathKey_.hash() + 0x9e3779b9u + ( h << 6 ) + ( h >> 2 );
    return h;
}

std::string PathInfoKey::toString() const {
    return Platform::ValueFormWriter( kType )
        .field( "clientName", clientName() )
        .field( "pathKey", pathKey_.toString() )
        .str();
}

std::ostream& operator<<( std::ostream& os, const PathInfoKey& key ) {
    return os << key.toString();
}

}  // namespace Cspf

#include "platform/PathComponent.h"

#include "platform/Error.h"

namespace Platform {

namespace {

bool isControl( unsigned char c ) {
    return c < 0x20 || c == 0x7f;
}

// Why `name` cannot be a path component, or nullptr when it can.
const char* problem( std::string_view name ) {
    if ( name.empty() ) {
        return "is empty";
    }
    if ( name.size() > kMaxPathComponentLength ) {
        return "is longer than 100 bytes";
    }
    if ( name == "." || name == ".." ) {
        return "is a relative directory name";
    }
    if ( name.front() == '.' ) {
        // Listings and directory watches pass over dot names (a writer's
        // temporary files): such a name would never be seen.
        return "starts with '.'";
    }
    for ( char c : name ) {
        if ( c == '/' ) {
            return "contains '/'";
        }
        if ( isControl( static_cast<unsigned char>( c ) ) ) {
            return "contains a control character";
        }
    }
    return nullptr;
}

}  // namespace

std::string printableName( std::string_view name ) {
    static constexpr char kHex[] = "0123456789abcdef";
    constexpr size_t kShown = 100;
    std::string out;
    for ( size_t i = 0; i < name.size() && i < kShown; ++i ) {
        auto c = static_cast<unsigned char>( name[i] );
        if ( isControl( c ) || c == '\\' ) {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 0xf];
        } else {
            out += static_cast<char>( c );
        }
    }
    if ( name.size() > kShown ) {
        out += "...";
    }
    return out;
}

void validatePathComponent( std::string_view name, std::string_view what ) {
    if ( const char* why = problem( name ) ) {
        throw NameError( "invalid " + std::string( what ) + " name '" +
                         printableName( name ) + "': " + why );
    }
}

bool isValidPathComponent( std::string_view name ) {
    return problem( name ) == nullptr;
}

}  // namespace Platform

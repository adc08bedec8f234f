#include "platform/ValueForm.h"

#include <charconv>

#include "platform/Error.h"
#include "platform/PathComponent.h"

namespace Platform {

ValueFormWriter::ValueFormWriter( std::string_view type ) {
    text_ = "Value('";
    text_ += type;
    text_ += "', ** {";
}

ValueFormWriter& ValueFormWriter::field( std::string_view name, std::string_view value ) {
    if ( !first_ ) {
        text_ += ", ";
    }
    first_ = false;
    text_ += '\'';
    text_ += name;
    text_ += "': ";
    text_ += value;
    return *this;
}

namespace {

// Index of the end of a field value starting at `i`: the first ',' or closing
// bracket at nesting depth 0, the size of `s` when the value runs to the end
// balanced, npos when its brackets do not balance.
size_t valueEnd( std::string_view s, size_t i ) {
    int depth = 0;
    for ( ; i < s.size(); ++i ) {
        char c = s[i];
        if ( c == '(' || c == '{' || c == '[' ) {
            ++depth;
        } else if ( c == ')' || c == '}' || c == ']' ) {
            if ( depth == 0 ) {
                return i;
            }
            --depth;
        } else if ( c == ',' && depth == 0 ) {
            return i;
        }
    }
    return depth == 0 ? s.size() : std::string_view::npos;
}

}  // namespace

ValueForm::ValueForm( std::string_view text, std::string_view expectedType,
                      std::string_view attribute )
    : attribute_( attribute ) {
    auto fail = [&]( const std::string& why ) {
        throw DeserializationError( attribute_,
                                    why + " in \"" + std::string( text ) + "\"" );
    };
    std::string prefix = "Value('" + std::string( expectedType ) + "', ** {";
    if ( text.substr( 0, prefix.size() ) != prefix ) {
        fail( "expected a value form of " + std::string( expectedType ) );
    }
    if ( text.size() < prefix.size() + 2 || text.substr( text.size() - 2 ) != "})" ) {
        fail( "unterminated value form" );
    }
    std::string_view body = text.substr( prefix.size(), text.size() - prefix.size() - 2 );
    size_t i = 0;
    while ( i < body.size() ) {
        if ( body[i] != '\'' ) {
            fail( "expected a quoted field name" );
        }
        size_t close = body.find( '\'', i + 1 );
        if ( close == std::string_view::npos || body.substr( close + 1, 2 ) != ": " ) {
            fail( "malformed field name" );
        }
        std::string name( body.substr( i + 1, close - i - 1 ) );
        size_t start = close + 3;
        size_t end = valueEnd( body, start );
        if ( end == std::string_view::npos ||
             ( end < body.size() && body[end] != ',' ) ) {
            fail( "unbalanced brackets" );
        }
        fields_.emplace_back( std::move( name ),
                              std::string( body.substr( start, end - start ) ) );
        if ( end == body.size() ) {
            break;
        }
        if ( body.substr( end, 2 ) != ", " ) {
            fail( "expected \", \" between fields" );
        }
        i = end + 2;
    }
}

const std::string& ValueForm::field( std::string_view name ) const {
    for ( const auto& f : fields_ ) {
        if ( f.first == name ) {
            return f.second;
        }
    }
    throw DeserializationError( attribute_,
                                "missing field '" + std::string( name ) + "'" );
}

uint32_t parseU32Field( std::string_view text, std::string_view attribute ) {
    uint32_t v = 0;
    auto [end, ec] = std::from_chars( text.data(), text.data() + text.size(), v );
    if ( text.empty() || ec != std::errc() || end != text.data() + text.size() ) {
        throw DeserializationError(
            std::string( attribute ),
            "'" + printableName( text ) + "' is not a 32-bit unsigned number" );
    }
    return v;
}

bool parseBoolField( std::string_view text, std::string_view attribute ) {
    if ( text == "true" ) {
        return true;
    }
    if ( text == "false" ) {
        return false;
    }
    throw DeserializationError(
        std::string( attribute ),
        "expected true or false, got '" + printableName( text ) + "'" );
}

}  // namespace Platform

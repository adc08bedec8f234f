#include "records/IntfId.h"

#include <cstdio>
#include <optional>
#include <ostream>

#include "platform/Error.h"
#include "platform/PathComponent.h"

namespace Net {

namespace {

// Structured kinds; the index is the 4-bit kind. Kind 0 is the empty name,
// and the table only grows at its end: the kinds are stored in records.
constexpr std::string_view kPrefixes[] = {
    "",           "Ethernet", "Port-Channel",   "Vlan",   "Loopback", "Tunnel",
    "Management", "Vxlan",    "Recirc-Channel", "Switch", "Fabric",
};
constexpr uint64_t kKinds = std::size( kPrefixes );

struct Field {
    unsigned shift;
    unsigned bits;
    uint64_t max() const { return ( uint64_t{ 1 } << bits ) - 1; }
    uint64_t get( uint64_t v ) const { return ( v >> shift ) & max(); }
};

constexpr uint64_t kTextBit = uint64_t{ 1 } << 63;
// Structured layout below bit 63.
constexpr Field kKind{ 59, 4 };
constexpr Field kCount{ 57, 2 };  // number of slash components - 1
constexpr Field kComponents[] = { { 41, 16 }, { 31, 10 }, { 23, 8 } };
constexpr Field kHasSub{ 22, 1 };
constexpr Field kSub{ 0, 22 };
// Text layout below bit 63: the length, then the characters from the top down.
constexpr Field kLength{ 59, 4 };
constexpr size_t kMaxText = 9;
constexpr unsigned kCharBits = 6;
constexpr unsigned kFirstCharShift = 53;
constexpr std::string_view kAlphabet =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
static_assert( kAlphabet.size() == 64 );
static_assert( kFirstCharShift - ( kMaxText - 1 ) * kCharBits == 5 );

bool isDigit( char c ) {
    return c >= '0' && c <= '9';
}

// Reads a decimal number without leading zeros off the front of `rest`.
// Returns the problem, or an empty string when the number is good.
std::string readNumber( std::string_view& rest, uint64_t max, const std::string& what,
                        uint64_t& out ) {
    size_t n = 0;
    while ( n < rest.size() && isDigit( rest[n] ) ) {
        ++n;
    }
    if ( n == 0 ) {
        return "expected a number for " + what;
    }
    std::string digits( rest.substr( 0, n ) );
    if ( n > 1 && digits[0] == '0' ) {
        return what + " " + digits + " has a leading zero";
    }
    uint64_t v = 0;
    for ( char c : digits ) {
        v = v * 10 + static_cast<uint64_t>( c - '0' );
        if ( v > max ) {
            return what + " " + digits + " is above " + std::to_string( max );
        }
    }
    out = v;
    rest.remove_prefix( n );
    return {};
}

// The structured value of `name`, if it has one. When the name starts with a
// known prefix but is not structured, `problem` says why.
std::optional<uint64_t> structuredValue( std::string_view name, std::string& problem ) {
    for ( uint64_t kind = 1; kind < kKinds; ++kind ) {
        std::string_view prefix = kPrefixes[kind];
        if ( !name.starts_with( prefix ) ) {
            continue;
        }
        // No prefix starts another, so this is the only candidate.
        auto fail = [&]( const std::string& why ) {
            problem = "not a structured " + std::string( prefix ) + " name (" + why + ")";
            return std::nullopt;
        };
        std::string_view rest = name.substr( prefix.size() );
        uint64_t comps[3] = {};
        uint64_t count = 0;
        uint64_t hasSub = 0;
        uint64_t sub = 0;
        for ( ;; ) {
            std::string what = "component " + std::to_string( count + 1 );
            std::string err =
                readNumber( rest, kComponents[count].max(), what, comps[count] );
            if ( !err.empty() ) {
                return fail( err );
            }
            ++count;
            if ( rest.empty() ) {
                break;
            }
            if ( rest[0] == '/' ) {
                if ( count == 3 ) {
                    return fail( "more than 3 slash components" );
                }
                rest.remove_prefix( 1 );
                continue;
            }
            if ( rest[0] == '.' ) {
                rest.remove_prefix( 1 );
                err = readNumber( rest, kSub.max(), "subinterface", sub );
                if ( !err.empty() ) {
                    return fail( err );
                }
                if ( !rest.empty() ) {
                    return fail( "unexpected text after the subinterface" );
                }
                hasSub = 1;
                break;
            }
            return fail( "unexpected '" + Platform::printableName( rest.substr( 0, 1 ) ) +
                         "' after " + what );
        }
        uint64_t v = kind << kKind.shift | ( count - 1 ) << kCount.shift |
                     hasSub << kHasSub.shift | sub << kSub.shift;
        for ( uint64_t i = 0; i < count; ++i ) {
            v |= comps[i] << kComponents[i].shift;
        }
        return v;
    }
    return std::nullopt;
}

std::optional<uint64_t> textValue( std::string_view name, std::string& problem ) {
    if ( name.size() > kMaxText ) {
        problem = "too long for a text name (" + std::to_string( name.size() ) +
                  " characters, at most 9)";
        return std::nullopt;
    }
    uint64_t v = kTextBit | uint64_t{ name.size() } << kLength.shift;
    for ( size_t i = 0; i < name.size(); ++i ) {
        size_t symbol = kAlphabet.find( name[i] );
        if ( symbol == std::string_view::npos ) {
            problem = "'" + Platform::printableName( name.substr( i, 1 ) ) +
                      "' is not allowed in a text name (a-z A-Z 0-9 - _)";
            return std::nullopt;
        }
        v |= uint64_t{ symbol } << ( kFirstCharShift - i * kCharBits );
    }
    return v;
}

// The one value of `name`: structured whenever it parses as structured.
std::optional<uint64_t> encode( std::string_view name, std::string& problem ) {
    if ( name.empty() ) {
        return 0;
    }
    std::string structuredProblem;
    if ( auto v = structuredValue( name, structuredProblem ) ) {
        return v;
    }
    std::string textProblem;
    if ( auto v = textValue( name, textProblem ) ) {
        return v;
    }
    problem = structuredProblem.empty() ? textProblem
                                        : structuredProblem + " and " + textProblem;
    return std::nullopt;
}

// The name that `v` spells, whether or not `v` is its canonical value.
std::optional<std::string> decode( uint64_t v, std::string& problem ) {
    if ( v == 0 ) {
        return std::string();
    }
    std::string name;
    if ( v & kTextBit ) {
        uint64_t len = kLength.get( v );
        if ( len == 0 || len > kMaxText ) {
            problem = "text length " + std::to_string( len ) + " is not 1 to 9";
            return std::nullopt;
        }
        for ( uint64_t i = 0; i < len; ++i ) {
            name += kAlphabet[( v >> ( kFirstCharShift - i * kCharBits ) ) & 63];
        }
        return name;
    }
    uint64_t kind = kKind.get( v );
    if ( kind == 0 || kind >= kKinds ) {
        problem = "unknown kind " + std::to_string( kind );
        return std::nullopt;
    }
    uint64_t count = kCount.get( v ) + 1;
    if ( count > 3 ) {
        problem = "more than 3 slash components";
        return std::nullopt;
    }
    name = kPrefixes[kind];
    for ( uint64_t i = 0; i < count; ++i ) {
        if ( i > 0 ) {
            name += '/';
        }
        name += std::to_string( kComponents[i].get( v ) );
    }
    if ( kHasSub.get( v ) ) {
        name += '.';
        name += std::to_string( kSub.get( v ) );
    }
    return name;
}

std::string hexValue( uint64_t v ) {
    char buf[24];
    std::snprintf( buf, sizeof( buf ), "0x%016llx",
                   static_cast<unsigned long long>( v ) );
    return buf;
}

}  // namespace

IntfId::IntfId( std::string_view name ) {
    std::string problem;
    auto v = encode( name, problem );
    if ( !v ) {
        throw Platform::NameError( "interface name '" + Platform::printableName( name ) +
                                   "' cannot be encoded: " + problem );
    }
    value_ = *v;
}

IntfId IntfId::fromValue( uint64_t value ) {
    std::string problem;
    auto name = decode( value, problem );
    if ( !name ) {
        throw Platform::DeserializationError( "intfId",
                                              hexValue( value ) + " has " + problem );
    }
    // Unused bits must be zero and a structured-looking text must not be
    // stored as text: anything but the one value of the name is refused.
    auto canonical = encode( *name, problem );
    if ( !canonical || *canonical != value ) {
        throw Platform::DeserializationError(
            "intfId", hexValue( value ) + " is not the encoding of interface name '" +
                          *name + "'" );
    }
    IntfId id;
    id.value_ = value;
    return id;
}

std::string IntfId::name() const {
    std::string problem;
    auto name = decode( value_, problem );
    return name ? *name : "<bad IntfId " + hexValue( value_ ) + ">";
}

std::ostream& operator<<( std::ostream& os, const IntfId& id ) {
    return os << id.name();
}

}  // namespace Net

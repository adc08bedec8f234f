// Topology file loader and writer.
//
//   readJson            SAX-built DOM: duplicate keys, nesting, line numbers
//   Fields / read...    one JSON value at a time: type, known keys, text forms
//   read{Router,...}    the file's objects into the model
//   validateTopology    cross-checks over the whole model
//   toJson              the model back to text, with its own pretty printer
#include "tools/TopologyFile.h"

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <tuple>

#include "platform/PathComponent.h"
#include "topo/RouterId.h"

namespace Cspf::TopoFile {

using nlohmann::json;

TopologyError::TopologyError( const std::string& file, const std::string& where,
                              const std::string& problem )
    : Platform::Error( file + ": " + where + ": " + problem ),
      file_( file ),
      where_( where ),
      problem_( problem ) {}

std::string systemIdText( const SystemId& id ) {
    char buf[16];
    std::snprintf( buf, sizeof( buf ), "%02x%02x.%02x%02x.%02x%02x", id[0], id[1], id[2],
                   id[3], id[4], id[5] );
    return buf;
}

std::string Address::toString() const {
    return addr.toString() + "/" + std::to_string( prefixLength );
}

bool Router::inLevel( unsigned level ) const {
    for ( auto l : levels ) {
        if ( l == level ) {
            return true;
        }
    }
    return false;
}

const Router* routerByName( const Topology& topology, std::string_view name ) {
    for ( const auto& r : topology.routers ) {
        if ( r.name == name ) {
            return &r;
        }
    }
    return nullptr;
}

std::string pathKey( const std::string& parent, std::string_view key ) {
    bool plain = !key.empty() && !( key[0] >= '0' && key[0] <= '9' );
    for ( char c : key ) {
        plain = plain && ( ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) ||
                           ( c >= '0' && c <= '9' ) || c == '_' );
    }
    if ( plain ) {
        return parent + "." + std::string( key );
    }
    std::string quoted;
    for ( char c : Platform::printableName( key ) ) {
        if ( c == '\'' ) {
            quoted += '\\';
        }
        quoted += c;
    }
    return parent + "['" + quoted + "']";
}

std::string pathIndex( const std::string& parent, size_t index ) {
    return parent + "[" + std::to_string( index ) + "]";
}

// ---------------------------------------------------------------------------
// readJson

namespace {

constexpr size_t kMaxDepth = 64;

// Tokens never span lines, so the line of a value is known when the parser
// reports it: the line of the last character read, except after a number,
// whose end the lexer finds by reading one character past it.
struct LineCounter {
    unsigned line = 1;
    unsigned lineBeforeLast = 1;
};

class CountingIterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator() = default;
    CountingIterator( const char* p, LineCounter* counter )
        : p_( p ), counter_( counter ) {}
    reference operator*() const { return *p_; }
    CountingIterator& operator++() {
        counter_->lineBeforeLast = counter_->line;
        if ( *p_ == '\n' ) {
            ++counter_->line;
        }
        ++p_;
        return *this;
    }
    CountingIterator operator++( int ) {
        auto old = *this;
        ++*this;
        return old;
    }
    bool operator==( const CountingIterator& other ) const { return p_ == other.p_; }

  private:
    const char* p_ = nullptr;
    LineCounter* counter_ = nullptr;
};

class DomBuilder : public nlohmann::json_sax<json> {
  public:
    DomBuilder( const LineCounter& counter, JsonLines* lines )
        : counter_( counter ), lines_( lines ) {}

    bool null() override { return add( nullptr, counter_.line ); }
    bool boolean( bool v ) override { return add( v, counter_.line ); }
    bool number_integer( number_integer_t v ) override {
        return add( v, counter_.lineBeforeLast );
    }
    bool number_unsigned( number_unsigned_t v ) override {
        return add( v, counter_.lineBeforeLast );
    }
    bool number_float( number_float_t v, const string_t& ) override {
        return add( v, counter_.lineBeforeLast );
    }
    bool string( string_t& v ) override { return add( std::move( v ), counter_.line ); }
    bool binary( binary_t& ) override { return fail( "binary values are not JSON" ); }
    bool start_object( size_t ) override { return open( json::object() ); }
    bool key( string_t& k ) override {
        if ( stack_.back().value->contains( k ) ) {
            errorPath_ = pathKey( stack_.back().path, k );
            errorLine_ = counter_.line;
            problem_ = "duplicate key '" + Platform::printableName( k ) + "'";
            return false;
        }
        key_ = std::move( k );
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array( size_t ) override { return open( json::array() ); }
    bool end_array() override { return close(); }
    bool parse_error( size_t position, const std::string&,
                      const nlohmann::detail::exception& ex ) override {
        std::string what = ex.what();
        auto bracket = what.find( "] " );
        if ( what.starts_with( "[json.exception" ) && bracket != std::string::npos ) {
            what.erase( 0, bracket + 2 );
        }
        errorPath_ = stack_.empty() ? "$" : stack_.back().path;
        errorLine_ = 0;  // from the position, by the caller
        position_ = position;
        problem_ = "malformed JSON at byte " + std::to_string( position ) + ": " + what;
        return false;
    }

    json& root() { return root_; }
    const std::string& problem() const { return problem_; }
    const std::string& errorPath() const { return errorPath_; }
    unsigned errorLine() const { return errorLine_; }
    size_t position() const { return position_; }

  private:
    struct Frame {
        json* value;
        std::string path;
    };

    json* insert( json&& v, std::string& path ) {
        if ( stack_.empty() ) {
            root_ = std::move( v );
            path = "$";
            return &root_;
        }
        auto& top = stack_.back();
        if ( top.value->is_object() ) {
            path = pathKey( top.path, key_ );
            return &( ( *top.value )[key_] = std::move( v ) );
        }
        path = pathIndex( top.path, top.value->size() );
        top.value->push_back( std::move( v ) );
        return &top.value->back();
    }
    bool add( json&& v, unsigned line ) {
        std::string path;
        insert( std::move( v ), path );
        if ( lines_ ) {
            ( *lines_ )[path] = line;
        }
        return true;
    }
    // Only the innermost open container is ever modified, so pointers to the
    // open ones stay valid.
    bool open( json&& v ) {
        std::string path;
        json* slot = insert( std::move( v ), path );
        if ( lines_ ) {
            ( *lines_ )[path] = counter_.line;
        }
        if ( stack_.size() >= kMaxDepth ) {
            errorPath_ = path;
            errorLine_ = counter_.line;
            problem_ = "nesting deeper than " + std::to_string( kMaxDepth ) + " levels";
            return false;
        }
        stack_.push_back( { slot, std::move( path ) } );
        return true;
    }
    bool close() {
        stack_.pop_back();
        return true;
    }
    bool fail( const std::string& problem ) {
        errorPath_ = stack_.empty() ? "$" : stack_.back().path;
        errorLine_ = counter_.line;
        problem_ = problem;
        return false;
    }

    const LineCounter& counter_;
    JsonLines* lines_;
    json root_;
    std::vector<Frame> stack_;
    std::string key_;
    std::string problem_;
    std::string errorPath_;
    unsigned errorLine_ = 0;
    size_t position_ = 0;
};

}  // namespace

json readJson( std::string_view text, const std::string& fileName, JsonPlace place,
               JsonLines* lines ) {
    LineCounter counter;
    DomBuilder builder( counter, lines );
    CountingIterator first( text.data(), &counter );
    CountingIterator last( text.data() + text.size(), &counter );
    if ( json::sax_parse( first, last, &builder ) ) {
        return std::move( builder.root() );
    }
    if ( place == JsonPlace::path ) {
        throw TopologyError( fileName, builder.errorPath(), builder.problem() );
    }
    unsigned line = builder.errorLine();
    if ( line == 0 ) {
        // The line of the last character the parser read.
        size_t end = std::min( text.size(), builder.position() );
        size_t before = end > 0 ? end - 1 : 0;
        line = 1 + static_cast<unsigned>(
                       std::count( text.begin(), text.begin() + before, '\n' ) );
    }
    throw TopologyError( fileName, "line " + std::to_string( line ), builder.problem() );
}

// ---------------------------------------------------------------------------
// Reading values

namespace {

const std::string kMetricRange =
    "IS-IS wide metrics and the TE default metric are 24-bit, at most 16777215";
const std::string kLevelRange = "level must be 1 or 2";
const std::string kPseudonodeRange = "pseudonode must be from 1 to 255";

std::string typeName( const json& v ) {
    switch ( v.type() ) {
        case json::value_t::null:
            return "null";
        case json::value_t::boolean:
            return "a boolean";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
            return "an integer";
        case json::value_t::number_float:
            return "a number";
        case json::value_t::string:
            return "a string";
        case json::value_t::array:
            return "an array";
        case json::value_t::object:
            return "an object";
        default:
            return "an unsupported value";
    }
}

std::string quote( std::string_view text ) {
    return "'" + Platform::printableName( text ) + "'";
}

class Reader {
  public:
    explicit Reader( const std::string& file ) : file_( file ) {}

    [[noreturn]] void fail( const std::string& path, const std::string& problem ) const {
        throw TopologyError( file_, path, problem );
    }
    [[noreturn]] void wrongType( const json& v, const std::string& path,
                                 const std::string& expected ) const {
        fail( path, "expected " + expected + ", found " + typeName( v ) );
    }

    std::string string( const json& v, const std::string& path ) const {
        if ( !v.is_string() ) {
            wrongType( v, path, "a string" );
        }
        return v.get<std::string>();
    }
    bool boolean( const json& v, const std::string& path ) const {
        if ( !v.is_boolean() ) {
            wrongType( v, path, "a boolean" );
        }
        return v.get<bool>();
    }
    uint64_t unsignedInt( const json& v, const std::string& path, uint64_t max,
                          const std::string& tooLarge ) const {
        if ( v.is_number_integer() && !v.is_number_unsigned() ) {
            fail( path, "expected a non-negative integer, found " + v.dump() );
        }
        if ( !v.is_number_unsigned() ) {
            wrongType( v, path, "an integer" );
        }
        auto n = v.get<uint64_t>();
        if ( n > max ) {
            fail( path, tooLarge );
        }
        return n;
    }
    uint32_t metric( const json& v, const std::string& path ) const {
        return static_cast<uint32_t>( unsignedInt( v, path, kMaxMetric, kMetricRange ) );
    }
    uint8_t level( const json& v, const std::string& path ) const {
        auto l = unsignedInt( v, path, 2, kLevelRange );
        if ( l == 0 ) {
            fail( path, kLevelRange );
        }
        return static_cast<uint8_t>( l );
    }
    double bandwidth( const json& v, const std::string& path ) const {
        if ( !v.is_number() ) {
            wrongType( v, path, "a number" );
        }
        return v.get<double>();  // range checked by validateTopology
    }
    Net::IpGenAddr ipText( std::string_view text, const std::string& path ) const {
        try {
            return Net::IpGenAddr::parse( text, "address" );
        } catch ( const Platform::DeserializationError& ) {
            fail( path, "bad address " + quote( text ) );
        }
    }
    Net::IpGenAddr ip( const json& v, const std::string& path ) const {
        return ipText( string( v, path ), path );
    }
    Address address( const json& v, const std::string& path,
                     Net::AddressFamily af ) const {
        bool v6 = af == Net::AddressFamily::ipv6;
        std::string text = string( v, path );
        auto slash = text.find( '/' );
        if ( slash == std::string::npos ) {
            fail( path, "expected 'address/prefix length', found " + quote( text ) );
        }
        Address a;
        a.addr = ipText( std::string_view( text ).substr( 0, slash ), path );
        if ( a.addr.af() != af ) {
            fail( path, std::string( "expected an " ) + ( v6 ? "IPv6" : "IPv4" ) +
                            " address, found " + quote( text ) );
        }
        std::string len = text.substr( slash + 1 );
        unsigned max = v6 ? 128 : 32;
        bool digits = !len.empty() && len.size() <= 3 && len[0] != '0';
        for ( char c : len ) {
            digits = digits && c >= '0' && c <= '9';
        }
        if ( !digits || std::stoul( len ) > max ) {
            fail( path, "bad prefix length " + quote( len ) + ": " +
                            ( v6 ? "IPv6" : "IPv4" ) + " prefix lengths are 1 to " +
                            std::to_string( max ) );
        }
        a.prefixLength = static_cast<uint8_t>( std::stoul( len ) );
        return a;
    }
    SystemId systemId( const json& v, const std::string& path ) const {
        const std::string text = string( v, path );
        Mpls::RouterId id;
        try {
            id = Mpls::RouterId::fromSystemId( text );
        } catch ( const Platform::Error& ) {
            fail( path, "expected a system id 'xxxx.xxxx.xxxx' of 12 hex digits, found " +
                            quote( text ) );
        }
        // The system id's 6 bytes, as the router id packs them.
        const uint64_t value =
            uint64_t{ id.rtrIdValue() } << 16 | uint64_t{ id.lblSpaceValue() };
        SystemId bytes{};
        for ( size_t i = 0; i < bytes.size(); ++i ) {
            bytes[i] = static_cast<uint8_t>( value >> ( 8 * ( bytes.size() - 1 - i ) ) );
        }
        return bytes;
    }
    Net::IntfId interface( const json& v, const std::string& path ) const {
        std::string name = string( v, path );
        if ( name.empty() ) {
            fail( path, "interface name must not be empty" );
        }
        try {
            return Net::IntfId( name );
        } catch ( const Platform::NameError& e ) {
            fail( path, e.what() );
        }
    }

  private:
    const std::string& file_;
};

// One JSON object whose keys must all be known.
class Fields {
  public:
    Fields( const Reader& r, const json& v, const std::string& path,
            std::initializer_list<std::string_view> known )
        : r_( r ), v_( v ), path_( path ) {
        if ( !v.is_object() ) {
            r.wrongType( v, path, "an object" );
        }
        for ( const auto& [key, value] : v.items() ) {
            bool found = false;
            for ( auto k : known ) {
                found = found || k == key;
            }
            if ( !found ) {
                std::string list;
                for ( auto k : known ) {
                    list += ( list.empty() ? "" : ", " ) + std::string( k );
                }
                r.fail( at( key ), "unknown field (known: " + list + ")" );
            }
        }
    }

    std::string at( std::string_view key ) const { return pathKey( path_, key ); }
    const json* find( std::string_view key ) const {
        auto it = v_.find( key );
        return it == v_.end() ? nullptr : &*it;
    }
    const json& need( std::string_view key ) const {
        const json* v = find( key );
        if ( !v ) {
            r_.fail( at( key ), "missing field" );
        }
        return *v;
    }
    // read( value, path ) of a required field.
    template <typename F>
    auto req( std::string_view key, F read ) const {
        return read( need( key ), at( key ) );
    }
    // Sets `out` when the field is present.
    template <typename T, typename F>
    void opt( std::string_view key, T& out, F read ) const {
        if ( const json* v = find( key ) ) {
            out = read( *v, at( key ) );
        }
    }
    const json& array( std::string_view key, bool required ) const {
        static const json empty = json::array();
        const json* v = required ? &need( key ) : find( key );
        if ( !v ) {
            return empty;
        }
        if ( !v->is_array() ) {
            r_.wrongType( *v, at( key ), "an array" );
        }
        return *v;
    }

  private:
    const Reader& r_;
    const json& v_;
    const std::string& path_;
};

Router readRouter( const Reader& r, const json& v, const std::string& path ) {
    Fields f( r, v, path, { "name", "systemId", "teRouterId", "levels", "overload" } );
    Router router;
    router.name =
        f.req( "name", [&]( const auto& j, const auto& p ) { return r.string( j, p ); } );
    router.systemId = f.req(
        "systemId", [&]( const auto& j, const auto& p ) { return r.systemId( j, p ); } );
    f.opt( "teRouterId", router.teRouterId, [&]( const auto& j, const auto& p ) {
        auto addr = r.ip( j, p );
        if ( !addr.isV4() ) {
            r.fail(
                p, "a TE router id is an IPv4 address, found '" + addr.toString() + "'" );
        }
        return addr;
    } );
    const json& levels = f.array( "levels", true );
    for ( size_t i = 0; i < levels.size(); ++i ) {
        router.levels.push_back( r.level( levels[i], pathIndex( f.at( "levels" ), i ) ) );
    }
    f.opt( "overload", router.overload,
           [&]( const auto& j, const auto& p ) { return r.boolean( j, p ); } );
    return router;
}

void readAttachment( const Reader& r, const Fields& f, Attachment& a ) {
    a.router = f.req( "router",
                      [&]( const auto& j, const auto& p ) { return r.string( j, p ); } );
    a.interface = f.req( "interface", [&]( const auto& j, const auto& p ) {
        return r.interface( j, p );
    } );
    f.opt( "ipv4", a.ipv4, [&]( const auto& j, const auto& p ) {
        return r.address( j, p, Net::AddressFamily::ipv4 );
    } );
    f.opt( "ipv6", a.ipv6, [&]( const auto& j, const auto& p ) {
        return r.address( j, p, Net::AddressFamily::ipv6 );
    } );
    auto metric = [&]( const auto& j, const auto& p ) { return r.metric( j, p ); };
    a.metric = f.req( "metric", metric );
    f.opt( "teMetric", a.teMetric, metric );
    f.opt( "adminGroup", a.adminGroup, [&]( const auto& j, const auto& p ) {
        return static_cast<uint32_t>( r.unsignedInt(
            j, p, UINT32_MAX, "admin groups are 32-bit, at most 4294967295" ) );
    } );
    auto bandwidth = [&]( const auto& j, const auto& p ) { return r.bandwidth( j, p ); };
    f.opt( "maxBandwidth", a.maxBandwidth, bandwidth );
    f.opt( "maxReservableBandwidth", a.maxReservableBandwidth, bandwidth );
    if ( const json* v = f.find( "unreservedBandwidth" ) ) {
        std::string path = f.at( "unreservedBandwidth" );
        if ( !v->is_array() ) {
            r.wrongType( *v, path, "an array" );
        }
        if ( v->size() != kPriorities ) {
            r.fail( path, "expected 8 values, one per priority, found " +
                              std::to_string( v->size() ) );
        }
        std::array<double, kPriorities> values{};
        for ( size_t i = 0; i < kPriorities; ++i ) {
            values[i] = r.bandwidth( ( *v )[i], pathIndex( path, i ) );
        }
        a.unreservedBandwidth = values;
    }
    auto boolean = [&]( const auto& j, const auto& p ) { return r.boolean( j, p ); };
    f.opt( "advertise", a.advertise, boolean );
    f.opt( "record", a.record, boolean );
}

LinkEnd readLinkEnd( const Reader& r, const json& v, const std::string& path ) {
    Fields f( r, v, path,
              { "router", "interface", "ipv4", "ipv6", "metric", "teMetric", "adminGroup",
                "maxBandwidth", "maxReservableBandwidth", "unreservedBandwidth",
                "advertise", "record", "neighborAddress", "neighborAddress6" } );
    LinkEnd end;
    readAttachment( r, f, end );
    // "neighborAddress" takes either family, "neighborAddress6" only IPv6, for
    // an end that needs both overrides.
    if ( const json* v = f.find( "neighborAddress6" ) ) {
        auto addr = r.ip( *v, f.at( "neighborAddress6" ) );
        if ( !addr.isV6() ) {
            r.fail( f.at( "neighborAddress6" ),
                    "expected an IPv6 address, found '" + addr.toString() + "'" );
        }
        end.neighborAddress6 = addr;
    }
    if ( const json* v = f.find( "neighborAddress" ) ) {
        std::string p = f.at( "neighborAddress" );
        auto addr = r.ip( *v, p );
        bool v6 = addr.isV6();
        if ( !( v6 ? end.ipv6 : end.ipv4 ) ) {
            r.fail( p, std::string( "an " ) + ( v6 ? "IPv6" : "IPv4" ) +
                           " neighbor address needs an " + ( v6 ? "ipv6" : "ipv4" ) +
                           " address on this end" );
        }
        if ( v6 && end.neighborAddress6 ) {
            r.fail( p, "an IPv6 neighbor address is already given by neighborAddress6" );
        }
        ( v6 ? end.neighborAddress6 : end.neighborAddress4 ) = addr;
    }
    return end;
}

Link readLink( const Reader& r, const json& v, const std::string& path ) {
    Fields f( r, v, path, { "level", "ends" } );
    Link link;
    link.level =
        f.req( "level", [&]( const auto& j, const auto& p ) { return r.level( j, p ); } );
    const json& ends = f.array( "ends", true );
    if ( ends.size() != 2 ) {
        r.fail( f.at( "ends" ),
                "a link has exactly two ends, found " + std::to_string( ends.size() ) );
    }
    for ( size_t i = 0; i < 2; ++i ) {
        link.ends[i] = readLinkEnd( r, ends[i], pathIndex( f.at( "ends" ), i ) );
    }
    return link;
}

Lan readLan( const Reader& r, const json& v, const std::string& path ) {
    Fields f( r, v, path, { "level", "dr", "pseudonode", "members" } );
    Lan lan;
    lan.level =
        f.req( "level", [&]( const auto& j, const auto& p ) { return r.level( j, p ); } );
    lan.dr =
        f.req( "dr", [&]( const auto& j, const auto& p ) { return r.string( j, p ); } );
    lan.pseudonode = f.req( "pseudonode", [&]( const auto& j, const auto& p ) {
        auto n = r.unsignedInt( j, p, 255, kPseudonodeRange );
        if ( n == 0 ) {
            r.fail( p, kPseudonodeRange );
        }
        return static_cast<uint8_t>( n );
    } );
    const json& members = f.array( "members", true );
    for ( size_t i = 0; i < members.size(); ++i ) {
        std::string p = pathIndex( f.at( "members" ), i );
        Fields mf( r, members[i], p,
                   { "router", "interface", "ipv4", "ipv6", "metric", "teMetric",
                     "adminGroup", "maxBandwidth", "maxReservableBandwidth",
                     "unreservedBandwidth", "advertise", "record" } );
        LanMember member;
        readAttachment( r, mf, member );
        lan.members.push_back( std::move( member ) );
    }
    return lan;
}

}  // namespace

Topology parseTopology( std::string_view text, const std::string& fileName ) {
    json doc = readJson( text, fileName, JsonPlace::path );
    Reader r( fileName );
    const std::string root = "$";
    Fields f( r, doc, root, { "format", "routers", "links", "lans" } );
    std::string format = f.req(
        "format", [&]( const auto& j, const auto& p ) { return r.string( j, p ); } );
    if ( format != kFormat ) {
        r.fail( f.at( "format" ), "unknown format " + quote( format ) + ", expected '" +
                                      std::string( kFormat ) + "'" );
    }
    Topology t;
    const json& routers = f.array( "routers", true );
    for ( size_t i = 0; i < routers.size(); ++i ) {
        t.routers.push_back( readRouter( r, routers[i], pathIndex( "$.routers", i ) ) );
    }
    const json& links = f.array( "links", false );
    for ( size_t i = 0; i < links.size(); ++i ) {
        t.links.push_back( readLink( r, links[i], pathIndex( "$.links", i ) ) );
    }
    const json& lans = f.array( "lans", false );
    for ( size_t i = 0; i < lans.size(); ++i ) {
        t.lans.push_back( readLan( r, lans[i], pathIndex( "$.lans", i ) ) );
    }
    validateTopology( t, fileName );
    return t;
}

Topology loadTopologyFile( const std::string& path ) {
    std::ifstream in( path, std::ios::binary );
    if ( !in ) {
        throw TopologyError(
            path, "$", std::string( "cannot open the file: " ) + std::strerror( errno ) );
    }
    std::ostringstream text;
    text << in.rdbuf();
    if ( in.bad() ) {
        throw TopologyError( path, "$", "cannot read the file" );
    }
    return parseTopology( text.str(), path );
}

// ---------------------------------------------------------------------------
// validateTopology

namespace {

class Validator {
  public:
    Validator( const Topology& t, const std::string& file ) : t_( t ), r_( file ) {}

    void run() {
        for ( size_t i = 0; i < t_.routers.size(); ++i ) {
            router( t_.routers[i], pathIndex( "$.routers", i ) );
        }
        for ( size_t i = 0; i < t_.links.size(); ++i ) {
            link( t_.links[i], pathIndex( "$.links", i ) );
        }
        for ( size_t i = 0; i < t_.lans.size(); ++i ) {
            lan( t_.lans[i], pathIndex( "$.lans", i ) );
        }
    }

  private:
    void router( const Router& router, const std::string& path ) {
        if ( router.name.empty() ) {
            r_.fail( pathKey( path, "name" ), "router name must not be empty" );
        }
        if ( !byName_.emplace( router.name, &router ).second ) {
            r_.fail( pathKey( path, "name" ),
                     "duplicate router name " + quote( router.name ) );
        }
        if ( router.systemId == SystemId{} ) {
            r_.fail( pathKey( path, "systemId" ), "system id must not be all zero" );
        }
        auto [it, added] = bySystemId_.emplace( router.systemId, &router );
        if ( !added ) {
            r_.fail( pathKey( path, "systemId" ),
                     "duplicate system id " + systemIdText( router.systemId ) +
                         " (also router " + quote( it->second->name ) + ")" );
        }
        if ( router.teRouterId &&
             ( !router.teRouterId->isV4() || router.teRouterId->isAddrZero() ) ) {
            r_.fail( pathKey( path, "teRouterId" ),
                     "a TE router id is a non-zero IPv4 address" );
        }
        std::string levels = pathKey( path, "levels" );
        if ( router.levels.empty() ) {
            r_.fail( levels, "a router needs at least one level" );
        }
        for ( size_t i = 0; i < router.levels.size(); ++i ) {
            auto l = router.levels[i];
            if ( l != 1 && l != 2 ) {
                r_.fail( pathIndex( levels, i ), kLevelRange );
            }
            for ( size_t k = 0; k < i; ++k ) {
                if ( router.levels[k] == l ) {
                    r_.fail( pathIndex( levels, i ),
                             "duplicate level " + std::to_string( l ) );
                }
            }
        }
    }

    void level( uint8_t l, const std::string& path ) const {
        if ( l != 1 && l != 2 ) {
            r_.fail( pathKey( path, "level" ), kLevelRange );
        }
    }

    void address( const std::optional<Address>& a, Net::AddressFamily af,
                  const std::string& path ) const {
        if ( !a ) {
            return;
        }
        bool v6 = af == Net::AddressFamily::ipv6;
        if ( a->addr.af() != af ) {
            r_.fail( path, std::string( "expected an " ) + ( v6 ? "IPv6" : "IPv4" ) +
                               " address" );
        }
        if ( a->addr.isAddrZero() ) {
            r_.fail( path, "an interface address must not be zero" );
        }
        unsigned max = v6 ? 128 : 32;
        if ( a->prefixLength < 1 || a->prefixLength > max ) {
            r_.fail( path, "bad prefix length '" + std::to_string( a->prefixLength ) +
                               "': " + ( v6 ? "IPv6" : "IPv4" ) +
                               " prefix lengths are 1 to " + std::to_string( max ) );
        }
    }

    void bandwidth( double v, const std::string& path ) const {
        if ( !std::isfinite( v ) || v < 0 ) {
            r_.fail( path,
                     "bandwidth must be a non-negative number of bytes per second" );
        }
        if ( v > FLT_MAX ) {
            r_.fail( path, "bandwidth must fit a 32-bit float, at most 3.4028235e+38" );
        }
    }

    // Checks one router's interface in `level`; `path` is that of the link
    // end or LAN member.
    void attachment( const Attachment& a, uint8_t level, const std::string& path ) {
        std::string routerPath = pathKey( path, "router" );
        auto it = byName_.find( a.router );
        if ( it == byName_.end() ) {
            r_.fail( routerPath, "unknown router " + quote( a.router ) );
        }
        if ( !it->second->inLevel( level ) ) {
            r_.fail( routerPath, "router " + quote( a.router ) + " is not in level " +
                                     std::to_string( level ) );
        }
        if ( a.interface.empty() ) {
            r_.fail( pathKey( path, "interface" ), "interface name must not be empty" );
        }
        auto [used, added] =
            interfaces_.emplace( std::make_tuple( a.router, level, a.interface ), path );
        if ( !added ) {
            r_.fail( pathKey( path, "interface" ),
                     "interface " + a.interface.name() + " of router " +
                         quote( a.router ) + " is already used in level " +
                         std::to_string( level ) + " at " + used->second );
        }
        if ( !a.ipv4 && !a.ipv6 ) {
            r_.fail( path, "an interface needs an ipv4 or an ipv6 address" );
        }
        address( a.ipv4, Net::AddressFamily::ipv4, pathKey( path, "ipv4" ) );
        address( a.ipv6, Net::AddressFamily::ipv6, pathKey( path, "ipv6" ) );
        if ( a.metric > kMaxMetric ) {
            r_.fail( pathKey( path, "metric" ), kMetricRange );
        }
        if ( a.teMetric && *a.teMetric > kMaxMetric ) {
            r_.fail( pathKey( path, "teMetric" ), kMetricRange );
        }
        bandwidth( a.maxBandwidth, pathKey( path, "maxBandwidth" ) );
        bandwidth( a.maxReservableBandwidth, pathKey( path, "maxReservableBandwidth" ) );
        if ( a.unreservedBandwidth ) {
            for ( size_t i = 0; i < kPriorities; ++i ) {
                bandwidth( ( *a.unreservedBandwidth )[i],
                           pathIndex( pathKey( path, "unreservedBandwidth" ), i ) );
            }
        }
    }

    void link( const Link& link, const std::string& path ) {
        level( link.level, path );
        std::string ends = pathKey( path, "ends" );
        for ( size_t i = 0; i < 2; ++i ) {
            const LinkEnd& end = link.ends[i];
            std::string endPath = pathIndex( ends, i );
            attachment( end, link.level, endPath );
            if ( end.neighborAddress4 &&
                 ( !end.neighborAddress4->isV4() || !end.ipv4 ) ) {
                r_.fail( pathKey( endPath, "neighborAddress" ),
                         "an IPv4 neighbor address needs an ipv4 address on this end" );
            }
            if ( end.neighborAddress6 &&
                 ( !end.neighborAddress6->isV6() || !end.ipv6 ) ) {
                r_.fail( pathKey( endPath, "neighborAddress6" ),
                         "an IPv6 neighbor address needs an ipv6 address on this end" );
            }
        }
        const LinkEnd& a = link.ends[0];
        const LinkEnd& b = link.ends[1];
        std::string second = pathIndex( ends, 1 );
        if ( a.router == b.router ) {
            r_.fail( pathKey( second, "router" ),
                     "both ends of a link are on router " + quote( a.router ) );
        }
        // The far end's address is what each end reports as its neighbor's:
        // both ends need the same families. Mismatches are made with the
        // neighborAddress fault switches instead.
        auto family = [&]( const std::optional<Address>& x,
                           const std::optional<Address>& y, const char* key ) {
            if ( x.has_value() != y.has_value() ) {
                r_.fail( pathKey( x ? second : pathIndex( ends, 0 ), key ),
                         std::string( "missing: the other end of the link has an " ) +
                             key + " address" );
            }
            if ( x && x->addr == y->addr ) {
                r_.fail( pathKey( second, key ),
                         "both ends have address " + x->addr.toString() );
            }
        };
        family( a.ipv4, b.ipv4, "ipv4" );
        family( a.ipv6, b.ipv6, "ipv6" );
    }

    void lan( const Lan& lan, const std::string& path ) {
        level( lan.level, path );
        std::string pseudonodePath = pathKey( path, "pseudonode" );
        if ( lan.pseudonode == 0 ) {
            r_.fail( pseudonodePath, kPseudonodeRange );
        }
        std::string members = pathKey( path, "members" );
        if ( lan.members.size() < 2 ) {
            r_.fail( members, "a LAN needs at least two members" );
        }
        std::set<std::string> seen;
        bool drIsMember = false;
        for ( size_t i = 0; i < lan.members.size(); ++i ) {
            const LanMember& m = lan.members[i];
            std::string memberPath = pathIndex( members, i );
            attachment( m, lan.level, memberPath );
            if ( !seen.insert( m.router ).second ) {
                r_.fail(
                    pathKey( memberPath, "router" ),
                    "router " + quote( m.router ) + " is already a member of this LAN" );
            }
            drIsMember = drIsMember || m.router == lan.dr;
        }
        std::string drPath = pathKey( path, "dr" );
        if ( !byName_.count( lan.dr ) ) {
            r_.fail( drPath, "unknown router " + quote( lan.dr ) );
        }
        if ( !drIsMember ) {
            r_.fail( drPath, "the designated router " + quote( lan.dr ) +
                                 " is not a member of this LAN" );
        }
        auto [used, added] = pseudonodes_.emplace(
            std::make_tuple( lan.dr, lan.level, lan.pseudonode ), path );
        if ( !added ) {
            r_.fail( pseudonodePath,
                     "pseudonode " + std::to_string( lan.pseudonode ) + " of router " +
                         quote( lan.dr ) + " is already used in level " +
                         std::to_string( lan.level ) + " at " + used->second );
        }
    }

    const Topology& t_;
    Reader r_;
    std::unordered_map<std::string, const Router*> byName_;
    std::map<SystemId, const Router*> bySystemId_;
    // (router, level, interface) -> path of its first use
    std::map<std::tuple<std::string, uint8_t, Net::IntfId>, std::string> interfaces_;
    // (dr, level, pseudonode) -> path of its LAN
    std::map<std::tuple<std::string, uint8_t, uint8_t>, std::string> pseudonodes_;
};

}  // namespace

void validateTopology( const Topology& topology, const std::string& fileName ) {
    Validator( topology, fileName ).run();
}

// ---------------------------------------------------------------------------
// toJson

namespace {

using ojson = nlohmann::ordered_json;

constexpr size_t kLineWidth = 100;
constexpr size_t kIndent = 2;

ojson attachmentJson( const Attachment& a ) {
    ojson j;
    j["router"] = a.router;
    j["interface"] = a.interface.name();
    if ( a.ipv4 ) {
        j["ipv4"] = a.ipv4->toString();
    }
    if ( a.ipv6 ) {
        j["ipv6"] = a.ipv6->toString();
    }
    j["metric"] = a.metric;
    if ( a.teMetric ) {
        j["teMetric"] = *a.teMetric;
    }
    if ( a.adminGroup != 0 ) {
        j["adminGroup"] = a.adminGroup;
    }
    if ( a.maxBandwidth != 0 ) {
        j["maxBandwidth"] = a.maxBandwidth;
    }
    if ( a.maxReservableBandwidth != 0 ) {
        j["maxReservableBandwidth"] = a.maxReservableBandwidth;
    }
    if ( a.unreservedBandwidth ) {
        j["unreservedBandwidth"] = *a.unreservedBandwidth;
    }
    if ( !a.advertise ) {
        j["advertise"] = false;
    }
    if ( !a.record ) {
        j["record"] = false;
    }
    return j;
}

// Appends the one-line form of `j` to `out`; gives up, returning false, once
// `out` is longer than `limit`, so that big values cost no more than a line.
bool flat( const ojson& j, std::string& out, size_t limit ) {
    if ( !j.is_structured() ) {
        out += j.dump();
        return out.size() <= limit;
    }
    if ( j.empty() ) {
        out += j.is_object() ? "{}" : "[]";
        return out.size() <= limit;
    }
    out += j.is_object() ? "{ " : "[";
    for ( auto it = j.begin(); it != j.end(); ++it ) {
        out += it == j.begin() ? "" : ", ";
        if ( j.is_object() ) {
            out += ojson( it.key() ).dump() + ": ";
        }
        if ( !flat( it.value(), out, limit ) ) {
            return false;
        }
    }
    out += j.is_object() ? " }" : "]";
    return out.size() <= limit;
}

// A value on one line when it fits, else one member per line; arrays of
// scalars always on one line. Scalars are written by nlohmann, which keeps
// doubles exact.
void pretty( const ojson& j, size_t indent, std::string& out ) {
    bool scalars = j.is_array() &&
                   std::none_of( j.begin(), j.end(),
                                 []( const ojson& v ) { return v.is_structured(); } );
    std::string line;
    size_t limit = scalars ? SIZE_MAX : kLineWidth - std::min( indent, kLineWidth );
    if ( flat( j, line, limit ) ) {
        out += line;
        return;
    }
    std::string pad( indent + kIndent, ' ' );
    out += j.is_object() ? "{\n" : "[\n";
    for ( auto it = j.begin(); it != j.end(); ++it ) {
        out += it == j.begin() ? "" : ",\n";
        out += pad;
        if ( j.is_object() ) {
            out += ojson( it.key() ).dump() + ": ";
        }
        pretty( it.value(), indent + kIndent, out );
    }
    out += "\n" + std::string( indent, ' ' ) + ( j.is_object() ? "}" : "]" );
}

}  // namespace

std::string toJson( const Topology& t ) {
    ojson doc;
    doc["format"] = kFormat;
    doc["routers"] = ojson::array();
    for ( const auto& r : t.routers ) {
        ojson j;
        j["name"] = r.name;
        j["systemId"] = systemIdText( r.systemId );
        if ( r.teRouterId ) {
            j["teRouterId"] = r.teRouterId->toString();
        }
        j["levels"] = r.levels;
        if ( r.overload ) {
            j["overload"] = true;
        }
        doc["routers"].push_back( std::move( j ) );
    }
    if ( !t.links.empty() ) {
        doc["links"] = ojson::array();
        for ( const auto& link : t.links ) {
            ojson j;
            j["level"] = link.level;
            j["ends"] = ojson::array();
            for ( const auto& end : link.ends ) {
                ojson e = attachmentJson( end );
                if ( end.neighborAddress4 ) {
                    e["neighborAddress"] = end.neighborAddress4->toString();
                }
                if ( end.neighborAddress6 ) {
                    e["neighborAddress6"] = end.neighborAddress6->toString();
                }
                j["ends"].push_back( std::move( e ) );
            }
            doc["links"].push_back( std::move( j ) );
        }
    }
    if ( !t.lans.empty() ) {
        doc["lans"] = ojson::array();
        for ( const auto& lan : t.lans ) {
            ojson j;
            j["level"] = lan.level;
            j["dr"] = lan.dr;
            j["pseudonode"] = lan.pseudonode;
            j["members"] = ojson::array();
            for ( const auto& m : lan.members ) {
                j["members"].push_back( attachmentJson( m ) );
            }
            doc["lans"].push_back( std::move( j ) );
        }
    }
    std::string out;
    pretty( doc, 0, out );
    out += "\n";
    return out;
}

}  // namespace Cspf::TopoFile

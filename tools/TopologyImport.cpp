// Importers of research topology formats.
//
//   Builder         numbering plan: names, system ids, TE router ids,
//                   interfaces, addresses; weight clamping
//   Lines           the line-based formats, one line of tokens at a time
//   parseRepetita   directed edges paired into adjacencies
//   parseNetdice    the JSON form and the text form of undirected links
#include "tools/TopologyImport.h"

#include <cfloat>
#include <charconv>
#include <cmath>
#include <deque>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <unordered_map>

#include "platform/Assert.h"

namespace Cspf::TopoFile {

namespace {

// Interfaces get 10.0.0.0 + 2k and + 2k + 1 for link k and TE router ids are
// 10.255.0.1 + i: the two ranges stay apart while k < (10.255.0.0 -
// 10.0.0.0) / 2, and router ids stay in 10.255.0.0/16 while i < 65535.
constexpr uint32_t kLinkBase = 0x0a000000;    // 10.0.0.0
constexpr uint32_t kRouterBase = 0x0aff0001;  // 10.255.0.1
constexpr size_t kMaxRouters = 65535;
constexpr size_t kMaxLinks = ( 0x0aff0000 - kLinkBase ) / 2;
// "Ethernet<n>" holds n up to 65535.
constexpr size_t kMaxInterfaces = 65535;
constexpr uint8_t kLevel = 2;

std::string where( unsigned line ) {
    return "line " + std::to_string( line );
}

// Labels become names of letters, digits, '_', '-' and '.': any other run of
// characters becomes one '-'.
std::string plainName( std::string_view label ) {
    std::string out;
    for ( char c : label ) {
        bool plain = ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) ||
                     ( c >= '0' && c <= '9' ) || c == '_' || c == '-' || c == '.';
        if ( plain ) {
            out += c;
        } else if ( !out.empty() && out.back() != '-' ) {
            out += '-';
        }
    }
    while ( !out.empty() && out.back() == '-' ) {
        out.pop_back();
    }
    return out;
}

class Builder {
  public:
    explicit Builder( const std::string& file ) : file_( file ) {}

    [[noreturn]] void fail( unsigned line, const std::string& problem ) const {
        throw TopologyError( file_, where( line ), problem );
    }

    // Router i gets the name from its label (or "r<i>"), system id i + 1 and
    // TE router id 10.255.0.1 + i.
    void router( std::string_view label, unsigned line ) {
        size_t i = t_.routers.size();
        if ( i >= kMaxRouters ) {
            fail( line, "too many nodes: the address plan has room for " +
                            std::to_string( kMaxRouters ) );
        }
        std::string base = plainName( label );
        if ( base.empty() ) {
            base = "r" + std::to_string( i );
        }
        std::string name = base;
        for ( unsigned n = 2; names_.count( name ); ++n ) {
            name = base + "-" + std::to_string( n );
        }
        names_.insert( name );
        Router r;
        r.name = name;
        uint64_t id = i + 1;
        for ( int b = 5; b >= 0; --b, id >>= 8 ) {
            r.systemId[static_cast<size_t>( b )] = static_cast<uint8_t>( id & 0xff );
        }
        r.teRouterId = Net::IpGenAddr::v4( kRouterBase + static_cast<uint32_t>( i ) );
        r.levels = { kLevel };
        t_.routers.push_back( std::move( r ) );
        interfaces_.push_back( 0 );
    }

    size_t routers() const { return t_.routers.size(); }

    // One adjacency from u to v; `bandwidth` in kbit/s per direction, when
    // known.
    void link( size_t u, size_t v, uint64_t weightUv, uint64_t weightVu, unsigned line,
               std::optional<double> bandwidthUv = std::nullopt,
               std::optional<double> bandwidthVu = std::nullopt ) {
        if ( u == v ) {
            fail( line, "node " + std::to_string( u ) +
                            " is linked to itself; an adjacency needs two routers" );
        }
        size_t k = t_.links.size();
        if ( k >= kMaxLinks ) {
            fail( line, "too many links: the address plan has room for " +
                            std::to_string( kMaxLinks ) );
        }
        Link link;
        link.level = kLevel;
        end( link.ends[0], u, weightUv, bandwidthUv, k * 2, line );
        end( link.ends[1], v, weightVu, bandwidthVu, k * 2 + 1, line );
        t_.links.push_back( std::move( link ) );
    }

    void warn( const std::string& warning ) { warnings_.push_back( warning ); }

    // A weight read from the file, clamped to what a wide metric holds.
    uint64_t weight( uint64_t w, unsigned line ) {
        if ( w <= kMaxMetric ) {
            return w;
        }
        if ( clamped_++ == 0 ) {
            firstClampLine_ = line;
        }
        return kMaxMetric;
    }

    ImportResult finish() {
        if ( clamped_ > 0 ) {
            warn( file_ + ": " + std::to_string( clamped_ ) + " weight" +
                  ( clamped_ == 1 ? "" : "s" ) + " above " +
                  std::to_string( kMaxMetric ) + " clamped to " +
                  std::to_string( kMaxMetric ) + " (first at line " +
                  std::to_string( firstClampLine_ ) + ")" );
        }
        validateTopology( t_, file_ );
        return { std::move( t_ ), std::move( warnings_ ) };
    }

  private:
    void end( LinkEnd& e, size_t router, uint64_t weight, std::optional<double> kbps,
              size_t addressIndex, unsigned line ) {
        e.router = t_.routers[router].name;
        if ( interfaces_[router] >= kMaxInterfaces ) {
            fail( line, "node " + std::to_string( router ) + " has more than " +
                            std::to_string( kMaxInterfaces ) + " links" );
        }
        e.interface = Net::IntfId( "Ethernet" + std::to_string( ++interfaces_[router] ) );
        e.ipv4 = Address{
            Net::IpGenAddr::v4( kLinkBase + static_cast<uint32_t>( addressIndex ) ), 31 };
        CSPF_ASSERT( weight <= kMaxMetric );
        e.metric = static_cast<uint32_t>( weight );
        if ( kbps ) {
            // kbit/s to bytes per second; an unloaded network: all of it is
            // reservable and unreserved.
            double bytes = *kbps * 1000 / 8;
            e.maxBandwidth = bytes;
            e.maxReservableBandwidth = bytes;
            e.unreservedBandwidth.emplace();
            e.unreservedBandwidth->fill( bytes );
        }
    }

    const std::string& file_;
    Topology t_;
    std::vector<std::string> warnings_;
    std::set<std::string> names_;
    std::vector<size_t> interfaces_;  // per router, the last Ethernet number used
    size_t clamped_ = 0;
    unsigned firstClampLine_ = 0;
};

// The non-empty lines of a text, split at blanks.
class Lines {
  public:
    Lines( std::string_view text, const Builder& b ) : text_( text ), b_( b ) {}

    // The next non-empty line, or false at the end of the text.
    bool next() {
        while ( pos_ < text_.size() ) {
            size_t end = text_.find( '\n', pos_ );
            if ( end == std::string_view::npos ) {
                end = text_.size();
            }
            std::string_view line = text_.substr( pos_, end - pos_ );
            pos_ = end + 1;
            ++line_;
            tokens_.clear();
            size_t i = 0;
            while ( i < line.size() ) {
                while ( i < line.size() && isBlank( line[i] ) ) {
                    ++i;
                }
                size_t start = i;
                while ( i < line.size() && !isBlank( line[i] ) ) {
                    ++i;
                }
                if ( i > start ) {
                    tokens_.push_back( line.substr( start, i - start ) );
                }
            }
            if ( !tokens_.empty() ) {
                return true;
            }
        }
        tokens_.clear();
        ++line_;  // errors at the end name the line after the last one
        pos_ = std::string_view::npos;
        return false;
    }
    // The next non-empty line, which must exist.
    void need( const std::string& what ) {
        if ( !next() ) {
            b_.fail( line_, "unexpected end of file: expected " + what );
        }
    }
    void expectTokens( size_t n, const std::string& what ) const {
        if ( tokens_.size() != n ) {
            b_.fail( line_, "expected " + what + " (" + std::to_string( n ) +
                                " fields), found " + std::to_string( tokens_.size() ) +
                                " fields" );
        }
    }

    [[noreturn]] void fail( const std::string& problem ) const {
        b_.fail( line_, problem );
    }
    unsigned line() const { return line_; }
    const std::vector<std::string_view>& tokens() const { return tokens_; }

    // A decimal integer without sign; above UINT64_MAX reads as UINT64_MAX so
    // that a huge weight is clamped like any other.
    uint64_t unsignedInt( std::string_view token, const std::string& what ) const {
        uint64_t v = 0;
        auto [p, ec] = std::from_chars( token.data(), token.data() + token.size(), v );
        bool digits = !token.empty() &&
                      token.find_first_not_of( "0123456789" ) == std::string_view::npos;
        if ( !digits || ( ec != std::errc() && ec != std::errc::result_out_of_range ) ||
             p != token.data() + token.size() ) {
            b_.fail( line_, what + " must be a non-negative integer, found '" +
                                std::string( token ) + "'" );
        }
        return ec == std::errc::result_out_of_range ? UINT64_MAX : v;
    }
    size_t node( std::string_view token, size_t nodes ) const {
        uint64_t n = unsignedInt( token, "a node number" );
        if ( n >= nodes ) {
            b_.fail( line_, "node " + std::string( token ) +
                                " does not exist: there are " + std::to_string( nodes ) +
                                " nodes" );
        }
        return n;
    }
    double number( std::string_view token, const std::string& what ) const {
        double v = 0;
        auto [p, ec] = std::from_chars( token.data(), token.data() + token.size(), v );
        if ( ec != std::errc() || p != token.data() + token.size() ||
             !std::isfinite( v ) || v < 0 ) {
            b_.fail( line_, what + " must be a non-negative number, found '" +
                                std::string( token ) + "'" );
        }
        return v;
    }

  private:
    static bool isBlank( char c ) { return c == ' ' || c == '\t' || c == '\r'; }

    std::string_view text_;
    const Builder& b_;
    size_t pos_ = 0;
    unsigned line_ = 0;
    std::vector<std::string_view> tokens_;
};

std::string readFile( const std::string& path ) {
    std::ifstream in( path, std::ios::binary );
    if ( !in ) {
        throw TopologyError( path, "line 0", "cannot open the file" );
    }
    std::ostringstream text;
    text << in.rdbuf();
    if ( in.bad() ) {
        throw TopologyError( path, "line 0", "cannot read the file" );
    }
    return text.str();
}

// "NODES 11" or "EDGES 28".
size_t sectionCount( Lines& lines, const char* section ) {
    std::string expected = std::string( "'" ) + section + " <count>'";
    lines.need( expected );
    if ( lines.tokens()[0] != section ) {
        lines.fail( "expected " + expected + ", found '" +
                    std::string( lines.tokens()[0] ) + "'" );
    }
    lines.expectTokens( 2, expected );
    return lines.unsignedInt( lines.tokens()[1],
                              std::string( "the " ) + section + " count" );
}

void headerLine( Lines& lines, const char* fields ) {
    std::string expected = std::string( "the header line '" ) + fields + "'";
    lines.need( expected );
    if ( lines.tokens()[0] != "label" ) {
        lines.fail( "expected " + expected + ", found '" +
                    std::string( lines.tokens()[0] ) + "'" );
    }
}

struct Edge {
    size_t src;
    size_t dst;
    uint64_t weight;
    double bandwidth;
    unsigned line;
    size_t reverse = SIZE_MAX;  // index of the paired edge
    bool second = false;        // the later edge of a pair
};

}  // namespace

ImportResult parseRepetita( std::string_view text, const std::string& fileName ) {
    Builder b( fileName );
    Lines lines( text, b );
    size_t nodes = sectionCount( lines, "NODES" );
    if ( nodes == 0 ) {
        b.fail( lines.line(), "a topology needs at least one node" );
    }
    if ( nodes > kMaxRouters ) {
        b.fail( lines.line(), "too many nodes: the address plan has room for " +
                                  std::to_string( kMaxRouters ) );
    }
    headerLine( lines, "label x y" );
    for ( size_t i = 0; i < nodes; ++i ) {
        lines.need( "node " + std::to_string( i ) + " of " + std::to_string( nodes ) );
        lines.expectTokens( 3, "a node line '<label> <x> <y>'" );
        b.router( lines.tokens()[0], lines.line() );
    }
    size_t count = sectionCount( lines, "EDGES" );
    headerLine( lines, "label src dest weight bw delay" );
    std::vector<Edge> edges;
    // Pairs each directed edge with the first unpaired one the other way.
    std::map<std::pair<size_t, size_t>, std::deque<size_t>> unpaired;
    for ( size_t i = 0; i < count; ++i ) {
        lines.need( "edge " + std::to_string( i ) + " of " + std::to_string( count ) );
        lines.expectTokens( 6,
                            "an edge line '<label> <src> <dest> <weight> <bw> <delay>'" );
        const auto& tok = lines.tokens();
        Edge e{ lines.node( tok[1], nodes ), lines.node( tok[2], nodes ),
                b.weight( lines.unsignedInt( tok[3], "the weight" ), lines.line() ),
                lines.number( tok[4], "bw" ), lines.line() };
        lines.number( tok[5], "delay" );
        if ( e.src == e.dst ) {
            b.fail( e.line, "node " + std::to_string( e.src ) +
                                " is linked to itself; an adjacency needs two routers" );
        }
        if ( e.bandwidth * 1000 / 8 > FLT_MAX ) {
            b.fail( e.line,
                    "bw is too large for a 32-bit bandwidth in bytes per second" );
        }
        auto& waiting = unpaired[{ e.dst, e.src }];
        if ( !waiting.empty() ) {
            size_t first = waiting.front();
            waiting.pop_front();
            edges[first].reverse = edges.size();
            e.reverse = first;
            e.second = true;
        } else {
            unpaired[{ e.src, e.dst }].push_back( edges.size() );
        }
        edges.push_back( e );
    }
    if ( lines.next() ) {
        b.fail( lines.line(),
                "unexpected line after the " + std::to_string( count ) + " edges" );
    }
    // Links in the order of their first directed edge; an edge without a
    // reverse direction uses its weight and bandwidth on both ends.
    for ( const Edge& e : edges ) {
        if ( e.second ) {
            continue;
        }
        if ( e.reverse == SIZE_MAX ) {
            b.warn( fileName + ": line " + std::to_string( e.line ) + ": edge " +
                    std::to_string( e.src ) + " -> " + std::to_string( e.dst ) +
                    " has no reverse direction; its weight is used on both ends" );
            b.link( e.src, e.dst, e.weight, e.weight, e.line, e.bandwidth, e.bandwidth );
            continue;
        }
        const Edge& r = edges[e.reverse];
        b.link( e.src, e.dst, e.weight, r.weight, e.line, e.bandwidth, r.bandwidth );
    }
    return b.finish();
}

ImportResult importRepetita( const std::string& path ) {
    return parseRepetita( readFile( path ), path );
}

namespace {

ImportResult parseNetdiceText( std::string_view text, const std::string& fileName ) {
    Builder b( fileName );
    Lines lines( text, b );
    lines.need( "the node count" );
    lines.expectTokens( 1, "the node count" );
    uint64_t nodes = lines.unsignedInt( lines.tokens()[0], "the node count" );
    if ( nodes == 0 || nodes > kMaxRouters ) {
        b.fail( lines.line(),
                "the node count must be from 1 to " + std::to_string( kMaxRouters ) );
    }
    for ( size_t i = 0; i < nodes; ++i ) {
        b.router( {}, lines.line() );
    }
    while ( lines.next() ) {
        lines.expectTokens( 4, "a link line '<u> <v> <w_uv> <w_vu>'" );
        const auto& tok = lines.tokens();
        size_t u = lines.node( tok[0], nodes );
        size_t v = lines.node( tok[1], nodes );
        uint64_t wUv = b.weight( lines.unsignedInt( tok[2], "w_uv" ), lines.line() );
        uint64_t wVu = b.weight( lines.unsignedInt( tok[3], "w_vu" ), lines.line() );
        b.link( u, v, wUv, wVu, lines.line() );
    }
    return b.finish();
}

ImportResult parseNetdiceJson( std::string_view text, const std::string& fileName ) {
    using nlohmann::json;
    Builder b( fileName );
    JsonLines lineOf;
    json doc = readJson( text, fileName, JsonPlace::line, &lineOf );
    auto line = [&]( const std::string& path ) {
        auto it = lineOf.find( path );
        return it == lineOf.end() ? 1u : it->second;
    };
    auto member = [&]( const json& obj, const std::string& path, const char* key,
                       bool array ) -> const json& {
        if ( !obj.is_object() ) {
            b.fail( line( path ), "expected an object" );
        }
        auto it = obj.find( key );
        if ( it == obj.end() ) {
            b.fail( line( path ), std::string( "missing '" ) + key + "'" );
        }
        if ( array && !it->is_array() ) {
            b.fail( line( pathKey( path, key ) ),
                    std::string( "expected an array for '" ) + key + "'" );
        }
        return *it;
    };
    // A node id is a string or a non-negative integer.
    auto nodeId = [&]( const json& v, const std::string& path ) {
        if ( v.is_string() ) {
            return v.get<std::string>();
        }
        if ( v.is_number_unsigned() ) {
            return std::to_string( v.get<uint64_t>() );
        }
        b.fail( line( path ), "a node id is a string or a non-negative integer" );
    };
    const json& topology = member( doc, "$", "topology", false );
    const std::string top = "$.topology";
    const json& nodes = member( topology, top, "nodes", true );
    const json& links = member( topology, top, "links", true );
    std::unordered_map<std::string, size_t> index;
    for ( size_t i = 0; i < nodes.size(); ++i ) {
        std::string path = pathIndex( pathKey( top, "nodes" ), i );
        std::string id = nodeId( nodes[i], path );
        if ( !index.emplace( id, i ).second ) {
            b.fail( line( path ), "duplicate node id '" + id + "'" );
        }
        b.router( id, line( path ) );
    }
    if ( nodes.empty() ) {
        b.fail( line( pathKey( top, "nodes" ) ), "a topology needs at least one node" );
    }
    for ( size_t i = 0; i < links.size(); ++i ) {
        std::string path = pathIndex( pathKey( top, "links" ), i );
        unsigned at = line( path );
        auto end = [&]( const char* key ) {
            std::string id = nodeId( member( links[i], path, key, false ), path );
            auto it = index.find( id );
            if ( it == index.end() ) {
                b.fail( at, "unknown node id '" + id + "'" );
            }
            return it->second;
        };
        auto weight = [&]( const char* key ) {
            const json& w = member( links[i], path, key, false );
            if ( !w.is_number_unsigned() ) {
                b.fail( at, std::string( key ) + " must be a non-negative integer" );
            }
            return b.weight( w.get<uint64_t>(), at );
        };
        size_t u = end( "u" );
        size_t v = end( "v" );
        uint64_t wUv = weight( "w_uv" );
        uint64_t wVu = weight( "w_vu" );
        b.link( u, v, wUv, wVu, at );
    }
    return b.finish();
}

}  // namespace

ImportResult parseNetdice( std::string_view text, const std::string& fileName ) {
    size_t first = text.find_first_not_of( " \t\r\n" );
    if ( first == std::string_view::npos ) {
        throw TopologyError( fileName, "line 1", "empty file" );
    }
    return text[first] == '{' ? parseNetdiceJson( text, fileName )
                              : parseNetdiceText( text, fileName );
}

ImportResult importNetdice( const std::string& path ) {
    return parseNetdice( readFile( path ), path );
}

}  // namespace Cspf::TopoFile

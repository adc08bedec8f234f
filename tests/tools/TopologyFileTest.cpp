#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "tools/TopologyFile.h"

namespace Cspf::TopoFile {
namespace {

using nlohmann::json;
using Ptr = json::json_pointer;

// r1 (level 2), r2 (levels 1 and 2), r3 (level 1); a level-2 link r1-r2 and
// a level-1 LAN of r2 (DR) and r3.
json baseDoc() {
    return json::parse( R"({
      "format": "cspf-topology/1",
      "routers": [
        { "name": "r1", "systemId": "0000.0000.0001", "teRouterId": "10.0.0.1", "levels": [2] },
        { "name": "r2", "systemId": "0000.0000.0002", "levels": [1, 2] },
        { "name": "r3", "systemId": "0000.0000.0003", "levels": [1], "overload": true } ],
      "links": [ { "level": 2, "ends": [
        { "router": "r1", "interface": "Ethernet1", "ipv4": "10.1.12.0/31",
          "ipv6": "2001:db8::1/64", "metric": 10 },
        { "router": "r2", "interface": "Ethernet1", "ipv4": "10.1.12.1/31",
          "ipv6": "2001:db8::2/64", "metric": 10, "teMetric": 5 } ] } ],
      "lans": [ { "level": 1, "dr": "r2", "pseudonode": 1, "members": [
        { "router": "r2", "interface": "Ethernet1", "ipv4": "10.2.0.2/24", "metric": 10 },
        { "router": "r3", "interface": "Ethernet1", "ipv4": "10.2.0.3/24", "metric": 10 } ] } ]
    })" );
}

struct BadCase {
    std::string patch;
    std::string where;
    std::string problem;  // a prefix of the problem
};

// Edits `d` as `patch` says: "PTR=JSON" sets, "-PTR" removes, "PTR<FROM"
// copies, several separated by "; ".
void apply( json& d, const std::string& patch ) {
    std::istringstream in( patch );
    for ( std::string op; std::getline( in, op, ';' ); ) {
        op.erase( 0, op.find_first_not_of( ' ' ) );
        if ( op[0] == '-' ) {
            const Ptr p( op.substr( 1 ) );
            json& parent = d[p.parent_pointer()];
            if ( parent.is_array() ) {
                parent.erase( std::stoul( p.back() ) );
            } else {
                parent.erase( p.back() );
            }
        } else if ( const size_t from = op.find( '<' ); from != std::string::npos ) {
            const json copy = d[Ptr( op.substr( from + 1 ) )];
            d[Ptr( op.substr( 0, from ) )] = copy;
        } else {
            const size_t eq = op.find( '=' );
            d[Ptr( op.substr( 0, eq ) )] = json::parse( op.substr( eq + 1 ) );
        }
    }
}

TEST( TopologyFileTest, EveryProblemNamesItsJsonPath ) {
    const std::string metricRange =
        "IS-IS wide metrics and the TE default metric are 24-bit, at most 16777215";
    const std::vector<BadCase> cases = {
        { "=[]", "$", "expected an object, found an array" },
        { R"(/format="cspf-topology/2")", "$.format",
          "unknown format 'cspf-topology/2', expected 'cspf-topology/1'" },
        { "-/format", "$.format", "missing field" },
        { "-/routers", "$.routers", "missing field" },
        { "-/routers/0/systemId", "$.routers[0].systemId", "missing field" },
        { R"(/routers/0/levels="2")", "$.routers[0].levels",
          "expected an array, found a string" },
        { R"(/routers/1/colour="red")", "$.routers[1].colour",
          "unknown field (known: name, systemId" },
        { "/routers/1/level s=1", "$.routers[1]['level s']", "unknown field" },
        { R"(/routers/0/systemId="0000.0000.000g")", "$.routers[0].systemId",
          "expected a system id 'xxxx.xxxx.xxxx' of 12 hex digits, found "
          "'0000.0000.000g'" },
        { R"(/routers/0/systemId="0000.0000.0000")", "$.routers[0].systemId",
          "system id must not be all zero" },
        { R"(/routers/2/systemId="0000.0000.0001")", "$.routers[2].systemId",
          "duplicate system id 0000.0000.0001 (also router 'r1')" },
        { R"(/routers/2/name="r1")", "$.routers[2].name", "duplicate router name 'r1'" },
        { R"(/routers/2/name="")", "$.routers[2].name", "router name must not be empty" },
        { "/routers/1/levels/1=3", "$.routers[1].levels[1]", "level must be 1 or 2" },
        { "/routers/1/levels=[2, 1, 2]", "$.routers[1].levels[2]", "duplicate level 2" },
        { "/routers/0/levels=[]", "$.routers[0].levels",
          "a router needs at least one level" },
        { R"(/routers/0/teRouterId="10.0.0.300")", "$.routers[0].teRouterId",
          "bad address '10.0.0.300'" },
        { R"(/routers/0/teRouterId="2001:db8::1")", "$.routers[0].teRouterId",
          "a TE router id is an IPv4 address" },
        { "/links/0/level=0", "$.links[0].level", "level must be 1 or 2" },
        { "-/links/0/ends/1", "$.links[0].ends", "a link has exactly two ends, found 1" },
        { R"(/links/0/ends/1/router="r9")", "$.links[0].ends[1].router",
          "unknown router 'r9'" },
        { R"(/links/0/ends/1/router="r3")", "$.links[0].ends[1].router",
          "router 'r3' is not in level 2" },
        { R"(/links/0/ends/1/router="r1"; /links/0/ends/1/interface="Ethernet2")",
          "$.links[0].ends[1].router", "both ends of a link are on router 'r1'" },
        { "/links/0/ends/1/metric=16777216", "$.links[0].ends[1].metric", metricRange },
        { "/links/0/ends/1/teMetric=1099511627776", "$.links[0].ends[1].teMetric",
          metricRange },
        { "/links/0/ends/0/metric=-1", "$.links[0].ends[0].metric",
          "expected a non-negative integer, found -1" },
        { "/links/0/ends/0/metric=1.5", "$.links[0].ends[0].metric",
          "expected an integer, found a number" },
        { "-/links/0/ends/0/metric", "$.links[0].ends[0].metric", "missing field" },
        { R"(/links/0/ends/0/interface="Eth 1")", "$.links[0].ends[0].interface",
          "interface name 'Eth 1' cannot be encoded" },
        { R"(/links/1</links/0; /links/1/ends/0/ipv4="10.1.13.0/31"; /links/1/ends/1/ipv4="10.1.13.1/31")",
          "$.links[1].ends[0].interface",
          "interface Ethernet1 of router 'r1' is already used in level 2 at "
          "$.links[0].ends[0]" },
        { R"(/links/0/ends/0/ipv4="10.1.12.0")", "$.links[0].ends[0].ipv4",
          "expected 'address/prefix length', found '10.1.12.0'" },
        { R"(/links/0/ends/0/ipv4="10.1.12.0/33")", "$.links[0].ends[0].ipv4",
          "bad prefix length '33': IPv4 prefix lengths are 1 to 32" },
        { R"(/links/0/ends/0/ipv6="2001:db8::1/064")", "$.links[0].ends[0].ipv6",
          "bad prefix length '064'" },
        { R"(/links/0/ends/0/ipv4="2001:db8::1/64")", "$.links[0].ends[0].ipv4",
          "expected an IPv4 address, found '2001:db8::1/64'" },
        { R"(/links/0/ends/0/ipv4="10.1.x.0/31")", "$.links[0].ends[0].ipv4",
          "bad address '10.1.x.0'" },
        { "-/links/0/ends/0/ipv4; -/links/0/ends/0/ipv6", "$.links[0].ends[0]",
          "an interface needs an ipv4 or an ipv6 address" },
        { "-/links/0/ends/1/ipv6", "$.links[0].ends[1].ipv6",
          "missing: the other end of the link has an ipv6 address" },
        { R"(/links/0/ends/1/ipv4="10.1.12.0/31")", "$.links[0].ends[1].ipv4",
          "both ends have address 10.1.12.0" },
        { R"(/links/0/ends/1/neighborAddress6="10.1.12.9")",
          "$.links[0].ends[1].neighborAddress6",
          "expected an IPv6 address, found '10.1.12.9'" },
        { R"(-/links/0/ends/1/ipv6; -/links/0/ends/0/ipv6; /links/0/ends/1/neighborAddress="2001:db8::9")",
          "$.links[0].ends[1].neighborAddress",
          "an IPv6 neighbor address needs an ipv6 address on this end" },
        { R"(/links/0/ends/1/neighborAddress="2001:db8::9"; /links/0/ends/1/neighborAddress6="2001:db8::8")",
          "$.links[0].ends[1].neighborAddress",
          "an IPv6 neighbor address is already given by neighborAddress6" },
        { "/links/0/ends/1/adminGroup=4294967296", "$.links[0].ends[1].adminGroup",
          "admin groups are 32-bit, at most 4294967295" },
        { "/links/0/ends/1/maxBandwidth=-1.0", "$.links[0].ends[1].maxBandwidth",
          "bandwidth must be a non-negative number of bytes per second" },
        { "/links/0/ends/1/maxReservableBandwidth=1e39",
          "$.links[0].ends[1].maxReservableBandwidth",
          "bandwidth must fit a 32-bit float" },
        { "/links/0/ends/1/unreservedBandwidth=[1, 2, 3]",
          "$.links[0].ends[1].unreservedBandwidth",
          "expected 8 values, one per priority, found 3" },
        { R"(/links/0/ends/1/unreservedBandwidth=[1, 2, 3, 4, 5, 6, 7, "8"])",
          "$.links[0].ends[1].unreservedBandwidth[7]",
          "expected a number, found a string" },
        { R"(/links/0/ends/1/advertise="no")", "$.links[0].ends[1].advertise",
          "expected a boolean, found a string" },
        { R"(/lans/0/members/1/neighborAddress="10.2.0.9")",
          "$.lans[0].members[1].neighborAddress", "unknown field" },
        { R"(/lans/0/dr="r9")", "$.lans[0].dr", "unknown router 'r9'" },
        { R"(/lans/0/dr="r1")", "$.lans[0].dr",
          "the designated router 'r1' is not a member of this LAN" },
        { "/lans/0/pseudonode=0", "$.lans[0].pseudonode",
          "pseudonode must be from 1 to 255" },
        { "/lans/0/pseudonode=256", "$.lans[0].pseudonode",
          "pseudonode must be from 1 to 255" },
        { R"(/lans/1</lans/0; /lans/1/members/0/interface="Ethernet3"; /lans/1/members/1/interface="Ethernet3")",
          "$.lans[1].pseudonode",
          "pseudonode 1 of router 'r2' is already used in level 1 at $.lans[0]" },
        { "-/lans/0/members/1", "$.lans[0].members", "a LAN needs at least two members" },
        { R"(/lans/0/members/1/router="r2"; /lans/0/members/1/interface="Ethernet3")",
          "$.lans[0].members[1].router", "router 'r2' is already a member of this LAN" },
        { R"(/lans/0/members/1/router="r1")", "$.lans[0].members[1].router",
          "router 'r1' is not in level 1" },
    };
    // The base document is valid, and a level-1 LAN may reuse a level-2
    // interface name of the same router.
    ASSERT_NO_THROW( parseTopology( baseDoc().dump(), "base.json" ) );
    for ( size_t i = 0; i < cases.size(); ++i ) {
        SCOPED_TRACE( "case " + std::to_string( i ) + ": " + cases[i].where );
        json d = baseDoc();
        apply( d, cases[i].patch );
        try {
            parseTopology( d.dump(), "t.json" );
            ADD_FAILURE() << "accepted";
        } catch ( const TopologyError& e ) {
            EXPECT_EQ( e.file(), "t.json" );
            EXPECT_EQ( e.where(), cases[i].where );
            EXPECT_TRUE( e.problem().starts_with( cases[i].problem ) ) << e.problem();
            EXPECT_EQ( std::string( e.what() ),
                       "t.json: " + e.where() + ": " + e.problem() );
        }
    }
}

TEST( TopologyFileTest, MalformedTextIsRefusedWithItsPlace ) {
    auto refusal = []( const std::string& text ) -> std::string {
        try {
            parseTopology( text, "m.json" );
        } catch ( const TopologyError& e ) {
            return e.where() + ": " + e.problem();
        }
        return "accepted";
    };
    EXPECT_TRUE( refusal( R"({"format": "cspf-topology/1", "routers": [{"name": ,}]})" )
                     .starts_with( "$.routers[0]: malformed JSON at byte 52: " ) );
    EXPECT_TRUE( refusal( R"({"format": "cspf-topology/1", "routers": [])" )
                     .starts_with( "$: malformed JSON at byte 44: " ) );
    EXPECT_EQ( refusal( R"({"routers": [], "format": "a", "format": "b"})" ),
               "$.format: duplicate key 'format'" );
    EXPECT_TRUE( refusal( std::string( 100, '[' ) )
                     .ends_with( "[0]: nesting deeper than 64 levels" ) );
    try {
        loadTopologyFile( "/nonexistent/topology.json" );
        ADD_FAILURE() << "accepted";
    } catch ( const TopologyError& e ) {
        EXPECT_EQ( e.where(), "$" );
        EXPECT_TRUE( e.problem().starts_with( "cannot open the file" ) ) << e.problem();
    }
}

TEST( TopologyFileTest, ReadJsonTellsTheLineOfEveryValue ) {
    JsonLines lines;
    // A number's end is found one character late, across a line break.
    readJson( "{\n \"a\": 1\n,\n \"b\": [true,\n 2.5]\n,\"c\": {}}", "l.json",
              JsonPlace::line, &lines );
    EXPECT_EQ( lines["$"], 1u );
    EXPECT_EQ( lines["$.a"], 2u );
    EXPECT_EQ( lines["$.b"], 4u );
    EXPECT_EQ( lines["$.b[0]"], 4u );
    EXPECT_EQ( lines["$.b[1]"], 5u );
    EXPECT_EQ( lines["$.c"], 6u );
    try {
        readJson( "{\n\"a\": 1,\n\"a\": 2}", "l.json", JsonPlace::line );
        ADD_FAILURE() << "accepted";
    } catch ( const TopologyError& e ) {
        EXPECT_EQ( std::string( e.what() ), "l.json: line 3: duplicate key 'a'" );
    }
}

Topology everyFeature() {
    Topology t;
    Router a{ "a", { 0, 0, 0, 0, 0, 1 }, Net::IpGenAddr( "10.0.0.1" ), { 2, 1 }, true };
    Router b{ "b", { 0xab, 0xcd, 0, 0, 0, 2 }, std::nullopt, { 1 }, false };
    t.routers = { a, b };
    Link link;
    link.level = 1;
    for ( size_t i = 0; i < 2; ++i ) {
        LinkEnd& e = link.ends[i];
        e.router = i == 0 ? "a" : "b";
        e.interface = Net::IntfId( "Ethernet3/1.7" );
        e.ipv4 =
            Address{ Net::IpGenAddr::v4( 0x0a000000 + static_cast<uint32_t>( i ) ), 31 };
        e.ipv6 = Address{ Net::IpGenAddr( i == 0 ? "2001:db8::a" : "2001:db8::b" ), 127 };
        e.metric = i == 0 ? 0 : kMaxMetric;
    }
    LinkEnd& e = link.ends[0];
    e.teMetric = 0;
    e.adminGroup = 0xffffffff;
    e.maxBandwidth = 1.25e9;
    e.maxReservableBandwidth = 0.1;
    e.unreservedBandwidth = std::array<double, 8>{ 1, 2, 3, 4, 5, 6, 7, 3.4e38 };
    e.advertise = false;
    e.record = false;
    e.neighborAddress4 = Net::IpGenAddr( "10.9.9.9" );
    e.neighborAddress6 = Net::IpGenAddr( "2001:db8::99" );
    t.links = { link, link };
    t.links[1].ends[0].interface = Net::IntfId( "Ethernet4" );
    t.links[1].ends[1].interface = Net::IntfId( "Ethernet4" );
    Lan lan{ 1, "b", 255, {} };
    for ( const char* r : { "b", "a" } ) {
        LanMember m;
        m.router = r;
        m.interface = Net::IntfId( "Vlan100" );
        m.ipv6 = Address{ Net::IpGenAddr( r[0] == 'a' ? "fe80::a" : "fe80::b" ), 64 };
        m.metric = 1;
        lan.members.push_back( m );
    }
    lan.members[1].record = false;
    t.lans = { lan };
    return t;
}

TEST( TopologyFileTest, ToJsonParsesBackToTheSameModel ) {
    Topology t = everyFeature();
    std::string text = toJson( t );
    Topology back = parseTopology( text, "rt.json" );
    EXPECT_EQ( back, t ) << text;
    EXPECT_EQ( toJson( back ), text );
    // Defaults are left out.
    json j = json::parse( text );
    EXPECT_FALSE( j["routers"][1].contains( "overload" ) );
    EXPECT_FALSE( j["routers"][1].contains( "teRouterId" ) );
    EXPECT_FALSE( j["links"][0]["ends"][1].contains( "teMetric" ) );
    EXPECT_FALSE( j["links"][0]["ends"][1].contains( "advertise" ) );
    EXPECT_EQ( j["links"][0]["ends"][0]["teMetric"], 0 );

    // The model keeps what a file says, not a shadow of it.
    t.links[0].ends[0].neighborAddress6.reset();
    EXPECT_NE( parseTopology( toJson( t ), "rt.json" ), back );
}

std::filesystem::path repoRoot() {
    return std::filesystem::path( __FILE__ ).parent_path().parent_path().parent_path();
}

// The example reads back, and is what docs/topology-format.md says it is.
TEST( TopologyFileTest, ExampleLoadsAndShowsWhatItPromises ) {
    std::string path = ( repoRoot() / "examples" / "topology.json" ).string();
    Topology t = loadTopologyFile( path );
    EXPECT_EQ( parseTopology( toJson( t ), path ), t );
    EXPECT_EQ( t.routers.size(), 6u );
    ASSERT_NE( routerByName( t, "r3" ), nullptr );
    EXPECT_EQ( routerByName( t, "r3" )->levels, ( std::vector<uint8_t>{ 1, 2 } ) );
    EXPECT_EQ( t.lans.at( 0 ).dr, "r3" );
    // r3 reaches r2 in level 2 over r1 and over r6 at the same cost.
    auto metric = [&]( const std::string& from, const std::string& to ) {
        for ( const auto& l : t.links ) {
            for ( size_t i = 0; i < 2; ++i ) {
                if ( l.level == 2 && l.ends[i].router == from &&
                     l.ends[1 - i].router == to ) {
                    return l.ends[i].metric;
                }
            }
        }
        return uint32_t{ 0 };
    };
    EXPECT_GT( metric( "r3", "r1" ), 0u );
    EXPECT_EQ( metric( "r3", "r1" ) + metric( "r1", "r2" ),
               metric( "r3", "r6" ) + metric( "r6", "r2" ) );
}

// Bad input ends as a TopologyError and nothing else: no other exception, no
// crash (the sanitizer build checks memory too).
TEST( TopologyFileTest, MutatedFilesFailCleanly ) {
    std::ifstream in( repoRoot() / "examples" / "topology.json" );
    std::stringstream buf;
    buf << in.rdbuf();
    const std::string original = buf.str();
    const std::string alphabet = "{}[]\",:0123456789.-e/ \nabrtfu";
    std::mt19937 rng( 7 );
    size_t refused = 0;
    for ( int i = 0; i < 1500; ++i ) {
        std::string text = original;
        for ( int n = 1 + static_cast<int>( rng() % 3 ); n > 0; --n ) {
            size_t at = rng() % text.size();
            switch ( rng() % 4 ) {
                case 0:
                    text[at] = alphabet[rng() % alphabet.size()];
                    break;
                case 1:
                    text.erase( at, 1 + rng() % 8 );
                    break;
                case 2:
                    text.insert( at, 1, alphabet[rng() % alphabet.size()] );
                    break;
                default:
                    text.resize( at );
                    break;
            }
            if ( text.empty() ) {
                text = "{";
            }
        }
        try {
            Topology t = parseTopology( text, "fuzz.json" );
            EXPECT_EQ( parseTopology( toJson( t ), "fuzz.json" ), t );
        } catch ( const TopologyError& ) {
            ++refused;
        }
    }
    EXPECT_GT( refused, 1000u );
}

}  // namespace
}  // namespace Cspf::TopoFile

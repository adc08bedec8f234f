#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tools/TopologyImport.h"

namespace Cspf::TopoFile {
namespace {

namespace fs = std::filesystem;

// CSPF_SHARED_DATA, else shared/data/topologies beside the repository.
fs::path sharedData() {
    if ( const char* env = std::getenv( "CSPF_SHARED_DATA" ) ) {
        return env;
    }
    return fs::path( __FILE__ ).parent_path() / "../../../shared/data/topologies";
}

// Every interface address and TE router id, each once.
void expectUniqueAddresses( const Topology& t ) {
    std::set<Net::IpGenAddr> seen;
    for ( const auto& r : t.routers ) {
        ASSERT_TRUE( r.teRouterId );
        EXPECT_TRUE( seen.insert( *r.teRouterId ).second ) << r.teRouterId->toString();
    }
    for ( const auto& l : t.links ) {
        for ( const auto& e : l.ends ) {
            ASSERT_TRUE( e.ipv4 );
            EXPECT_TRUE( seen.insert( e.ipv4->addr ).second ) << e.ipv4->toString();
        }
    }
}

// Directed (src, dst) -> weights, as a multiset, from the links' ends.
std::multiset<std::tuple<size_t, size_t, uint32_t>> directedMetrics( const Topology& t ) {
    std::map<std::string, size_t> index;
    for ( size_t i = 0; i < t.routers.size(); ++i ) {
        index[t.routers[i].name] = i;
    }
    std::multiset<std::tuple<size_t, size_t, uint32_t>> out;
    for ( const auto& l : t.links ) {
        size_t a = index.at( l.ends[0].router );
        size_t b = index.at( l.ends[1].router );
        out.emplace( a, b, l.ends[0].metric );
        out.emplace( b, a, l.ends[1].metric );
    }
    return out;
}

TEST( TopologyImportTest, EveryFileOfTheSharedDataImports ) {
    fs::path dir = sharedData();
    if ( !fs::is_directory( dir ) ) {
        GTEST_SKIP() << "no shared data at " << dir;
    }
    size_t repetita = 0;
    for ( const auto& entry : fs::directory_iterator( dir / "repetita" ) ) {
        if ( entry.path().extension() != ".graph" ) {
            continue;
        }
        SCOPED_TRACE( entry.path().filename().string() );
        ++repetita;
        ImportResult r = importRepetita( entry.path().string() );
        EXPECT_TRUE( r.warnings.empty() );
        // What the file says, read here independently.
        std::ifstream in( entry.path() );
        std::string word, line;
        size_t nodes = 0, edges = 0;
        in >> word >> nodes;
        for ( size_t i = 0; i < nodes + 2; ++i ) {
            std::getline( in, line );
        }
        in >> word >> edges;
        std::getline( in, line );
        std::getline( in, line );
        std::multiset<std::tuple<size_t, size_t, uint32_t>> fileMetrics;
        for ( size_t i = 0; i < edges; ++i ) {
            size_t src, dst;
            uint32_t weight;
            in >> word >> src >> dst >> weight >> word >> word;
            fileMetrics.emplace( src, dst, weight );
        }
        ASSERT_TRUE( in ) << "test could not read the file";
        EXPECT_EQ( r.topology.routers.size(), nodes );
        EXPECT_EQ( r.topology.links.size(), edges / 2 );  // every file is symmetric
        EXPECT_EQ( directedMetrics( r.topology ), fileMetrics );
        expectUniqueAddresses( r.topology );
        EXPECT_EQ( parseTopology( toJson( r.topology ), "rt" ), r.topology );
    }
    EXPECT_EQ( repetita, 14u );

    struct Expected {
        const char* file;
        size_t routers;
        size_t links;
    };
    for ( auto [file, routers, links] :
          { Expected{ "AS-1239.json", 180, 552 }, Expected{ "AS-786.json", 340, 912 },
            Expected{ "AS-1267.json", 598, 2320 }, Expected{ "Kdl.in", 754, 899 } } ) {
        SCOPED_TRACE( file );
        ImportResult r = importNetdice( ( dir / "netdice" / file ).string() );
        EXPECT_TRUE( r.warnings.empty() );
        EXPECT_EQ( r.topology.routers.size(), routers );
        EXPECT_EQ( r.topology.links.size(), links );
        for ( const auto& l : r.topology.links ) {
            EXPECT_EQ( l.ends[0].metric, 1u );  // all weights are 1
            EXPECT_EQ( l.ends[1].metric, 1u );
        }
        expectUniqueAddresses( r.topology );
    }
}

TEST( TopologyImportTest, NumberingPlan ) {
    // A chain of 300 nodes: the TE router id increments across octets.
    std::string text = "300\n";
    for ( int i = 0; i + 1 < 300; ++i ) {
        text += std::to_string( i ) + " " + std::to_string( i + 1 ) + " 1 2\n";
    }
    Topology t = parseNetdice( text, "chain.in" ).topology;
    ASSERT_EQ( t.routers.size(), 300u );
    EXPECT_EQ( t.routers[0].name, "r0" );
    EXPECT_EQ( systemIdText( t.routers[0].systemId ), "0000.0000.0001" );
    EXPECT_EQ( t.routers[0].teRouterId->toString(), "10.255.0.1" );
    EXPECT_EQ( systemIdText( t.routers[255].systemId ), "0000.0000.0100" );
    EXPECT_EQ( t.routers[255].teRouterId->toString(), "10.255.1.0" );
    EXPECT_EQ( t.routers[1].levels, std::vector<uint8_t>{ 2 } );
    const Link& l = t.links[1];
    EXPECT_EQ( l.level, 2 );
    EXPECT_EQ( l.ends[0].router, "r1" );
    EXPECT_EQ( l.ends[0].interface.name(), "Ethernet2" );  // r1's second link
    EXPECT_EQ( l.ends[1].interface.name(), "Ethernet1" );
    EXPECT_EQ( l.ends[0].ipv4->toString(), "10.0.0.2/31" );
    EXPECT_EQ( l.ends[1].ipv4->toString(), "10.0.0.3/31" );
    EXPECT_EQ( l.ends[0].metric, 1u );
    EXPECT_EQ( l.ends[1].metric, 2u );
}

TEST( TopologyImportTest, DirectedEdgesPairUpInFileOrder ) {
    const char* text =
        "NODES 3\nlabel x y\nSan+Jose,+CA 0.0 0.0\nSan+Jose,+CA 0.0 0.0\n,,, 1 2\n\n"
        "EDGES 6\nlabel src dest weight bw delay\n"
        "e0 0 1 10 1000 1\n"
        "e1 0 1 20 1000 1\n"     // parallel to e0
        "e2 1 0 11 1000 1\n"     // pairs with e0
        "e3 1 0 21 2000 1\n"     // pairs with e1
        "e4 1 2 99999999 8 1\n"  // no reverse, clamped
        "e5 2 0 5 1000 1\n";     // no reverse
    ImportResult r = parseRepetita( text, "p.graph" );
    const Topology& t = r.topology;
    EXPECT_EQ( t.routers[0].name, "San-Jose-CA" );
    EXPECT_EQ( t.routers[1].name, "San-Jose-CA-2" );
    EXPECT_EQ( t.routers[2].name, "r2" );
    ASSERT_EQ( t.links.size(), 4u );
    auto metrics = [&]( size_t k ) {
        return std::make_pair( t.links[k].ends[0].metric, t.links[k].ends[1].metric );
    };
    EXPECT_EQ( metrics( 0 ), std::make_pair( 10u, 11u ) );
    EXPECT_EQ( metrics( 1 ), std::make_pair( 20u, 21u ) );
    EXPECT_EQ( metrics( 2 ), std::make_pair( kMaxMetric, kMaxMetric ) );
    EXPECT_EQ( metrics( 3 ), std::make_pair( 5u, 5u ) );
    EXPECT_EQ( t.links[2].ends[0].router, "San-Jose-CA-2" );
    // kbit/s per direction become bytes per second per end.
    EXPECT_EQ( t.links[1].ends[0].maxBandwidth, 125000.0 );
    EXPECT_EQ( t.links[1].ends[1].maxBandwidth, 250000.0 );
    EXPECT_EQ( t.links[2].ends[1].maxBandwidth, 1000.0 );
    ASSERT_EQ( r.warnings.size(), 3u );
    EXPECT_EQ( r.warnings[0],
               "p.graph: line 13: edge 1 -> 2 has no reverse direction; its weight is "
               "used on both ends" );
    EXPECT_EQ(
        r.warnings[2],
        "p.graph: 1 weight above 16777215 clamped to 16777215 (first at line 13)" );
}

TEST( TopologyImportTest, BadInputNamesTheLine ) {
    struct Case {
        bool repetita;
        std::string text;
        std::string where;
        std::string problem;  // a prefix
    };
    const std::string head =
        "NODES 2\nlabel x y\na 0 0\nb 0 0\nEDGES 2\nlabel s d w b d\n";
    std::vector<Case> cases = {
        { true, "NODES x\n", "line 1", "the NODES count must be a non-negative integer" },
        { true, "NODE 2\n", "line 1", "expected 'NODES <count>', found 'NODE'" },
        { true, "NODES 2\nlabel x y\na 0 0\n", "line 4",
          "unexpected end of file: expected node 1 of 2" },
        { true, "NODES 1\nlabel x y\na 0\n", "line 3", "expected a node line" },
        { true, head + "e 0 5 1 1 1\n", "line 7",
          "node 5 does not exist: there are 2 nodes" },
        { true, head + "e 1 1 1 1 1\n", "line 7", "node 1 is linked to itself" },
        { true, head + "e 0 1 -3 1 1\n", "line 7",
          "the weight must be a non-negative integer, found '-3'" },
        { true, head + "e 0 1 3 fast 1\n", "line 7", "bw must be a non-negative number" },
        { true, head + "e 0 1 1 1 1\n\n", "line 9",
          "unexpected end of file: expected edge 1 of 2" },
        { true, head + "e 0 1 1 1 1\ne 1 0 1 1 1\nx\n", "line 9",
          "unexpected line after the 2 edges" },
        { false, "", "line 1", "empty file" },
        { false, "3\n0 1 1\n", "line 2", "expected a link line" },
        { false, "0\n", "line 1", "the node count must be from 1 to 65535" },
        { false,
          "{ \"topology\": {\n \"nodes\": [\"a\", \"b\"],\n \"links\": [\n"
          "  {\"u\": \"a\", \"v\": \"b\", \"w_uv\": 1, \"w_vu\": 1},\n"
          "  {\"u\": \"a\", \"v\": \"c\", \"w_uv\": 1, \"w_vu\": 1} ] } }",
          "line 5", "unknown node id 'c'" },
        { false, "{ \"topology\": {\n \"nodes\": [\"a\",\n \"a\"], \"links\": [] } }",
          "line 3", "duplicate node id 'a'" },
        { false,
          "{ \"topology\": { \"nodes\": [\"a\", \"b\"], \"links\": [\n"
          " {\"u\": \"a\", \"v\": \"b\", \"w_uv\": \"1\", \"w_vu\": 1} ] } }",
          "line 2", "w_uv must be a non-negative integer" },
        { false,
          "{ \"topology\": { \"nodes\": [\"a\", \"b\"], \"links\": [\n"
          " {\"u\": \"a\", \"v\": \"b\"} ] } }",
          "line 2", "missing 'w_uv'" },
        { false, "{ \"topology\": {\n \"nodes\": [\"a\" \"b\"] } }", "line 2",
          "malformed JSON at byte" },
        { false, "{ \"nodes\": [] }", "line 1", "missing 'topology'" },
    };
    for ( size_t i = 0; i < cases.size(); ++i ) {
        const Case& c = cases[i];
        SCOPED_TRACE( "case " + std::to_string( i ) + ": " + c.problem );
        try {
            if ( c.repetita ) {
                parseRepetita( c.text, "bad" );
            } else {
                parseNetdice( c.text, "bad" );
            }
            ADD_FAILURE() << "accepted";
        } catch ( const TopologyError& e ) {
            EXPECT_EQ( e.file(), "bad" );
            EXPECT_EQ( e.where(), c.where );
            EXPECT_TRUE( e.problem().starts_with( c.problem ) ) << e.problem();
        }
    }
    try {
        importRepetita( "/nonexistent.graph" );
        ADD_FAILURE() << "accepted";
    } catch ( const TopologyError& e ) {
        EXPECT_EQ( e.file(), "/nonexistent.graph" );
    }
}

}  // namespace
}  // namespace Cspf::TopoFile

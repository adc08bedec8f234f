// Generated topologies: the same for a seed, valid whatever the options,
// connected without faults, of the size asked for, on the importers' plan.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "tools/OfflineTopology.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyGenerate.h"

using namespace Cspf::TopoFile;

namespace {

GenerateOptions everyFault( double p ) {
    GenerateOptions o;
    o.overload = o.oneWay = o.addressMismatch = o.missingRecord = o.zeroMetric =
        o.hugeMetric = o.noTeRouterId = p;
    return o;
}

// Every router is reached from the first, whatever its level, by the CSPF
// run (itself checked against an independent Dijkstra in CspfReferenceTest).
bool connected( const Topology& t ) {
    Cspf::OfflineTopology offline( t );
    offline.sourceIs( *t.routers[0].teRouterId );
    return offline.compute( {} )->shortestPathColl().size() == t.routers.size();
}

TEST( TopologyGenerateTest, ASeedGivesOneTopologyAndFaultsLeaveItsGraph ) {
    GenerateOptions o = everyFault( 0.1 );
    o.bothLevels = true;
    o.ipv6 = true;
    o.seed = 42;
    const Topology t = generateTopology( o );
    EXPECT_EQ( t, generateTopology( o ) );
    o.seed = 43;
    EXPECT_NE( t, generateTopology( o ) );

    // The faults are drawn last: the same links between the same routers,
    // interfaces and addresses, with or without them.
    GenerateOptions clean;
    clean.bothLevels = true;
    clean.ipv6 = true;
    clean.seed = 42;
    const Topology c = generateTopology( clean );
    ASSERT_EQ( c.links.size(), t.links.size() );
    for ( size_t k = 0; k < c.links.size(); ++k ) {
        for ( size_t e = 0; e < 2; ++e ) {
            EXPECT_EQ( c.links[k].ends[e].router, t.links[k].ends[e].router );
            EXPECT_EQ( c.links[k].ends[e].interface, t.links[k].ends[e].interface );
            EXPECT_EQ( c.links[k].ends[e].ipv6, t.links[k].ends[e].ipv6 );
        }
    }
    EXPECT_EQ( c.lans.size(), t.lans.size() );
}

TEST( TopologyGenerateTest, EveryOptionGivesAValidTopology ) {
    for ( double p : { 0.0, 0.1, 0.6 } ) {
        for ( size_t routers : { 0, 1, 2, 3, 7, 40 } ) {
            for ( int variant = 0; variant < 4; ++variant ) {
                GenerateOptions o = everyFault( p );
                o.routers = routers;
                o.bothLevels = variant & 1;
                o.ipv6 = variant & 2;
                o.lanShare = 0.5;
                o.parallelShare = 0.3;
                o.meanDegree = routers == 2 ? 50 : 3;
                o.seed = routers * 10 + variant;
                const Topology t = generateTopology( o );
                EXPECT_NO_THROW( validateTopology( t, "generated" ) )
                    << "seed " << o.seed << " p " << p;
                if ( routers == 40 ) {
                    EXPECT_EQ( parseTopology( toJson( t ), "generated" ), t );
                }
            }
        }
    }
}

TEST( TopologyGenerateTest, WithoutFaultsEveryRouterIsReachable ) {
    for ( uint64_t seed = 1; seed <= 30; ++seed ) {
        GenerateOptions o;
        o.routers = 2 + seed * 7;
        o.meanDegree = seed % 3;  // below a tree: the tree still spans
        o.lanShare = 0.3;
        o.bothLevels = seed % 2;
        o.seed = seed;
        const Topology t = generateTopology( o );
        EXPECT_TRUE( connected( t ) ) << "seed " << seed;
        for ( const Router& r : t.routers ) {
            EXPECT_TRUE( r.teRouterId && !r.overload ) << r.name;
        }
        for ( const Link& link : t.links ) {
            for ( const LinkEnd& end : link.ends ) {
                EXPECT_TRUE( end.advertise && end.record && !end.neighborAddress4 &&
                             end.metric >= o.minMetric && end.metric <= o.maxMetric );
            }
        }
    }
}

TEST( TopologyGenerateTest, SizeAndAddressPlanAreAsAsked ) {
    GenerateOptions o;
    o.routers = 1000;
    const Topology t = generateTopology( o );
    ASSERT_EQ( t.routers.size(), 1000u );
    EXPECT_EQ( t.routers[255].name, "r255" );
    EXPECT_EQ( systemIdText( t.routers[255].systemId ), "0000.0000.0100" );
    EXPECT_EQ( *t.routers[255].teRouterId, Net::IpGenAddr( "10.255.1.0" ) );
    EXPECT_EQ( t.links[3].ends[1].ipv4->toString(), "10.0.0.7/31" );
    // 2000 adjacencies for a mean degree of 4, 2% more for parallel links.
    EXPECT_NEAR( double( t.links.size() ), 2040, 60 );
    size_t members = 0;
    for ( const Lan& lan : t.lans ) {
        EXPECT_GE( lan.members.size(), 3u );
        EXPECT_LE( lan.members.size(), 6u );
        members += lan.members.size();
    }
    EXPECT_EQ( members, 50u );

    o.routers = 20000;
    o.ipv6 = true;
    o.bothLevels = true;
    EXPECT_EQ( generateTopology( o ).routers.size(), 20000u );
}

TEST( TopologyGenerateTest, OptionsOutOfRangeAreRefused ) {
    auto refused = []( auto change ) {
        GenerateOptions o;
        change( o );
        EXPECT_THROW( generateTopology( o ), Platform::RangeError );
    };
    refused( []( GenerateOptions& o ) { o.lanShare = 1.5; } );
    refused( []( GenerateOptions& o ) { o.oneWay = -0.1; } );
    refused( []( GenerateOptions& o ) { o.meanDegree = std::nan( "" ); } );
    refused( []( GenerateOptions& o ) { o.minMetric = 0; } );
    refused( []( GenerateOptions& o ) { o.maxMetric = kMaxMetric + 1; } );
    refused( []( GenerateOptions& o ) { o.minMetric = 30; } );
    refused( []( GenerateOptions& o ) { o.routers = 70000; } );
}

}  // namespace

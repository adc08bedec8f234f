// The run's working tables against the standard containers they stand in
// for: the tent gives out exactly what an ordered map of the same keys would,
// and the hash maps find, replace and erase as an unordered map does.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

#include "cspf/CspfData.h"
#include "cspf/CspfHashMap.h"
#include "cspf/CspfTent.h"
#include "topo/TopoKeys.h"

using namespace Cspf;
using Net::IpGenAddr;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkId;

namespace {

Mpls::RouterId sys( uint32_t n ) {
    return Mpls::RouterId( Mpls::Protocol::isis, n >> 16, uint16_t( n ) );
}

// Keys of all three kinds over few routers, links, addresses and costs, so
// that equal costs, equal kinds and equal prefixes are common.
CspfLinkInfoKey randomKey( std::mt19937& random ) {
    auto pick = [&]( uint32_t n ) { return uint32_t( random() % n ); };
    const TopoId level = pick( 2 ) ? TopoId::isisL1 : TopoId::isisL2;
    const uint32_t from = pick( 6 ) + ( pick( 2 ) ? 0x10000 : 0 );
    const uint32_t cost = pick( 4 ) ? pick( 12 ) : 4000000000u + pick( 3 );
    if ( pick( 2 ) ) {
        AllTopoNeighborKey link(
            level, NeighborKey::toRouter( sys( from ), sys( pick( 6 ) ), pick( 3 ) ),
            IpGenAddr::v4( 0x0a000000 + from ) );
        link.teNeighborIdIs( IpGenAddr::v4( 0x0a000000 + pick( 6 ) ) );
        return CspfLinkInfoKey( link, cost );
    }
    const AllTopoNeighborKey lan(
        level,
        NeighborKey::toNetwork( sys( from ), NetworkId( sys( pick( 3 ) ), pick( 2 ) ) ),
        IpGenAddr::v4( 0x0a000000 + from ) );
    CspfLinkInfoKey key( lan, cost );
    switch ( pick( 3 ) ) {
        case 0:
            break;  // the LAN itself
        case 1:
            key.routerInNetworkIs( IpGenAddr::v4( 0x0a000000 + pick( 6 ) ) );
            break;
        default:
            key.routerInNetworkIs(
                IpGenAddr( pick( 2 ) ? "2001:db8::1" : "2001:db8::1:0" ) );
    }
    return key;
}

TEST( CspfTentTest, GivesOutWhatAnOrderedMapWouldWhateverTheOrderOfWork ) {
    std::mt19937 random( 7 );
    for ( int round = 0; round < 20; ++round ) {
        CspfTent tent;
        std::set<CspfLinkInfoKey> reference;
        for ( int step = 0; step < 3000; ++step ) {
            const CspfLinkInfoKey key = randomKey( random );
            switch ( random() % 6 ) {
                case 0:
                case 1:
                case 2:
                    // Cheaper keys than the last taken come too: the run never
                    // makes them, other users may.
                    ASSERT_EQ( tent.insert( CspfLinkInfo( key ) ),
                               reference.insert( key ).second );
                    break;
                case 3:
                    ASSERT_EQ( tent.erase( key ), reference.erase( key ) == 1 );
                    break;
                default:
                    if ( !reference.empty() ) {
                        ASSERT_EQ( tent.first().cspfLinkInfoKey(), *reference.begin() );
                        ASSERT_EQ( tent.takeFirst().cspfLinkInfoKey(),
                                   *reference.begin() );
                        reference.erase( reference.begin() );
                    }
            }
            ASSERT_EQ( tent.size(), reference.size() );
            ASSERT_EQ( tent.has( key ), reference.count( key ) == 1 );
        }
        std::vector<CspfLinkInfoKey> inOrder;
        for ( const CspfLinkInfo& info : tent.inOrder() ) {
            inOrder.push_back( info.cspfLinkInfoKey() );
        }
        EXPECT_EQ( inOrder,
                   std::vector<CspfLinkInfoKey>( reference.begin(), reference.end() ) );
        while ( !reference.empty() ) {
            ASSERT_EQ( tent.takeFirst().cspfLinkInfoKey(), *reference.begin() );
            reference.erase( reference.begin() );
        }
        EXPECT_TRUE( tent.empty() );
    }
}

TEST( CspfTentTest, AClearedTentStartsOverAtAnyCost ) {
    std::mt19937 random( 11 );
    CspfTent tent;
    const CspfLinkInfoKey dear = randomKey( random );
    CspfLinkInfoKey cheap = dear;
    while ( !( cheap < dear ) ) {
        cheap = randomKey( random );
    }
    tent.insert( CspfLinkInfo( dear ) );
    EXPECT_EQ( tent.takeFirst().cspfLinkInfoKey(), dear );
    tent.insert( CspfLinkInfo( dear ) );
    tent.clear();
    EXPECT_TRUE( tent.empty() );
    EXPECT_FALSE( tent.has( dear ) );
    EXPECT_EQ( tent.find( dear ), nullptr );
    tent.insert( CspfLinkInfo( dear ) );
    tent.insert( CspfLinkInfo( cheap ) );
    ASSERT_NE( tent.find( cheap ), nullptr );
    EXPECT_EQ( tent.find( cheap )->cspfLinkInfoKey(), cheap );
    EXPECT_EQ( tent.takeFirst().cspfLinkInfoKey(), cheap );
    EXPECT_EQ( tent.takeFirst().cspfLinkInfoKey(), dear );
}

TEST( CspfHashMapTest, FindsReplacesAndErasesAsAnUnorderedMap ) {
    // Few distinct keys and many members, so that probe runs, erasures in the
    // middle of them and growth past the first chunks all happen. The unset
    // address is a key like any other: links to a router without a TE router
    // id lead there.
    std::mt19937 random( 3 );
    CspfData::ShortestPathMap map;
    std::unordered_map<IpGenAddr, uint32_t> reference;
    auto addrOf = [&]( uint32_t n ) {
        return n == 0  ? IpGenAddr()
               : n % 7 ? IpGenAddr::v4( n )
                       : IpGenAddr( "2001:db8::" + std::to_string( n % 1000 ) );
    };
    for ( int step = 0; step < 40000; ++step ) {
        const IpGenAddr addr = addrOf( random() % 2000 );
        if ( random() % 3 ) {
            CspfPath path( addr );
            path.newLastLink( CspfLinkInfo(
                CspfLinkInfoKey( AllTopoNeighborKey(), uint32_t( step ) ) ) );
            map.insert_or_assign( addr, path );
            reference[addr] = uint32_t( step );
        } else {
            ASSERT_EQ( map.erase( addr ), reference.erase( addr ) );
        }
        ASSERT_EQ( map.size(), reference.size() );
    }
    size_t seen = 0;
    for ( const auto& [addr, path] : map ) {
        ++seen;
        ASSERT_EQ( path.teRouterId(), addr );
        ASSERT_EQ( path.begin()->second.cost(), reference.at( addr ) );
    }
    EXPECT_EQ( seen, reference.size() );
    for ( uint32_t n = 0; n < 2000; ++n ) {
        const CspfPath* path = map.find( addrOf( n ) );
        ASSERT_EQ( path != nullptr, reference.count( addrOf( n ) ) == 1 );
    }
    map.shrinkToFit();
    for ( const auto& [addr, cost] : reference ) {
        ASSERT_NE( map.find( addr ), nullptr );
    }
}

TEST( CspfHashMapTest, APathKeepsItsLastLinksInTheOrderTheyCame ) {
    // The first last link lives in the path, more move out of it: copies
    // and lookups see the same members either way.
    CspfPath path( IpGenAddr( "10.0.0.9" ) );
    std::vector<CspfLinkInfoKey> keys;
    for ( uint32_t i = 0; i < 4; ++i ) {
        keys.push_back( CspfLinkInfoKey(
            AllTopoNeighborKey( TopoId::isisL2, NeighborKey(), IpGenAddr::v4( i + 1 ) ),
            10 ) );
        EXPECT_TRUE( path.newLastLink( CspfLinkInfo( keys.back() ) ) );
        EXPECT_FALSE( path.newLastLink( CspfLinkInfo( keys.back() ) ) );
        const CspfPath copy = path;
        EXPECT_EQ( copy, path );
        std::vector<CspfLinkInfoKey> order;
        for ( const auto& [key, info] : copy ) {
            order.push_back( key );
        }
        EXPECT_EQ( order, keys );
    }
    path.lastLinkDel( keys[0] );
    EXPECT_EQ( path.lastLinks(), 3u );
    EXPECT_EQ( path.begin()->first, keys[1] );
    EXPECT_TRUE( !path.lastLink( keys[0] ) );
    path.lastLinkDelAll();
    EXPECT_EQ( path, CspfPath( IpGenAddr( "10.0.0.9" ) ) );
}

}  // namespace

// The per-VRF bookkeeping records: keys, change-only notification, hop
// bounds, the constraint table's notifiee and a dump text.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "platform/Age.h"
#include "platform/Clock.h"
#include "platform/Error.h"
#include "root/DedupConstraintTable.h"
#include "tests/support/DumpText.h"
#include "vrf/ConstraintInfoTableNotifiee.h"
#include "vrf/PathArray.h"
#include "vrf/PathTables.h"

using namespace Cspf;
using Net::IpGenAddr;
using Platform::Ptr;

namespace {

PathKey pk( const char* dest, uint32_t id ) {
    return PathKey( IpGenAddr( dest ), id );
}

std::string literal( const std::string& text ) {
    std::string re;
    for ( char c : text ) {
        if ( std::string( "()[]{}.*+?^$|\\" ).find( c ) != std::string::npos ) {
            re += '\\';
        }
        re += c;
    }
    return re;
}

DedupConstraintContent excluding( const char* intf ) {
    return DedupConstraintContent( PathConstraint( Net::IntfId( intf ) ) );
}

}  // namespace

TEST( PathInfoKey, OrdersByClientThenPathKeyAndHashesByValue ) {
    const PathInfoKey a1( "alpha", pk( "10.0.0.9", 9 ) );
    const PathInfoKey a2( "alpha", pk( "10.0.0.9", 10 ) );
    const PathInfoKey a3( "alpha", pk( "10.0.0.10", 1 ) );
    const PathInfoKey b( "beta", pk( "10.0.0.1", 0 ) );
    EXPECT_TRUE( a1 < a2 );
    EXPECT_TRUE( a2 < a3 );
    // Another client orders by its name alone, whatever its PathKey.
    EXPECT_TRUE( a3 < b );
    EXPECT_FALSE( b < a1 );
    EXPECT_FALSE( a1 < a1 );

    const PathInfoKey again( std::string( "alp" ) + "ha", pk( "10.0.0.9", 9 ) );
    EXPECT_EQ( again, a1 );
    EXPECT_EQ( again.hash(), a1.hash() );
    EXPECT_NE( PathInfoKey( "gamma", pk( "10.0.0.9", 9 ) ), a1 );
    Platform::HashColl<PathInfoKey, int> coll;
    coll.set( a1, 1 );
    coll.set( b, 2 );
    EXPECT_EQ( coll.get( again ), 1 );
}

// The exact text is golden in AgentScenarioTest's dump.
TEST( PathInfoKey, StringFormReadsBackWhateverTheNameHolds ) {
    for ( const PathInfoKey& k :
          { PathInfoKey( "te1", pk( "10.0.0.1", 7 ) ), PathInfoKey(),
            PathInfoKey( "a, 'pathKey': b", pk( "2001:db8::1", 3 ) ),
            PathInfoKey( "x})", pk( "10.0.0.2", 0 ) ) } ) {
        const std::string text = k.toString();
        EXPECT_EQ( PathInfoKey( text ), k ) << text;
        EXPECT_EQ( PathInfoKey( text.begin(), text.end() ), k ) << text;
    }
    for ( const char* bad :
          { "", "Value('Cspf::PathKey', ** {'destination': 10.0.0.1, 'id': 7})",
            "Value('Cspf::PathInfoKey', ** {'clientName': te1})",
            "Value('Cspf::PathInfoKey', ** {'pathKey': x, 'clientName': te1})",
            "Value('Cspf::PathInfoKey', ** {'clientName': te1, 'pathKey': Value(" } ) {
        try {
            PathInfoKey parsed( std::string_view{ bad } );
            ADD_FAILURE() << "parsed " << bad;
        } catch ( const Platform::DeserializationError& e ) {
            EXPECT_EQ( e.attribute(), "pathInfoKey" ) << bad;
        }
    }
    EXPECT_THROW(
        PathInfoKey( std::string_view{ "Value('Cspf::PathInfoKey', ** {'clientName': a, "
                                       "'pathKey': nonsense})" } ),
        Platform::DeserializationError );
}

TEST( VrfTables, PathArrayHoldsAtMost1024HopsAndNotifiesPerIndex ) {
    auto array = Platform::create<PathArray>();
    for ( uint32_t i = 0; i < 1024; ++i ) {
        array->pathIs( HopIndex( i ), IpGenAddr::v4( 0x0a000000u + i ) );
    }
    EXPECT_EQ( array->length(), 1024u );
    EXPECT_THROW( array->pathIs( HopIndex( 1024 ), IpGenAddr( "10.9.9.9" ) ),
                  Platform::RangeError );
    EXPECT_EQ( array->length(), 1024u );
    std::vector<IpGenAddr> hops = array->pathColl();
    EXPECT_EQ( *Platform::create<PathArray>( hops ), *array );
    hops.push_back( IpGenAddr( "10.9.9.9" ) );
    EXPECT_THROW( Platform::create<PathArray>( hops ), Platform::RangeError );

    auto small = Platform::create<PathArray>();
    EXPECT_THROW( small->pathIs( HopIndex( 1 ), IpGenAddr( "10.0.0.1" ) ),
                  Platform::RangeError );
    std::vector<uint32_t> told;
    auto sub =
        Platform::subscribe( small.get(), PathArray::pathTag,
                             [&]( const HopIndex& i ) { told.push_back( i.value() ); } );
    for ( const char* hop : { "10.0.0.1", "10.0.0.2", "10.0.0.3" } ) {
        small->pathIs( HopIndex( uint32_t( small->length() ) ), IpGenAddr( hop ) );
    }
    small->pathIs( HopIndex( 1 ), IpGenAddr( "10.0.0.2" ) );  // same hop: silent
    small->pathIs( HopIndex( 1 ), IpGenAddr( "10.0.0.7" ) );
    EXPECT_EQ( told, ( std::vector<uint32_t>{ 0, 1, 2, 1 } ) );
    told.clear();
    small->pathDel( HopIndex( 0 ) );
    small->pathDel( HopIndex( 5 ) );
    EXPECT_EQ( told, ( std::vector<uint32_t>{ 0, 1, 2 } ) );
    EXPECT_EQ( small->path( HopIndex( 0 ) ), IpGenAddr( "10.0.0.7" ) );
    EXPECT_EQ( small->path( HopIndex( 1 ) ), IpGenAddr( "10.0.0.3" ) );
    EXPECT_EQ( small->path( HopIndex( 2 ) ), IpGenAddr() );

    // A null path and an empty one both mean "no path".
    auto cache =
        Platform::create<PathStatusCache>( PathInfoKey( "c", pk( "1.1.1.1", 1 ) ) );
    EXPECT_EQ( cache->hopCount(), 0u );
    cache->pathIs( Platform::create<PathArray>() );
    EXPECT_EQ( cache->hopCount(), 0u );
    cache->pathIs( small );
    EXPECT_EQ( cache->hopCount(), 2u );
}

TEST( VrfTables, NotifieeKeepsOneConstraintInfoPerLiveHandle ) {
    auto infos = Platform::create<ConstraintInfoTable>();
    auto notifiee = Platform::create<ConstraintInfoTableNotifiee>( infos );
    auto table = Platform::create<DedupConstraintTable>();
    table->dedupTableNotifieeIs( notifiee.get() );

    Ptr<DedupConstraint> first = table->dedup( excluding( "Ethernet1" ) );
    Ptr<DedupConstraint> shared = table->dedup( excluding( "Ethernet1" ) );
    Ptr<DedupConstraint> other = table->dedup( excluding( "Ethernet2" ) );
    ASSERT_EQ( infos->constraintInfos(), 2u );
    Ptr<ConstraintInfo> info = infos->constraintInfo( first.ptr() );
    ASSERT_TRUE( info );
    EXPECT_EQ( info->constraint()->dedupConstraint(), first.ptr() );
    EXPECT_EQ( info->cspfRequestCount(), 0u );
    EXPECT_EQ( info->topoChangedAt(), 0.0 );
    EXPECT_EQ( info->paths(), 0u );

    first.reset();
    EXPECT_TRUE( infos->constraintInfoHas( shared.ptr() ) );
    const Platform::DedupHandle* gone = shared.ptr();
    shared.reset();
    EXPECT_FALSE( infos->constraintInfoHas( gone ) );
    EXPECT_EQ( infos->constraintInfos(), 1u );
    // The record outlives its handle and then reads the default constraint.
    EXPECT_FALSE( info->constraint()->dedupConstraint() );
    EXPECT_TRUE( info->constraint()->pathConstraint().isDefault() );

    table.reset();
    EXPECT_FALSE( notifiee->watching() );
    other.reset();  // unlinked: nobody is told
    EXPECT_EQ( infos->constraintInfos(), 1u );
}

TEST( VrfTablesDeathTest, NotifieeStopsOnAnInconsistentConstraintTable ) {
    auto infos = Platform::create<ConstraintInfoTable>();
    ConstraintInfoTableNotifiee notifiee( infos );
    auto table = Platform::create<DedupConstraintTable>();
    Ptr<DedupConstraint> handle = table->dedup( excluding( "Ethernet1" ) );
    EXPECT_DEATH( notifiee.handleRemove( *handle ),
                  literal( "constraintInfoTable()->constraintInfo( handle )" ) );
    notifiee.handleInsert( *handle );
    EXPECT_DEATH( notifiee.handleInsert( *handle ),
                  literal( "!constraintInfoTable()->constraintInfo( handle.ptr() )" ) );
    notifiee.handleRemove( *handle );
    EXPECT_EQ( infos->constraintInfos(), 0u );
}

// The other dumps of these records are golden in AgentScenarioTest; this one
// there has neither an excluded interface nor a topology change.
TEST( VrfTables, ConstraintInfoDumpReadsExactly ) {
    Platform::ManualClockScope clock;
    const PathInfoKey key( "te1", pk( "10.0.0.1", 7 ) );
    auto table = Platform::create<DedupConstraintTable>();
    Ptr<DedupConstraint> handle = table->dedup( excluding( "Ethernet1" ) );
    auto notifier = Platform::create<DedupConstraintLifeTimeNotifier>( handle.ptr() );
    auto info = Platform::create<ConstraintInfo>( handle.ptr(), notifier );
    info->cspfRequestCountInc( 2 );
    info->pathIs( key, true );
    info->pathIs( PathInfoKey( "te0", pk( "10.0.0.9", 1 ) ), true );
    info->topoChangedAtIs( Platform::now() );
    clock->advance( 3725.25 );
    EXPECT_EQ( TestKit::dumpText( *info, 2 ),
               "   CSPF request count: 2\n   Last topology change seen: 1:02:05.2 ago\n"
               "   Constraint exclude interface: Ethernet1\n   TEPs using this "
               "constraint: \n    " +
                   PathInfoKey( "te0", pk( "10.0.0.9", 1 ) ).toString() + "\n    " +
                   key.toString() + "\n" );
}

TEST( VrfTables, AgeTextTruncatesToTenths ) {
    EXPECT_EQ( Platform::ageText( 0 ), "0:00:00.0" );
    EXPECT_EQ( Platform::ageText( 59.96 ), "0:00:59.9" );
    EXPECT_EQ( Platform::ageText( 1001.3 - 1000 ), "0:00:01.3" );
    EXPECT_EQ( Platform::ageText( 36000 * 3 + 61 ), "30:01:01.0" );
    EXPECT_EQ( Platform::ageText( -2.5 ), "-0:00:02.5" );
    EXPECT_EQ( Platform::ageText( std::numeric_limits<double>::quiet_NaN() ), "unknown" );
}

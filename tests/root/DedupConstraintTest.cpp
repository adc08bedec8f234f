// Constraint dedup: the table's own life, the end of a handle, the content
// hash and the string form's errors. Sharing among equal constraints is
// VrfTablesTest's, through the notifiee that keeps per-constraint state.
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "root/DedupConstraintTable.h"

using namespace Cspf;
using Platform::Ptr;

namespace {
int nothrowNewFailures = 0;
}

// Lets a test make the next nothrow allocations yield nothing.
void* operator new( std::size_t size, const std::nothrow_t& ) noexcept {
    if ( nothrowNewFailures > 0 ) {
        --nothrowNewFailures;
        return nullptr;
    }
    try {
        return ::operator new( size );
    } catch ( ... ) {
        return nullptr;
    }
}

namespace {

DedupConstraintContent excluding( const char* intf ) {
    return DedupConstraintContent( PathConstraint( Net::IntfId( intf ) ) );
}

struct Recorder : DedupConstraintTableNotifiee {
    void handleInsert( Platform::DedupHandle& h ) override { inserted.push_back( &h ); }
    void handleRemove( Platform::DedupHandle& h ) override { removed.push_back( &h ); }
    void handleNotificationStop( Platform::DedupHashTable& ) override { ++stops; }
    std::vector<const void*> inserted, removed;
    int stops = 0;
};

TEST( DedupConstraint, TableSurvivesANotifieeDroppingItDuringDedup ) {
    struct Dropper : Recorder {
        void handleInsert( Platform::DedupHandle& h ) override {
            Recorder::handleInsert( h );
            DedupConstraintTable* raw = table.get();
            table.reset();
            sizeAfterDrop = raw->size();  // still alive: dedup holds it
        }
        Ptr<DedupConstraintTable> table;
        size_t sizeAfterDrop = 0;
    } rec;
    rec.table = Platform::create<DedupConstraintTable>();
    DedupConstraintTable* raw = rec.table.get();
    raw->dedupTableNotifieeIs( &rec );
    Ptr<DedupConstraint> h = raw->dedup( excluding( "Ethernet1" ) );
    EXPECT_EQ( rec.sizeAfterDrop, 1u );
    EXPECT_FALSE( h->linked() );  // the table went when dedup returned
    EXPECT_EQ( rec.stops, 1 );
}

TEST( DedupConstraint, LifeTimeNotifierForgetsTheContentOfAGoneHandle ) {
    auto table = Platform::create<DedupConstraintTable>();
    Ptr<DedupConstraint> h = table->dedup( excluding( "Ethernet1" ) );
    Ptr<DedupConstraintLifeTimeNotifier> n(
        new DedupConstraintLifeTimeNotifier( h.get() ) );
    int ended = 0;
    auto sub = Platform::subscribe( n.get(), DedupConstraintLifeTimeNotifier::handleTag,
                                    [&] { ++ended; } );
    EXPECT_EQ( n->pathConstraint(), PathConstraint( Net::IntfId( "Ethernet1" ) ) );
    h.reset();
    EXPECT_EQ( ended, 1 );
    EXPECT_EQ( n->dedupConstraint(), nullptr );
    EXPECT_TRUE( n->pathConstraint().isDefault() );
    EXPECT_EQ( table->size(), 0u );
}

// The steps written out again, apart from the product's helpers.
uint32_t handHash( uint32_t c ) {
    uint32_t h = 0;
    for ( int shift = 0; shift < 32; shift += 8 ) {
        h += ( c >> shift ) & 0xffu;
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    return h + ( h << 15 );
}

TEST( DedupConstraint, HashIsOneAtATimeOverTheConstraintHashBytes ) {
    EXPECT_EQ( DedupConstraintContent().hash(), 0u );
    EXPECT_EQ( handHash( 1 ), 0x009dbee6u );
    const uint8_t one[4] = { 1, 0, 0, 0 };
    EXPECT_EQ( oneAtATimeFinal( oneAtATimeHash( one, 4 ) ), 0x009dbee6u );
    for ( const char* intf : { "Ethernet1", "Ethernet3/1.100", "eth0" } ) {
        DedupConstraintContent content = excluding( intf );
        EXPECT_EQ( content.hash(), handHash( content.pathConstraint.hash() ) ) << intf;
        EXPECT_EQ( allocDedupConstraint( content )->hash(), content.hash() ) << intf;
    }
}

TEST( DedupConstraint, StringFormRoundTripsAndErrorsNamePathConstraint ) {
    for ( const DedupConstraintContent& c :
          { DedupConstraintContent(), excluding( "Ethernet1" ) } ) {
        EXPECT_EQ( DedupConstraintContent( c.toString() ), c );
    }
    EXPECT_EQ( excluding( "Ethernet1" ).toString(),
               "Value('Cspf::DedupConstraintContent', ** {'pathConstraint': "
               "Value('Cspf::PathConstraint', ** {'excludeInterface': Ethernet1})})" );
    const std::string inner = excluding( "Ethernet1" ).pathConstraint.toString();
    for ( const std::string& bad : {
              std::string( "Value('Cspf::DedupConstraintContent', ** {})" ),
              "Value('Cspf::DedupConstraintContent', ** {'pathConstraint': " + inner +
                  ", 'extra': 1})",
              std::string( "Value('Cspf::DedupConstraintContent', ** {'pathConstraint': "
                           "Value('Cspf::PathConstraint', ** {'excludeInterface': "
                           "no-such-interface})})" ),
          } ) {
        try {
            DedupConstraintContent c( bad );
            ADD_FAILURE() << "parsed " << bad;
        } catch ( const Platform::DeserializationError& e ) {
            EXPECT_EQ( e.attribute(), "pathConstraint" ) << bad;
        }
    }
}

TEST( DedupConstraint, AllocationThatYieldsNothingIsARangeErrorAndInsertsNothing ) {
    Recorder rec;
    auto table = Platform::create<DedupConstraintTable>();
    table->dedupTableNotifieeIs( &rec );
    nothrowNewFailures = 1;
    try {
        table->dedup( excluding( "Ethernet1" ) );
        ADD_FAILURE() << "no error";
    } catch ( const Platform::RangeError& e ) {
        EXPECT_STREQ( e.what(), "null ValidPtr" );
    }
    nothrowNewFailures = 0;
    EXPECT_EQ( table->size(), 0u );
    EXPECT_TRUE( rec.inserted.empty() );
}

}  // namespace

// Shared-memory tables within one process: records, notification of final
// changes, in-place reads and hostile files. Damaged files in bulk are the
// table_file fuzz target's (tests/fuzz/TableFileFuzz.cpp).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "platform/Error.h"
#include "tests/support/ShmTableKit.h"
#include "tests/support/TempDir.h"

using namespace Platform;
using namespace TestKit;

namespace {

TableLayout layout() {
    return shmLayout( "Test::Record" );
}

// The keys a sync reports, each once.
std::set<uint32_t> sync( ShmTableReader& r ) {
    const std::vector<uint32_t> keys = syncedKeys( r );
    const std::set<uint32_t> once( keys.begin(), keys.end() );
    EXPECT_EQ( once.size(), keys.size() ) << "a key reported twice";
    return once;
}

class ShmTableTest : public ::testing::Test {
  protected:
    TempDir dir_{ "shmtabletest" };
    const std::string path_ = dir_ / "table";
};

TEST_F( ShmTableTest, RecordsAndFinalStateNotifications ) {
    ShmTableWriter w( path_, layout() );
    EXPECT_TRUE( put( w, 1, "one" ) );
    EXPECT_FALSE( put( w, 1, "one" ) );  // equal value: nothing written
    EXPECT_TRUE( put( w, 2, "" ) );      // an empty value is a value
    ShmTableReader r( path_, layout() );
    EXPECT_EQ( value( r, 1 ), "one" );
    EXPECT_EQ( value( r, 2 ), "" );
    EXPECT_EQ( value( r, 3 ), "<absent>" );
    EXPECT_TRUE( sync( r ).empty() );  // attach took the content in silently

    // Several changes of one key coalesce; a key added and removed between
    // two syncs never existed for the reader; a reused slot reports both keys.
    put( w, 1, "uno" );
    put( w, 1, "eins" );
    put( w, 3, "three" );
    del( w, 3 );
    del( w, 2 );
    put( w, 4, std::string( 300, 'x' ) );  // another size class
    EXPECT_EQ( sync( r ), ( std::set<uint32_t>{ 1, 2, 4 } ) );
    EXPECT_EQ( value( r, 1 ), "eins" );
    EXPECT_EQ( value( r, 2 ), "<absent>" );
    EXPECT_TRUE( sync( r ).empty() );
    EXPECT_EQ( w.size(), 2u );

    // Far more changes than the ring holds: the reader behind it compares
    // versions, so a key set back to the value it had is still reported.
    for ( int n = 0; n < 3000; ++n ) {
        put( w, 1, std::to_string( n ) );
    }
    put( w, 1, "eins" );
    put( w, 5, "five" );
    EXPECT_EQ( sync( r ), ( std::set<uint32_t>{ 1, 5 } ) );
    EXPECT_EQ( value( r, 5 ), "five" );
}

TEST_F( ShmTableTest, InPlaceReadsKnowWhenTheirRecordWasRewritten ) {
    ShmTableWriter w( path_, layout() );
    put( w, 1, "one" );
    put( w, 2, "two" );
    ShmTableReader r( path_, layout() );
    RecordRef one, two;
    const ShmKey k1{ 1 }, k2{ 2 }, k3{ 3 };
    ASSERT_TRUE( r.find( &k1, one ) );
    ASSERT_TRUE( r.find( &k2, two ) );
    EXPECT_FALSE( r.find( &k3, one ) );
    EXPECT_EQ( std::string( reinterpret_cast<const char*>( one.bytes ), one.len ),
               "one" );
    EXPECT_TRUE( r.unchanged( one ) );
    put( w, 1, "uno" );  // same size: may land in the same block
    put( w, 3, "three" );
    EXPECT_FALSE( r.unchanged( one ) );
    EXPECT_TRUE( r.unchanged( two ) );  // other keys' writes do not matter
    w.del( &k2 );
    EXPECT_FALSE( r.unchanged( two ) );
}

TEST_F( ShmTableTest, HostileFilesGiveClearErrors ) {
    {
        ShmTableWriter w( path_, layout() );
        put( w, 1, "x" );
    }
    TableLayout other = layout();
    other.typeName = "Test::Other";
    try {
        ShmTableReader r( path_, other );
        FAIL() << "attached to another type";
    } catch ( const Error& e ) {
        EXPECT_NE( std::string( e.what() ).find( "holds Test::Record" ),
                   std::string::npos )
            << e.what();
        EXPECT_NE( std::string( e.what() ).find( path_ ), std::string::npos );
    }
    struct stat st;
    ASSERT_EQ( stat( path_.c_str(), &st ), 0 );
    ASSERT_EQ( truncate( path_.c_str(), st.st_size / 2 ), 0 );
    EXPECT_THROW( ShmTableReader( path_, layout() ), CorruptionError );
    ASSERT_EQ( truncate( path_.c_str(), 100 ), 0 );
    EXPECT_THROW( ShmTableReader( path_, layout() ), CorruptionError );
    // A writer starts again over a file it cannot trust.
    ShmTableWriter w( path_, layout() );
    EXPECT_EQ( w.size(), 0u );
}

// One value outside the heap, as a damaged writer may leave it: that record
// reads as corrupt, and the rest of the table stays readable and notified.
TEST_F( ShmTableTest, OneBadRecordDoesNotHideTheRest ) {
    ShmTableWriter w( path_, layout() );
    for ( uint32_t id = 1; id <= 3; ++id ) {
        put( w, id, "value" );
    }
    w.flush();
    const std::vector<uint8_t> bytes = readFile( path_ );
    const uint64_t slot = liveSlots( bytes ).at( 2 ).offset;
    const uint64_t outside = bytes.size() + 4096;
    ASSERT_TRUE( patchFile( path_, slot + 16, &outside, 8 ) );

    std::unique_ptr<ShmTableReader> r;
    ASSERT_NO_THROW( r = std::make_unique<ShmTableReader>( path_, layout() ) );
    EXPECT_THROW( value( *r, 2 ), CorruptionError );
    EXPECT_NE( value( *r, 1 ), "<absent>" );
    // More changes than the ring holds: the reader resynchronises.
    for ( int n = 0; n < 2000; ++n ) {
        put( w, 3, std::to_string( n ) );
    }
    w.flush();
    std::vector<uint32_t> reported;
    EXPECT_NO_THROW( reported = syncedKeys( *r ) );
    EXPECT_EQ( std::count( reported.begin(), reported.end(), 3u ), 1 );
}

}  // namespace

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/Error.h"
#include "records/VrfName.h"

using L3::VrfName;
using L3::VrfNameRecord;

TEST( VrfName, DefaultsToDefaultAndFollowsTheNameRules ) {
    EXPECT_EQ( VrfName(), VrfName( "default" ) );
    EXPECT_NO_THROW( VrfName( std::string( 63, 'v' ) ) );
    try {
        VrfName( "a/b" );
        ADD_FAILURE();
    } catch ( const Platform::NameError& e ) {
        EXPECT_STREQ( e.what(), "invalid VRF name 'a/b': contains '/'" );
    }
    // Fits a path component but not the record.
    EXPECT_THROW( VrfName( std::string( 64, 'v' ) ), Platform::NameError );
    EXPECT_THROW( VrfName( ".." ), Platform::NameError );
    EXPECT_THROW( VrfName( ".hidden" ), Platform::NameError );
    EXPECT_THROW( VrfName( "" ), Platform::NameError );
}

TEST( VrfName, RecordRoundTripsAndRefusesGarbage ) {
    for ( std::string name :
          std::vector<std::string>{ "default", "x", std::string( 63, 'v' ) } ) {
        EXPECT_EQ( VrfNameRecord::encode( VrfName( name ) ).decode(), VrfName( name ) );
    }
    auto refused = []( const VrfNameRecord& record ) {
        try {
            record.decode();
        } catch ( const Platform::DeserializationError& e ) {
            return e.attribute() == "vrfName";
        }
        return false;
    };
    VrfNameRecord record = VrfNameRecord::encode( VrfName( "blue" ) );
    record.bytes[10] = 'x';  // past the length
    EXPECT_TRUE( refused( record ) );
    record = VrfNameRecord::encode( VrfName( "blue" ) );
    record.length = 64;
    EXPECT_TRUE( refused( record ) );
    record.length = 0;
    std::memset( record.bytes, 0, sizeof( record.bytes ) );
    EXPECT_TRUE( refused( record ) );
    std::memcpy( record.bytes, "a/b", 3 );
    record.length = 3;
    EXPECT_TRUE( refused( record ) );
}

// The traffic-engineering configuration record and its one-record table.
#include <gtest/gtest.h>

#include <vector>

#include "platform/Error.h"
#include "records/TeConfig.h"
#include "tests/support/TempDir.h"

using namespace TrafficEngineering;
using Net::IpGenAddr;

namespace {

std::vector<uint8_t> encode( const ConfigValue& v ) {
    std::vector<uint8_t> out;
    ConfigRecord::encodeValue( v, out );
    return out;
}

TEST( TeConfigRecord, RoundTripsAndRefusesBadBytes ) {
    for ( const ConfigValue& v :
          { ConfigValue{ true, IpGenAddr( "10.0.0.1" ) }, ConfigValue() } ) {
        const auto bytes = encode( v );
        ASSERT_EQ( bytes.size(), 8u );
        EXPECT_EQ( ConfigRecord::decodeValue( bytes.data(), bytes.size() ), v );
    }
    const auto good = encode( { true, IpGenAddr( "192.0.2.7" ) } );
    EXPECT_EQ( good, ( std::vector<uint8_t>{ 1, 0, 0, 0, 192, 0, 2, 7 } ) );
    std::vector<std::vector<uint8_t>> bad = { { 1, 0, 0, 0, 192, 0, 2 },
                                              { 1, 0, 0, 0, 192, 0, 2, 7, 0 },
                                              { 2, 0, 0, 0, 192, 0, 2, 7 } };
    for ( size_t i = 1; i < 4; ++i ) {
        bad.push_back( good );
        bad.back()[i] = 1;
    }
    for ( const auto& bytes : bad ) {
        try {
            ConfigRecord::decodeValue( bytes.data(), bytes.size() );
            ADD_FAILURE() << "accepted " << bytes.size() << " bytes";
        } catch ( const Platform::DeserializationError& e ) {
            EXPECT_EQ( e.attribute(), "config" );
        }
    }
    EXPECT_THROW( encode( { true, IpGenAddr( "2001:db8::1" ) } ), Platform::TypeError );
    EXPECT_THROW( encode( { true, IpGenAddr() } ), Platform::TypeError );
}

// Without a record, and after its removal, the reader reads "disabled, no
// router id".
TEST( TeConfigRecord, ReaderFollowsWriterAndFallsBackToTheDefaults ) {
    TestKit::TempTree tmp( "teconfigtest" );
    auto config = Platform::create<Config>( tmp.tree, nullptr, kConfigPath );
    auto writer = Platform::create<ConfigWriter>( tmp.tree, nullptr, kConfigPath );
    auto expectRead = [&]( bool exists, bool enabled, const IpGenAddr& routerId ) {
        config->sync();
        EXPECT_EQ( config->exists(), exists );
        EXPECT_EQ( config->enabled(), enabled );
        EXPECT_EQ( config->routerId(), routerId );
    };
    expectRead( false, false, IpGenAddr::v4( 0 ) );
    writer->valueIs( { true, IpGenAddr( "10.0.0.1" ) } );
    expectRead( true, true, IpGenAddr( "10.0.0.1" ) );
    EXPECT_THROW( writer->valueIs( { true, IpGenAddr( "::1" ) } ), Platform::TypeError );
    writer->valueDel();
    expectRead( false, false, IpGenAddr::v4( 0 ) );
}

}  // namespace

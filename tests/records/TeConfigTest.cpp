// The traffic-engineering configuration record and its one-record table.
#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "platform/Error.h"
#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"
#include "records/TeConfig.h"

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

TEST( TeConfigRecord, ReaderFollowsWriterOverAFreshTree ) {
    char tmpl[] = "/dev/shm/teconfigtest-XXXXXX";
    const std::string root = mkdtemp( tmpl );
    {
        Platform::StateTree tree( root );
        Platform::EventLoop loop;
        Platform::Inotify inotify( &loop );
        auto config = Platform::create<Config>( tree, &inotify, kConfigPath );
        EXPECT_FALSE( config->exists() );
        EXPECT_FALSE( config->enabled() );
        EXPECT_EQ( config->routerId(), IpGenAddr::v4( 0 ) );

        auto writer = Platform::create<ConfigWriter>( tree, &loop, kConfigPath );
        int read = 0, written = 0;
        auto readSub =
            Platform::subscribe( config.get(), Config::valueTag, [&] { ++read; } );
        auto writeSub = Platform::subscribe( writer.get(), ConfigWriter::valueTag,
                                             [&] { ++written; } );
        writer->valueIs( { true, IpGenAddr( "10.0.0.1" ) } );
        writer->valueIs( { true, IpGenAddr( "10.0.0.1" ) } );  // unchanged: silent
        for ( int i = 0; i < 20 && loop.runOnce( 20 ) > 0; ++i ) {
        }
        EXPECT_EQ( written, 1 );
        EXPECT_EQ( read, 1 );
        EXPECT_TRUE( config->enabled() );
        EXPECT_EQ( config->routerId(), IpGenAddr( "10.0.0.1" ) );
        EXPECT_THROW( writer->valueIs( { true, IpGenAddr( "::1" ) } ),
                      Platform::TypeError );

        writer->valueDel();
        for ( int i = 0; i < 20 && loop.runOnce( 20 ) > 0; ++i ) {
        }
        EXPECT_EQ( read, 2 );
        EXPECT_FALSE( config->enabled() );
        EXPECT_EQ( config->routerId(), IpGenAddr::v4( 0 ) );
    }
    std::filesystem::remove_all( root );
}

}  // namespace

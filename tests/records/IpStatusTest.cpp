// Interface address status: the record's checks, and the reader's faces
// following a writer with fine-grained notifications.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"
#include "records/IpStatus.h"
#include "tests/support/DumpText.h"
#include "tests/support/TempDir.h"

using Net::IntfId;
using Net::IpGenAddr;

namespace {

Ip::AddrWithMask am( const char* addr, uint8_t len ) {
    return { IpGenAddr( addr ), len };
}

Ip::IntfAddrs sample() {
    Ip::IntfAddrs v;
    v.active = am( "10.0.0.1", 24 );
    v.secondary = { am( "10.1.0.1", 31 ), am( "10.2.0.1", 32 ) };
    v.ip6 = { am( "2001:db8::1", 64 ), am( "fe80::1", 128 ) };
    return v;
}

std::vector<uint8_t> encode( const Ip::IntfAddrs& v ) {
    std::vector<uint8_t> out;
    Ip::IntfAddrsRecord::encodeValue( v, out );
    return out;
}

// The attribute a decoder refusal names, or "" when it accepts.
std::string refusal( const std::vector<uint8_t>& bytes ) {
    try {
        Ip::IntfAddrsRecord::decodeValue( bytes.data(), bytes.size() );
    } catch ( const Platform::DeserializationError& e ) {
        return e.attribute();
    }
    return "";
}

TEST( IpStatusRecord, RoundTripsAtEverySize ) {
    Ip::IntfAddrs none;
    EXPECT_EQ( encode( none ).size(), 8u );
    EXPECT_EQ( Ip::IntfAddrsRecord::decodeValue( encode( none ).data(), 8 ), none );
    Ip::IntfAddrs full = sample();
    full.secondary.clear();
    full.ip6.clear();
    for ( uint32_t i = 1; i <= 32; ++i ) {
        full.secondary.push_back( { IpGenAddr::v4( 0x0b000000 + i ), 30 } );
        full.ip6.push_back( { IpGenAddr( "2001:db8::" + std::to_string( i ) ), 127 } );
    }
    const auto bytes = encode( full );
    EXPECT_EQ( bytes.size(), Ip::IntfAddrsRecord::maxValueSize );
    EXPECT_EQ( Ip::IntfAddrsRecord::decodeValue( bytes.data(), bytes.size() ), full );
}

TEST( IpStatusRecord, DecoderRefusesEveryBadField ) {
    // 64 bytes: secondaries at 8 and 16, IPv6 addresses at 24 and 44.
    const auto good = encode( sample() );
    ASSERT_EQ( good.size(), 64u );
    const std::vector<
        std::pair<std::function<void( std::vector<uint8_t>& )>, std::string>>
        cases = {
            { []( auto& b ) { b.resize( 7 ); }, "intfAddrs" },
            { []( auto& b ) { b.pop_back(); }, "intfAddrs" },
            { []( auto& b ) { b.push_back( 0 ); }, "intfAddrs" },
            { []( auto& b ) { b[7] = 1; }, "intfAddrs" },
            { []( auto& b ) { b[5] = 33; }, "secondaryCount" },
            { []( auto& b ) { b[6] = 33; }, "ip6Count" },
            { []( auto& b ) { b[4] = 33; }, "activeMaskLen" },
            { []( auto& b ) { b[4] = 0; }, "activeMaskLen" },
            { []( auto& b ) { std::memset( b.data(), 0, 4 ); }, "activeMaskLen" },
            { []( auto& b ) { std::memset( b.data() + 8, 0, 4 ); }, "secondaryAddr" },
            { []( auto& b ) { b[12] = 0; }, "secondaryAddr" },
            { []( auto& b ) { b[12] = 33; }, "secondaryAddr" },
            { []( auto& b ) { b[15] = 1; }, "secondaryAddr" },
            { []( auto& b ) { std::memcpy( b.data() + 16, b.data() + 8, 4 ); },
              "secondaryAddr" },
            { []( auto& b ) { std::memset( b.data() + 24, 0, 16 ); }, "ip6Addr" },
            { []( auto& b ) { b[40] = 0; }, "ip6Addr" },
            { []( auto& b ) { b[40] = 129; }, "ip6Addr" },
            { []( auto& b ) { b[41] = 1; }, "ip6Addr" },
            { []( auto& b ) { std::memcpy( b.data() + 44, b.data() + 24, 16 ); },
              "ip6Addr" },
        };
    for ( size_t i = 0; i < cases.size(); ++i ) {
        auto bytes = good;
        cases[i].first( bytes );
        EXPECT_EQ( refusal( bytes ), cases[i].second ) << "case " << i;
    }
    // Keys: the empty name and a value that is no name's encoding.
    uint8_t key[8] = {};
    EXPECT_THROW( Ip::IntfAddrsRecord::decodeKey( key ), Platform::DeserializationError );
    std::memset( key, 0xff, sizeof( key ) );
    EXPECT_THROW( Ip::IntfAddrsRecord::decodeKey( key ), Platform::DeserializationError );
}

TEST( IpStatusRecord, EncoderRefusesWhatTheDecoderWould ) {
    auto refused = [&]( const std::function<void( Ip::IntfAddrs& )>& change ) {
        Ip::IntfAddrs v = sample();
        change( v );
        std::vector<uint8_t> out;
        Ip::IntfAddrsRecord::encodeValue( v, out );
    };
    using Platform::DeserializationError, Platform::RangeError, Platform::TypeError;
    EXPECT_THROW( refused( []( auto& v ) { v.active.addr = IpGenAddr(); } ), TypeError );
    EXPECT_THROW( refused( []( auto& v ) { v.active = am( "2001:db8::5", 64 ); } ),
                  TypeError );
    EXPECT_THROW( refused( []( auto& v ) { v.secondary[0] = am( "::5", 64 ); } ),
                  TypeError );
    EXPECT_THROW( refused( []( auto& v ) { v.ip6[0] = am( "10.9.9.9", 8 ); } ),
                  TypeError );
    EXPECT_THROW( refused( []( auto& v ) { v.active.maskLen = 0; } ), RangeError );
    EXPECT_THROW( refused( []( auto& v ) { v.active = am( "0.0.0.0", 8 ); } ),
                  RangeError );
    EXPECT_THROW( refused( []( auto& v ) { v.secondary[1].maskLen = 33; } ), RangeError );
    EXPECT_THROW( refused( []( auto& v ) { v.ip6[1].maskLen = 0; } ), RangeError );
    EXPECT_THROW( refused( []( auto& v ) { v.secondary[0] = am( "0.0.0.0", 8 ); } ),
                  DeserializationError );
    EXPECT_THROW( refused( []( auto& v ) { v.ip6[0] = am( "::", 8 ); } ),
                  DeserializationError );
    EXPECT_THROW( refused( []( auto& v ) { v.secondary[1].addr = v.secondary[0].addr; } ),
                  DeserializationError );
    EXPECT_THROW( refused( []( auto& v ) { v.ip6.push_back( am( "fe80::1", 10 ) ); } ),
                  DeserializationError );
    EXPECT_THROW(
        refused( []( auto& v ) { v.secondary.assign( 33, am( "10.0.0.0", 8 ) ); } ),
        Platform::InvalidSizeError );
}

class IpStatusTest : public ::testing::Test {
  protected:
    void pump() {
        for ( int i = 0; i < 20 && loop_.runOnce( 20 ) > 0; ++i ) {
        }
    }

    TestKit::TempTree tmp_{ "ipstatustest" };
    Platform::StateTree& tree_ = tmp_.tree;
    Platform::EventLoop loop_;
    Platform::Inotify inotify_{ &loop_ };
    const IntfId eth1_{ "Ethernet1" };
    const IntfId eth2_{ "Ethernet2" };
};

TEST_F( IpStatusTest, FacesFollowTheRecordWithOneNotificationPerChange ) {
    auto writer = Platform::create<Ip::StatusWriter>( tree_, &loop_, Ip::kStatusPath );
    auto status = Platform::create<Ip::Status>( tree_, &inotify_ );
    // A face enters its collection already filled.
    std::vector<std::string> entries;
    auto entrySub = Platform::subscribe(
        status.get(), Ip::Status::intfStatusTag, [&]( const IntfId& k ) {
            entries.push_back( status->intfStatusHas( k )
                                   ? status->intfStatus( k )->activeAddr().toString()
                                   : "gone" );
        } );
    Ip::IntfAddrs v = sample();
    v.ip6.clear();
    writer->intfAddrsIs( eth1_, v );
    pump();
    EXPECT_EQ( entries, std::vector<std::string>{ "10.0.0.1" } );
    auto face = status->intfStatus( eth1_ );
    ASSERT_TRUE( face );
    EXPECT_EQ( face->secondaryAddrs(), 2u );
    EXPECT_FALSE( status->ip6Status()->intfHas( eth1_ ) );

    int actives = 0;
    std::vector<IpGenAddr> secondaries;
    auto activeSub = Platform::subscribe( face.get(), Ip::IntfStatus::activeAddrTag,
                                          [&] { ++actives; } );
    auto secondarySub =
        Platform::subscribe( face.get(), Ip::IntfStatus::secondaryAddrTag,
                             [&]( const IpGenAddr& a ) { secondaries.push_back( a ); } );
    v.active = am( "10.0.0.2", 24 );
    writer->intfAddrsIs( eth1_, v );
    pump();
    EXPECT_EQ( actives, 1 );
    EXPECT_TRUE( secondaries.empty() );
    EXPECT_EQ( face->activeAddr(), IpGenAddr( "10.0.0.2" ) );

    v.secondary = { am( "10.2.0.1", 32 ), am( "10.3.0.1", 30 ) };
    writer->intfAddrsIs( eth1_, v );
    pump();
    EXPECT_EQ( actives, 1 );
    EXPECT_EQ( secondaries, ( std::vector<IpGenAddr>{ IpGenAddr( "10.1.0.1" ),
                                                      IpGenAddr( "10.3.0.1" ) } ) );
    EXPECT_EQ( face->secondaryAddr( IpGenAddr( "10.3.0.1" ) ), 30 );
    EXPECT_EQ( entries.size(), 1u );  // changes in place tell no collection

    std::vector<std::string> ip6Entries;
    auto ip6Sub = Platform::subscribe(
        status->ip6Status().get(), Ip6::Status::intfTag, [&]( const IntfId& k ) {
            ip6Entries.push_back( status->ip6Status()->intfHas( k ) ? "in" : "out" );
        } );
    v.ip6 = { am( "2001:db8::1", 64 ) };
    writer->intfAddrsIs( eth1_, v );
    pump();
    auto face6 = status->ip6Status()->intf( eth1_ );
    ASSERT_TRUE( face6 );
    EXPECT_EQ( face6->addr( IpGenAddr( "2001:db8::1" ) ), 64 );
    std::vector<IpGenAddr> ip6Changes;
    auto addrSub =
        Platform::subscribe( face6.get(), Ip6::IntfStatus::addrTag,
                             [&]( const IpGenAddr& a ) { ip6Changes.push_back( a ); } );
    v.ip6 = { am( "2001:db8::2", 64 ) };
    writer->intfAddrsIs( eth1_, v );
    pump();
    EXPECT_EQ( ip6Changes, ( std::vector<IpGenAddr>{ IpGenAddr( "2001:db8::1" ),
                                                     IpGenAddr( "2001:db8::2" ) } ) );
    v.ip6.clear();
    writer->intfAddrsIs( eth1_, v );
    pump();
    EXPECT_EQ( ip6Entries, ( std::vector<std::string>{ "in", "out" } ) );

    // A reader attached late finds the same faces.
    auto late = Platform::create<Ip::Status>( tree_, &inotify_ );
    EXPECT_EQ( late->intfStatus( eth1_ )->secondaryAddrs(), 2u );
    const std::string dump = TestKit::dumpText( *late );
    EXPECT_NE( dump.find( "Active address: 10.0.0.2/24\n" ), std::string::npos ) << dump;
    EXPECT_NE( dump.find( "Secondary address: 10.3.0.1/30\n" ), std::string::npos );
    EXPECT_NE( dump.find( "Ipv6 interfaces: 0\n" ), std::string::npos );

    v.ip6 = { am( "2001:db8::3", 64 ) };
    writer->intfAddrsIs( eth1_, v );
    writer->intfAddrsDel( eth1_ );
    writer->intfAddrsIs( eth2_, Ip::IntfAddrs() );
    pump();
    EXPECT_FALSE( status->intfStatusHas( eth1_ ) );
    EXPECT_FALSE( status->ip6Status()->intfHas( eth1_ ) );
    EXPECT_EQ( status->intfStatus( eth2_ )->activeAddr(), IpGenAddr::v4( 0 ) );
    EXPECT_EQ( entries.size(), 3u );

    // The writer refuses before writing.
    EXPECT_THROW( writer->intfAddrsIs( IntfId(), sample() ), Platform::NameError );
    Ip::IntfAddrs dup = sample();
    dup.secondary.push_back( dup.secondary[0] );
    EXPECT_THROW( writer->intfAddrsIs( eth2_, dup ), Platform::DeserializationError );
    EXPECT_EQ( writer->intfAddrs( eth2_ ), Ip::IntfAddrs() );
}

// Bytes written as they are, under the layout of the real record.
struct RawRecord : Ip::IntfAddrsRecord {
    using Value = std::vector<uint8_t>;
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) { out = v; }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return Value( in, in + len );
    }
};

TEST_F( IpStatusTest, CorruptRecordIsReportedAndCountsAsAbsent ) {
    auto raw = Platform::create<Platform::TableWriter<RawRecord>>( tree_, &loop_,
                                                                   Ip::kStatusPath );
    auto status = Platform::create<Ip::Status>( tree_, &inotify_ );
    std::vector<std::string> reports;
    status->corruptionHandlerIs(
        [&]( const Platform::Error& e ) { reports.push_back( e.what() ); } );
    auto bad = encode( sample() );
    bad[4] = 40;
    raw->set( eth1_, encode( sample() ) );
    raw->set( eth2_, bad );
    pump();
    EXPECT_TRUE( status->intfStatusHas( eth1_ ) );
    EXPECT_FALSE( status->intfStatusHas( eth2_ ) );
    ASSERT_EQ( reports.size(), 1u );
    EXPECT_NE( reports[0].find( "Ethernet2" ), std::string::npos );
    EXPECT_NE( reports[0].find( "activeMaskLen" ), std::string::npos );

    // A known interface turning corrupt loses both faces; the other stays.
    raw->set( eth2_, encode( sample() ) );
    raw->set( eth1_, bad );
    pump();
    EXPECT_FALSE( status->intfStatusHas( eth1_ ) );
    EXPECT_FALSE( status->ip6Status()->intfHas( eth1_ ) );
    EXPECT_TRUE( status->ip6Status()->intfHas( eth2_ ) );
    EXPECT_EQ( status->intfStatus( eth2_ )->secondaryAddrs(), 2u );
    EXPECT_EQ( reports.size(), 2u );
}

}  // namespace

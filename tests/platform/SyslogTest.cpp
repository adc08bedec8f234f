// The system log: a message reaches the sink with its identifier and its
// formatted text, cut safely when too long.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Syslog.h"

namespace {

CSPF_SYSLOG_MESSAGE( CSPF_TEST_MESSAGE, Platform::SyslogSeverity::notice,
                     "A message for the tests" );

}  // namespace

TEST( Syslog, SinkReceivesIdentifierAndFormattedText ) {
    std::vector<std::pair<std::string, std::string>> got;
    Syslog::sinkIs( [&]( std::string_view id, std::string_view text ) {
        got.emplace_back( id, text );
    } );
    const uint64_t before = Syslog::sent();
    Syslog::send( CSPF_TEST_MESSAGE, "router %s, %d links", "1.1.1.1", 3 );
    Syslog::send( CSPF_TEST_MESSAGE, "%s", std::string( 3000, 'x' ).c_str() );
    Syslog::sinkIs( nullptr );

    ASSERT_EQ( got.size(), 2u );
    EXPECT_EQ( got[0].first, "CSPF_TEST_MESSAGE" );
    EXPECT_EQ( got[0].second, "router 1.1.1.1, 3 links" );
    EXPECT_EQ( got[1].second.size(), Syslog::kMaxTextBytes );
    EXPECT_EQ( got[1].second.substr( got[1].second.size() - 4 ), "x..." );
    EXPECT_EQ( Syslog::sent() - before, 2u );
}

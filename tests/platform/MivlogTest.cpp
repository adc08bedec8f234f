#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <vector>

#include "platform/Error.h"
#include "platform/Mivlog.h"
#include "tests/support/TempDir.h"

namespace MivlogTestNs {

void freeWriter( int n ) {
    TRACE2( "n=" << n );
}
void numbered( int i ) {
    TRACE0( "line " << i );
}
void twoLevels() {
    TRACE0( "on by default" );
    TRACE1( "off by default" );
}

struct PathRefreshSm {
    std::string key = "10.0.0.1/32";
    void handleTopoChanged() { TRACE4( "for path: " << key ); }
    int hops() const {
        TRACE9( "hops " << 3 );
        return 3;
    }
    virtual ~PathRefreshSm() = default;
    virtual void handleInsert() { TRACE0( "insert" ); }
    static void doCount() { TRACE0( "count" ); }
};

struct Hop {
    int index;
};
std::ostream& operator<<( std::ostream& os, const Hop& hop ) {
    return os << "hop#" << hop.index;
}

}  // namespace MivlogTestNs

namespace {

namespace fs = std::filesystem;
using Platform::Mivlog::Options;

const char* const kVariables[] = { "MIVLOGDIR", "MIVLOG_DISABLE", "MIVLOG_LEVELS" };

class MivlogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for ( const char* name : kVariables ) {
            const char* value = std::getenv( name );
            saved_.push_back( value ? std::optional<std::string>( value )
                                    : std::nullopt );
            unsetenv( name );
        }
        Mivlog::shutdown();
        Mivlog::sinkIs( nullptr );
    }
    void TearDown() override {
        Mivlog::sinkIs( nullptr );
        Mivlog::shutdown();
        for ( size_t i = 0; i < saved_.size(); ++i ) {
            saved_[i] ? setenv( kVariables[i], saved_[i]->c_str(), 1 )
                      : unsetenv( kVariables[i] );
        }
    }
    void capture() {
        Mivlog::sinkIs(
            [this]( std::string_view line ) { lines_.emplace_back( line ); } );
    }
    static std::string slurp( const std::string& path ) {
        std::ifstream in( path, std::ios::binary );
        return std::string( std::istreambuf_iterator<char>( in ), {} );
    }
    template <typename... T>
    static std::string built( const T&... values ) {
        Mivlog::Line line;
        ( line << ... << values );
        return std::string( line.view() );
    }

    std::vector<std::optional<std::string>> saved_;
    TestKit::TempDir tmp_{ "mivlogtest" };
    const std::string dir_ = tmp_.path();
    std::vector<std::string> lines_;
};

TEST_F( MivlogTest, LineIsSignatureColonMessage ) {
    // Through the file: nothing before the signature, exactly one "\n" per trace.
    Mivlog::init( dir_ + "/agent.mv", Options{} );
    Mivlog::levelsIs( Mivlog::kAllLevels );
    MivlogTestNs::freeWriter( 7 );
    MivlogTestNs::PathRefreshSm sm;
    sm.handleTopoChanged();
    EXPECT_EQ( sm.hops(), 3 );
    EXPECT_EQ( slurp( dir_ + "/agent.mv" ),
               "void MivlogTestNs::freeWriter(int): n=7\n"
               "void MivlogTestNs::PathRefreshSm::handleTopoChanged(): for path: "
               "10.0.0.1/32\n"
               "int MivlogTestNs::PathRefreshSm::hops() const: hops 3\n" );
    struct stat st;
    ASSERT_EQ( stat( ( dir_ + "/agent.mv" ).c_str(), &st ), 0 );
    EXPECT_EQ( st.st_mode & 0777, 0600u );

    // The sink sees the same bytes and replaces the file while set.
    capture();
    // Overrides and static members read like any other member.
    sm.handleInsert();
    MivlogTestNs::PathRefreshSm::doCount();
    EXPECT_EQ( lines_, ( std::vector<std::string>{
                           "void MivlogTestNs::PathRefreshSm::handleInsert(): insert\n",
                           "void MivlogTestNs::PathRefreshSm::doCount(): count\n" } ) );
    lines_.clear();
    MivlogTestNs::freeWriter( 8 );
    EXPECT_EQ( lines_,
               std::vector<std::string>{ "void MivlogTestNs::freeWriter(int): n=8\n" } );
    EXPECT_EQ( slurp( dir_ + "/agent.mv" ).find( "n=8" ), std::string::npos );
}

TEST_F( MivlogTest, BuilderFormatsLikeAnOstream ) {
    for ( double d : { 0.1, 1.0 / 3, 1e-7, 1e-5, 100000.0, 1e6, 123456789.0, -0.0, 1e300,
                       std::numeric_limits<double>::infinity(), std::nan( "" ) } ) {
        std::ostringstream os;
        os << d;
        EXPECT_EQ( built( d ), os.str() );
        std::ostringstream longOs;
        longOs << static_cast<long double>( d ) / 3;
        EXPECT_EQ( built( static_cast<long double>( d ) / 3 ), longOs.str() );
    }
    EXPECT_EQ( built( std::numeric_limits<int64_t>::min(), ' ',
                      std::numeric_limits<uint64_t>::max() ),
               "-9223372036854775808 18446744073709551615" );
    EXPECT_EQ( built( true, '/', false, ' ', uint8_t( 200 ), ' ', int8_t( -5 ) ),
               "true/false 200 -5" );
    const char* nullText = nullptr;
    char unterminated[3] = { 'a', 'b', 'c' };
    EXPECT_EQ( built( nullText, ' ', unterminated, ' ', std::string_view( "sv" ) ),
               "(null) abc sv" );
    int x = 0;
    std::ostringstream os;
    os << &x;
    EXPECT_EQ( built( &x ), os.str() );
    EXPECT_EQ( built( nullptr ), "nullptr" );
    enum class Color : uint8_t { red = 2 };
    EXPECT_EQ( built( MivlogTestNs::Hop{ 4 }, ' ', Color::red ), "hop#4 2" );
    // Past the stack buffer the builder spills, and stops at the line limit.
    std::string big( 3000, 'x' );
    EXPECT_EQ( built( big ).size(), Options{}.maxLineBytes );
}

TEST_F( MivlogTest, LevelVariableForms ) {
    struct Case {
        const char* text;
        std::optional<uint32_t> mask;
    };
    const Case cases[] = {
        { "3", 0x00f },           { "0", 0x001 },          { "9", 0x3ff },
        { "0,4,7", 0x091 },       { "2-5", 0x03c },        { "0,2-5,9", 0x23d },
        { "4-4", 0x010 },         { "all", 0x3ff },        { "none", 0 },
        { "10", std::nullopt },   { "5-2", std::nullopt }, { "", std::nullopt },
        { "1,,2", std::nullopt }, { ",1", std::nullopt },  { "1,", std::nullopt },
        { "2-", std::nullopt },   { "-2", std::nullopt },  { "1-2-3", std::nullopt },
        { "ALL", std::nullopt },  { " 3", std::nullopt },  { "a", std::nullopt },
    };
    for ( const Case& c : cases ) {
        EXPECT_EQ( Mivlog::parseLevels( c.text ), c.mask ) << "'" << c.text << "'";
    }
    // What dumps and warnings print reads back to the same mask.
    for ( uint32_t mask = 0; mask <= Mivlog::kAllLevels; ++mask ) {
        ASSERT_EQ( Mivlog::parseLevels( Mivlog::levelsText( mask ) ), mask )
            << Mivlog::levelsText( mask );
    }

    std::string warning;
    EXPECT_EQ( Mivlog::levelsForVariable( nullptr, 0x3, &warning ), 0x3u );
    EXPECT_EQ( Mivlog::levelsForVariable( "", 0x3, &warning ), 0x3u );
    EXPECT_EQ( Mivlog::levelsForVariable( "2-3", 0x3, &warning ), 0xcu );
    EXPECT_EQ( warning, "" );
    EXPECT_EQ( Mivlog::levelsForVariable( "3-x", 0x3, &warning ), 0x3u );
    EXPECT_NE( warning.find( "'3-x'" ), std::string::npos ) << warning;
    EXPECT_EQ( warning.find( '\n' ), std::string::npos );

    EXPECT_THROW( Mivlog::levelsIs( 1u << 10 ), Platform::RangeError );
    Mivlog::levelsIs( Mivlog::kAllLevels );
    EXPECT_FALSE( Mivlog::enabled( -1 ) );
    EXPECT_FALSE( Mivlog::enabled( 10 ) );
}

TEST_F( MivlogTest, DisabledLevelNeverEvaluatesItsMessage ) {
    capture();
    int evaluations = 0;
    auto costly = [&] { return ++evaluations; };
    Mivlog::levelsIs( Mivlog::kAllLevels & ~( 1u << 7 ) );
    TRACE7( "costly " << costly() );
    EXPECT_EQ( evaluations, 0 );
    EXPECT_TRUE( lines_.empty() );
    Mivlog::levelsIs( 1u << 7 );
    TRACE7( "costly " << costly() );
    EXPECT_EQ( evaluations, 1 );
    EXPECT_EQ( lines_.size(), 1u );
}

TEST_F( MivlogTest, EnvironmentNamesAndDisablesTheFile ) {
    setenv( "MIVLOGDIR", dir_.c_str(), 1 );
    EXPECT_EQ( Mivlog::fileNameFor( "cspfd" ), "cspfd.mv" );
    EXPECT_EQ( Mivlog::directory(), dir_ );
    setenv( "MIVLOGDIR", "", 1 );  // empty counts as unset: /tmp needs the pid
    EXPECT_EQ( Mivlog::fileNameFor( "cspfd" ),
               "cspfd-" + std::to_string( getpid() ) + ".mv" );
    unsetenv( "MIVLOGDIR" );
    EXPECT_EQ( Mivlog::fileNameFor( "cspfd" ),
               "cspfd-" + std::to_string( getpid() ) + ".mv" );
    EXPECT_EQ( Mivlog::directory(), "/tmp" );
    EXPECT_THROW( Mivlog::fileNameFor( "../x" ), Platform::NameError );
    EXPECT_THROW( Mivlog::fileNameFor( "" ), Platform::NameError );

    setenv( "MIVLOGDIR", dir_.c_str(), 1 );
    setenv( "MIVLOG_DISABLE", "1", 1 );
    Mivlog::initFromEnvironment( "agent" );
    EXPECT_EQ( Mivlog::levels(), 0u );
    EXPECT_EQ( Mivlog::filePath(), "" );
    EXPECT_TRUE( fs::is_empty( dir_ ) );

    unsetenv( "MIVLOG_DISABLE" );
    Mivlog::initFromEnvironment( "agent" );
    EXPECT_EQ( Mivlog::filePath(), dir_ + "/agent.mv" );
    MivlogTestNs::twoLevels();
    EXPECT_EQ( slurp( dir_ + "/agent.mv" ),
               "void MivlogTestNs::twoLevels(): on by default\n" );

    setenv( "MIVLOG_LEVELS", "nine", 1 );
    testing::internal::CaptureStderr();
    Mivlog::initFromEnvironment( "agent" );
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ( Mivlog::levels(), 1u );
    EXPECT_EQ( std::count( err.begin(), err.end(), '\n' ), 1 ) << err;
}

TEST_F( MivlogTest, RefusesBadOptionsAndPlantedLinks ) {
    Options tooShort;
    tooShort.maxLineBytes = 4;
    EXPECT_THROW( Mivlog::init( dir_ + "/a.mv", tooShort ), Platform::RangeError );
    EXPECT_THROW( Mivlog::init( "a.mv", 24, 10, 1, 512 ), Platform::RangeError );
    EXPECT_THROW( Mivlog::init( dir_ + "/missing/a.mv", Options{} ), Platform::Error );
    // Someone else's link in a shared directory must not redirect our writes.
    std::ofstream( dir_ + "/victim" ) << "keep";
    fs::create_symlink( dir_ + "/victim", dir_ + "/a.mv" );
    EXPECT_THROW( Mivlog::init( dir_ + "/a.mv", Options{} ), Platform::Error );
    EXPECT_EQ( slurp( dir_ + "/victim" ), "keep" );
    EXPECT_EQ( Mivlog::filePath(), "" );
}

TEST_F( MivlogTest, RotationKeepsFilesBoundedAndInOrder ) {
    for ( uint32_t kept : { 0u, 2u } ) {
        std::string path = dir_ + "/rot" + std::to_string( kept ) + ".mv";
        Options options;
        options.maxFileBytes = 256;
        options.keptFiles = kept;
        Mivlog::init( path, options );
        Mivlog::levelsIs( 1 );
        for ( int i = 0; i < 40; ++i ) {
            MivlogTestNs::numbered( i );
        }
        std::string all;
        for ( std::string suffix : { ".3", ".2", ".1", "" } ) {
            if ( fs::exists( path + suffix ) ) {
                EXPECT_LE( fs::file_size( path + suffix ), 256u ) << suffix;
                all += slurp( path + suffix );
            }
        }
        EXPECT_FALSE( fs::exists( path + "." + std::to_string( kept + 1 ) ) );
        EXPECT_EQ( fs::exists( path + ".1" ), kept > 0 );
        // What is kept is an unbroken tail of the stream, ending with the last line.
        std::string last = "line 39\n";
        ASSERT_GE( all.size(), last.size() );
        EXPECT_EQ( all.substr( all.size() - last.size() ), last );
        size_t first = all.find( "line " );
        int from = std::atoi( all.c_str() + first + 5 );
        std::string expected;
        for ( int i = from; i < 40; ++i ) {
            expected +=
                "void MivlogTestNs::numbered(int): line " + std::to_string( i ) + "\n";
        }
        EXPECT_EQ( all, expected );
    }
}

TEST_F( MivlogTest, LongLinesAreCutAtTheLimit ) {
    Options options;
    options.maxLineBytes = 32;
    Mivlog::init( dir_ + "/cut.mv", options );
    capture();
    const std::string sig = "f()";  // 3 + ": " + message + "\n"
    Mivlog::writeLine( sig, std::string( 26, 'a' ) );
    Mivlog::writeLine( sig, std::string( 27, 'b' ) );
    Mivlog::writeLine( sig, std::string( 22, 'c' ) + "\xc3\xa9\xc3\xa9\xc3\xa9" );
    Mivlog::writeLine( sig, "one\ntwo" );
    Mivlog::writeLine( std::string( 100, 's' ), "m" );
    ASSERT_EQ( lines_.size(), 5u );
    EXPECT_EQ( lines_[0], "f(): " + std::string( 26, 'a' ) + "\n" );
    EXPECT_EQ( lines_[1], "f(): " + std::string( 23, 'b' ) + "...\n" );
    // No cut inside a two-byte character.
    EXPECT_EQ( lines_[2], "f(): " + std::string( 22, 'c' ) + "...\n" );
    EXPECT_EQ( lines_[3], "f(): one\\ntwo\n" );
    EXPECT_EQ( lines_[4], std::string( 28, 's' ) + "...\n" );
    EXPECT_EQ( Mivlog::stats().linesCut, 3u );
}

TEST_F( MivlogTest, SinkThatTracesDoesNotDeadlock ) {
    Mivlog::levelsIs( 1 );
    Mivlog::sinkIs( [this]( std::string_view line ) {
        lines_.emplace_back( line );
        TRACE0( "from the sink" );
    } );
    uint64_t dropped = Mivlog::stats().linesDropped;
    TRACE0( "outer" );
    EXPECT_EQ( lines_.size(), 1u );
    EXPECT_EQ( Mivlog::stats().linesDropped, dropped + 1 );
}

}  // namespace

// The command channel over a real loop: the loop runs in the test thread
// while blocking clients talk to it from another thread.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>
#include <vector>

#include "platform/CommandChannel.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/EventLoop.h"
#include "tests/support/TempDir.h"

using namespace Platform;

namespace {

struct Echo : AgentCommandCallback {
    std::vector<std::string> texts;
    size_t answerBytes = 0;  // when set, the answer is this many pattern bytes
    void handleCommand( uint32_t fd, const std::string& text ) override {
        texts.push_back( text );
        if ( text == "fail" ) {
            throw NameError( "bad thing" );
        }
        DumpContext context( static_cast<int>( fd ) );
        if ( answerBytes ) {
            for ( size_t i = 0; i < answerBytes; ++i ) {
                char c = static_cast<char>( 'a' + i % 26 );
                context.write( &c, 1 );
            }
        } else {
            objDumpPrintf( context, "got [%s]\n", text.c_str() );
        }
    }
};

int connectTo( const std::string& path ) {
    int fd = socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy( addr.sun_path, path.c_str() );
    EXPECT_EQ( connect( fd, reinterpret_cast<sockaddr*>( &addr ), sizeof( addr ) ), 0 );
    timeval tv{ 10, 0 };  // a hung channel fails the test instead of hanging it
    setsockopt( fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof( tv ) );
    return fd;
}

// A listening socket at `path` that nobody serves.
int listenAt( const std::string& path ) {
    int fd = socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy( addr.sun_path, path.c_str() );
    if ( bind( fd, reinterpret_cast<sockaddr*>( &addr ), sizeof( addr ) ) ||
         listen( fd, 4 ) ) {
        close( fd );
        return -1;
    }
    return fd;
}

// Sends `pieces` with pauses between them, then reads until the end.
std::string rawClient( const std::string& path, std::vector<std::string> pieces ) {
    int fd = connectTo( path );
    for ( const auto& piece : pieces ) {
        EXPECT_EQ( send( fd, piece.data(), piece.size(), MSG_NOSIGNAL ),
                   static_cast<ssize_t>( piece.size() ) );
        std::this_thread::sleep_for( std::chrono::milliseconds( 20 ) );
    }
    std::string answer;
    char buf[4096];
    for ( ssize_t n; ( n = recv( fd, buf, sizeof( buf ), 0 ) ) > 0; ) {
        answer.append( buf, static_cast<size_t>( n ) );
    }
    close( fd );
    return answer;
}

class CommandChannelTest : public ::testing::Test {
  protected:
    // Runs the loop until `client` returns, and hands back its result.
    template <typename F>
    auto serve( F client ) {
        auto result = std::async( std::launch::async, client );
        while ( result.wait_for( std::chrono::seconds( 0 ) ) !=
                std::future_status::ready ) {
            loop_.runOnce( 10 );
        }
        return result.get();
    }

    TestKit::TempDir root_{ "cspf-cmd" };
    const std::string dir_ = root_ / "agent/commandRequest/config/Cspf";
    const std::string sock_ = dir_ + "/command.sock";
    EventLoop loop_;
    Ptr<Echo> echo_ = new Echo;
};

TEST_F( CommandChannelTest, HandlerGetsEverythingAfterTheFirstSpaceAndAnswersWhole ) {
    CommandChannel channel( loop_, dir_ );
    channel.handlerIs( "dump", echo_ );
    struct stat st;
    ASSERT_EQ( stat( dir_.c_str(), &st ), 0 );
    EXPECT_EQ( st.st_mode & 0777, 0700u );
    ASSERT_EQ( stat( sock_.c_str(), &st ), 0 );
    EXPECT_EQ( st.st_mode & 0777, 0600u );

    EXPECT_EQ( serve( [&] { return sendCommand( dir_, "dump", "a  b c " ); } ),
               "got [a  b c ]\n" );
    EXPECT_EQ( serve( [&] { return rawClient( sock_, { "dump\n" } ); } ), "got []\n" );
    EXPECT_EQ( serve( [&] { return rawClient( sock_, { "dump  x\nignored" } ); } ),
               "got [ x]\n" );
    EXPECT_EQ( serve( [&] {
                   return rawClient( sock_, { "du", "mp hel", "lo\nGARBAGE" } );
               } ),
               "got [hello]\n" );
    // The longest line accepted, its newline not counted.
    std::string longest( CommandChannel::kMaxLineBytes - 5, 'x' );
    EXPECT_EQ( serve( [&] { return sendCommand( dir_, "dump", longest ); } ),
               "got [" + longest + "]\n" );
    EXPECT_EQ( echo_->texts,
               ( std::vector<std::string>{ "a  b c ", "", " x", "hello", longest } ) );
    EXPECT_EQ( channel.commands(), 5u );

    echo_->answerBytes = 1 << 20;
    std::string answer = serve( [&] { return sendCommand( dir_, "dump", "all" ); } );
    ASSERT_EQ( answer.size(), 1u << 20 );
    for ( size_t i = 0; i < answer.size(); ++i ) {
        ASSERT_EQ( answer[i], static_cast<char>( 'a' + i % 26 ) ) << "at " << i;
    }
}

TEST_F( CommandChannelTest, RefusalsAnswerOneLineAndCallNoHandler ) {
    CommandChannel channel( loop_, dir_ );
    channel.handlerIs( "dump", echo_ );
    EXPECT_EQ( serve( [&] { return sendCommand( dir_, "nope", "x y" ); } ),
               "Unknown handler nope\n" );
    std::string tooLong( CommandChannel::kMaxLineBytes - 4, 'x' );
    EXPECT_EQ( serve( [&] { return sendCommand( dir_, "dump", tooLong ); } ),
               "Command too long\n" );
    // No newline at all: refused as soon as the limit is passed.
    EXPECT_EQ( serve( [&] { return rawClient( sock_, { std::string( 9000, 'x' ) } ); } ),
               "Command too long\n" );
    // A client that does not wait for its refusal must not raise SIGPIPE here.
    serve( [&] {
        int fd = connectTo( sock_ );
        std::string line( 6000, 'x' );
        (void)!send( fd, line.data(), line.size(), MSG_NOSIGNAL );
        close( fd );
        return 0;
    } );
    for ( int i = 0; i < 500 && channel.connectionCount(); ++i ) {
        loop_.runOnce( 10 );
    }
    EXPECT_EQ( serve( [&] { return sendCommand( dir_, "dump", "fail" ); } ),
               "Error: bad thing\n" );
    channel.handlerDel( "dump" );
    EXPECT_EQ( serve( [&] { return sendCommand( dir_, "dump", "x" ); } ),
               "Unknown handler dump\n" );
    EXPECT_EQ( echo_->texts, std::vector<std::string>{ "fail" } );
    EXPECT_THROW( channel.handlerIs( "two words", echo_ ), NameError );
    EXPECT_THROW( channel.handlerIs( "", echo_ ), NameError );
}

TEST_F( CommandChannelTest, SilentAndHalfLineClientsAreDroppedWhileOthersAreServed ) {
    CommandChannel channel( loop_, dir_ );
    channel.handlerIs( "dump", echo_ );
    channel.idleTimeoutIs( 0.2 );
    auto answers = serve( [&] {
        int silent = connectTo( sock_ );
        int half = connectTo( sock_ );
        (void)!send( half, "dump abc", 8, MSG_NOSIGNAL );
        close( half );  // gone before its newline
        std::vector<std::string> got{ sendCommand( dir_, "dump", "ok" ) };
        char c;
        got.push_back( std::to_string( recv( silent, &c, 1, 0 ) ) );  // 0: closed
        close( silent );
        return got;
    } );
    EXPECT_EQ( answers, ( std::vector<std::string>{ "got [ok]\n", "0" } ) );
    EXPECT_EQ( echo_->texts, std::vector<std::string>{ "ok" } );
    EXPECT_EQ( channel.dropped(), 2u );
}

TEST_F( CommandChannelTest, AnswersAreCutAtTheCapAndAReaderThatStopsHoldsNobody ) {
    CommandChannel channel( loop_, dir_ );
    channel.handlerIs( "dump", echo_ );
    // Both answers are far beyond what a socket buffers.
    const size_t cap = 512 << 10;
    echo_->answerBytes = 1 << 20;
    channel.answerLimitsIs( 60, cap );
    std::string answer = serve( [&] { return sendCommand( dir_, "dump", "big" ); } );
    const std::string cut = "\nAnswer cut at " + std::to_string( cap ) + " bytes\n";
    ASSERT_EQ( answer.size(), cap + cut.size() );
    EXPECT_EQ( answer.substr( cap ), cut );
    EXPECT_EQ( answer[cap - 1], static_cast<char>( 'a' + ( cap - 1 ) % 26 ) );

    // A client that asks for a large answer and never reads it.
    channel.answerLimitsIs( 0.5, cap );
    const int silent = connectTo( sock_ );
    ASSERT_EQ( send( silent, "dump stalled\n", 13, MSG_NOSIGNAL ), 13 );
    for ( int i = 0; i < 1000 && channel.commands() < 2; ++i ) {
        loop_.runOnce( 10 );
    }
    ASSERT_EQ( channel.commands(), 2u );
    // Everyone else is served meanwhile.
    echo_->answerBytes = 0;
    EXPECT_EQ( serve( [&] { return sendCommand( dir_, "dump", "next", 10 ); } ),
               "got [next]\n" );
    // Past its deadline the stalled reader is dropped, having had part of it.
    for ( int i = 0; i < 1000 && channel.connectionCount(); ++i ) {
        loop_.runOnce( 10 );
    }
    EXPECT_EQ( channel.connectionCount(), 0u );
    EXPECT_EQ( channel.dropped(), 1u );
    size_t got = 0;
    char buf[65536];
    for ( ssize_t n; ( n = recv( silent, buf, sizeof( buf ), 0 ) ) > 0; ) {
        got += size_t( n );
    }
    close( silent );
    EXPECT_GT( got, 0u );
    EXPECT_LT( got, cap );
}

TEST_F( CommandChannelTest, StaleSocketIsReplacedALiveOneRefusedAndASilentOneTimesOut ) {
    std::filesystem::create_directories( dir_ );
    if ( pid_t child = fork(); child == 0 ) {
        // A dead agent: it bound the socket and exited without removing it.
        _exit( listenAt( sock_ ) < 0 );
    } else {
        int status;
        ASSERT_EQ( waitpid( child, &status, 0 ), child );
        ASSERT_EQ( WEXITSTATUS( status ), 0 );
    }
    try {
        sendCommand( dir_, "dump", "" );
        ADD_FAILURE() << "a dead agent answered";
    } catch ( const Error& e ) {
        EXPECT_EQ( std::string( e.what() ),
                   "no agent listens on " + sock_ + ": Connection refused" );
    }
    {
        CommandChannel channel( loop_, dir_ );
        channel.handlerIs( "dump", echo_ );
        EXPECT_EQ( serve( [&] { return sendCommand( dir_, "dump", "x" ); } ),
                   "got [x]\n" );
        try {
            CommandChannel second( loop_, dir_ );
            ADD_FAILURE() << "two channels on one socket";
        } catch ( const Error& e ) {
            EXPECT_EQ( std::string( e.what() ),
                       "command channel " + sock_ + " is in use by another process" );
        }
        EXPECT_EQ( serve( [&] { return sendCommand( dir_, "dump", "still" ); } ),
                   "got [still]\n" );
    }
    EXPECT_FALSE( std::filesystem::exists( sock_ ) );
    EXPECT_THROW( sendCommand( dir_, "dump", "" ), Error );

    const int hung = listenAt( sock_ );  // listens, never accepts
    ASSERT_GE( hung, 0 );
    try {
        sendCommand( dir_, "dump", "", 0.1 );
        ADD_FAILURE() << "no timeout";
    } catch ( const Error& e ) {
        EXPECT_EQ( std::string( e.what() ), "no answer from " + sock_ + " within 0.1 s" );
    }
    close( hung );
}

}  // namespace

// Fuzz target "command_line": the bytes a command client sends, served by the
// agent's own command channel and handlers, on a fresh tree and a real event
// loop. Whatever arrives, the agent answers or refuses and closes the
// connection without holding the loop; the target then sends the next input.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <memory>

#include "agent/CspfAgent.h"
#include "platform/AgentBase.h"
#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "tests/fuzz/FuzzCheck.h"
#include "tests/support/TempDir.h"

namespace {

// A loop round waits at most this long; a connection not closed within this
// many rounds is a stall of the channel.
constexpr int kRoundMs = 10, kMaxRounds = 1000;

// The agent as cspfd runs it, started once per process.
struct ServedAgent {
    TestKit::TempTree tmp{ "fuzzcommand" };
    Platform::EventLoop loop;
    Platform::Inotify inotify{ &loop };
    AgentBase::Framework framework{ tmp.tree, inotify, &loop };
    // Goes before its framework.
    std::unique_ptr<AgentBase::CAgent> agent;
    std::string socket;

    ServedAgent() {
        std::signal( SIGPIPE, SIG_IGN );  // as cspfd does
        agent.reset( agentFactory( "Cspf" ) );
        framework.start( *agent );
        socket = tmp.tree.directoryPath( Cspf::kCommandRequestDir ) + "/command.sock";
        for ( int i = 0; i < 100 && access( socket.c_str(), F_OK ) != 0; ++i ) {
            loop.runOnce( kRoundMs );
        }
        Fuzz::check( access( socket.c_str(), F_OK ) == 0,
                     "no command socket at " + socket );
    }
};

int connectTo( const std::string& path ) {
    const int fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 );
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy( addr.sun_path, sizeof( addr.sun_path ) - 1 );
    Fuzz::check( fd >= 0 && connect( fd, reinterpret_cast<sockaddr*>( &addr ),
                                     sizeof( addr ) ) == 0,
                 "cannot connect to " + path );
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
    static ServedAgent served;
    const int fd = connectTo( served.socket );
    size_t sent = 0;
    bool closed = false, shut = false;
    for ( int round = 0; !closed; ++round ) {
        Fuzz::check( round < kMaxRounds,
                     "the command channel neither answered nor "
                     "closed the connection" );
        if ( sent < size ) {
            const ssize_t n = send( fd, data + sent, size - sent, MSG_NOSIGNAL );
            if ( n > 0 ) {
                sent += static_cast<size_t>( n );
            } else if ( errno != EAGAIN && errno != EINTR ) {
                sent = size;  // the channel refused and closed early
            }
        }
        if ( sent == size && !shut ) {
            shutdown( fd, SHUT_WR );
            shut = true;
        }
        served.loop.runOnce( kRoundMs );
        char buf[65536];
        for ( ;; ) {
            const ssize_t n = recv( fd, buf, sizeof( buf ), 0 );
            if ( n > 0 ) {
                continue;
            }
            closed = n == 0 || ( errno != EAGAIN && errno != EINTR );
            break;
        }
    }
    close( fd );
    return 0;
}

// The command channel's server side (CommandChannel) and its client (sendCommand).
//
// A connection is read non-blockingly on the loop until its line is whole;
// the handler then writes its answer into a memory file, which is sent as the
// client's socket drains, so that no client ever holds the loop. Deadlines of
// connections (reading or answering) share one timerfd, armed for the earliest
// of them; every wake-up of the listening socket also sweeps.
// I/O deadlines follow CLOCK_MONOTONIC even when a test installs a manual
// clock: they guard against real peers, not against the agent's own timers.
#include "platform/CommandChannel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "platform/Assert.h"
#include "platform/Clock.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/EventLoop.h"
#include "platform/Mivlog.h"

namespace Platform {

namespace {

// Connections accepted per wake-up, so that a burst does not starve the loop.
constexpr int kAcceptBurst = 64;
// How long accepting pauses after running out of descriptors.
constexpr double kAcceptRetryDelay = 0.1;
// Unread input drained before a close: a Unix socket closed with unread data
// makes the peer's next read fail with ECONNRESET instead of seeing the end.
constexpr size_t kDrainBytes = 64 * 1024;

double monotonicNow() {
    static const SystemClock clock;
    return clock.now();
}

std::string errnoText( int err ) {
    return std::strerror( err );
}

// Throws `what` when the path does not fit a Unix socket address.
sockaddr_un socketAddress( const std::string& path, const std::string& what ) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if ( path.size() >= sizeof( addr.sun_path ) ) {
        throw Error( what + ": path longer than " +
                     std::to_string( sizeof( addr.sun_path ) - 1 ) + " bytes" );
    }
    std::memcpy( addr.sun_path, path.c_str(), path.size() + 1 );
    return addr;
}

void makeDirectories( const std::string& directory ) {
    for ( size_t pos = 1;; ++pos ) {
        pos = directory.find( '/', pos );
        std::string prefix = directory.substr( 0, pos );
        if ( ::mkdir( prefix.c_str(), 0700 ) != 0 && errno != EEXIST ) {
            throw Error( "cannot create command channel directory " + prefix + ": " +
                         errnoText( errno ) );
        }
        if ( pos == std::string::npos ) {
            break;
        }
    }
    struct stat st;
    if ( ::stat( directory.c_str(), &st ) != 0 || !S_ISDIR( st.st_mode ) ) {
        throw Error( "command channel directory " + directory + " is not a directory" );
    }
}

// Whether a live process accepts connections on the socket file at `addr`.
bool someoneListens( const sockaddr_un& addr, const std::string& path ) {
    int fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
    if ( fd < 0 ) {
        throw Error( "cannot probe command channel " + path + ": " + errnoText( errno ) );
    }
    int rc = ::connect( fd, reinterpret_cast<const sockaddr*>( &addr ), sizeof( addr ) );
    int err = errno;
    ::close( fd );
    if ( rc == 0 || err == EAGAIN ) {
        return true;  // EAGAIN: a listener whose backlog is full
    }
    if ( err == ECONNREFUSED || err == ENOENT ) {
        return false;
    }
    throw Error( "cannot probe command channel " + path + ": " + errnoText( err ) );
}

void sendAll( int fd, const std::string& text ) {
    size_t off = 0;
    while ( off < text.size() ) {
        ssize_t n = ::send( fd, text.data() + off, text.size() - off, MSG_NOSIGNAL );
        if ( n < 0 && errno == EINTR ) {
            continue;
        }
        if ( n <= 0 ) {
            return;  // the client went away or stopped reading: nothing to tell it
        }
        off += static_cast<size_t>( n );
    }
}

void drain( int fd ) {
    char buf[4096];
    for ( size_t total = 0; total < kDrainBytes; ) {
        ssize_t n = ::recv( fd, buf, sizeof( buf ), MSG_DONTWAIT );
        if ( n < 0 && errno == EINTR ) {
            continue;
        }
        if ( n <= 0 ) {
            return;
        }
        total += static_cast<size_t>( n );
    }
}

// A handler name as it may appear first on a line.
const char* badNameReason( const std::string& name ) {
    if ( name.empty() ) {
        return "empty";
    }
    for ( unsigned char c : name ) {
        if ( c <= ' ' || c == 0x7f ) {
            return "holds a blank or a control character";
        }
    }
    return nullptr;
}

struct FdCloser {
    int fd;
    ~FdCloser() {
        if ( fd >= 0 ) {
            ::close( fd );
        }
    }
};

}  // namespace

// --- CommandChannel ---------------------------------------------------------

CommandChannel::Connection::~Connection() {
    watch.reset();  // before the close, while the fd still names this socket
    drain( fd );
    ::close( fd );
    if ( answerFd >= 0 ) {
        ::close( answerFd );
    }
}

CommandChannel::CommandChannel( EventLoop& loop, std::string directory )
    : loop_( loop ),
      directory_( std::move( directory ) ),
      path_( directory_ + "/" + kSocketName ) {
    if ( directory_.empty() ) {
        throw Error( "command channel directory is empty" );
    }
    const sockaddr_un addr = socketAddress( path_, "command channel " + path_ );
    makeDirectories( directory_ );
    struct stat st;
    if ( ::lstat( path_.c_str(), &st ) == 0 ) {
        if ( !S_ISSOCK( st.st_mode ) ) {
            throw Error( "command channel " + path_ + " exists and is not a socket" );
        }
        if ( someoneListens( addr, path_ ) ) {
            throw Error( "command channel " + path_ + " is in use by another process" );
        }
        // Left by an agent that died without cleaning up.
        if ( ::unlink( path_.c_str() ) != 0 && errno != ENOENT ) {
            throw Error( "cannot remove stale command channel " + path_ + ": " +
                         errnoText( errno ) );
        }
        TRACE0( "replaced stale command channel " << path_ );
    }
    try {
        listenFd_ = ::socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
        if ( listenFd_ < 0 ) {
            throw Error( "cannot create command channel socket: " + errnoText( errno ) );
        }
        if ( ::bind( listenFd_, reinterpret_cast<const sockaddr*>( &addr ),
                     sizeof( addr ) ) != 0 ) {
            int err = errno;
            if ( err == EADDRINUSE ) {
                // Another agent bound it between our probe and our bind.
                throw Error( "command channel " + path_ +
                             " is in use by another process" );
            }
            throw Error( "cannot bind command channel " + path_ + ": " +
                         errnoText( err ) );
        }
        if ( ::stat( path_.c_str(), &st ) == 0 ) {
            socketDev_ = st.st_dev;
            socketIno_ = st.st_ino;
        }
        if ( ::chmod( path_.c_str(), 0600 ) != 0 ||
             ::listen( listenFd_, SOMAXCONN ) != 0 ) {
            throw Error( "cannot listen on command channel " + path_ + ": " +
                         errnoText( errno ) );
        }
        timerFd_ = ::timerfd_create( CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC );
        if ( timerFd_ < 0 ) {
            throw Error( "cannot create command channel timer: " + errnoText( errno ) );
        }
        listenWatch_ =
            loop_.watchFd( listenFd_, EPOLLIN, [this]( uint32_t ) { handleListen(); } );
        timerWatch_ =
            loop_.watchFd( timerFd_, EPOLLIN, [this]( uint32_t ) { handleTimer(); } );
    } catch ( ... ) {
        doRelease();
        throw;
    }
}

CommandChannel::~CommandChannel() {
    // A handler is running on a connection this object owns.
    CSPF_ASSERT( !dispatching_ );
    doRelease();
}

void CommandChannel::doRelease() {
    connections_.clear();
    listenWatch_.reset();
    timerWatch_.reset();
    if ( timerFd_ >= 0 ) {
        ::close( timerFd_ );
        timerFd_ = -1;
    }
    if ( listenFd_ >= 0 ) {
        ::close( listenFd_ );
        listenFd_ = -1;
        // A successor may already have replaced a file we could not reach.
        struct stat st;
        if ( socketIno_ != 0 && ::lstat( path_.c_str(), &st ) == 0 &&
             st.st_dev == socketDev_ && st.st_ino == socketIno_ ) {
            ::unlink( path_.c_str() );
        }
    }
}

void CommandChannel::handlerIs( const std::string& name,
                                Ptr<AgentCommandCallback> handler ) {
    if ( const char* reason = badNameReason( name ) ) {
        throw NameError( "bad command handler name '" + name + "': " + reason );
    }
    if ( !handler ) {
        throw RangeError( "null command handler for '" + name + "'" );
    }
    handlers_[name] = std::move( handler );
}

void CommandChannel::handlerDel( const std::string& name ) {
    handlers_.erase( name );
}

Ptr<AgentCommandCallback> CommandChannel::handler( const std::string& name ) const {
    auto it = handlers_.find( name );
    return it == handlers_.end() ? nullptr : it->second;
}

void CommandChannel::idleTimeoutIs( double seconds ) {
    if ( !std::isfinite( seconds ) || seconds <= 0 ) {
        throw RangeError(
            "command channel idle timeout must be a positive number of "
            "seconds, not " +
            std::to_string( seconds ) );
    }
    idleTimeout_ = seconds;
}

void CommandChannel::answerLimitsIs( double seconds, size_t maxBytes ) {
    if ( !std::isfinite( seconds ) || seconds <= 0 || maxBytes == 0 ) {
        throw RangeError( "command channel answer limits must be positive" );
    }
    answerTimeout_ = seconds;
    maxAnswerBytes_ = maxBytes;
}

void CommandChannel::handleListen() {
    doAccept();
    doSweep();
}

void CommandChannel::doAccept() {
    const double now = monotonicNow();
    for ( int i = 0; i < kAcceptBurst && accepting_; ++i ) {
        int fd = ::accept4( listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC );
        if ( fd < 0 ) {
            int err = errno;
            if ( err == EINTR || err == ECONNABORTED ) {
                continue;
            }
            if ( err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM ) {
                // Level-triggered: without a pause the loop would spin on it.
                TRACE0( "command channel " << path_
                                           << " pauses accepting: " << errnoText( err ) );
                acceptRetryAt_ = now + kAcceptRetryDelay;
                doAcceptingIs( false );
            } else if ( err != EAGAIN && err != EWOULDBLOCK ) {
                TRACE0( "command channel " << path_ << " accept: " << errnoText( err ) );
            }
            return;
        }
        auto connection = std::make_unique<Connection>();
        connection->fd = fd;
        connection->deadline = now + idleTimeout_;
        const uint64_t id = nextId_++;
        connection->watch = loop_.watchFd(
            fd, EPOLLIN, [this, id]( uint32_t ) { handleReadable( id ); } );
        connections_.emplace( id, std::move( connection ) );
        if ( connections_.size() >= kMaxConnections ) {
            doAcceptingIs( false );
        }
    }
}

void CommandChannel::doAcceptingIs( bool on ) {
    if ( accepting_ == on ) {
        return;
    }
    accepting_ = on;
    listenWatch_->eventsIs( on ? static_cast<uint32_t>( EPOLLIN ) : 0u );
}

void CommandChannel::handleReadable( uint64_t id ) {
    auto it = connections_.find( id );
    if ( it == connections_.end() ) {
        return;
    }
    Connection& c = *it->second;
    char buf[4096];
    for ( ;; ) {
        ssize_t n = ::recv( c.fd, buf, sizeof( buf ), MSG_DONTWAIT );
        if ( n < 0 ) {
            if ( errno == EINTR ) {
                continue;
            }
            if ( errno == EAGAIN || errno == EWOULDBLOCK ) {
                return;
            }
        }
        if ( n <= 0 ) {
            ++dropped_;  // closed (or failed) before its line was whole
            doClose( id );
            return;
        }
        const char* newline = static_cast<const char*>( std::memchr( buf, '\n', n ) );
        c.line.append( buf, newline ? static_cast<size_t>( newline - buf )
                                    : static_cast<size_t>( n ) );
        if ( c.line.size() > kMaxLineBytes ) {
            doRefuse( id, "Command too long\n" );
            return;
        }
        if ( newline ) {
            doDispatch( id );  // whatever follows the newline is ignored
            return;
        }
    }
}

void CommandChannel::doDispatch( uint64_t id ) {
    Connection& c = *connections_.at( id );
    c.watch.reset();
    const size_t space = c.line.find( ' ' );
    const std::string name = c.line.substr( 0, space );
    const std::string text = space == std::string::npos ? "" : c.line.substr( space + 1 );
    Ptr<AgentCommandCallback> handler = this->handler( name );
    if ( !handler ) {
        TRACE3( "command channel " << path_ << ": unknown handler " << name );
        doRefuse( id, "Unknown handler " + name + "\n" );
        return;
    }
    size_t pending = 0;
    for ( const auto& [other, connection] : connections_ ) {
        pending += connection->answerSize - connection->sent;
    }
    if ( pending >= kMaxPendingAnswerBytes ) {
        TRACE0( "command channel " << path_ << ": busy, " << pending
                                   << " answer bytes wait for their readers" );
        doRefuse( id, "Error: busy: earlier answers are still being read\n" );
        return;
    }
    // The answer's room: a memory file that cannot grow past the cap, so a
    // handler's writes neither block nor take more than that.
    c.answerFd = ::memfd_create( "command-answer", MFD_CLOEXEC | MFD_ALLOW_SEALING );
    if ( c.answerFd < 0 || ::ftruncate( c.answerFd, off_t( maxAnswerBytes_ ) ) != 0 ||
         ::fcntl( c.answerFd, F_ADD_SEALS, F_SEAL_GROW ) != 0 ) {
        ++dropped_;
        TRACE0( "command channel " << path_
                                   << ": cannot make an answer: " << errnoText( errno ) );
        doClose( id );
        return;
    }
    ++commands_;
    TRACE4( "command channel " << path_ << ": " << name << " '" << text << "'" );
    dispatching_ = true;
    struct Dispatching {
        bool& flag;
        ~Dispatching() { flag = false; }
    } dispatching{ dispatching_ };
    try {
        handler->handleCommand( static_cast<uint32_t>( c.answerFd ), text );
    } catch ( const Error& e ) {
        // The command's own bad input: tell the operator, keep serving.
        TRACE0( "command " << name << " '" << text << "' failed: " << e.what() );
        c.tail = std::string( "Error: " ) + e.what() + "\n";
    }
    const off_t end = ::lseek( c.answerFd, 0, SEEK_CUR );
    c.answerSize = end > 0 ? std::min( size_t( end ), maxAnswerBytes_ ) : 0;
    if ( c.answerSize == maxAnswerBytes_ ) {
        TRACE0( "command " << name << " '" << text << "': answer cut at "
                           << maxAnswerBytes_ << " bytes" );
        c.tail =
            "\nAnswer cut at " + std::to_string( maxAnswerBytes_ ) + " bytes\n" + c.tail;
    }
    c.deadline = monotonicNow() + answerTimeout_;
    c.watch =
        loop_.watchFd( c.fd, EPOLLOUT, [this, id]( uint32_t ) { handleWritable( id ); } );
    handleWritable( id );
    doArm();
}

void CommandChannel::handleWritable( uint64_t id ) {
    auto it = connections_.find( id );
    if ( it == connections_.end() ) {
        return;
    }
    Connection& c = *it->second;
    char buf[64 * 1024];
    const size_t total = c.answerSize + c.tail.size();
    while ( c.sent < total ) {
        size_t len;
        if ( c.sent < c.answerSize ) {
            const ssize_t n = ::pread( c.answerFd, buf,
                                       std::min( sizeof( buf ), c.answerSize - c.sent ),
                                       off_t( c.sent ) );
            if ( n <= 0 ) {
                break;  // cannot happen to a memory file of ours; end the answer
            }
            len = size_t( n );
        } else {
            len = std::min( sizeof( buf ), total - c.sent );
            std::memcpy( buf, c.tail.data() + ( c.sent - c.answerSize ), len );
        }
        const ssize_t n = ::send( c.fd, buf, len, MSG_NOSIGNAL | MSG_DONTWAIT );
        if ( n < 0 && errno == EINTR ) {
            continue;
        }
        if ( n < 0 && ( errno == EAGAIN || errno == EWOULDBLOCK ) ) {
            return;  // EPOLLOUT brings us back when the client has read
        }
        if ( n <= 0 ) {
            ++dropped_;  // the client went away mid-answer
            break;
        }
        c.sent += size_t( n );
    }
    doClose( id );
}

void CommandChannel::doRefuse( uint64_t id, const std::string& answer ) {
    ++refused_;
    auto it = connections_.find( id );
    sendAll( it->second->fd, answer );
    doClose( id );
}

void CommandChannel::doClose( uint64_t id ) {
    connections_.erase( id );
    doAcceptResume();
}

void CommandChannel::doAcceptResume() {
    if ( !accepting_ && acceptRetryAt_ == 0 && connections_.size() < kMaxConnections ) {
        doAcceptingIs( true );
    }
}

void CommandChannel::handleTimer() {
    uint64_t expirations;
    (void)!::read( timerFd_, &expirations, sizeof( expirations ) );
    armedFor_ = 0;  // one-shot: it is no longer armed
    doSweep();
}

void CommandChannel::doSweep() {
    const double now = monotonicNow();
    for ( auto it = connections_.begin(); it != connections_.end(); ) {
        if ( it->second->deadline <= now ) {
            ++dropped_;  // silent, or not reading its answer, for too long
            it = connections_.erase( it );
        } else {
            ++it;
        }
    }
    if ( acceptRetryAt_ != 0 && acceptRetryAt_ <= now ) {
        acceptRetryAt_ = 0;
    }
    doAcceptResume();
    doArm();
}

void CommandChannel::doArm() {
    double earliest = acceptRetryAt_;
    for ( const auto& [id, connection] : connections_ ) {
        if ( earliest == 0 || connection->deadline < earliest ) {
            earliest = connection->deadline;
        }
    }
    // Lazy, like the task scheduler: a timer armed for earlier fires, finds
    // nothing due or something, and arms again for what is left.
    if ( earliest == 0 || ( armedFor_ != 0 && armedFor_ <= earliest ) ) {
        return;
    }
    itimerspec when{};
    double whole = std::floor( earliest );
    when.it_value.tv_sec = static_cast<time_t>( whole );
    when.it_value.tv_nsec =
        std::min( 999999999L, static_cast<long>( ( earliest - whole ) * 1e9 ) );
    if ( ::timerfd_settime( timerFd_, TFD_TIMER_ABSTIME, &when, nullptr ) != 0 ) {
        throw Error( "cannot arm command channel timer: " + errnoText( errno ) );
    }
    armedFor_ = earliest;
}

void CommandChannel::dumpState( DumpContext& context, unsigned indent ) const {
    objDumpLine( context, indent,
                 "CommandChannel %s: %zu handlers, %zu connections, %llu commands, "
                 "%llu refused, %llu dropped%s\n",
                 path_.c_str(), handlers_.size(), connections_.size(),
                 static_cast<unsigned long long>( commands_ ),
                 static_cast<unsigned long long>( refused_ ),
                 static_cast<unsigned long long>( dropped_ ),
                 accepting_ ? "" : ", not accepting" );
    for ( const auto& [name, handler] : handlers_ ) {
        objDumpLine( context, indent + 2, "handler %s\n", name.c_str() );
    }
    const double now = monotonicNow();
    for ( const auto& [id, c] : connections_ ) {
        if ( c->answerFd >= 0 ) {
            objDumpLine(
                context, indent + 2,
                "connection %llu fd %d: answering, %zu of %zu bytes sent, %.3f s "
                "left\n",
                static_cast<unsigned long long>( id ), c->fd, c->sent,
                c->answerSize + c->tail.size(), c->deadline - now );
            continue;
        }
        objDumpLine( context, indent + 2,
                     "connection %llu fd %d: %zu bytes read, %.3f s left\n",
                     static_cast<unsigned long long>( id ), c->fd, c->line.size(),
                     c->deadline - now );
    }
}

// --- sendCommand --------------------------------------------------------------

std::string sendCommand( const std::string& directory, const std::string& handler,
                         const std::string& text, double timeoutSeconds ) {
    if ( const char* reason = badNameReason( handler ) ) {
        throw NameError( "bad command handler name '" + handler + "': " + reason );
    }
    if ( text.find( '\n' ) != std::string::npos ) {
        throw Error( "command text for " + handler + " must be one line" );
    }
    if ( !std::isfinite( timeoutSeconds ) || timeoutSeconds <= 0 ) {
        throw RangeError( "command timeout must be a positive number of seconds" );
    }
    const std::string path = directory + "/" + CommandChannel::kSocketName;
    const std::string noAgent = "no agent listens on " + path;
    const sockaddr_un addr = socketAddress( path, noAgent );
    const double deadline = monotonicNow() + timeoutSeconds;
    auto timedOut = [&]() {
        char seconds[32];
        std::snprintf( seconds, sizeof( seconds ), "%g", timeoutSeconds );
        return Error( "no answer from " + path + " within " + seconds + " s" );
    };
    // Milliseconds left, rounded up so that the last poll does not spin.
    auto msLeft = [&]() {
        return static_cast<int>( std::ceil( ( deadline - monotonicNow() ) * 1000 ) );
    };

    FdCloser sock{ ::socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 ) };
    if ( sock.fd < 0 ) {
        throw Error( noAgent + ": " + errnoText( errno ) );
    }
    for ( ;; ) {
        if ( ::connect( sock.fd, reinterpret_cast<const sockaddr*>( &addr ),
                        sizeof( addr ) ) == 0 ) {
            break;
        }
        if ( errno == EINTR ) {
            continue;
        }
        if ( errno != EAGAIN ) {
            throw Error( noAgent + ": " + errnoText( errno ) );
        }
        // The agent's backlog is full: it lives but is busy.
        if ( msLeft() <= 0 ) {
            throw timedOut();
        }
        ::usleep( 10000 );
    }

    const std::string line = text.empty() ? handler + "\n" : handler + " " + text + "\n";
    size_t off = 0;
    while ( off < line.size() ) {
        ssize_t n = ::send( sock.fd, line.data() + off, line.size() - off, MSG_NOSIGNAL );
        if ( n >= 0 ) {
            off += static_cast<size_t>( n );
            continue;
        }
        if ( errno == EINTR ) {
            continue;
        }
        if ( errno == EPIPE || errno == ECONNRESET ) {
            break;  // refused before the whole line went: its answer is waiting
        }
        if ( errno != EAGAIN ) {
            throw Error( "cannot send to " + path + ": " + errnoText( errno ) );
        }
        pollfd p{ sock.fd, POLLOUT, 0 };
        int left = msLeft();
        if ( left <= 0 || ::poll( &p, 1, left ) == 0 ) {
            throw timedOut();
        }
    }

    std::string answer;
    char buf[16384];
    for ( ;; ) {
        ssize_t n = ::recv( sock.fd, buf, sizeof( buf ), 0 );
        if ( n > 0 ) {
            answer.append( buf, static_cast<size_t>( n ) );
            continue;
        }
        if ( n == 0 || errno == ECONNRESET ) {
            return answer;
        }
        if ( errno == EINTR ) {
            continue;
        }
        if ( errno != EAGAIN ) {
            throw Error( "cannot read from " + path + ": " + errnoText( errno ) );
        }
        pollfd p{ sock.fd, POLLIN, 0 };
        int left = msLeft();
        if ( left <= 0 || ::poll( &p, 1, left ) == 0 ) {
            throw timedOut();
        }
    }
}

}  // namespace Platform

// The command channel: one-line text commands over a Unix stream socket.
//
// What lives where:
//  - AgentCommandCallback: what a command handler implements.
//  - CommandChannel: the listening socket "command.sock" in an agent's
//    command-request directory, the connections being read, the handlers by
//    name. Everything runs on the agent's event loop; no threads.
//  - sendCommand(): the blocking client used by the command-line tool and tests.
// The wire protocol and the refusals are written down in docs/command-channel.md.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/Ptr.h"

namespace Platform {

class DumpContext;
class EventLoop;
class FdWatch;

class AgentCommandCallback : public RefCounted {
  public:
    // Writes the answer to `fd`, a memory file the channel owns: writes never
    // block, and the channel sends what was written to the client as its
    // socket drains, after this returns. A Platform::Error thrown here is
    // answered as "Error: <what>" and the agent keeps running.
    virtual void handleCommand( uint32_t fd, const std::string& text ) = 0;
};

class CommandChannel {
  public:
    static constexpr const char* kSocketName = "command.sock";
    // Longest line accepted, its newline not counted.
    static constexpr size_t kMaxLineBytes = 4096;
    static constexpr double kDefaultIdleTimeout = 5.0;
    // An answer is cut at this size ("Answer cut at N bytes" ends it), and a
    // client that has not read it whole this long after its command is dropped.
    static constexpr size_t kMaxAnswerBytes = 64 << 20;
    static constexpr double kAnswerTimeout = 60.0;
    // While answers of this many bytes in all wait for their readers, further
    // commands are refused.
    static constexpr size_t kMaxPendingAnswerBytes = 256 << 20;
    // Beyond this many connections still being read, accepting pauses and
    // further clients wait in the listen backlog.
    static constexpr size_t kMaxConnections = 256;

    // Creates `directory` (0700, parents too), replaces a socket file left by
    // a dead agent, listens on "<directory>/command.sock" (0600). Throws Error
    // when another process listens there or a system call fails.
    CommandChannel( EventLoop& loop, std::string directory );
    // Closes every connection and removes the socket file if it is still ours.
    // Must not run from inside a handler.
    ~CommandChannel();
    CommandChannel( const CommandChannel& ) = delete;
    CommandChannel& operator=( const CommandChannel& ) = delete;

    // Registers (or replaces) the handler for lines starting with `name`. A
    // name is non-empty and holds no blank or control character (NameError).
    void handlerIs( const std::string& name, Ptr<AgentCommandCallback> handler );
    void handlerDel( const std::string& name );
    Ptr<AgentCommandCallback> handler( const std::string& name ) const;
    size_t handlerCount() const { return handlers_.size(); }

    // How long a connection may take to deliver its line, counted from its
    // accept; applies to connections accepted afterwards.
    void idleTimeoutIs( double seconds );
    double idleTimeout() const { return idleTimeout_; }
    // The answer deadline and size cap for commands dispatched afterwards.
    void answerLimitsIs( double seconds, size_t maxBytes );

    const std::string& directory() const { return directory_; }
    const std::string& path() const { return path_; }
    size_t connectionCount() const { return connections_.size(); }
    uint64_t commands() const { return commands_; }
    uint64_t refused() const { return refused_; }
    uint64_t dropped() const { return dropped_; }

    void dumpState( DumpContext& context, unsigned indent ) const;

  private:
    // Read until its line is whole, then answered: the handler's answer
    // (`answerFd`, `answerSize` bytes, then `tail`) sent as the socket drains.
    struct Connection {
        int fd = -1;
        double deadline = 0;
        std::string line;
        std::unique_ptr<FdWatch> watch;
        int answerFd = -1;
        size_t answerSize = 0;
        size_t sent = 0;
        std::string tail;
        ~Connection();
    };

    void handleListen();
    void handleReadable( uint64_t id );
    void handleWritable( uint64_t id );
    void handleTimer();
    void doAccept();
    void doDispatch( uint64_t id );
    void doRefuse( uint64_t id, const std::string& answer );
    void doClose( uint64_t id );
    void doSweep();
    void doArm();
    void doAcceptingIs( bool on );
    void doAcceptResume();
    void doRelease();

    EventLoop& loop_;
    std::string directory_;
    std::string path_;
    int listenFd_ = -1;
    int timerFd_ = -1;
    // The socket file we bound, so that we never unlink a successor's.
    uint64_t socketDev_ = 0;
    uint64_t socketIno_ = 0;
    std::unique_ptr<FdWatch> listenWatch_;
    std::unique_ptr<FdWatch> timerWatch_;
    bool accepting_ = true;
    // Accept failed for lack of descriptors: retried at this time (0: no pause).
    double acceptRetryAt_ = 0;
    double armedFor_ = 0;  // 0: the timer is not armed
    double idleTimeout_ = kDefaultIdleTimeout;
    double answerTimeout_ = kAnswerTimeout;
    size_t maxAnswerBytes_ = kMaxAnswerBytes;
    bool dispatching_ = false;
    uint64_t nextId_ = 1;
    uint64_t commands_ = 0;
    uint64_t refused_ = 0;
    uint64_t dropped_ = 0;
    std::map<uint64_t, std::unique_ptr<Connection>> connections_;
    std::map<std::string, Ptr<AgentCommandCallback>> handlers_;
};

// Sends "<handler> <text>\n" to the agent listening in `directory` and returns
// its whole answer. Throws Error when nobody listens there, when the answer
// does not end within `timeoutSeconds`, and for a handler name or text that
// cannot go on one line.
std::string sendCommand( const std::string& directory, const std::string& handler,
                         const std::string& text, double timeoutSeconds = 10 );

}  // namespace Platform

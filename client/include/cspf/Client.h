// libcspfclient: what a traffic-engineering agent links to in order to ask
// the CSPF agent for paths.
//
// A client has a name, registers the VRFs and address families in which it
// asks for paths, writes one request per path (a tunnel end point, an id, an
// interface to avoid) and reads the agent's results. Everything goes through
// the shared-memory state tree; the client and the agent never talk directly,
// and either may restart without the other noticing.
//
// Watching fits any event loop: poll fd() for input and call process() when
// it is readable; process() calls the watch callback once per result whose
// final state changed. Nothing here starts a thread or blocks.
//
// Every refusal (a bad name or address, a table of another type, another
// process already writing this client's tables) throws cspf::Error with one
// line that says what and where.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace cspf {

class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class Family { ipv4, ipv6 };

// "ipv4" or "ipv6", the form used in the tree's paths.
const char* familyName( Family family );

// Requests and results live in one pair of tables per VRF and family.
struct Table {
    std::string vrf = "default";
    Family family = Family::ipv4;
};

struct PathRequest {
    std::string destination;       // the tunnel end point, IPv4 or IPv6 text
    uint32_t id = 0;               // tells requests to one destination apart
    std::string excludeInterface;  // the interface the path must avoid; empty: none
    bool autoUpdate = true;        // be told of changed paths without asking
    // Read back by requests(). requestIs() keeps the current value of an
    // existing request and starts a new one at 0; refresh() raises it.
    uint32_t refreshReqSeq = 0;
};

struct PathResult {
    std::string destination;
    uint32_t id = 0;
    uint32_t refreshRespSeq = 0;    // the refreshReqSeq this result answers
    uint32_t changeCount = 0;       // rises by one per published change
    double lastUpdated = 0;         // the agent's clock, seconds
    std::vector<std::string> hops;  // first hop first; empty: no path found
};

// The agent as a client can tell it (te/cspf/agentStatus and the lock the
// agent holds on it for its whole life). Results stay in the tables across
// every stop, crash and restart of the agent; this says whether they are
// being kept up to date.
struct AgentState {
    enum class Run {
        none,     // no agent has run on this tree
        running,  // an agent runs now
        stopped,  // the last agent stopped cleanly (SIGTERM, SIGINT)
        died,     // the last agent ended without stopping (killed, crashed)
    };
    Run run = Run::none;
    bool enabled = false;  // running, and running its path machinery
    uint32_t pid = 0;      // the process of the agent's last run
    double startedAt = 0;  // when that run started, on the agent's clock
};

// "none", "running", "stopped" or "died".
const char* runName( AgentState::Run run );

// A result that changed: what it is now, or nullopt when it was removed.
struct ResultChange {
    Table table;
    std::string destination;
    uint32_t id = 0;
    std::optional<PathResult> result;
};

class Client {
  public:
    using WatchFn = std::function<void( const ResultChange& )>;

    // `own`: the client's own process, which alone writes its registration
    // and requests. `observe`: a read-only look beside it (an operator's
    // tool): results, requests, registration and watching work, every write
    // throws, and the client must be registered.
    enum class Access { own, observe };

    // Opens client `name` on the state tree at `root` (empty: the
    // CSPF_STATE_ROOT environment variable, else /dev/shm/cspf). A client
    // that opens again after a restart finds its registration and requests
    // as it left them.
    explicit Client( const std::string& name, const std::string& root = "",
                     Access access = Access::own );
    // Closes the tables; the registration and the requests stay.
    ~Client();
    Client( const Client& ) = delete;
    Client& operator=( const Client& ) = delete;

    const std::string& name() const;

    // The registration. requestIs() registers its table's VRF and family by
    // itself; these are for a client that manages them explicitly.
    void vrfIs( const std::string& vrf );
    void vrfDel( const std::string& vrf );
    void familyIs( Family family );
    void familyDel( Family family );
    std::vector<std::string> vrfs() const;
    std::vector<Family> families() const;
    // Removes the registration and every request table of the client: the
    // agent then drops its results.
    void leave();

    // Adds or changes one request. The agent sees a batch of calls at once
    // when they come between batchBegin() and batchEnd().
    void requestIs( const Table& table, const PathRequest& request );
    void requestDel( const Table& table, const std::string& destination, uint32_t id );
    // Asks for a fresh result even when nothing changed; returns the new
    // refreshReqSeq, which the answering result carries as refreshRespSeq.
    uint32_t refresh( const Table& table, const std::string& destination, uint32_t id );
    std::vector<PathRequest> requests( const Table& table ) const;
    void batchBegin();
    void batchEnd();

    std::optional<PathResult> result( const Table& table, const std::string& destination,
                                      uint32_t id ) const;
    std::vector<PathResult> results( const Table& table ) const;
    // The agent's last run: running, stopped or died, its pid and start.
    AgentState agentState() const;
    // Whether an agent runs now and runs its path machinery.
    bool agentEnabled() const;

    // Results of every registered table are watched once a callback is set;
    // a table the agent creates later is picked up when it appears.
    void watchIs( WatchFn callback );
    int fd() const;
    // Reads what is pending without blocking and calls the callback; returns
    // the number of changes reported.
    size_t process();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace cspf

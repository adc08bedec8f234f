// Cspf::AgentStatus: "te/cspf/agentStatus", a one-record table that the agent
// writes and clients read: whether the agent runs its path machinery (at
// least one client registered, TE enabled with a router id), and which run
// of the agent wrote it. Layout (16 bytes): agentEnabled u8 (0 or 1), running
// u8 (0 or 1), 2 zero bytes, pid u32, startedAt f64.
//
// The agent holds the table's writer lock for its whole life, so the lock
// tells a live agent (held) from one that is gone; `running` then tells a
// clean stop (false) from a crash (still true).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Table.h"

namespace Cspf {

constexpr const char* kAgentStatusPath = "te/cspf/agentStatus";

struct AgentStatusValue {
    bool agentEnabled = false;
    bool running = false;  // from start-up until a clean stop
    uint32_t pid = 0;      // the process of that run
    double startedAt = 0;  // the platform clock at that run's start-up
    bool operator==( const AgentStatusValue& ) const = default;
};

struct AgentStatusRecord {
    using Value = AgentStatusValue;
    static constexpr const char* typeName = "Cspf::AgentStatus";
    static constexpr const char* layout =
        "value AgentStatus 16: agentEnabled u8, running u8, pad 2, pid u32, startedAt "
        "f64; v2";
    static constexpr uint32_t maxValueSize = 16;
    static void encodeValue( const Value& v, std::vector<uint8_t>& out );
    // DeserializationError naming "agentStatus" for a wrong length, a flag
    // other than 0 or 1 or non-zero padding.
    static Value decodeValue( const uint8_t* in, size_t len );
};

// The agent's side.
class AgentStatus : public Platform::SingletonWriter<AgentStatusRecord> {
  public:
    using SingletonWriter::SingletonWriter;
    bool agentEnabled() const { return value().agentEnabled; }
    void agentEnabledIs( bool enabled );
    // Start-up: this run is the one the record names; agentEnabled stays as
    // the last run left it until the enable rule runs.
    void runningIs( uint32_t pid, double startedAt );
    // A clean stop: neither running nor enabled; the run's pid and start stay.
    void runningDel();
};

// What a reader can tell of the agent's last run.
enum class AgentRun {
    none,     // no readable record: no agent has run on the tree
    running,  // an agent holds the table now
    stopped,  // the last run stopped cleanly
    died,     // the last run ended without stopping (killed, crashed)
};
const char* toString( AgentRun run );

// A client's side: a default value while the record is absent or unreadable.
class AgentStatusReader : public Platform::SingletonReader<AgentStatusRecord> {
  public:
    using SingletonReader::SingletonReader;
    bool agentEnabled() const { return value().agentEnabled; }
    // Takes in the record and tells the run from it and the writer's lock.
    AgentRun run();
};

}  // namespace Cspf

// Cspf::AgentStatus: "te/cspf/agentStatus", a one-record table that the agent
// writes and clients read: whether the agent runs its path machinery (at
// least one client registered, TE enabled with a router id). Layout (4
// bytes): agentEnabled u8 (0 or 1), 3 zero bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Table.h"

namespace Cspf {

constexpr const char* kAgentStatusPath = "te/cspf/agentStatus";

struct AgentStatusRecord {
    using Value = bool;
    static constexpr const char* typeName = "Cspf::AgentStatus";
    static constexpr const char* layout =
        "value AgentStatus 4: agentEnabled u8, pad 3; v1";
    static constexpr uint32_t maxValueSize = 4;
    static void encodeValue( const Value& v, std::vector<uint8_t>& out );
    // DeserializationError naming "agentStatus" for a wrong length, a flag
    // other than 0 or 1 or non-zero padding.
    static Value decodeValue( const uint8_t* in, size_t len );
};

// The agent's side.
class AgentStatus : public Platform::SingletonWriter<AgentStatusRecord> {
  public:
    using SingletonWriter::SingletonWriter;
    bool agentEnabled() const { return value(); }
    void agentEnabledIs( bool enabled ) { valueIs( enabled ); }
};

// A client's side: false while the record is absent.
class AgentStatusReader : public Platform::SingletonReader<AgentStatusRecord> {
  public:
    using SingletonReader::SingletonReader;
    bool agentEnabled() const { return value(); }
};

}  // namespace Cspf

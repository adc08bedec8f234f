#include "records/AgentStatus.h"

#include <cstring>
#include <string>

#include "platform/Error.h"

namespace Cspf {

void AgentStatusRecord::encodeValue( const Value& v, std::vector<uint8_t>& out ) {
    out.assign( maxValueSize, 0 );
    out[0] = v.agentEnabled ? 1 : 0;
    out[1] = v.running ? 1 : 0;
    std::memcpy( out.data() + 4, &v.pid, 4 );
    std::memcpy( out.data() + 8, &v.startedAt, 8 );
}

AgentStatusValue AgentStatusRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( len != maxValueSize ) {
        throw Platform::DeserializationError(
            "agentStatus", "length " + std::to_string( len ) + ", expected 16" );
    }
    if ( in[0] > 1 || in[1] > 1 || in[2] || in[3] ) {
        throw Platform::DeserializationError( "agentStatus",
                                              "bad flag byte or non-zero padding" );
    }
    Value v;
    v.agentEnabled = in[0] == 1;
    v.running = in[1] == 1;
    std::memcpy( &v.pid, in + 4, 4 );
    std::memcpy( &v.startedAt, in + 8, 8 );
    return v;
}

const char* toString( AgentRun run ) {
    switch ( run ) {
        case AgentRun::none:
            return "none";
        case AgentRun::running:
            return "running";
        case AgentRun::stopped:
            return "stopped";
        case AgentRun::died:
            return "died";
    }
    return "?";
}

AgentRun AgentStatusReader::run() {
    // The lock before the record: an agent that stops between the two looks
    // has written "stopped" before letting go of its lock, so it is never
    // taken for one that died.
    const bool alive = writerAlive();
    sync();
    if ( !exists() ) {
        return AgentRun::none;
    }
    if ( !value().running ) {
        return AgentRun::stopped;
    }
    return alive ? AgentRun::running : AgentRun::died;
}

void AgentStatus::agentEnabledIs( bool enabled ) {
    Value v = value();
    v.agentEnabled = enabled;
    valueIs( v );
}

void AgentStatus::runningIs( uint32_t pid, double startedAt ) {
    Value v = value();
    v.running = true;
    v.pid = pid;
    v.startedAt = startedAt;
    valueIs( v );
}

void AgentStatus::runningDel() {
    Value v = value();
    v.running = false;
    v.agentEnabled = false;
    valueIs( v );
}

}  // namespace Cspf

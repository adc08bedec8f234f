// The agent's diagnostic commands on its command channel:
//   "CspfDump"        "DUMP_CSPF_STATE": the whole state dump
//   "CspfSchedStats"  "DUMP_SCHEDSTATS [detail] [debug] [history] [clear]":
//                     the task scheduler's statistics, or their reset
// Anything else is answered "Unknown command " and changes nothing.
#pragma once

#include <cstdint>
#include <string>

#include "platform/CommandChannel.h"
#include "platform/Ptr.h"

namespace Cspf {

class Agent;

class CspfCommandCallback : public Platform::AgentCommandCallback {
  public:
    explicit CspfCommandCallback( Agent& agent ) : agent_( agent ) {}
    void handleCommand( uint32_t fd, const std::string& text ) override;

  private:
    Agent& agent_;
};

class CspfSchedStatsCommandCallback : public Platform::AgentCommandCallback {
  public:
    explicit CspfSchedStatsCommandCallback( Agent& agent ) : agent_( agent ) {}
    void handleCommand( uint32_t fd, const std::string& text ) override;

  private:
    Agent& agent_;
};

// Makes both handlers (RangeError "null ValidPtr" when one yields nothing),
// keeps them on the agent and registers them on the channel when there is
// one.
void cspfCommandCallbackRegister( Agent& agent, Platform::CommandChannel* channel );

}  // namespace Cspf

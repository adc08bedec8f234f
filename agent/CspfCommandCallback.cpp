#include "agent/CspfCommandCallback.h"

#include <sstream>
#include <vector>

#include "agent/CspfAgent.h"
#include "platform/DumpContext.h"

namespace Cspf {

namespace {

void writeText( uint32_t fd, const char* text ) {
    Platform::DumpContext context( static_cast<int>( fd ), 0, 0 );
    Platform::objDumpPrintf( context, "%s", text );
}

}  // namespace

void CspfCommandCallback::handleCommand( uint32_t fd, const std::string& text ) {
    if ( text != "DUMP_CSPF_STATE" ) {
        writeText( fd, "Unknown command " );
        return;
    }
    Platform::DumpContext context( static_cast<int>( fd ), 0, 0 );
    Platform::objDumpPrintf( context,
                             "\n-----------Cspf Internal State Dump-------------\n" );
    Platform::objDumpPrintf( context, "\n" );
    context.dumpDuplicatesIs( true );
    agent_.dumpState( context, 0 );
}

void CspfSchedStatsCommandCallback::handleCommand( uint32_t fd,
                                                   const std::string& text ) {
    std::istringstream words( text );
    std::string word;
    if ( !( words >> word ) || word != "DUMP_SCHEDSTATS" ) {
        writeText( fd, "Unknown command " );
        return;
    }
    bool detail = false, debug = false, history = false, clear = false;
    while ( words >> word ) {
        detail |= word == "detail";
        debug |= word == "debug";
        history |= word == "history";
        clear |= word == "clear";
    }
    Platform::DumpContext context( static_cast<int>( fd ), 0, 0 );
    Platform::objDumpPrintf( context, "\n" );
    context.dumpDuplicatesIs( true );
    if ( clear ) {
        agent_.scheduler().resetStats();
        return;
    }
    // The detail word turns on both detail switches.
    agent_.scheduler().printStats( context, detail, detail, debug, history );
}

void cspfCommandCallbackRegister( Agent& agent, Platform::CommandChannel* channel ) {
    const Platform::ValidPtr<CspfCommandCallback> dump(
        new CspfCommandCallback( agent ) );
    const Platform::ValidPtr<CspfSchedStatsCommandCallback> schedStats(
        new CspfSchedStatsCommandCallback( agent ) );
    agent.commandCallbackIs( "CspfDump", dump );
    agent.commandCallbackIs( "CspfSchedStats", schedStats );
    if ( channel ) {
        channel->handlerIs( "CspfDump", dump );
        channel->handlerIs( "CspfSchedStats", schedStats );
    }
}

}  // namespace Cspf

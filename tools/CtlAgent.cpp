// cspfctl dump and sched-stats: the agent's diagnostic commands, sent over
// its command channel and answered by the running agent itself.
//
// The answer is printed exactly as the agent wrote it. The channel's own
// refusals ("Unknown handler ...", "Error: ...") are printed too, with exit
// status 1: they cannot start an agent's answer, which begins with a newline.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "platform/CommandChannel.h"
#include "platform/Error.h"
#include "tools/Ctl.h"

namespace Cspf::Ctl {

namespace {

// Where the agent named Cspf listens, under the tree's root.
std::string commandDirectory( const std::string& root ) {
    return root + "/agent/commandRequest/config/Cspf";
}

int runAgentCommand( const std::string& root, const std::string& handler,
                     const std::string& text ) {
    const std::string directory = commandDirectory( root );
    const std::string socket = directory + "/" + Platform::CommandChannel::kSocketName;
    struct stat st;
    if ( ::lstat( socket.c_str(), &st ) != 0 ) {
        throw Platform::Error( "no agent is listening at " + directory +
                               " (no command socket; is cspfd running on this root?)" );
    }
    const std::string answer = Platform::sendCommand( directory, handler, text );
    std::fwrite( answer.data(), 1, answer.size(), stdout );
    std::fflush( stdout );
    const bool refused =
        answer.starts_with( "Unknown handler " ) || answer.starts_with( "Error: " );
    return refused ? 1 : 0;
}

int runDump( Args args, const std::string& root ) {
    expectArgs( args, 0, "no arguments: cspfctl dump" );
    return runAgentCommand( root, "CspfDump", "DUMP_CSPF_STATE" );
}

int runSchedStats( Args args, const std::string& root ) {
    // Words the agent does not know are passed on; it ignores them.
    std::string text = "DUMP_SCHEDSTATS";
    for ( const std::string& word : args ) {
        for ( char c : word ) {
            if ( static_cast<unsigned char>( c ) < 0x20 || c == ' ' ) {
                throw UsageError( "sched-stats options are plain words" );
            }
        }
        if ( word.empty() ) {
            throw UsageError( "sched-stats options are plain words" );
        }
        text += " " + word;
    }
    return runAgentCommand( root, "CspfSchedStats", text );
}

}  // namespace

std::vector<Command> agentCommands() {
    return {
        { { "dump" }, runDump },
        { { "sched-stats" }, runSchedStats },
    };
}

}  // namespace Cspf::Ctl

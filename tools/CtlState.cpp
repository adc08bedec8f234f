// cspfctl te, cspf and agent: the one-record tables that configure the agent
// ("te/config", "te/cspf/cliConfig") and the one it reports through
// ("te/cspf/agentStatus").
//
// `show` prints each field under its record name, one per line; `set` changes
// only the fields it is given and keeps the others as the agent reads them (a
// missing or corrupt record reads as the defaults, so it starts from those).
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/Error.h"
#include "platform/StateTree.h"
#include "records/AgentStatus.h"
#include "records/CspfCliConfig.h"
#include "records/TeConfig.h"
#include "tools/Ctl.h"

namespace Cspf::Ctl {

namespace {

const char* yesNo( bool b ) {
    return b ? "yes" : "no";
}

bool parseYesNo( const std::string& text, const std::string& option ) {
    if ( text != "yes" && text != "no" ) {
        throw UsageError( option + " takes yes or no, not '" + text + "'" );
    }
    return text == "yes";
}

// Reads the record of a one-record table; a corrupt one is a failure of the
// writer's side, not a value to show.
template <typename Reader>
typename Reader::Value readSingleton( Platform::StateTree& tree, const char* path,
                                      bool& exists ) {
    // A reader makes the directories of a missing table: looking must not.
    exists = false;
    if ( !tree.exists( path ) ) {
        return typename Reader::Value();
    }
    auto reader = Platform::create<Reader>( tree, nullptr, path );
    std::string corrupt;
    reader->corruptionHandlerIs( [&corrupt]( const Platform::Error& e ) {
        if ( corrupt.empty() ) {
            corrupt = e.what();
        }
    } );
    exists = reader->exists();
    const typename Reader::Value value = reader->value();
    if ( !corrupt.empty() ) {
        throw Platform::Error( corrupt );
    }
    return value;
}

void printAbsent( bool exists, const char* path ) {
    if ( !exists ) {
        std::printf( "(no record at %s: the defaults)\n", path );
    }
}

// The current value of a writer's record, or the defaults when it is missing
// or unreadable, as the agent would read it.
template <typename Writer>
typename Writer::Value currentOf( const Writer& writer ) {
    try {
        return writer.value();
    } catch ( const Platform::Error& ) {
        return typename Writer::Value();
    }
}

int teShow( Args args, const std::string& root ) {
    expectArgs( args, 0, "no arguments: cspfctl te show" );
    expectTree( root );
    Platform::StateTree tree( root );
    bool exists = false;
    const auto config = readSingleton<TrafficEngineering::Config>(
        tree, TrafficEngineering::kConfigPath, exists );
    std::printf( "enabled %s\nrouterId %s\n", yesNo( config.enabled ),
                 config.routerId.toString().c_str() );
    printAbsent( exists, TrafficEngineering::kConfigPath );
    return 0;
}

int teSet( Args args, const std::string& root ) {
    const std::optional<std::string> enabled = takeOptional( args, "--enabled" );
    const std::optional<std::string> routerId = takeOptional( args, "--router-id" );
    if ( !args.empty() ) {
        throw UsageError( "unknown setting '" + args[0] +
                          "' (te set takes --enabled yes|no and --router-id A.B.C.D)" );
    }
    if ( !enabled && !routerId ) {
        throw UsageError( "te set needs --enabled yes|no or --router-id A.B.C.D" );
    }
    const bool enable = enabled && parseYesNo( *enabled, "--enabled" );
    Net::IpGenAddr id;
    if ( routerId ) {
        id = Net::IpGenAddr::parse( *routerId, "--router-id" );
        if ( !id.isV4() ) {
            throw UsageError( "--router-id takes an IPv4 address, not '" + *routerId +
                              "'" );
        }
    }
    Platform::StateTree tree( root );
    auto writer = Platform::create<TrafficEngineering::ConfigWriter>(
        tree, nullptr, TrafficEngineering::kConfigPath );
    TrafficEngineering::ConfigValue value = currentOf( *writer );
    if ( enabled ) {
        value.enabled = enable;
    }
    if ( routerId ) {
        value.routerId = id;
    }
    writer->valueIs( value );
    std::printf( "%s set: enabled %s, routerId %s\n", TrafficEngineering::kConfigPath,
                 yesNo( value.enabled ), value.routerId.toString().c_str() );
    return 0;
}

void printCspfSettings( const CspfCliConfigValue& v ) {
    std::printf( "initialWaitMs %u\nholdWaitMs %u\nmaxWaitMs %u\n", v.initialWaitMs,
                 v.holdWaitMs, v.maxWaitMs );
}

int cspfShow( Args args, const std::string& root ) {
    expectArgs( args, 0, "no arguments: cspfctl cspf show" );
    expectTree( root );
    Platform::StateTree tree( root );
    bool exists = false;
    printCspfSettings( readSingleton<CspfCliConfig>( tree, kCspfCliConfigPath, exists ) );
    printAbsent( exists, kCspfCliConfigPath );
    return 0;
}

// One setting of "te/cspf/cliConfig": its option, the option's other name
// (the one IGP throttle settings are often given by) and its field.
struct CspfSetting {
    const char* option;
    const char* alias;
    uint32_t CspfCliConfigValue::*field;
};

constexpr CspfSetting kCspfSettings[] = {
    { "--initial-wait", "--initial-int", &CspfCliConfigValue::initialWaitMs },
    { "--hold-wait", "--hold-int", &CspfCliConfigValue::holdWaitMs },
    { "--max-wait", "--max-int", &CspfCliConfigValue::maxWaitMs },
};

int cspfSet( Args args, const std::string& root ) {
    std::vector<std::pair<const CspfSetting*, uint32_t>> given;
    for ( const CspfSetting& s : kCspfSettings ) {
        for ( const char* name : { s.option, s.alias } ) {
            for ( const std::string& text : takeOptions( args, name ) ) {
                given.emplace_back(
                    &s, static_cast<uint32_t>( parseNumber( text, name, UINT32_MAX ) ) );
            }
        }
    }
    if ( !args.empty() ) {
        throw UsageError( "unknown setting '" + args[0] +
                          "' (cspf set takes --initial-wait, --hold-wait and "
                          "--max-wait, in ms)" );
    }
    if ( given.empty() ) {
        throw UsageError( "cspf set needs --initial-wait, --hold-wait or --max-wait MS" );
    }
    Platform::StateTree tree( root );
    auto writer =
        Platform::create<CspfCliConfigWriter>( tree, nullptr, kCspfCliConfigPath );
    CspfCliConfigValue value = currentOf( *writer );
    for ( const auto& [setting, ms] : given ) {
        value.*( setting->field ) = ms;
    }
    // Refused here rather than by the writer, so that it is bad input.
    const std::string problem = cspfCliConfigProblem( value );
    if ( !problem.empty() ) {
        throw UsageError( std::string( kCspfCliConfigPath ) + ": " + problem );
    }
    writer->valueIs( value );
    std::printf( "%s set: initialWaitMs %u, holdWaitMs %u, maxWaitMs %u\n",
                 kCspfCliConfigPath, value.initialWaitMs, value.holdWaitMs,
                 value.maxWaitMs );
    return 0;
}

int agentShow( Args args, const std::string& root ) {
    expectArgs( args, 0, "no arguments: cspfctl agent" );
    expectTree( root );
    Platform::StateTree tree( root );
    bool exists = false;
    const AgentStatusValue status =
        readSingleton<AgentStatusReader>( tree, kAgentStatusPath, exists );
    if ( !exists ) {
        std::printf(
            "agentEnabled no\n(no record at %s: no agent has run on this tree)\n",
            kAgentStatusPath );
        return 0;
    }
    const AgentRun run =
        Platform::create<AgentStatusReader>( tree, nullptr, kAgentStatusPath )->run();
    // Enabled only while an agent runs: the record of a stopped or dead one
    // tells what that run last did.
    std::printf( "agentEnabled %s\nagent %s, pid %u, started at %.3f\n",
                 yesNo( run == AgentRun::running && status.agentEnabled ),
                 toString( run ), status.pid, status.startedAt );
    return 0;
}

}  // namespace

std::vector<Command> stateCommands() {
    return {
        { { "te", "show" }, teShow },     { { "te", "set" }, teSet },
        { { "cspf", "show" }, cspfShow }, { { "cspf", "set" }, cspfSet },
        { { "agent" }, agentShow },
    };
}

}  // namespace Cspf::Ctl

// The pieces every cspfctl command shares: its arguments, its errors and
// its registration. A command is a function of its remaining arguments and
// the state tree's root; it returns the exit status.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Error.h"

namespace Cspf::Ctl {

using Args = std::vector<std::string>;

// A bad invocation or bad input: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Command {
    std::vector<std::string> words;
    std::function<int( Args, const std::string& root )> run;
};

// Takes the value of `--name VALUE` out of `args`; `fallback` when absent.
std::string takeOption( Args& args, const std::string& name,
                        const std::string& fallback );
// Takes every value of a repeated `--name VALUE`.
std::vector<std::string> takeOptions( Args& args, const std::string& name );
// Takes `--name VALUE` out of `args`, the last one when repeated; nullopt
// when absent (an empty VALUE is given, not absent).
inline std::optional<std::string> takeOptional( Args& args, const std::string& name ) {
    std::vector<std::string> values = takeOptions( args, name );
    if ( values.empty() ) {
        return std::nullopt;
    }
    return values.back();
}
// Takes a `--name` flag out of `args`; whether it was there.
bool takeFlag( Args& args, const std::string& name );
void expectArgs( const Args& args, size_t n, const char* what );

// A decimal number of at most `max`, digits only: `option` names it in the
// error.
inline uint64_t parseNumber( const std::string& text, const std::string& option,
                             uint64_t max ) {
    uint64_t n = 0;
    bool ok = !text.empty();
    for ( char c : text ) {
        const uint64_t digit = static_cast<uint64_t>( c - '0' );
        if ( c < '0' || c > '9' || n > max / 10 || digit > max - n * 10 ) {
            ok = false;
            break;
        }
        n = n * 10 + digit;
    }
    if ( !ok ) {
        throw UsageError( option + " takes a number from 0 to " + std::to_string( max ) +
                          ", not '" + text + "'" );
    }
    return n;
}

// For the commands that only look: a missing root is a failure, and is not
// made (StateTree would make it).
inline void expectTree( const std::string& root ) {
    if ( !std::filesystem::is_directory( root ) ) {
        throw Platform::Error( "no state tree at " + root );
    }
}

// The commands of each area, in the order --help lists them.
std::vector<Command> topologyCommands();
std::vector<Command> computeCommands();
std::vector<Command> interfaceCommands();
std::vector<Command> stateCommands();
std::vector<Command> clientCommands();
std::vector<Command> agentCommands();

}  // namespace Cspf::Ctl

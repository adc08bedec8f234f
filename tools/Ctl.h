// The pieces every cspfctl command shares: its arguments, its errors and
// its registration. A command is a function of its remaining arguments and
// the state tree's root; it returns the exit status.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

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
// Takes a `--name` flag out of `args`; whether it was there.
bool takeFlag( Args& args, const std::string& name );
void expectArgs( const Args& args, size_t n, const char* what );

// The commands of each area, in the order --help lists them.
std::vector<Command> topologyCommands();
std::vector<Command> computeCommands();
std::vector<Command> interfaceCommands();

}  // namespace Cspf::Ctl

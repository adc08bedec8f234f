// Other programs for tests: cspfctl, cspfd and the like, run to the end with
// their exit status and, for a shell command line, what they printed.
#pragma once

#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>

#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace TestKit {

struct ProgramRun {
    int status = -1;
    std::string out;
};

// Runs a shell command line (add " 2>&1" to fold stderr in) and collects
// what it prints.
inline ProgramRun runShell( const std::string& command ) {
    ProgramRun run;
    FILE* pipe = popen( command.c_str(), "r" );
    if ( !pipe ) {
        return run;
    }
    char buffer[4096];
    size_t n;
    while ( ( n = fread( buffer, 1, sizeof( buffer ), pipe ) ) > 0 ) {
        run.out.append( buffer, n );
    }
    const int status = pclose( pipe );
    run.status = WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
    return run;
}

// Runs `argv` (argv[0] is the program's path) with the output left as it is;
// its exit status, or -SIGNAL.
inline int runProgram( const std::vector<std::string>& argv ) {
    std::vector<char*> args;
    for ( const std::string& a : argv ) {
        args.push_back( const_cast<char*>( a.c_str() ) );
    }
    args.push_back( nullptr );
    pid_t pid = 0;
    if ( posix_spawn( &pid, args[0], nullptr, nullptr, args.data(), environ ) != 0 ) {
        throw std::runtime_error( "cannot start " + argv[0] );
    }
    int status = 0;
    waitpid( pid, &status, 0 );
    return WIFEXITED( status ) ? WEXITSTATUS( status ) : -WTERMSIG( status );
}

}  // namespace TestKit

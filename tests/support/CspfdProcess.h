// cspfd in a process of its own over a test's tree, for the multi-process
// tests and bench_e2e: start, SIGKILL, a clean stop, diagnostic commands,
// the resident memory. Every wait is bounded.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/CommandChannel.h"
#include "tests/support/Program.h"

namespace TestKit {

// Polls `done` every millisecond for up to `seconds`.
template <typename Fn>
bool eventually( Fn done, double seconds = 20 ) {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::duration<double>( seconds );
    while ( !done() ) {
        if ( std::chrono::steady_clock::now() > end ) {
            return false;
        }
        std::this_thread::sleep_for( std::chrono::milliseconds( 1 ) );
    }
    return true;
}

class CspfdProcess {
  public:
    CspfdProcess( std::string program, std::string root )
        : program_( std::move( program ) ), root_( std::move( root ) ) {
        start();
    }
    ~CspfdProcess() { kill9(); }
    CspfdProcess( const CspfdProcess& ) = delete;
    CspfdProcess& operator=( const CspfdProcess& ) = delete;

    void start() {
        const char* argv[] = { program_.c_str(), "--root", root_.c_str(), nullptr };
        if ( posix_spawn( &pid_, program_.c_str(), nullptr, nullptr,
                          const_cast<char**>( argv ), environ ) != 0 ) {
            throw std::runtime_error( "cannot start " + program_ );
        }
    }
    // Gone without a word, as a crash leaves it.
    void kill9() {
        if ( pid_ > 0 ) {
            ::kill( pid_, SIGKILL );
            waitpid( pid_, nullptr, 0 );
            pid_ = 0;
        }
    }
    // SIGTERM; the exit status, or -1000 when it is still running after ten
    // seconds (it is killed then).
    int stop() {
        ::kill( pid_, SIGTERM );
        int status = 0;
        for ( int i = 0; i < 10000; ++i ) {
            if ( waitpid( pid_, &status, WNOHANG ) == pid_ ) {
                pid_ = 0;
                return WIFEXITED( status ) ? WEXITSTATUS( status ) : -WTERMSIG( status );
            }
            std::this_thread::sleep_for( std::chrono::milliseconds( 1 ) );
        }
        kill9();
        return -1000;
    }
    pid_t pid() const { return pid_; }
    // Reaps it when it has ended, so that no later signal finds another
    // process under its pid.
    bool running() {
        if ( pid_ > 0 && waitpid( pid_, nullptr, WNOHANG ) != 0 ) {
            pid_ = 0;
        }
        return pid_ > 0;
    }

    // A diagnostic command's answer; empty when the agent is not listening.
    std::string command( const std::string& line ) const {
        try {
            return Platform::sendCommand( root_ + "/agent/commandRequest/config/Cspf",
                                          "CspfDump", line );
        } catch ( const std::exception& ) {
            return "";
        }
    }
    // The sum of every constraint's "CSPF run count: " in the state dump.
    long runCount() const {
        const std::string dump = command( "DUMP_CSPF_STATE" );
        const std::string label = "CSPF run count: ";
        long runs = 0;
        for ( size_t at = dump.find( label ); at != std::string::npos;
              at = dump.find( label, at + 1 ) ) {
            runs += std::stol( dump.substr( at + label.size() ) );
        }
        return runs;
    }
    // Resident memory in bytes, from /proc.
    long residentBytes() const {
        std::ifstream status( "/proc/" + std::to_string( pid_ ) + "/status" );
        for ( std::string line; std::getline( status, line ); ) {
            if ( line.rfind( "VmRSS:", 0 ) == 0 ) {
                return std::stol( line.substr( 6 ) ) * 1024;
            }
        }
        return 0;
    }

  private:
    std::string program_;
    std::string root_;
    pid_t pid_ = 0;
};

}  // namespace TestKit

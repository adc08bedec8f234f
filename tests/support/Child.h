// Other processes for tests: a fork() of the test binary runs one function and
// _exits with its result; pipes carry what it reports. Every wait is bounded
// by time, so that a fault fails the test instead of hanging it.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <functional>

namespace TestKit {

inline double monoNow() {
    timespec ts;
    clock_gettime( CLOCK_MONOTONIC, &ts );
    return static_cast<double>( ts.tv_sec ) + static_cast<double>( ts.tv_nsec ) * 1e-9;
}

// Runs `fn` in a child whose exit code is its result: 91 when it throws.
inline pid_t forkChild( const std::function<int()>& fn ) {
    fflush( nullptr );
    const pid_t pid = fork();
    if ( pid == 0 ) {
        int code = 92;
        try {
            code = fn();
        } catch ( const std::exception& e ) {
            fprintf( stderr, "child %d: %s\n", getpid(), e.what() );
            code = 91;
        } catch ( ... ) {
        }
        _exit( code );
    }
    return pid;
}

// The child's exit code; -SIGNAL when a signal ended it; -1000 when it still
// ran after `seconds` (it is killed then).
inline int reapChild( pid_t pid, double seconds ) {
    const double end = monoNow() + seconds;
    int status = 0;
    pid_t got = 0;
    while ( ( got = waitpid( pid, &status, WNOHANG ) ) == 0 && monoNow() < end ) {
        usleep( 1000 );
    }
    if ( got == pid ) {
        return WIFEXITED( status ) ? WEXITSTATUS( status ) : -WTERMSIG( status );
    }
    kill( pid, SIGKILL );
    waitpid( pid, nullptr, 0 );
    return -1000;
}

struct Pipe {
    Pipe() {
        int fds[2];
        if ( pipe2( fds, O_CLOEXEC ) == 0 ) {
            r = fds[0];
            w = fds[1];
        }
    }
    ~Pipe() {
        ::close( r );
        closeWrite();
    }
    Pipe( const Pipe& ) = delete;
    Pipe& operator=( const Pipe& ) = delete;
    // Once the children that write have been forked: their exit is then an
    // end of file instead of a wait until the timeout.
    void closeWrite() {
        ::close( w );
        w = -1;
    }
    int r = -1;
    int w = -1;
};

inline bool writeFull( int fd, const void* data, size_t n ) {
    const auto* p = static_cast<const uint8_t*>( data );
    while ( n ) {
        const ssize_t k = ::write( fd, p, n );
        if ( k < 0 && errno == EINTR ) {
            continue;
        }
        if ( k <= 0 ) {
            return false;
        }
        p += k;
        n -= static_cast<size_t>( k );
    }
    return true;
}

inline bool readable( int fd, int timeoutMs ) {
    pollfd pfd{ fd, POLLIN, 0 };
    return poll( &pfd, 1, timeoutMs ) > 0;
}

// False on end of file or when `seconds` pass first.
inline bool readFull( int fd, void* data, size_t n, double seconds ) {
    auto* p = static_cast<uint8_t*>( data );
    const double end = monoNow() + seconds;
    while ( n ) {
        const double left = end - monoNow();
        if ( left <= 0 ) {
            return false;
        }
        if ( !readable( fd, static_cast<int>( left * 1000 ) + 1 ) ) {
            continue;
        }
        const ssize_t k = ::read( fd, p, n );
        if ( k < 0 && errno == EINTR ) {
            continue;
        }
        if ( k <= 0 ) {
            return false;
        }
        p += k;
        n -= static_cast<size_t>( k );
    }
    return true;
}

inline void poke( const Pipe& p, char c = 1 ) {
    writeFull( p.w, &c, 1 );
}

inline bool awaitPoke( const Pipe& p, double seconds, char* got = nullptr ) {
    char c;
    if ( !readFull( p.r, &c, 1, seconds ) ) {
        return false;
    }
    if ( got ) {
        *got = c;
    }
    return true;
}

}  // namespace TestKit

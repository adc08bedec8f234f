#include "platform/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Platform {

void assertFailed( const char* expr, const char* file, int line, const char* function ) {
    // The source name is the file's base name without its extension.
    const char* base = std::strrchr( file, '/' );
    base = base ? base + 1 : file;
    const char* dot = std::strrchr( base, '.' );
    int len =
        dot ? static_cast<int>( dot - base ) : static_cast<int>( std::strlen( base ) );
    std::fprintf( stderr, "assertion failed: %s (source %.*s, line %d, in %s)\n", expr,
                  len, base, line, function );
    std::fflush( stderr );
    std::abort();
}

}  // namespace Platform

#include "platform/DumpContext.h"

#include <errno.h>
#include <unistd.h>

#include <cstdio>

namespace Platform {

namespace {
constexpr size_t kFlushAt = 64 * 1024;
}

DumpContext::DumpContext( int fd, uint32_t maxDepth, uint32_t maxBytes )
    : fd_( fd ), maxDepth_( maxDepth ), maxBytes_( maxBytes ) {}

DumpContext::~DumpContext() {
    flush();
}

void DumpContext::write( const char* data, size_t len ) {
    if ( maxBytes_ ) {
        if ( written_ >= maxBytes_ ) {
            return;
        }
        if ( written_ + len > maxBytes_ ) {
            len = maxBytes_ - written_;
        }
    }
    written_ += len;
    buffer_.append( data, len );
    if ( buffer_.size() >= kFlushAt ) {
        flush();
    }
}

void DumpContext::vprintf( const char* format, va_list args ) {
    char small[512];
    va_list copy;
    va_copy( copy, args );
    int n = std::vsnprintf( small, sizeof( small ), format, copy );
    va_end( copy );
    if ( n < 0 ) {
        return;
    }
    if ( static_cast<size_t>( n ) < sizeof( small ) ) {
        write( small, static_cast<size_t>( n ) );
        return;
    }
    std::string big( static_cast<size_t>( n ) + 1, '\0' );
    std::vsnprintf( big.data(), big.size(), format, args );
    write( big.data(), static_cast<size_t>( n ) );
}

void DumpContext::flush() {
    size_t off = 0;
    while ( off < buffer_.size() ) {
        ssize_t n = ::write( fd_, buffer_.data() + off, buffer_.size() - off );
        if ( n < 0 ) {
            if ( errno == EINTR ) {
                continue;
            }
            break;  // the reader went away; a dump is best effort
        }
        off += static_cast<size_t>( n );
    }
    buffer_.clear();
}

bool DumpContext::enterChild( const void* obj ) {
    if ( maxDepth_ && depth_ >= maxDepth_ ) {
        return false;
    }
    if ( !dumpDuplicates_ && !seen_.insert( obj ).second ) {
        return false;
    }
    ++depth_;
    return true;
}

void objDumpPrintf( DumpContext& context, const char* format, ... ) {
    va_list args;
    va_start( args, format );
    context.vprintf( format, args );
    va_end( args );
}

void objDumpLine( DumpContext& context, unsigned indent, const char* format, ... ) {
    if ( indent != 0 ) {
        objDumpPrintf( context, "%*c", static_cast<int>( indent ), ' ' );
    }
    va_list args;
    va_start( args, format );
    context.vprintf( format, args );
    va_end( args );
}

}  // namespace Platform

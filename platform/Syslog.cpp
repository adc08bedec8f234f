#include "platform/Syslog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/DumpContext.h"

namespace Platform::Syslog {

namespace {

Sink sink;
// openlog(3) keeps the pointer: the name must outlive every later message.
std::string ident;
uint64_t sentCount = 0;

}  // namespace

void sinkIs( Sink newSink ) {
    sink = std::move( newSink );
}

void open( const std::string& name ) {
    ident = name;
    ::openlog( ident.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON );
}

void send( const SyslogMessage& message, const char* format, ... ) {
    char text[kMaxTextBytes + 1];
    va_list args;
    va_start( args, format );
    const int n = std::vsnprintf( text, sizeof( text ), format, args );
    va_end( args );
    size_t len = n < 0 ? 0 : static_cast<size_t>( n );
    if ( len > kMaxTextBytes ) {
        std::memcpy( text + kMaxTextBytes - 3, "...", 3 );
        len = kMaxTextBytes;
    }
    ++sentCount;
    if ( sink ) {
        sink( message.identifier, std::string_view( text, len ) );
        return;
    }
    ::syslog( LOG_DAEMON | static_cast<int>( message.severity ), "%s: %.*s",
              message.identifier, static_cast<int>( len ), text );
}

uint64_t sent() {
    return sentCount;
}

void dumpState( DumpContext& context, unsigned indent ) {
    objDumpLine( context, indent, "System log: %s, %llu messages sent\n",
                 sink ? "test sink" : "syslog", (unsigned long long)sentCount );
}

}  // namespace Platform::Syslog

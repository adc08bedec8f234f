// Syslog: the agent's messages to the system log, for operators.
//
// Traces (Mivlog.h) are for whoever debugs the agent; the system log carries
// the few events that an operator must see, each under a fixed identifier so
// that monitoring can match on it. A message is declared once:
//
//   CSPF_SYSLOG_MESSAGE( CSPF_DUPLICATE_TE_ROUTER_ID, Platform::SyslogSeverity::warning,
//                        "Router with duplicate TE Router ID is ignored" );
//
// and sent with a printf-style text:
//
//   Syslog::send( CSPF_DUPLICATE_TE_ROUTER_ID, "TE router ID %s ...", ... );
//
// The line goes to syslog(3) as "<identifier>: <text>"; a test installs a sink
// that receives (identifier, text) instead. The state is plain globals: the
// agent's one thread sends, there are no locks (docs/system-log.md).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Platform {

class DumpContext;

// The syslog(3) severities, by their numbers.
enum class SyslogSeverity : int {
    emergency = 0,
    alert = 1,
    critical = 2,
    error = 3,
    warning = 4,
    notice = 5,
    info = 6,
    debug = 7,
};

// One kind of message: its identifier, its severity and a one-line summary of
// what it means (for docs/system-log.md and the dump; not part of the line).
struct SyslogMessage {
    const char* identifier;
    SyslogSeverity severity;
    const char* summary;
};

namespace Syslog {

// The longest text sent, in bytes; a longer one is cut and ends with "...".
constexpr size_t kMaxTextBytes = 1024;

// Receives the identifier and the formatted text of every message while set.
using Sink = std::function<void( std::string_view identifier, std::string_view text )>;
// nullptr gives the messages back to syslog(3).
void sinkIs( Sink sink );

// Names the process in the system log (openlog(3) with the pid, facility
// daemon). Without it, syslog(3) uses the program's name.
void open( const std::string& ident );

// Formats and sends one message.
void send( const SyslogMessage& message, const char* format, ... )
    __attribute__( ( format( printf, 2, 3 ) ) );

// Messages sent since the start, whatever their destination.
uint64_t sent();

void dumpState( DumpContext& context, unsigned indent );

}  // namespace Syslog
}  // namespace Platform

// Agent code names the facility without the platform's namespace.
namespace Syslog = Platform::Syslog;

// Declares the message `id` (an identifier such as CSPF_DUPLICATE_TE_ROUTER_ID)
// whose identifier text is its own name.
#define CSPF_SYSLOG_MESSAGE( id, severity, summary ) \
    inline constexpr ::Platform::SyslogMessage id = { #id, severity, summary }

#include "platform/Age.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

#include "platform/Clock.h"

namespace Platform {

namespace {

// About 31,700 years: far beyond any uptime, and well inside uint64_t tenths.
constexpr double kMaxAgeSeconds = 1e12;

}  // namespace

std::string ageText( double seconds ) {
    if ( !std::isfinite( seconds ) ) {
        return "unknown";
    }
    const bool negative = seconds < 0;
    const double magnitude = std::fmin( std::fabs( seconds ), kMaxAgeSeconds );
    // The epsilon keeps a difference of clock readings such as 1001.3 - 1000
    // (1.29999...) from losing its last tenth.
    const auto tenths = static_cast<uint64_t>( magnitude * 10.0 + 1e-6 );
    char text[48];
    std::snprintf( text, sizeof( text ), "%s%llu:%02u:%02u.%u", negative ? "-" : "",
                   static_cast<unsigned long long>( tenths / 36000 ),
                   static_cast<unsigned>( tenths / 600 % 60 ),
                   static_cast<unsigned>( tenths / 10 % 60 ),
                   static_cast<unsigned>( tenths % 10 ) );
    return text;
}

void objDumpAge( DumpContext& context, unsigned indent, const char* label, double at ) {
    if ( at == 0 ) {
        objDumpLine( context, indent, "%s: %s%s\n", label, "never", "" );
        return;
    }
    objDumpLine( context, indent, "%s: %s%s\n", label, ageText( now() - at ).c_str(),
                 " ago" );
}

}  // namespace Platform

// Ages in dumps: how long ago a time stamp of the platform clock was taken.
//
// Dumps show "Last topology change seen: 0:00:05.2 ago" rather than a raw
// clock value, which means nothing to a reader (the clock is monotonic, not
// wall time). A time stamp of 0 means "not set" everywhere, so it reads as
// "never" instead of the age of the clock itself.
#pragma once

#include <string>

#include "platform/DumpContext.h"

namespace Platform {

// A duration as "H:MM:SS.d": hours unbounded, tenths truncated (so that 59.96 s
// never reads as "0:00:60.0"). Negative durations (a time stamp ahead of the
// clock) carry a leading '-'; a value that is not finite reads "unknown".
std::string ageText( double seconds );

// The line "<label>: <age> ago" for the time stamp `at`, or "<label>: never"
// when `at` is 0, starting in column `indent` (objDumpLine's rule).
void objDumpAge( DumpContext& context, unsigned indent, const char* label, double at );

}  // namespace Platform

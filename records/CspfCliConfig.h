// Cspf::CspfCliConfig: the operator's CSPF settings at "te/cspf/cliConfig", a
// one-record table written by the configuration side.
//
// Three SPF-throttle waits, in milliseconds, drive every constraint's
// back-off timer (docs/cspf-settings.md): the wait before the first run
// after a quiet period, the wait after a run that followed a topology
// change, and the cap of the doubling. Layout (12 bytes, little-endian):
//
//   0 initialWaitMs u32
//   4 holdWaitMs    u32
//   8 maxWaitMs     u32
//
// A record whose waits make no sense (a wait above the cap, a zero or
// oversized cap) is refused by the writer and read as corrupt by the reader,
// which then, like an absent record, gives the defaults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Table.h"

namespace Cspf {

constexpr const char* kCspfCliConfigPath = "te/cspf/cliConfig";

struct CspfCliConfigValue {
    // Lets the updates of one event (both ends of a failed link, the LAN's
    // pseudonode) arrive before the first run.
    static constexpr uint32_t kDefaultInitialWaitMs = 50;
    static constexpr uint32_t kDefaultHoldWaitMs = 200;
    // Bounds how stale a result can get under continuous churn.
    static constexpr uint32_t kDefaultMaxWaitMs = 5000;
    // The largest cap accepted: a longer one would leave results stale for
    // longer than any operator means to.
    static constexpr uint32_t kMaxMaxWaitMs = 600000;

    uint32_t initialWaitMs = kDefaultInitialWaitMs;
    uint32_t holdWaitMs = kDefaultHoldWaitMs;
    uint32_t maxWaitMs = kDefaultMaxWaitMs;

    bool operator==( const CspfCliConfigValue& other ) const = default;
};

struct CspfCliConfigRecord {
    using Value = CspfCliConfigValue;
    static constexpr const char* typeName = "Cspf::CspfCliConfig";
    static constexpr const char* layout =
        "value CspfCliConfig 12: initialWaitMs u32, holdWaitMs u32, maxWaitMs u32; v1";
    static constexpr uint32_t maxValueSize = 12;
    // RangeError naming the setting for waits that make no sense.
    static void encodeValue( const Value& v, std::vector<uint8_t>& out );
    // DeserializationError naming "cspfCliConfig" for a wrong length or
    // waits that make no sense.
    static Value decodeValue( const uint8_t* in, size_t len );
};

// Empty when the waits make sense, else what is wrong with them.
std::string cspfCliConfigProblem( const CspfCliConfigValue& v );

// The agent's read-only view; valueTag tells every change. An absent or
// corrupt record reads as the defaults.
class CspfCliConfig : public Platform::SingletonReader<CspfCliConfigRecord> {
  public:
    using Platform::SingletonReader<CspfCliConfigRecord>::SingletonReader;
    uint32_t initialWaitMs() const { return value().initialWaitMs; }
    uint32_t holdWaitMs() const { return value().holdWaitMs; }
    uint32_t maxWaitMs() const { return value().maxWaitMs; }
};

using CspfCliConfigWriter = Platform::SingletonWriter<CspfCliConfigRecord>;

}  // namespace Cspf

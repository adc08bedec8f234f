// TrafficEngineering::Config: the traffic-engineering configuration at
// "te/config", a one-record table written by the configuration side.
//
// The agent runs while the record exists, `enabled` is set and `routerId`
// (this router's TE router id, an IPv4 address) is not 0.0.0.0; the topology
// reactors take the computing router's id from it. Layout (8 bytes):
//
//   0 enabled u8 (0 or 1), 3 zero bytes
//   4 routerId, IPv4 in network order
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Table.h"
#include "records/IpGenAddr.h"

namespace TrafficEngineering {

constexpr const char* kConfigPath = "te/config";

struct ConfigValue {
    bool enabled = false;
    // Always IPv4; 0.0.0.0 means not set.
    Net::IpGenAddr routerId = Net::IpGenAddr::v4( 0 );

    bool operator==( const ConfigValue& other ) const = default;
};

struct ConfigRecord {
    using Value = ConfigValue;
    static constexpr const char* typeName = "TrafficEngineering::Config";
    static constexpr const char* layout = "value Config 8: enabled u8, pad 3, ipv4; v1";
    static constexpr uint32_t maxValueSize = 8;
    // TypeError for a router id that is not IPv4.
    static void encodeValue( const Value& v, std::vector<uint8_t>& out );
    // DeserializationError naming "config" for a wrong length, an enabled
    // byte other than 0 or 1, or non-zero padding.
    static Value decodeValue( const uint8_t* in, size_t len );
};

// The agent's read-only view; valueTag tells every change.
class Config : public Platform::SingletonReader<ConfigRecord> {
  public:
    using Platform::SingletonReader<ConfigRecord>::SingletonReader;
    // False and 0.0.0.0 while the record is absent.
    bool enabled() const { return value().enabled; }
    Net::IpGenAddr routerId() const { return value().routerId; }
};

using ConfigWriter = Platform::SingletonWriter<ConfigRecord>;

}  // namespace TrafficEngineering

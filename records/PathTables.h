// The client's path tables in the state tree.
//
// Per client, VRF and family a client writes its requests into
// "te/cspf/config/vrf/<vrf>/<af>/<client>" (Cspf::ConfigWriter) and the agent
// reads them (Cspf::Config); the agent writes results into
// "te/cspf/status/vrf/<vrf>/<af>/<client>" (Cspf::Status) and the client
// reads them (Cspf::StatusReader). Both tables are keyed by PathKey. The
// record layouts are those of docs/records.md.
#pragma once

#include <cstring>
#include <vector>

#include "platform/Table.h"
#include "records/PathConfig.h"
#include "records/PathStatus.h"

namespace Cspf {

struct PathKeyRecord {
    using Key = PathKey;
    static constexpr uint32_t keySize = sizeof( PathKey );
    static void encodeKey( const Key& k, uint8_t* out ) {
        std::memcpy( out, &k, keySize );
    }
    static Key decodeKey( const uint8_t* in ) { return PathKey::fromRecord( in, "key" ); }
};

struct PathConfigRecord : PathKeyRecord {
    using Value = PathConfig;
    static constexpr const char* typeName = "Cspf::PathConfig";
    static constexpr const char* layout = "key PathKey 24; value PathConfig 40; v1";
    static constexpr uint32_t maxValueSize = sizeof( PathConfig );
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        out.resize( sizeof( PathConfig ) );
        std::memcpy( out.data(), &v, sizeof( PathConfig ) );
    }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return decodePathConfig( in, len );
    }
};

struct PathStatusRecord : PathKeyRecord {
    using Value = PathStatus;
    static constexpr const char* typeName = "Cspf::PathStatus";
    static constexpr const char* layout = "key PathKey 24; value PathStatus 44+20n; v1";
    static constexpr uint32_t maxValueSize = pathStatusRecordSize( kMaxHops );
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        out.resize( pathStatusRecordSize( static_cast<uint32_t>( v.hops.size() ) ) );
        encodePathStatus( v, out.data(), out.size() );
    }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return decodePathStatus( in, len );
    }
};

// The agent's view of a client's requests.
class Config : public Platform::TableReader<PathConfigRecord> {
  public:
    using TableReader::TableReader;
    CSPF_TABLE_READ( pathConfig, pathConfigs )
};

// The client's side of its requests.
class ConfigWriter : public Platform::TableWriter<PathConfigRecord> {
  public:
    using TableWriter::TableWriter;
    CSPF_TABLE_WRITE( pathConfig, pathConfigs )
    bool pathConfigIs( const PathConfig& c ) { return set( c.key, c ); }
};

// The agent's side of a client's results.
class Status : public Platform::TableWriter<PathStatusRecord> {
  public:
    using TableWriter::TableWriter;
    CSPF_TABLE_WRITE( pathStatus, pathStatuses )
    // Insert or replace, keyed by the status's own key.
    bool pathStatusIs( const PathStatus& s ) { return set( s.key, s ); }
};

// The client's view of its results.
class StatusReader : public Platform::TableReader<PathStatusRecord> {
  public:
    using TableReader::TableReader;
    CSPF_TABLE_READ( pathStatus, pathStatuses )
};

}  // namespace Cspf

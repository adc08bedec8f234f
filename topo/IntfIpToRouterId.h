// Cspf::IntfIpToRouterId: which router owns an interface address, as the
// agent learned it from the topology and publishes it per VRF at
// "te/cspf/intfIpToRouterId/vrf/<vrf>".
//
// The record is keyed by the interface address (IpGenAddr, 20 bytes) and its
// value is the owner's TE router id (IpGenAddr, 20 bytes). The agent writes
// it (IntfIpToRouterIdWriter); clients and tools read it
// (IntfIpToRouterIdReader).
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/Table.h"
#include "records/IpGenAddr.h"
#include "records/VrfName.h"

namespace Cspf {

std::string intfIpToRouterIdPath( const L3::VrfName& vrf );

struct IntfIpToRouterIdRecord {
    using Key = Net::IpGenAddr;
    using Value = Net::IpGenAddr;
    static constexpr const char* typeName = "Cspf::IntfIpToRouterId";
    static constexpr const char* layout = "key IpGenAddr 20; value IpGenAddr 20; v1";
    static constexpr uint32_t keySize = sizeof( Net::IpGenAddr );
    static constexpr uint32_t maxValueSize = sizeof( Net::IpGenAddr );
    static void encodeKey( const Key& k, uint8_t* out ) {
        std::memcpy( out, &k, keySize );
    }
    static Key decodeKey( const uint8_t* in ) {
        return Net::IpGenAddr::fromRecord( in, "intfIp" );
    }
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        out.resize( sizeof( v ) );
        std::memcpy( out.data(), &v, sizeof( v ) );
    }
    // DeserializationError naming "routerId" for a length other than 20 or a
    // bad address.
    static Value decodeValue( const uint8_t* in, size_t len );
};

class IntfIpToRouterIdReader : public Platform::TableReader<IntfIpToRouterIdRecord> {
  public:
    using TableReader::TableReader;
    CSPF_TABLE_READ( intfIpToRouterId, intfIpToRouterIds )
};

class IntfIpToRouterIdWriter : public Platform::TableWriter<IntfIpToRouterIdRecord> {
  public:
    using TableWriter::TableWriter;
    CSPF_TABLE_WRITE( intfIpToRouterId, intfIpToRouterIds )
};

}  // namespace Cspf

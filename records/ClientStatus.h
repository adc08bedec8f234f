// Cspf::ClientStatus: "te/cspf/clientStatus", why the agent does not serve
// a registered client, or some of its VRFs and families. The agent writes it;
// cspfctl and clients read it. One record per client that is not fully
// served, keyed by the client's name; a client served in every VRF and family
// it lists has none. Layout in docs/records.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/PathComponent.h"
#include "platform/Table.h"

namespace Cspf {

constexpr const char* kClientStatusPath = "te/cspf/clientStatus";

struct ClientStatusRecord {
    // The client's name.
    using Key = std::string;
    // One reason a line, each ending in "\n".
    using Value = std::string;
    static constexpr const char* typeName = "Cspf::ClientStatus";
    static constexpr const char* layout =
        "key ClientName 100: name, zero padded; value text 0..4096; v1";
    static constexpr uint32_t keySize = Platform::kMaxPathComponentLength;
    static constexpr uint32_t maxValueSize = 4096;
    // NameError for a name that cannot be a client's.
    static void encodeKey( const Key& k, uint8_t* out );
    // DeserializationError naming "clientName" for a name that cannot be a
    // client's or bytes after its end.
    static Key decodeKey( const uint8_t* in );
    // A longer text is cut to fit, ending in "...\n".
    static void encodeValue( const Value& v, std::vector<uint8_t>& out );
    // DeserializationError naming "clientStatus" for a NUL byte.
    static Value decodeValue( const uint8_t* in, size_t len );
};

// The agent's side: the reasons of each client not served, by the part of
// the client they concern (the registration "", a VRF "vrf red", a table
// pair "vrf red ipv4"). A client's record is rewritten when one of its
// reasons changes, and removed with its last one.
class ClientStatusWriter : public Platform::TableWriter<ClientStatusRecord> {
  public:
    using TableWriter::TableWriter;
    void reasonIs( const std::string& client, const std::string& part,
                   const std::string& reason );
    void reasonDel( const std::string& client, const std::string& part );
    // Every reason of the client.
    void clientDel( const std::string& client );
    bool served( const std::string& client ) const { return !reasons_.count( client ); }

  private:
    void doPublish( const std::string& client );

    // client -> part -> reason
    std::map<std::string, std::map<std::string, std::string>> reasons_;
};

using ClientStatusReader = Platform::TableReader<ClientStatusRecord>;

}  // namespace Cspf

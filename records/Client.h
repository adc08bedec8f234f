// Cspf::Client: a client's registration, the table "te/cspf/client/<name>".
//
// The registration lists the VRFs and the address families in which the
// client has path request tables. It is a keyed table with one record per VRF
// and one per family, so that the agent hears of each VRF or family that comes
// or goes (recordTag with the entry's key). The client writes it
// (ClientWriter); the agent only reads it (Client). Layout in docs/records.md.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/DumpContext.h"
#include "platform/Table.h"
#include "records/AddressFamily.h"
#include "records/VrfName.h"

namespace Cspf {

constexpr const char* kClientDirPath = "te/cspf/client";

// One entry of a registration: a VRF or an address family.
struct ClientEntry {
    enum class Kind : uint8_t { vrf = 1, addressFamily = 2 };

    Kind kind = Kind::vrf;
    L3::VrfName vrf;                                   // kind vrf
    Net::AddressFamily af = Net::AddressFamily::ipv4;  // kind addressFamily

    static ClientEntry ofVrf( const L3::VrfName& vrf ) { return { Kind::vrf, vrf, {} }; }
    static ClientEntry ofAddressFamily( Net::AddressFamily af ) {
        return { Kind::addressFamily, L3::VrfName(), af };
    }
    bool operator==( const ClientEntry& other ) const = default;
    bool operator<( const ClientEntry& other ) const;
};

struct ClientEntryRecord {
    using Key = ClientEntry;
    // The entry is listed while its value is true.
    using Value = bool;
    static constexpr const char* typeName = "Cspf::Client";
    static constexpr const char* layout =
        "key ClientEntry 68: kind u8, af u8, pad 2, vrf VrfName 64; value bool 4; v1";
    static constexpr uint32_t keySize = 68;
    static constexpr uint32_t maxValueSize = 4;
    static void encodeKey( const Key& k, uint8_t* out );
    // DeserializationError naming "clientEntry" for an unknown kind or family,
    // a bad VRF name or non-zero padding.
    static Key decodeKey( const uint8_t* in );
    static void encodeValue( const Value& v, std::vector<uint8_t>& out );
    static Value decodeValue( const uint8_t* in, size_t len );
};

// The agent's view of one registration.
class Client : public Platform::TableReader<ClientEntryRecord> {
  public:
    // `statePath` is "te/cspf/client/<name>"; the name is its last component.
    Client( Platform::StateTree& tree, Platform::Inotify* inotify,
            std::string statePath );

    const std::string& name() const { return name_; }

    bool vrf( const L3::VrfName& vrf ) const { return get( ClientEntry::ofVrf( vrf ) ); }
    bool addressFamily( Net::AddressFamily af ) const {
        return get( ClientEntry::ofAddressFamily( af ) );
    }
    // The listed ones, in order.
    std::vector<L3::VrfName> vrfs() const;
    std::vector<Net::AddressFamily> addressFamilys() const;

    // "Value('Cspf::Client', ** {'name': rsvp, 'vrf': [default, red], 'addressFamily':
    // [ipv4]})"
    std::string toString() const;

  private:
    std::string name_;
};

// The client's side of its registration.
class ClientWriter : public Platform::TableWriter<ClientEntryRecord> {
  public:
    using TableWriter::TableWriter;
    void vrfIs( const L3::VrfName& vrf ) { set( ClientEntry::ofVrf( vrf ), true ); }
    void vrfDel( const L3::VrfName& vrf ) { del( ClientEntry::ofVrf( vrf ) ); }
    void addressFamilyIs( Net::AddressFamily af ) {
        set( ClientEntry::ofAddressFamily( af ), true );
    }
    void addressFamilyDel( Net::AddressFamily af ) {
        del( ClientEntry::ofAddressFamily( af ) );
    }
};

// "te/cspf/client/<name>"; NameError when the name cannot be a path component.
std::string clientPath( const std::string& name );

// The state-tree path of a client's request and result tables:
// "te/cspf/config/vrf/<vrf>/<af>/<client>" and "te/cspf/status/vrf/<vrf>/<af>/<client>".
std::string pathConfigTablePath( const L3::VrfName& vrf, Net::AddressFamily af,
                                 const std::string& client );
std::string pathStatusTablePath( const L3::VrfName& vrf, Net::AddressFamily af,
                                 const std::string& client );

}  // namespace Cspf

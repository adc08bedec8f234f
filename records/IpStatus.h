// Ip::Status, Ip6::Status: the addresses of this router's interfaces, read
// from the one-writer table "ip/status" (docs/interface-status.md).
//
// What lives here:
//   Ip::AddrWithMask, Ip::IntfAddrs   the value of one interface's record
//   Ip::IntfAddrsRecord               its variable-size layout and checks
//   Ip::IntfStatus, Ip6::IntfStatus   the IPv4 and IPv6 faces of one interface
//   Ip6::Status                       the IPv6 faces, by interface
//   Ip::Status                        the agent's reader: keeps both faces in
//                                     step with the table, attribute by attribute
//   Ip::StatusWriter                  the writing side (tools, tests)
//
// The topology view looks an excluded interface's addresses up in the faces;
// the VRF reactor watches them to mark the constraints that exclude an
// interface whose addresses changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Table.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"

namespace Ip {

class Status;

constexpr const char* kStatusPath = "ip/status";
constexpr uint32_t kMaxSecondaryAddrs = 32;
constexpr uint32_t kMaxIp6Addrs = 32;

// One address with its prefix length.
struct AddrWithMask {
    Net::IpGenAddr addr;
    uint8_t maskLen = 0;

    bool operator==( const AddrWithMask& other ) const = default;
};

// The value of one interface's record (the key is the Net::IntfId).
struct IntfAddrs {
    // IPv4; 0.0.0.0 with length 0 when the interface has none.
    AddrWithMask active{ Net::IpGenAddr::v4( 0 ), 0 };
    // IPv4, at most kMaxSecondaryAddrs, no zero and no duplicate address.
    std::vector<AddrWithMask> secondary;
    // IPv6, at most kMaxIp6Addrs, no unspecified and no duplicate address.
    std::vector<AddrWithMask> ip6;

    bool operator==( const IntfAddrs& other ) const = default;
};

// The bytes of a record with `secondaries` IPv4 and `ip6s` IPv6 extra addresses.
constexpr uint32_t intfAddrsRecordSize( uint32_t secondaries, uint32_t ip6s ) {
    return 8 + 8 * secondaries + 20 * ip6s;
}

struct IntfAddrsRecord {
    using Key = Net::IntfId;
    using Value = IntfAddrs;
    static constexpr const char* typeName = "Ip::IntfAddrs";
    static constexpr const char* layout = "key IntfId 8; value IntfAddrs 8+8s+20n; v1";
    static constexpr uint32_t keySize = sizeof( Net::IntfId );
    static constexpr uint32_t maxValueSize =
        intfAddrsRecordSize( kMaxSecondaryAddrs, kMaxIp6Addrs );
    static void encodeKey( const Key& k, uint8_t* out );
    // DeserializationError naming "intfId" for a value that is no name's
    // encoding, or the empty name.
    static Key decodeKey( const uint8_t* in );
    // Refuses before writing anything: TypeError for an address of the wrong
    // family, InvalidSizeError for more than 32 addresses of a kind,
    // RangeError for a bad prefix length, DeserializationError for a zero or
    // duplicate address.
    static void encodeValue( const Value& v, std::vector<uint8_t>& out );
    // DeserializationError naming the attribute for a bad length, count,
    // prefix length, padding byte, or a zero or duplicate address.
    static Value decodeValue( const uint8_t* in, size_t len );
};

static_assert( IntfAddrsRecord::maxValueSize == 904 );

// The IPv4 face of one interface.
class IntfStatus : public Platform::Entity {
  public:
    explicit IntfStatus( const Net::IntfId& intfId ) : intfId_( intfId ) {}
    const Net::IntfId& intfId() const { return intfId_; }

    CSPF_ATTR( Net::IpGenAddr, activeAddr, Net::IpGenAddr::v4( 0 ) )
    CSPF_ATTR( uint8_t, activeMaskLen, 0 )
    // secondary address -> prefix length
    CSPF_COLL( OrderedColl, Net::IpGenAddr, uint8_t, secondaryAddr, secondaryAddrs )

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    friend class Status;
    // Stores address and length before telling of either, so that a watcher
    // of one never reads a stale other.
    void doActiveIs( const AddrWithMask& active );

    Net::IntfId intfId_;
};

}  // namespace Ip

namespace Ip6 {

// The IPv6 face of one interface.
class IntfStatus : public Platform::Entity {
  public:
    explicit IntfStatus( const Net::IntfId& intfId ) : intfId_( intfId ) {}
    const Net::IntfId& intfId() const { return intfId_; }

    // address -> prefix length
    CSPF_COLL( OrderedColl, Net::IpGenAddr, uint8_t, addr, addrs )

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    Net::IntfId intfId_;
};

// The IPv6 faces by interface; an interface is here only while it has IPv6
// addresses. Ip::Status keeps it.
class Status : public Platform::Entity {
  public:
    CSPF_ENTITY_COLL( OrderedColl, Net::IntfId, IntfStatus, intf, intfs )

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    friend class Ip::Status;
};

}  // namespace Ip6

namespace Ip {

// The agent's reader of "ip/status", mountable as a table reader.
//
// Per interface record it keeps an IntfStatus in `intfStatus` and, while the
// interface has IPv6 addresses, an Ip6::IntfStatus in ip6Status(). A face
// enters its collection already filled, so a watcher of the collection reads
// the addresses at once. A record that changes updates the faces in place,
// attribute by attribute: activeAddrTag only when the active address
// changed, one secondaryAddrTag per secondary address added, removed or
// re-masked, one addrTag per IPv6 address likewise, also for the last ones
// of a record that stays, before its IPv6 face leaves; the collections tell
// only of faces that come and go. A record that fails its checks goes to
// the corruption handler and counts as absent; other interfaces are kept.
class Status : public Platform::TableReader<IntfAddrsRecord> {
  public:
    Status( Platform::StateTree& tree, Platform::Inotify* inotify,
            const std::string& path = kStatusPath );

    CSPF_ENTITY_COLL( OrderedColl, Net::IntfId, IntfStatus, intfStatus, intfStatuses )

    const Platform::Ptr<Ip6::Status>& ip6Status() const { return ip6Status_; }

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    // Brings both faces of `intfId` in line with its record.
    void doRefresh( const Net::IntfId& intfId );
    // False when absent or corrupt (reported).
    bool doReadRecord( const Net::IntfId& intfId, IntfAddrs& out ) const;
    void doApplyIp4( const Net::IntfId& intfId, const IntfAddrs& addrs );
    void doApplyIp6( const Net::IntfId& intfId, const std::vector<AddrWithMask>& addrs );

    Platform::Ptr<Ip6::Status> ip6Status_;
    Platform::SubscriptionPtr recordSub_;
};

// The writing side (tools, tests): one writer per table.
class StatusWriter : public Platform::TableWriter<IntfAddrsRecord> {
  public:
    using TableWriter::TableWriter;

    // Validates as the encoder does, and refuses the empty interface name
    // with NameError, before writing anything.
    void intfAddrsIs( const Net::IntfId& intfId, const IntfAddrs& addrs );
    void intfAddrsDel( const Net::IntfId& intfId ) { del( intfId ); }
    IntfAddrs intfAddrs( const Net::IntfId& intfId ) const { return get( intfId ); }
    bool intfAddrsHas( const Net::IntfId& intfId ) const { return has( intfId ); }
};

}  // namespace Ip

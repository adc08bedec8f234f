// The interface address record, its checks, and the reader that turns record
// changes into fine-grained notifications of the two faces. Layout in
// docs/interface-status.md.
#include "records/IpStatus.h"

#include <cstring>
#include <set>

#include "platform/Error.h"

namespace Ip {

namespace {

constexpr size_t kFixedSize = intfAddrsRecordSize( 0, 0 );
constexpr size_t kSecondarySize = intfAddrsRecordSize( 1, 0 ) - kFixedSize;
constexpr size_t kIp6Size = intfAddrsRecordSize( 0, 1 ) - kFixedSize;
constexpr size_t kV4Bytes = 4;
constexpr size_t kV6Bytes = Net::IpGenAddr::kAddrBytes;

std::string text( const AddrWithMask& a ) {
    return a.addr.toString() + "/" + std::to_string( a.maskLen );
}

// Reader and writer refuse duplicates alike: the faces key addresses alone.
void checkDistinct( const std::vector<AddrWithMask>& addrs, const char* attribute ) {
    std::set<Net::IpGenAddr> seen;
    for ( const AddrWithMask& a : addrs ) {
        if ( !seen.insert( a.addr ).second ) {
            throw Platform::DeserializationError(
                attribute, "duplicate address " + a.addr.toString() );
        }
    }
}

void checkFamily( const AddrWithMask& a, bool v6, const char* attribute ) {
    if ( v6 ? !a.addr.isV6() : !a.addr.isV4() ) {
        throw Platform::TypeError( std::string( attribute ) + " must be an " +
                                   ( v6 ? "IPv6" : "IPv4" ) + " address, not " +
                                   ( a.addr.isSet() ? a.addr.toString() : "unset" ) );
    }
}

// The writer's checks of one list of extra addresses.
void checkExtra( const std::vector<AddrWithMask>& addrs, bool v6, const char* attribute,
                 uint32_t maxCount ) {
    if ( addrs.size() > maxCount ) {
        throw Platform::InvalidSizeError(
            std::string( attribute ) + ": " + std::to_string( addrs.size() ) +
            " addresses, at most " + std::to_string( maxCount ) + " allowed" );
    }
    const unsigned maxLen = v6 ? 128 : 32;
    for ( const AddrWithMask& a : addrs ) {
        checkFamily( a, v6, attribute );
        if ( a.addr.isAddrZero() ) {
            throw Platform::DeserializationError( attribute,
                                                  "zero address " + a.addr.toString() );
        }
        if ( a.maskLen < 1 || a.maskLen > maxLen ) {
            throw Platform::RangeError( std::string( attribute ) + " " + text( a ) +
                                        ": prefix length must be 1 to " +
                                        std::to_string( maxLen ) );
        }
    }
    checkDistinct( addrs, attribute );
}

void checkValue( const IntfAddrs& v ) {
    checkFamily( v.active, false, "activeAddr" );
    const bool none = v.active.addr.isAddrZero();
    if ( none ? v.active.maskLen != 0
              : ( v.active.maskLen < 1 || v.active.maskLen > 32 ) ) {
        throw Platform::RangeError(
            "activeMaskLen " + std::to_string( v.active.maskLen ) + " for " +
            v.active.addr.toString() +
            ( none ? ": must be 0 without an active address" : ": must be 1 to 32" ) );
    }
    checkExtra( v.secondary, false, "secondaryAddr", kMaxSecondaryAddrs );
    checkExtra( v.ip6, true, "ip6Addr", kMaxIp6Addrs );
}

// Reads `count` entries of `addrBytes` address bytes, a length byte and
// three zero bytes each.
std::vector<AddrWithMask> decodeExtra( const uint8_t* in, uint32_t count, bool v6,
                                       const char* attribute ) {
    const size_t addrBytes = v6 ? kV6Bytes : kV4Bytes;
    const size_t entry = v6 ? kIp6Size : kSecondarySize;
    const unsigned maxLen = v6 ? 128 : 32;
    std::vector<AddrWithMask> out;
    out.reserve( count );
    for ( uint32_t i = 0; i < count; ++i ) {
        const uint8_t* e = in + i * entry;
        AddrWithMask a;
        a.addr = Net::IpGenAddr::fromBytes(
            v6 ? Net::AddressFamily::ipv6 : Net::AddressFamily::ipv4, e );
        a.maskLen = e[addrBytes];
        const std::string which = "entry " + std::to_string( i ) + " ";
        if ( a.addr.isAddrZero() ) {
            throw Platform::DeserializationError(
                attribute, which + "holds the zero address " + a.addr.toString() );
        }
        if ( a.maskLen < 1 || a.maskLen > maxLen ) {
            throw Platform::DeserializationError(
                attribute, which + "has prefix length " + std::to_string( a.maskLen ) +
                               ", expected 1 to " + std::to_string( maxLen ) );
        }
        if ( e[addrBytes + 1] || e[addrBytes + 2] || e[addrBytes + 3] ) {
            throw Platform::DeserializationError( attribute,
                                                  which + "has non-zero padding" );
        }
        out.push_back( a );
    }
    checkDistinct( out, attribute );
    return out;
}

void encodeExtra( const std::vector<AddrWithMask>& addrs, bool v6, uint8_t* out ) {
    const size_t addrBytes = v6 ? kV6Bytes : kV4Bytes;
    const size_t entry = v6 ? kIp6Size : kSecondarySize;
    for ( size_t i = 0; i < addrs.size(); ++i ) {
        std::memcpy( out + i * entry, addrs[i].addr.bytes(), addrBytes );
        out[i * entry + addrBytes] = addrs[i].maskLen;
    }
}

}  // namespace

// ---------------------------------------------------------------- record

void IntfAddrsRecord::encodeKey( const Key& k, uint8_t* out ) {
    const uint64_t value = k.value();
    std::memcpy( out, &value, sizeof( value ) );
}

Net::IntfId IntfAddrsRecord::decodeKey( const uint8_t* in ) {
    uint64_t value;
    std::memcpy( &value, in, sizeof( value ) );
    Net::IntfId id = Net::IntfId::fromValue( value );
    if ( id.empty() ) {
        throw Platform::DeserializationError( "intfId", "the empty interface name" );
    }
    return id;
}

void IntfAddrsRecord::encodeValue( const Value& v, std::vector<uint8_t>& out ) {
    checkValue( v );
    const auto s = static_cast<uint32_t>( v.secondary.size() );
    const auto n = static_cast<uint32_t>( v.ip6.size() );
    out.assign( intfAddrsRecordSize( s, n ), 0 );
    std::memcpy( out.data(), v.active.addr.bytes(), kV4Bytes );
    out[4] = v.active.maskLen;
    out[5] = static_cast<uint8_t>( s );
    out[6] = static_cast<uint8_t>( n );
    encodeExtra( v.secondary, false, out.data() + kFixedSize );
    encodeExtra( v.ip6, true, out.data() + kFixedSize + s * kSecondarySize );
}

IntfAddrs IntfAddrsRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( len < kFixedSize ) {
        throw Platform::DeserializationError(
            "intfAddrs", "record of " + std::to_string( len ) +
                             " bytes is shorter than its 8-byte fixed part" );
    }
    const uint32_t s = in[5];
    const uint32_t n = in[6];
    if ( s > kMaxSecondaryAddrs ) {
        throw Platform::DeserializationError(
            "secondaryCount", std::to_string( s ) + " addresses, at most 32 allowed" );
    }
    if ( n > kMaxIp6Addrs ) {
        throw Platform::DeserializationError(
            "ip6Count", std::to_string( n ) + " addresses, at most 32 allowed" );
    }
    if ( in[7] ) {
        throw Platform::DeserializationError( "intfAddrs", "non-zero byte 7" );
    }
    if ( len != intfAddrsRecordSize( s, n ) ) {
        throw Platform::DeserializationError(
            "intfAddrs", "record of " + std::to_string( len ) + " bytes does not hold " +
                             std::to_string( s ) + " secondary and " +
                             std::to_string( n ) + " IPv6 addresses (" +
                             std::to_string( intfAddrsRecordSize( s, n ) ) + " bytes)" );
    }
    IntfAddrs v;
    v.active.addr = Net::IpGenAddr::fromBytes( Net::AddressFamily::ipv4, in );
    v.active.maskLen = in[4];
    const bool none = v.active.addr.isAddrZero();
    if ( none ? v.active.maskLen != 0
              : ( v.active.maskLen < 1 || v.active.maskLen > 32 ) ) {
        throw Platform::DeserializationError(
            "activeMaskLen", std::to_string( v.active.maskLen ) + " for " +
                                 v.active.addr.toString() +
                                 ( none ? ", expected 0 without an active address"
                                        : ", expected 1 to 32" ) );
    }
    v.secondary = decodeExtra( in + kFixedSize, s, false, "secondaryAddr" );
    v.ip6 = decodeExtra( in + kFixedSize + s * kSecondarySize, n, true, "ip6Addr" );
    return v;
}

// ---------------------------------------------------------------- faces

void IntfStatus::doActiveIs( const AddrWithMask& active ) {
    const bool addrChanged = !( activeAddr_ == active.addr );
    const bool lenChanged = activeMaskLen_ != active.maskLen;
    activeAddr_ = active.addr;
    activeMaskLen_ = active.maskLen;
    if ( addrChanged ) {
        notify( &activeAddrTag );
    }
    if ( lenChanged ) {
        notify( &activeMaskLenTag );
    }
}

void IntfStatus::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Interface %s\n", intfId_.name().c_str() );
    Platform::objDumpLine( context, indent + 2, "Active address: %s/%u\n",
                           activeAddr_.toString().c_str(), unsigned( activeMaskLen_ ) );
    for ( const auto& [addr, len] : secondaryAddrColl() ) {
        Platform::objDumpLine( context, indent + 2, "Secondary address: %s/%u\n",
                               addr.toString().c_str(), unsigned( len ) );
    }
}

}  // namespace Ip

namespace Ip6 {

void IntfStatus::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Interface %s\n", intfId_.name().c_str() );
    for ( const auto& [addr, len] : addrColl() ) {
        Platform::objDumpLine( context, indent + 2, "Ipv6 address: %s/%u\n",
                               addr.toString().c_str(), unsigned( len ) );
    }
}

void Status::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Ipv6 interfaces: %zu\n", intfs() );
    for ( const auto& [intfId, intf] : intfColl() ) {
        Platform::ObjDumpChild( intf, context, indent + 2 );
    }
}

}  // namespace Ip6

namespace Ip {

// ---------------------------------------------------------------- reader

Status::Status( Platform::StateTree& tree, Platform::Inotify* inotify,
                const std::string& path )
    : TableReader( tree, inotify, path ), ip6Status_( Platform::create<Ip6::Status>() ) {
    for ( const auto& [intfId, version] : keys() ) {
        doRefresh( intfId );
    }
    // Our own watch comes first: later watchers of the record already find
    // the faces updated.
    recordSub_ = Platform::subscribe(
        this, recordTag, [this]( const Net::IntfId& k ) { doRefresh( k ); } );
}

bool Status::doReadRecord( const Net::IntfId& intfId, IntfAddrs& out ) const {
    uint8_t key[IntfAddrsRecord::keySize];
    IntfAddrsRecord::encodeKey( intfId, key );
    std::vector<uint8_t> bytes;
    try {
        if ( !core_.get( key, bytes ) ) {
            return false;
        }
    } catch ( const Platform::Error& e ) {
        doCorruption( e );
        return false;
    }
    try {
        out = IntfAddrsRecord::decodeValue( bytes.data(), bytes.size() );
    } catch ( const Platform::Error& e ) {
        doCorruption( Platform::CorruptionError(
            statePath_, "interface " + intfId.name() + ": " + e.what() ) );
        return false;
    }
    return true;
}

void Status::doRefresh( const Net::IntfId& intfId ) {
    IntfAddrs addrs;
    if ( !doReadRecord( intfId, addrs ) ) {
        intfStatusDel( intfId );
        ip6Status_->intfDel( intfId );
        return;
    }
    doApplyIp4( intfId, addrs );
    doApplyIp6( intfId, addrs.ip6 );
}

void Status::doApplyIp4( const Net::IntfId& intfId, const IntfAddrs& addrs ) {
    Platform::Ptr<IntfStatus> face = intfStatus( intfId );
    if ( !face ) {
        face = Platform::create<IntfStatus>( intfId );
        face->doActiveIs( addrs.active );
        for ( const AddrWithMask& a : addrs.secondary ) {
            face->secondaryAddrIs( a.addr, a.maskLen );
        }
        intfStatus_.set( intfId, face );
        notify( &intfStatusTag, &intfId );
        return;
    }
    face->doActiveIs( addrs.active );
    std::set<Net::IpGenAddr> keep;
    for ( const AddrWithMask& a : addrs.secondary ) {
        keep.insert( a.addr );
    }
    for ( const Net::IpGenAddr& addr : face->secondaryAddrColl().keys() ) {
        if ( !keep.count( addr ) ) {
            face->secondaryAddrDel( addr );
        }
    }
    for ( const AddrWithMask& a : addrs.secondary ) {
        face->secondaryAddrIs( a.addr, a.maskLen );
    }
}

void Status::doApplyIp6( const Net::IntfId& intfId,
                         const std::vector<AddrWithMask>& addrs ) {
    Platform::Ptr<Ip6::IntfStatus> face = ip6Status_->intf( intfId );
    if ( addrs.empty() ) {
        // The last addresses went: each is told of before the face leaves,
        // as any other address removal is.
        if ( face ) {
            for ( const Net::IpGenAddr& addr : face->addrColl().keys() ) {
                face->addrDel( addr );
            }
            ip6Status_->intfDel( intfId );
        }
        return;
    }
    if ( !face ) {
        face = Platform::create<Ip6::IntfStatus>( intfId );
        for ( const AddrWithMask& a : addrs ) {
            face->addrIs( a.addr, a.maskLen );
        }
        ip6Status_->intf_.set( intfId, face );
        ip6Status_->notify( &Ip6::Status::intfTag, &intfId );
        return;
    }
    std::set<Net::IpGenAddr> keep;
    for ( const AddrWithMask& a : addrs ) {
        keep.insert( a.addr );
    }
    for ( const Net::IpGenAddr& addr : face->addrColl().keys() ) {
        if ( !keep.count( addr ) ) {
            face->addrDel( addr );
        }
    }
    for ( const AddrWithMask& a : addrs ) {
        face->addrIs( a.addr, a.maskLen );
    }
}

void Status::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Interface status %s: %zu interfaces\n",
                           statePath_.c_str(), intfStatuses() );
    for ( const auto& [intfId, face] : intfStatusColl() ) {
        Platform::ObjDumpChild( face, context, indent + 2 );
    }
    Platform::ObjDumpChild( ip6Status_, context, indent + 2 );
}

// ---------------------------------------------------------------- writer

void StatusWriter::intfAddrsIs( const Net::IntfId& intfId, const IntfAddrs& addrs ) {
    if ( intfId.empty() ) {
        throw Platform::NameError( "interface addresses need an interface name" );
    }
    set( intfId, addrs );
}

}  // namespace Ip

#include "topo/TopoKeys.h"

#include <cstdio>
#include <cstring>
#include <ostream>
#include <tuple>

#include "platform/Error.h"

namespace Routing::Topology {

namespace {

// Offsets of the NeighborKey record (checked against the class in fromRecord).
constexpr size_t kKeyRouterId = 0;
constexpr size_t kKeyType = NeighborKey::kTypeOffset;
constexpr size_t kKeyFarRouterId = NeighborKey::kFarRouterIdOffset;
constexpr size_t kKeyPseudonode = 28;
constexpr size_t kKeyLinkId = 32;

uint32_t loadU32( const uint8_t* p ) {
    uint32_t v;
    std::memcpy( &v, p, sizeof( v ) );
    return v;
}

}  // namespace

NetworkId NetworkId::fromString( std::string_view text ) {
    auto bad = [&]( const std::string& why ) {
        return Platform::DeserializationError( "networkId",
                                               "'" + std::string( text ) + "' " + why );
    };
    if ( text.size() != 17 || text[14] != '.' ) {
        throw bad( "is not of the form xxxx.xxxx.xxxx.pp" );
    }
    uint32_t pseudonode = 0;
    for ( char c : text.substr( 15 ) ) {
        uint32_t d;
        if ( c >= '0' && c <= '9' ) {
            d = static_cast<uint32_t>( c - '0' );
        } else if ( c >= 'a' && c <= 'f' ) {
            d = static_cast<uint32_t>( c - 'a' + 10 );
        } else if ( c >= 'A' && c <= 'F' ) {
            d = static_cast<uint32_t>( c - 'A' + 10 );
        } else {
            throw bad( "has a pseudonode that is not two hex digits" );
        }
        pseudonode = pseudonode << 4 | d;
    }
    try {
        return NetworkId( Mpls::RouterId::fromSystemId( text.substr( 0, 14 ) ),
                          pseudonode );
    } catch ( const Platform::DeserializationError& ) {
        throw bad( "has a bad system id" );
    }
}

NetworkId NetworkId::fromRecord( const void* record, std::string_view attribute ) {
    const auto* in = static_cast<const uint8_t*>( record );
    NetworkId id;
    id.dr = Mpls::RouterId::fromRecord( in, attribute );
    id.pseudonode = loadU32( in + offsetof( NetworkId, pseudonode ) );
    if ( id.pseudonode > kMaxPseudonode ) {
        throw Platform::DeserializationError(
            std::string( attribute ),
            "pseudonode " + std::to_string( id.pseudonode ) + " is above 255" );
    }
    return id;
}

bool NetworkId::operator<( const NetworkId& other ) const {
    if ( !( dr == other.dr ) ) {
        return dr < other.dr;
    }
    return pseudonode < other.pseudonode;
}

uint32_t NetworkId::hash() const {
    return Mpls::fnv1a( this, sizeof( *this ) );
}

std::string NetworkId::stringValue() const {
    char buf[16];
    std::snprintf( buf, sizeof( buf ), ".%02x", pseudonode );
    return dr.toString() + buf;
}

std::ostream& operator<<( std::ostream& os, const NetworkId& id ) {
    return os << id.stringValue();
}

NeighborKey NeighborKey::toRouter( const Mpls::RouterId& router,
                                   const Mpls::RouterId& neighbor, uint32_t linkId ) {
    NeighborKey key;
    key.routerId_ = router;
    key.neighborType_ = neighborTypeRouter();
    key.farRouterId_ = neighbor;
    key.linkId_ = linkId;
    return key;
}

NeighborKey NeighborKey::toNetwork( const Mpls::RouterId& router,
                                    const NetworkId& network ) {
    NeighborKey key;
    key.routerId_ = router;
    key.neighborType_ = neighborTypeNetwork();
    key.farRouterId_ = network.dr;
    key.pseudonode_ = network.pseudonode;
    return key;
}

NeighborKey NeighborKey::fromRecord( const void* record, std::string_view attribute ) {
    // The members are private, so their offsets are checked here.
    static_assert( offsetof( NeighborKey, routerId_ ) == kKeyRouterId );
    static_assert( offsetof( NeighborKey, neighborType_ ) == kKeyType );
    static_assert( offsetof( NeighborKey, farRouterId_ ) == kKeyFarRouterId );
    static_assert( offsetof( NeighborKey, pseudonode_ ) == kKeyPseudonode );
    static_assert( offsetof( NeighborKey, linkId_ ) == kKeyLinkId );
    const auto* in = static_cast<const uint8_t*>( record );
    auto bad = [&]( const std::string& why ) {
        return Platform::DeserializationError( std::string( attribute ), why );
    };
    NeighborKey key;
    key.neighborType_ = loadU32( in + kKeyType );
    if ( key.neighborType_ != neighborTypeRouter() &&
         key.neighborType_ != neighborTypeNetwork() ) {
        throw bad( "unknown neighbor type " + std::to_string( key.neighborType_ ) );
    }
    key.routerId_ = Mpls::RouterId::fromRecord( in + kKeyRouterId, attribute );
    key.farRouterId_ = Mpls::RouterId::fromRecord( in + kKeyFarRouterId, attribute );
    key.pseudonode_ = loadU32( in + kKeyPseudonode );
    key.linkId_ = loadU32( in + kKeyLinkId );
    if ( key.isRouter() && key.pseudonode_ != 0 ) {
        throw bad( "a router neighbor has pseudonode " +
                   std::to_string( key.pseudonode_ ) );
    }
    if ( key.isNetwork() && key.linkId_ != 0 ) {
        throw bad( "a network neighbor has link id " + std::to_string( key.linkId_ ) );
    }
    if ( key.pseudonode_ > kMaxPseudonode ) {
        throw bad( "pseudonode " + std::to_string( key.pseudonode_ ) + " is above 255" );
    }
    return key;
}

Mpls::RouterId NeighborKey::neighborRouterId() const {
    if ( !isRouter() ) {
        throw Platform::TypeError( "Only router neighbors have a neighbor router id" );
    }
    return farRouterId_;
}

NetworkId NeighborKey::networkId() const {
    if ( !isNetwork() ) {
        throw Platform::TypeError( "Only network neighbors have a network id" );
    }
    return NetworkId( farRouterId_, pseudonode_ );
}

bool NeighborKey::operator<( const NeighborKey& other ) const {
    if ( !( routerId_ == other.routerId_ ) ) {
        return routerId_ < other.routerId_;
    }
    if ( neighborType_ != other.neighborType_ ) {
        return neighborType_ < other.neighborType_;
    }
    if ( !( farRouterId_ == other.farRouterId_ ) ) {
        return farRouterId_ < other.farRouterId_;
    }
    return std::tie( pseudonode_, linkId_ ) <
           std::tie( other.pseudonode_, other.linkId_ );
}

uint32_t NeighborKey::hash() const {
    return Mpls::fnv1a( this, sizeof( *this ) );
}

std::string NeighborKey::stringValue() const {
    if ( isNetwork() ) {
        return routerId_.toString() + " -> " + networkId().stringValue();
    }
    return routerId_.toString() + " -> " + farRouterId_.toString() + " link " +
           std::to_string( linkId_ );
}

std::ostream& operator<<( std::ostream& os, const NeighborKey& key ) {
    return os << key.stringValue();
}

}  // namespace Routing::Topology

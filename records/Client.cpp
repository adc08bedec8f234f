#include "records/Client.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "platform/Error.h"
#include "platform/PathComponent.h"
#include "platform/ValueForm.h"

namespace Cspf {

bool ClientEntry::operator<( const ClientEntry& other ) const {
    return std::tie( kind, vrf, af ) < std::tie( other.kind, other.vrf, other.af );
}

void ClientEntryRecord::encodeKey( const Key& k, uint8_t* out ) {
    std::memset( out, 0, keySize );
    out[0] = static_cast<uint8_t>( k.kind );
    if ( k.kind == ClientEntry::Kind::vrf ) {
        const L3::VrfNameRecord vrf = L3::VrfNameRecord::encode( k.vrf );
        std::memcpy( out + 4, &vrf, sizeof( vrf ) );
    } else {
        out[1] = static_cast<uint8_t>( k.af );
    }
}

ClientEntry ClientEntryRecord::decodeKey( const uint8_t* in ) {
    auto bad = []( const std::string& detail ) {
        return Platform::DeserializationError( "clientEntry", detail );
    };
    if ( in[2] != 0 || in[3] != 0 ) {
        throw bad( "non-zero padding" );
    }
    L3::VrfNameRecord vrf;
    std::memcpy( &vrf, in + 4, sizeof( vrf ) );
    switch ( static_cast<ClientEntry::Kind>( in[0] ) ) {
        case ClientEntry::Kind::vrf:
            if ( in[1] != 0 ) {
                throw bad( "a VRF entry with a family" );
            }
            return ClientEntry::ofVrf( vrf.decode() );
        case ClientEntry::Kind::addressFamily: {
            const auto af = static_cast<Net::AddressFamily>( in[1] );
            if ( af != Net::AddressFamily::ipv4 && af != Net::AddressFamily::ipv6 ) {
                throw bad( "unknown address family " + std::to_string( in[1] ) );
            }
            // Every byte of the name, not just its length: one entry has one
            // encoding, or a peer could list it twice under other bytes.
            if ( std::any_of( in + 4, in + keySize,
                              []( uint8_t b ) { return b != 0; } ) ) {
                throw bad( "a family entry with a VRF name" );
            }
            return ClientEntry::ofAddressFamily( af );
        }
    }
    throw bad( "unknown entry kind " + std::to_string( in[0] ) );
}

void ClientEntryRecord::encodeValue( const Value& v, std::vector<uint8_t>& out ) {
    out.assign( 4, 0 );
    out[0] = v ? 1 : 0;
}

bool ClientEntryRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( len != 4 || in[0] > 1 || in[1] != 0 || in[2] != 0 || in[3] != 0 ) {
        throw Platform::DeserializationError( "clientEntry", "bad value" );
    }
    return in[0] == 1;
}

namespace {

std::string lastComponent( const std::string& path ) {
    const size_t slash = path.rfind( '/' );
    return slash == std::string::npos ? path : path.substr( slash + 1 );
}

}  // namespace

Client::Client( Platform::StateTree& tree, Platform::Inotify* inotify,
                std::string statePath )
    : TableReader( tree, inotify, statePath ), name_( lastComponent( statePath ) ) {}

std::vector<L3::VrfName> Client::vrfs() const {
    std::vector<L3::VrfName> out;
    for ( const auto& [entry, version] : keys() ) {
        if ( entry.kind == ClientEntry::Kind::vrf && get( entry ) ) {
            out.push_back( entry.vrf );
        }
    }
    return out;
}

std::vector<Net::AddressFamily> Client::addressFamilys() const {
    std::vector<Net::AddressFamily> out;
    for ( const auto& [entry, version] : keys() ) {
        if ( entry.kind == ClientEntry::Kind::addressFamily && get( entry ) ) {
            out.push_back( entry.af );
        }
    }
    return out;
}

std::string Client::toString() const {
    std::string vrfList = "[";
    for ( const L3::VrfName& vrf : vrfs() ) {
        vrfList += ( vrfList.size() > 1 ? ", " : "" ) + vrf.name();
    }
    std::string afList = "[";
    for ( Net::AddressFamily af : addressFamilys() ) {
        afList += ( afList.size() > 1 ? ", " : "" ) + Net::toString( af );
    }
    return Platform::ValueFormWriter( "Cspf::Client" )
        .field( "name", name_ )
        .field( "vrf", vrfList + "]" )
        .field( "addressFamily", afList + "]" )
        .str();
}

std::string clientPath( const std::string& name ) {
    Platform::validatePathComponent( name, "client" );
    return std::string( kClientDirPath ) + "/" + name;
}

namespace {

std::string tablePath( const char* kind, const L3::VrfName& vrf, Net::AddressFamily af,
                       const std::string& client ) {
    return std::string( "te/cspf/" ) + kind + "/vrf/" + vrf.name() + "/" +
           Net::toString( af ) + "/" + client;
}

}  // namespace

std::string pathConfigTablePath( const L3::VrfName& vrf, Net::AddressFamily af,
                                 const std::string& client ) {
    return tablePath( "config", vrf, af, client );
}

std::string pathStatusTablePath( const L3::VrfName& vrf, Net::AddressFamily af,
                                 const std::string& client ) {
    return tablePath( "status", vrf, af, client );
}

}  // namespace Cspf

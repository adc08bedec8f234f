#include "records/ClientStatus.h"

#include <cstring>

#include "platform/Error.h"

namespace Cspf {

void ClientStatusRecord::encodeKey( const Key& k, uint8_t* out ) {
    Platform::validatePathComponent( k, "client" );
    std::memset( out, 0, keySize );
    std::memcpy( out, k.data(), k.size() );
}

std::string ClientStatusRecord::decodeKey( const uint8_t* in ) {
    const char* text = reinterpret_cast<const char*>( in );
    const std::string name( text, strnlen( text, keySize ) );
    for ( size_t i = name.size(); i < keySize; ++i ) {
        if ( in[i] != 0 ) {
            throw Platform::DeserializationError( "clientName", "bytes after the name" );
        }
    }
    if ( !Platform::isValidPathComponent( name ) ) {
        throw Platform::DeserializationError(
            "clientName",
            "not a client name: '" + Platform::printableName( name ) + "'" );
    }
    return name;
}

void ClientStatusRecord::encodeValue( const Value& v, std::vector<uint8_t>& out ) {
    static constexpr std::string_view kCut = "...\n";
    out.assign( v.begin(), v.end() );
    if ( out.size() > maxValueSize ) {
        out.resize( maxValueSize - kCut.size() );
        out.insert( out.end(), kCut.begin(), kCut.end() );
    }
}

std::string ClientStatusRecord::decodeValue( const uint8_t* in, size_t len ) {
    if ( std::memchr( in, 0, len ) ) {
        throw Platform::DeserializationError( "clientStatus", "a NUL byte in the text" );
    }
    return std::string( reinterpret_cast<const char*>( in ), len );
}

void ClientStatusWriter::reasonIs( const std::string& client, const std::string& part,
                                   const std::string& reason ) {
    std::string& held = reasons_[client][part];
    if ( held == reason ) {
        return;
    }
    held = reason;
    doPublish( client );
}

void ClientStatusWriter::reasonDel( const std::string& client, const std::string& part ) {
    auto it = reasons_.find( client );
    if ( it == reasons_.end() || !it->second.erase( part ) ) {
        return;
    }
    if ( it->second.empty() ) {
        reasons_.erase( it );
    }
    doPublish( client );
}

void ClientStatusWriter::clientDel( const std::string& client ) {
    if ( reasons_.erase( client ) ) {
        doPublish( client );
    }
}

void ClientStatusWriter::doPublish( const std::string& client ) {
    if ( !Platform::isValidPathComponent( client ) ) {
        return;  // no record can name it; the trace did
    }
    auto it = reasons_.find( client );
    if ( it == reasons_.end() ) {
        del( client );
        return;
    }
    std::string text;
    for ( const auto& [part, reason] : it->second ) {
        text += ( part.empty() ? "" : part + ": " ) + reason + "\n";
    }
    set( client, text );
}

}  // namespace Cspf

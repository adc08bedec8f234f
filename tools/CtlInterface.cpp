// cspfctl intf ...: this router's interface addresses ("ip/status"), as the
// platform would publish them; the agent resolves an excluded interface
// through them.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/Error.h"
#include "platform/StateTree.h"
#include "records/IntfId.h"
#include "records/IpStatus.h"
#include "tools/Ctl.h"

namespace Cspf::Ctl {

namespace {

// "10.1.0.1/31": an address with its prefix length.
Ip::AddrWithMask addrWithMask( const std::string& text, const std::string& option ) {
    const size_t slash = text.find( '/' );
    if ( slash == std::string::npos || slash + 1 == text.size() ||
         text.find_first_not_of( "0123456789", slash + 1 ) != std::string::npos ||
         text.size() - slash > 4 ) {
        throw UsageError( option + " takes ADDRESS/LENGTH, not '" + text + "'" );
    }
    Ip::AddrWithMask a;
    a.addr = Net::IpGenAddr::parse( text.substr( 0, slash ), option );
    a.maskLen = static_cast<uint8_t>( std::stoul( text.substr( slash + 1 ) ) );
    return a;
}

std::string text( const Ip::AddrWithMask& a ) {
    return a.addr.toString() + "/" + std::to_string( a.maskLen );
}

int intfSet( Args args, const std::string& root ) {
    const std::string ipv4 = takeOption( args, "--ipv4", "" );
    const std::vector<std::string> secondary = takeOptions( args, "--secondary" );
    const std::vector<std::string> ipv6 = takeOptions( args, "--ipv6" );
    expectArgs( args, 1, "one INTERFACE" );
    const Net::IntfId intf( args[0] );
    Ip::IntfAddrs addrs;
    if ( !ipv4.empty() ) {
        addrs.active = addrWithMask( ipv4, "--ipv4" );
    }
    for ( const std::string& s : secondary ) {
        addrs.secondary.push_back( addrWithMask( s, "--secondary" ) );
    }
    for ( const std::string& s : ipv6 ) {
        addrs.ip6.push_back( addrWithMask( s, "--ipv6" ) );
    }
    Platform::StateTree tree( root );
    auto writer = Platform::create<Ip::StatusWriter>( tree, nullptr, Ip::kStatusPath );
    try {
        writer->intfAddrsIs( intf, addrs );
    } catch ( const Platform::RangeError& e ) {
        throw UsageError( e.what() );
    } catch ( const Platform::TypeError& e ) {
        throw UsageError( e.what() );
    } catch ( const Platform::InvalidSizeError& e ) {
        throw UsageError( e.what() );
    }
    std::printf( "interface %s set\n", intf.name().c_str() );
    return 0;
}

int intfDel( Args args, const std::string& root ) {
    expectArgs( args, 1, "one INTERFACE" );
    const Net::IntfId intf( args[0] );
    Platform::StateTree tree( root );
    auto writer = Platform::create<Ip::StatusWriter>( tree, nullptr, Ip::kStatusPath );
    if ( !writer->intfAddrsHas( intf ) ) {
        throw UsageError( "no interface " + intf.name() + " in " + Ip::kStatusPath );
    }
    writer->intfAddrsDel( intf );
    std::printf( "interface %s removed\n", intf.name().c_str() );
    return 0;
}

int intfShow( Args args, const std::string& root ) {
    expectArgs( args, 0, "no arguments" );
    // Looking must not create: StateTree makes a missing root.
    if ( !std::filesystem::is_directory( root ) ) {
        throw Platform::Error( "no state tree at " + root );
    }
    Platform::StateTree tree( root );
    auto status = Platform::create<Ip::Status>( tree, nullptr );
    for ( const auto& [intf, v4] : status->intfStatusColl() ) {
        std::string line = intf.name();
        if ( !v4->activeAddr().isAddrZero() ) {
            line += " ipv4 " + text( { v4->activeAddr(), v4->activeMaskLen() } );
        }
        for ( const auto& [addr, len] : v4->secondaryAddrColl() ) {
            line += " secondary " + text( { addr, len } );
        }
        if ( const auto v6 = status->ip6Status()->intf( intf ) ) {
            for ( const auto& [addr, len] : v6->addrColl() ) {
                line += " ipv6 " + text( { addr, len } );
            }
        }
        std::printf( "%s\n", line.c_str() );
    }
    return 0;
}

}  // namespace

std::vector<Command> interfaceCommands() {
    return {
        { { "intf", "set" }, intfSet },
        { { "intf", "del" }, intfDel },
        { { "intf", "show" }, intfShow },
    };
}

}  // namespace Cspf::Ctl

#include "tools/Ctl.h"

namespace Cspf::Ctl {

std::string takeOption( Args& args, const std::string& name,
                        const std::string& fallback ) {
    for ( size_t i = 0; i < args.size(); ++i ) {
        if ( args[i] == name ) {
            if ( i + 1 == args.size() ) {
                throw UsageError( name + " needs a value" );
            }
            std::string value = args[i + 1];
            args.erase( args.begin() + static_cast<long>( i ),
                        args.begin() + static_cast<long>( i ) + 2 );
            return value;
        }
    }
    return fallback;
}

void expectArgs( const Args& args, size_t n, const char* what ) {
    if ( args.size() != n ) {
        throw UsageError( std::string( "expected " ) + what );
    }
}

std::vector<std::string> takeOptions( Args& args, const std::string& name ) {
    std::vector<std::string> values;
    const std::string none = "\x01";
    for ( std::string v = takeOption( args, name, none ); v != none;
          v = takeOption( args, name, none ) ) {
        values.push_back( v );
    }
    return values;
}

bool takeFlag( Args& args, const std::string& name ) {
    for ( size_t i = 0; i < args.size(); ++i ) {
        if ( args[i] == name ) {
            args.erase( args.begin() + static_cast<long>( i ) );
            return true;
        }
    }
    return false;
}

}  // namespace Cspf::Ctl

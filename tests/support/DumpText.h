// What a dump writes, as a string: through a temporary file, so that a dump
// of any size fits.
#pragma once

#include <stdio.h>

#include <string>

#include "platform/DumpContext.h"

namespace TestKit {

// `dump` is called with a DumpContext of the given bounds.
template <typename F>
std::string dumpWith( F&& dump, uint32_t maxDepth = 0, uint32_t maxBytes = 0 ) {
    FILE* file = tmpfile();
    if ( !file ) {
        return "<no temporary file>";
    }
    {
        Platform::DumpContext context( fileno( file ), maxDepth, maxBytes );
        dump( context );
    }
    rewind( file );
    std::string text;
    char buffer[4096];
    for ( size_t n; ( n = fread( buffer, 1, sizeof( buffer ), file ) ) > 0; ) {
        text.append( buffer, n );
    }
    fclose( file );
    return text;
}

template <typename T>
std::string dumpText( const T& object, unsigned indent = 0 ) {
    return dumpWith(
        [&]( Platform::DumpContext& context ) { object.dumpState( context, indent ); } );
}

}  // namespace TestKit

// Numbered topology ids for tests: IS-IS router N is system id
// 0000.0000.000N with TE router id 10.255.0.N; level N is isisLN.
#pragma once

#include <cstdio>
#include <string>

#include "records/IpGenAddr.h"
#include "topo/RouterId.h"
#include "topo/TopoId.h"

namespace TestKit {

inline Mpls::RouterId sys( int n ) {
    char text[32];
    std::snprintf( text, sizeof( text ), "0000.0000.%04d", n );
    return Mpls::RouterId::fromSystemId( text );
}
inline Net::IpGenAddr te( int n ) {
    return Net::IpGenAddr( "10.255.0." + std::to_string( n ) );
}
inline Cspf::TopoId topo( int level ) {
    return level == 1 ? Cspf::TopoId::isisL1 : Cspf::TopoId::isisL2;
}

}  // namespace TestKit

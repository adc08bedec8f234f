#include "topo/TopoRecords.h"

#include <cmath>
#include <cstring>

#include "platform/Error.h"

namespace Routing::Topology {

namespace {

uint32_t loadU32( const uint8_t* p ) {
    uint32_t v;
    std::memcpy( &v, p, sizeof( v ) );
    return v;
}

bool allZero( const uint8_t* p, size_t len ) {
    for ( size_t i = 0; i < len; ++i ) {
        if ( p[i] != 0 ) {
            return false;
        }
    }
    return true;
}

// Index == count appends, below it replaces; above it, PodArray::at raises.
template <typename Array, typename Index, typename T>
void putAt( Array& array, Index index, const T& item ) {
    if ( index.value() == array.size() ) {
        array.append( item );
        return;
    }
    array.at( index );
    array[index] = item;
}

void checkBw( float bw ) {
    if ( !std::isfinite( bw ) || bw < 0 ) {
        throw Platform::RangeError( "a bandwidth must be a finite number >= 0, not " +
                                    std::to_string( bw ) );
    }
}

void dumpAddrs( Platform::DumpContext& context, unsigned indent, const char* what,
                const AddrArray& addrs ) {
    Platform::objDumpLine( context, indent, " %s Addresses (%u):", what,
                           uint32_t( addrs.size() ) );
    for ( const auto& addr : addrs ) {
        Platform::objDumpPrintf( context, " %s", addr.toString().c_str() );
    }
    Platform::objDumpPrintf( context, "\n" );
}

}  // namespace

// ---- Router ----

void Router::neighborIs( NeighborIndex index, const NeighborKey& key ) {
    putAt( neighborKeys_, index, key );
}

void Router::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, " Router ID: %s\n",
                           routerId_.toString().c_str() );
    Platform::objDumpLine( context, indent, " TE Router ID: %s\n",
                           teRouterId_.toString().c_str() );
    Platform::objDumpLine( context, indent, " Overloaded?: %s\n",
                           overload_ ? "Yes" : "No" );
    uint32_t i = 0;
    for ( const auto& key : neighborKeys_ ) {
        Platform::objDumpLine( context, indent, " Index: %u NeighborKey %s\n", i++,
                               key.stringValue().c_str() );
    }
}

RouterView::RouterView( const uint8_t* bytes, size_t len ) : bytes_( bytes ) {
    auto bad = []( const std::string& why ) {
        return Platform::DeserializationError( "router", why );
    };
    if ( len < sizeof( RouterValueHeader ) ) {
        throw bad( "record of " + std::to_string( len ) +
                   " bytes is shorter than its 28-byte fixed part" );
    }
    RouterValueHeader header;
    std::memcpy( &header, bytes, sizeof( header ) );
    if ( header.neighborCount > kMaxNeighbors ) {
        NeighborIndex::throwRangeError();
    }
    if ( len != routerRecordSize( header.neighborCount ) ) {
        throw bad( "record of " + std::to_string( len ) + " bytes does not hold " +
                   std::to_string( header.neighborCount ) + " neighbor keys (" +
                   std::to_string( routerRecordSize( header.neighborCount ) ) +
                   " bytes)" );
    }
    if ( header.overload > 1 ) {
        throw bad( "overload byte is " + std::to_string( header.overload ) );
    }
    if ( !allZero( header.pad, sizeof( header.pad ) ) ) {
        throw bad( "padding is not zero" );
    }
    teRouterId_ = Net::IpGenAddr::fromRecord(
        bytes + offsetof( RouterValueHeader, teRouterId ), "router" );
    overload_ = header.overload != 0;
    neighborCount_ = header.neighborCount;
}

const uint8_t* RouterView::neighborKeyRecord( NeighborIndex index ) const {
    if ( index.value() >= neighborCount_ ) {
        throw Platform::RangeError( "RouterView::neighborKey index " +
                                    std::to_string( index.value() ) + " >= count " +
                                    std::to_string( neighborCount_ ) );
    }
    return bytes_ + routerRecordSize( index.value() );
}

NeighborKey RouterView::neighborKey( NeighborIndex index ) const {
    return NeighborKey::fromRecord( neighborKeyRecord( index ), "neighborKey" );
}

void encodeRouter( const Router& router, std::vector<uint8_t>& out ) {
    RouterValueHeader header;
    header.teRouterId = router.teRouterId();
    header.overload = router.overload() ? 1 : 0;
    header.neighborCount = router.neighborKeyCount();
    out.resize( routerRecordSize( header.neighborCount ) );
    std::memcpy( out.data(), &header, sizeof( header ) );
    if ( header.neighborCount > 0 ) {
        std::memcpy( out.data() + sizeof( header ), router.neighborKeys().data(),
                     sizeof( NeighborKey ) * header.neighborCount );
    }
}

Router decodeRouter( const uint8_t* bytes, size_t len ) {
    RouterView view( bytes, len );
    Router router;
    router.teRouterIdIs( view.teRouterId() );
    router.overloadIs( view.overload() );
    for ( uint32_t i = 0; i < view.neighborCount(); ++i ) {
        router.neighborIs( NeighborIndex( i ), view.neighborKey( NeighborIndex( i ) ) );
    }
    return router;
}

bool routerHasNeighbor( const RouterView& router, const NeighborKey& key ) {
    for ( uint32_t i = 0; i < router.neighborCount(); ++i ) {
        if ( std::memcmp( router.neighborKeyRecord( NeighborIndex( i ) ), &key,
                          sizeof( key ) ) == 0 ) {
            return true;
        }
    }
    return false;
}

// ---- Network ----

void Network::routerIs( RouterIndex index, const Mpls::RouterId& id ) {
    putAt( routers_, index, id );
}

void Network::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, " Network ID: %s\n",
                           networkId_.stringValue().c_str() );
    Platform::objDumpLine( context, indent, " Routers in network:\n" );
    uint32_t i = 0;
    for ( const auto& id : routers_ ) {
        Platform::objDumpLine( context, indent, " Index: %u RouterId %s\n", i++,
                               id.toString().c_str() );
    }
}

NetworkView::NetworkView( const uint8_t* bytes, size_t len ) : bytes_( bytes ) {
    if ( len < kNetworkCountSize ) {
        throw Platform::DeserializationError(
            "network", "record of " + std::to_string( len ) + " bytes has no count" );
    }
    uint32_t count = loadU32( bytes );
    if ( count > kMaxNetworkRouters ) {
        RouterIndex::throwRangeError();
    }
    if ( len != networkRecordSize( count ) ) {
        throw Platform::DeserializationError(
            "network", "record of " + std::to_string( len ) + " bytes does not hold " +
                           std::to_string( count ) + " routers (" +
                           std::to_string( networkRecordSize( count ) ) + " bytes)" );
    }
    routerCount_ = count;
}

Mpls::RouterId NetworkView::router( RouterIndex index ) const {
    if ( index.value() >= routerCount_ ) {
        throw Platform::RangeError( "NetworkView::router index " +
                                    std::to_string( index.value() ) + " >= count " +
                                    std::to_string( routerCount_ ) );
    }
    return Mpls::RouterId::fromRecord( bytes_ + networkRecordSize( index.value() ),
                                       "network" );
}

void encodeNetwork( const Network& network, std::vector<uint8_t>& out ) {
    uint32_t count = network.routerCount();
    out.resize( networkRecordSize( count ) );
    std::memcpy( out.data(), &count, sizeof( count ) );
    if ( count > 0 ) {
        std::memcpy( out.data() + kNetworkCountSize, network.routers().data(),
                     sizeof( Mpls::RouterId ) * count );
    }
}

Network decodeNetwork( const uint8_t* bytes, size_t len ) {
    NetworkView view( bytes, len );
    Network network;
    for ( uint32_t i = 0; i < view.routerCount(); ++i ) {
        network.routerIs( RouterIndex( i ), view.router( RouterIndex( i ) ) );
    }
    return network;
}

// ---- Neighbor ----

void Neighbor::interfaceAddrIs( AddrIndex index, const Net::IpGenAddr& addr ) {
    putAt( interfaceAddrs_, index, addr );
}

void Neighbor::neighborAddrIs( AddrIndex index, const Net::IpGenAddr& addr ) {
    putAt( neighborAddrs_, index, addr );
}

void Neighbor::maxLinkBwIs( float bw ) {
    checkBw( bw );
    maxLinkBw_ = bw;
}

void Neighbor::maxReservableBwIs( float bw ) {
    checkBw( bw );
    maxReservableBw_ = bw;
}

void Neighbor::unreservedBwIs( BwPriority priority, float bw ) {
    checkBw( bw );
    unreservedBw_[priority.value()] = bw;
}

void Neighbor::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, " Neighbor key: %s\n",
                           neighborKey_.stringValue().c_str() );
    Platform::objDumpLine( context, indent, " Admin Group: %u\n", adminGroup_ );
    dumpAddrs( context, indent, "Interface", interfaceAddrs_ );
    Platform::objDumpLine( context, indent, " TE Metric: %u\n", teMetric_ );
    Platform::objDumpLine( context, indent, " Max link BW: %.2f Bps\n",
                           double( maxLinkBw_ ) );
    Platform::objDumpLine( context, indent, " Max reservable link BW: %.2f Bps\n",
                           double( maxReservableBw_ ) );
    Platform::objDumpLine( context, indent, " Unreserved BW:\n" );
    for ( uint32_t p = 0; p < kBwPriorities; ++p ) {
        Platform::objDumpLine( context, indent, " TE class: %u BW: %0.2f Bps\n", p,
                               double( unreservedBw_[p] ) );
    }
    dumpAddrs( context, indent, "Neighbor", neighborAddrs_ );
    Platform::objDumpLine( context, indent, " Metric: %u\n", igpMetric_ );
}

void encodeNeighbor( const Neighbor& neighbor, std::vector<uint8_t>& out ) {
    NeighborValue value;
    value.adminGroup = neighbor.adminGroup();
    // An empty list may have no storage at all: copy only what is there.
    value.interfaceAddrCount = neighbor.interfaceAddrCount();
    if ( value.interfaceAddrCount ) {
        std::memcpy( value.interfaceAddrs, neighbor.interfaceAddrs().data(),
                     sizeof( Net::IpGenAddr ) * value.interfaceAddrCount );
    }
    value.neighborAddrCount = neighbor.neighborAddrCount();
    if ( value.neighborAddrCount ) {
        std::memcpy( value.neighborAddrs, neighbor.neighborAddrs().data(),
                     sizeof( Net::IpGenAddr ) * value.neighborAddrCount );
    }
    value.igpMetric = neighbor.igpMetric();
    value.teMetric = neighbor.teMetric();
    value.teMetricPresent = neighbor.teMetricPresent() ? 1 : 0;
    value.maxLinkBw = neighbor.maxLinkBw();
    value.maxReservableBw = neighbor.maxReservableBw();
    for ( uint32_t p = 0; p < kBwPriorities; ++p ) {
        value.unreservedBw[p] = neighbor.unreservedBw( BwPriority( p ) );
    }
    out.resize( sizeof( value ) );
    std::memcpy( out.data(), &value, sizeof( value ) );
}

Neighbor decodeNeighbor( const uint8_t* bytes, size_t len ) {
    auto bad = []( const std::string& why ) {
        return Platform::DeserializationError( "neighbor", why );
    };
    if ( len != sizeof( NeighborValue ) ) {
        throw bad( "record of " + std::to_string( len ) + " bytes, expected 464" );
    }
    NeighborValue value;
    std::memcpy( &value, bytes, sizeof( value ) );
    Neighbor neighbor;
    auto readAddrs = [&]( uint32_t count, size_t offset, const char* what, auto&& put ) {
        if ( count > kMaxNeighborAddrs ) {
            AddrIndex::throwRangeError();
        }
        for ( uint32_t i = 0; i < kMaxNeighborAddrs; ++i ) {
            const uint8_t* at = bytes + offset + sizeof( Net::IpGenAddr ) * i;
            if ( i < count ) {
                put( AddrIndex( i ), Net::IpGenAddr::fromRecord( at, "neighbor" ) );
            } else if ( !allZero( at, sizeof( Net::IpGenAddr ) ) ) {
                throw bad( std::string( what ) + " address " + std::to_string( i ) +
                           " is past the count and not zero" );
            }
        }
    };
    readAddrs( value.interfaceAddrCount, offsetof( NeighborValue, interfaceAddrs ),
               "interface", [&]( AddrIndex i, const Net::IpGenAddr& a ) {
                   neighbor.interfaceAddrIs( i, a );
               } );
    readAddrs( value.neighborAddrCount, offsetof( NeighborValue, neighborAddrs ),
               "neighbor", [&]( AddrIndex i, const Net::IpGenAddr& a ) {
                   neighbor.neighborAddrIs( i, a );
               } );
    if ( value.teMetricPresent > 1 ) {
        throw bad( "TE metric flag is " + std::to_string( value.teMetricPresent ) );
    }
    if ( !allZero( value.pad, sizeof( value.pad ) ) ) {
        throw bad( "padding is not zero" );
    }
    try {
        neighbor.maxLinkBwIs( value.maxLinkBw );
        neighbor.maxReservableBwIs( value.maxReservableBw );
        for ( uint32_t p = 0; p < kBwPriorities; ++p ) {
            neighbor.unreservedBwIs( BwPriority( p ), value.unreservedBw[p] );
        }
    } catch ( const Platform::RangeError& e ) {
        throw bad( e.what() );
    }
    neighbor.adminGroupIs( value.adminGroup );
    neighbor.igpMetricIs( value.igpMetric );
    neighbor.teMetricIs( value.teMetric );
    neighbor.teMetricPresentIs( value.teMetricPresent != 0 );
    return neighbor;
}

bool neighborHasInterfaceAddr( const Neighbor& neighbor, const Net::IpGenAddr& addr ) {
    for ( const auto& mine : neighbor.interfaceAddrs() ) {
        if ( mine == addr ) {
            return true;
        }
    }
    return false;
}

}  // namespace Routing::Topology

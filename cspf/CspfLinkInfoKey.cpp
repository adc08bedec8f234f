#include "cspf/CspfLinkInfoKey.h"

#include <charconv>
#include <ostream>

#include "platform/Error.h"
#include "platform/ValueForm.h"
#include "root/DedupConstraint.h"
#include "topo/RouterId.h"
#include "topo/TopoId.h"
#include "topo/TopoKeys.h"

namespace Cspf {

namespace {

using Platform::DeserializationError;
using Routing::Topology::NeighborKey;
using Routing::Topology::NetworkId;

constexpr std::string_view kType = "Cspf::CspfLinkInfoKey";
constexpr std::string_view kNeighborKeyType = "Cspf::AllTopoNeighborKey";

// Least significant byte first, so that the hash does not depend on how the
// machine stores a word.
uint32_t stepWord( uint32_t h, uint32_t word ) {
    const uint8_t bytes[4] = { uint8_t( word ), uint8_t( word >> 8 ),
                               uint8_t( word >> 16 ), uint8_t( word >> 24 ) };
    return oneAtATimeStep( h, bytes, sizeof( bytes ) );
}

// Missing fields are refused by ValueForm::field; this refuses extra ones.
void expectFieldCount( const Platform::ValueForm& form, size_t count,
                       std::string_view attribute ) {
    if ( form.fields().size() != count ) {
        throw DeserializationError( std::string( attribute ),
                                    "expected " + std::to_string( count ) +
                                        " fields, got " +
                                        std::to_string( form.fields().size() ) );
    }
}

// An unset address prints as 0.0.0.0; keys hold unset addresses for zero.
Net::IpGenAddr parseAddr( std::string_view text, std::string_view attribute ) {
    Net::IpGenAddr addr = Net::IpGenAddr::parse( text, attribute );
    return addr.isV4() && addr.isAddrZero() ? Net::IpGenAddr() : addr;
}

// The empty key has no level, which prints as the damaged-value form.
TopoId parseTopoId( std::string_view text ) {
    if ( text == toString( TopoId{} ) ) {
        return TopoId{};
    }
    return topoIdFromString( text );
}

// The system id form, or "<dotted rtrId>/<lblSpace>" for an id of no protocol.
Mpls::RouterId parseRouterId( std::string_view text ) {
    size_t slash = text.find( '/' );
    if ( slash == std::string_view::npos ) {
        return Mpls::RouterId::fromSystemId( text );
    }
    Net::IpGenAddr rtrId = Net::IpGenAddr::parse( text.substr( 0, slash ), "routerId" );
    uint32_t lblSpace = Platform::parseU32Field( text.substr( slash + 1 ), "routerId" );
    if ( !rtrId.isV4() || lblSpace > 0xffff ) {
        throw DeserializationError( "routerId",
                                    "'" + std::string( text ) + "' is not a router id" );
    }
    return Mpls::RouterId( Mpls::Protocol::none, rtrId.v4Value(),
                           static_cast<uint16_t>( lblSpace ) );
}

// "<router> -> <neighbor> link <n>" or "<router> -> <dr>.<pp>".
NeighborKey parseNeighborKey( std::string_view text ) {
    auto bad = [&]( const char* why ) {
        return DeserializationError( "neighborKey",
                                     "'" + std::string( text ) + "' " + why );
    };
    size_t arrow = text.find( " -> " );
    if ( arrow == std::string_view::npos ) {
        throw bad( "has no \" -> \"" );
    }
    Mpls::RouterId router = parseRouterId( text.substr( 0, arrow ) );
    std::string_view to = text.substr( arrow + 4 );
    size_t link = to.find( " link " );
    if ( link != std::string_view::npos ) {
        return NeighborKey::toRouter(
            router, parseRouterId( to.substr( 0, link ) ),
            Platform::parseU32Field( to.substr( link + 6 ), "neighborKey" ) );
    }
    size_t dot = to.rfind( '.' );
    if ( dot == std::string_view::npos || to.size() - dot != 3 ) {
        throw bad( "has neither a link id nor a pseudonode" );
    }
    uint32_t pseudonode = 0;
    const char* digits = to.data() + dot + 1;
    auto [end, ec] = std::from_chars( digits, digits + 2, pseudonode, 16 );
    if ( ec != std::errc() || end != digits + 2 ) {
        throw bad( "has a pseudonode that is not two hex digits" );
    }
    return NeighborKey::toNetwork(
        router, NetworkId( parseRouterId( to.substr( 0, dot ) ), pseudonode ) );
}

AllTopoNeighborKey parseAllTopoNeighborKey( std::string_view text ) {
    Platform::ValueForm form( text, kNeighborKeyType, "allTopoNeighborKey" );
    expectFieldCount( form, 4, "allTopoNeighborKey" );
    AllTopoNeighborKey key( parseTopoId( form.field( "topoId" ) ),
                            parseNeighborKey( form.field( "neighborKey" ) ),
                            parseAddr( form.field( "teNeighborOf" ), "teNeighborOf" ) );
    Net::IpGenAddr teNeighborId =
        parseAddr( form.field( "teNeighborId" ), "teNeighborId" );
    if ( key.neighborKey().isRouter() ) {
        key.teNeighborIdIs( teNeighborId );
    } else if ( teNeighborId.isSet() ) {
        throw DeserializationError( "teNeighborId",
                                    "a link into a LAN has no far-end router" );
    }
    return key;
}

}  // namespace

CspfLinkInfoKey::CspfLinkInfoKey( std::string_view text ) {
    Platform::ValueForm form( text, kType, "cspfLinkInfoKey" );
    expectFieldCount( form, 3, "cspfLinkInfoKey" );
    allTopoNeighborKey_ = parseAllTopoNeighborKey( form.field( "allTopoNeighborKey" ) );
    Net::IpGenAddr routerInNetwork =
        parseAddr( form.field( "routerInNetwork" ), "routerInNetwork" );
    cost_ = Platform::parseU32Field( form.field( "cost" ), "cost" );
    if ( !routerInNetwork.isAddrZero() ) {
        try {
            routerInNetworkIs( routerInNetwork );
        } catch ( const Platform::TypeError& e ) {
            // Bad input here, not a misused value.
            throw DeserializationError( "routerInNetwork", e.what() );
        }
    }
}

void CspfLinkInfoKey::routerInNetworkIs( const Net::IpGenAddr& addr ) {
    if ( neighborType() != Routing::Topology::neighborTypeNetwork() ) {
        throw Platform::TypeError( "Link with neighborType " +
                                   std::to_string( neighborType() ) +
                                   " and routerInNetwork are not compatible" );
    }
    // One zero: an IPv6 :: would otherwise sort after the routers of the LAN
    // and break the tent order.
    routerInNetwork_ = addr.isAddrZero() ? Net::IpGenAddr() : addr;
}

bool CspfLinkInfoKey::routerLink() const {
    // isAddrZero tests by family, and an unset address counts as zero.
    return neighborType() == Routing::Topology::neighborTypeRouter() ||
           !routerInNetwork_.isAddrZero();
}

bool CspfLinkInfoKey::equalCost( const CspfLinkInfoKey& other ) const {
    if ( !routerLink() || !other.routerLink() ) {
        throw Platform::TypeError( "Only router links are comparable" );
    }
    return cost_ == other.cost_;
}

bool CspfLinkInfoKey::operator<( const CspfLinkInfoKey& other ) const {
    constexpr uint32_t kNetwork = Routing::Topology::neighborTypeNetwork();
    if ( cost_ != other.cost_ ) {
        return cost_ < other.cost_;
    }
    uint32_t type = neighborType();
    if ( type == other.neighborType() ) {
        if ( type == kNetwork && !( routerInNetwork_ == other.routerInNetwork_ ) ) {
            return routerInNetwork_ < other.routerInNetwork_;
        }
        return allTopoNeighborKey_ < other.allTopoNeighborKey_;
    }
    // At equal cost a LAN settles before the routers reached through it, and
    // point-to-point links come before the routers behind a LAN.
    if ( type != kNetwork ) {
        return !other.routerInNetwork_.isAddrZero();
    }
    return routerInNetwork_.isAddrZero();
}

uint32_t CspfLinkInfoKey::hash() const {
    uint32_t h = stepWord( 0, allTopoNeighborKey_.hash() );
    // Equal keys agree on whether the address is set, so skipping it when
    // unset keeps the hash consistent and spares the common case.
    if ( routerInNetwork_.isSet() ) {
        h = stepWord( h, routerInNetwork_.hash() );
    }
    h = stepWord( h, cost_ );
    return oneAtATimeFinal( h );
}

std::string CspfLinkInfoKey::toString() const {
    return Platform::ValueFormWriter( kType )
        .field( "allTopoNeighborKey", allTopoNeighborKey_.toString() )
        .field( "routerInNetwork", routerInNetwork_.toString() )
        .field( "cost", std::to_string( cost_ ) )
        .str();
}

std::ostream& operator<<( std::ostream& os, const CspfLinkInfoKey& key ) {
    return os << key.toString();
}

}  // namespace Cspf

#include "topo/AllTopoKeys.h"

#include <ostream>

#include "platform/Error.h"
#include "platform/ValueForm.h"
#include "root/DedupConstraint.h"

namespace Cspf {

namespace {

uint32_t stepByte( uint32_t h, uint8_t byte ) {
    return oneAtATimeStep( h, &byte, 1 );
}

// Least significant byte first, so that the hash does not depend on how the
// machine stores a word.
uint32_t stepWord( uint32_t h, uint32_t word ) {
    const uint8_t bytes[4] = { uint8_t( word ), uint8_t( word >> 8 ),
                               uint8_t( word >> 16 ), uint8_t( word >> 24 ) };
    return oneAtATimeStep( h, bytes, sizeof( bytes ) );
}

[[noreturn]] void throwNotCompatible( uint32_t neighborType, const char* attribute ) {
    throw Platform::TypeError( "NeighborType " + std::to_string( neighborType ) +
                               " and " + attribute + " are not compatible" );
}

}  // namespace

bool AllTopoNetworkId::operator<( const AllTopoNetworkId& other ) const {
    if ( topoId_ != other.topoId_ ) {
        return topoId_ < other.topoId_;
    }
    return networkId_ < other.networkId_;
}

uint32_t AllTopoNetworkId::hash() const {
    uint32_t h = stepByte( 0, static_cast<uint8_t>( topoId_ ) );
    h = stepWord( h, networkId_.dr.hash() );
    h = stepWord( h, networkId_.pseudonode );
    return oneAtATimeFinal( h );
}

std::string AllTopoNetworkId::toString() const {
    return Platform::ValueFormWriter( "Cspf::AllTopoNetworkId" )
        .field( "topoId", Cspf::toString( topoId_ ) )
        .field( "networkId", networkId_.stringValue() )
        .str();
}

std::ostream& operator<<( std::ostream& os, const AllTopoNetworkId& id ) {
    return os << id.toString();
}

const Net::IpGenAddr& AllTopoNeighborKey::teNeighborId() const {
    if ( !neighborKey_.isRouter() ) {
        throwNotCompatible( neighborKey_.neighborType(), "teNeighborId" );
    }
    return teNeighborId_;
}

void AllTopoNeighborKey::teNeighborIdIs( const Net::IpGenAddr& addr ) {
    if ( !neighborKey_.isRouter() ) {
        throwNotCompatible( neighborKey_.neighborType(), "teNeighborId" );
    }
    teNeighborId_ = addr;
}

AllTopoNetworkId AllTopoNeighborKey::allTopoNetworkId() const {
    if ( !neighborKey_.isNetwork() ) {
        throwNotCompatible( neighborKey_.neighborType(), "allTopoNetworkId" );
    }
    return AllTopoNetworkId( topoId_, neighborKey_.networkId() );
}

bool AllTopoNeighborKey::operator<( const AllTopoNeighborKey& other ) const {
    if ( topoId_ != other.topoId_ ) {
        return topoId_ < other.topoId_;
    }
    if ( !( neighborKey_ == other.neighborKey_ ) ) {
        return neighborKey_ < other.neighborKey_;
    }
    if ( !( teNeighborOf_ == other.teNeighborOf_ ) ) {
        return teNeighborOf_ < other.teNeighborOf_;
    }
    if ( !neighborKey_.isRouter() ) {
        return false;
    }
    // Equal neighbor keys have equal types: the other key is of type 1 too.
    return teNeighborId_ < other.teNeighborId();
}

uint32_t AllTopoNeighborKey::hash() const {
    uint32_t h = stepByte( 0, static_cast<uint8_t>( topoId_ ) );
    h = stepWord( h, neighborKey_.hash() );
    return oneAtATimeFinal( h );
}

std::string AllTopoNeighborKey::toString() const {
    return Platform::ValueFormWriter( "Cspf::AllTopoNeighborKey" )
        .field( "topoId", Cspf::toString( topoId_ ) )
        .field( "neighborKey", neighborKey_.stringValue() )
        .field( "teNeighborOf", teNeighborOf_.toString() )
        .field( "teNeighborId", teNeighborId_.toString() )
        .str();
}

std::ostream& operator<<( std::ostream& os, const AllTopoNeighborKey& key ) {
    return os << key.toString();
}

}  // namespace Cspf

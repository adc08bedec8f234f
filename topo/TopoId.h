// Cspf::TopoId: which IS-IS level a piece of the merged topology came from.
//
// The agent merges the level-1 and level-2 databases into one model; every
// agent-side key carries its level so that the two never collide.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Cspf {

enum class TopoId : uint8_t {
    isisL1 = 1,
    isisL2 = 2,
};

// "isisL1" / "isisL2"; any other value prints as "TopoId(<n>)" so that a dump
// of a damaged value still says what it holds.
std::string toString( TopoId id );
// Reads "isisL1" / "isisL2" back; anything else raises DeserializationError
// naming "topoId".
TopoId topoIdFromString( std::string_view text );
// Jenkins' one-at-a-time hash over the one byte of the value.
uint32_t topoIdHash( TopoId id );

std::ostream& operator<<( std::ostream& os, TopoId id );

}  // namespace Cspf

template <>
struct std::hash<Cspf::TopoId> {
    size_t operator()( Cspf::TopoId id ) const { return Cspf::topoIdHash( id ); }
};

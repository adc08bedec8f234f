// Between the library's plain values (strings, cspf::Family) and the records
// of the state tree (IpGenAddr, PathKey, PathConfig, PathStatus).
//
// The public header stays free of platform types, so a client builds against
// it alone; everything that parses or checks a value lives here. Bad input
// raises a Platform::Error (NameError, DeserializationError) that the caller
// turns into a cspf::Error.
#pragma once

#include <cstdint>
#include <string>

#include "cspf/Client.h"
#include "records/AddressFamily.h"
#include "records/PathConfig.h"
#include "records/PathStatus.h"
#include "records/VrfName.h"

namespace cspf {

Net::AddressFamily toAddressFamily( Family family );
// NameError for a name that cannot be a VRF (a path component of the tree).
L3::VrfName toVrfName( const std::string& vrf );
// Refuses text that is no address, and an address of the other family than
// the table's: the agent would never find a path to it.
Cspf::PathKey toPathKey( const Table& table, const std::string& destination,
                         uint32_t id );
Cspf::PathConstraint toConstraint( const std::string& excludeInterface );

PathRequest toRequest( const Cspf::PathConfig& config );
PathResult toResult( const Cspf::PathStatus& status );

}  // namespace cspf

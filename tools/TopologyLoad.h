// Turning a topology file into the IS-IS side's records, and writing them
// into a VRF's level tables of the state tree.
//
// Per level, a router of that level lists, in file order, its point-to-point
// adjacencies (a key per link end that advertises, the link's position in
// the file + 1 as link id, so that parallel links stay apart) and then its
// LANs. An end's neighbor record carries its own addresses as interface
// addresses and the far end's as neighbor addresses (or the end's override);
// a LAN member's record carries its own addresses only. A LAN's network
// record lists every member.
#pragma once

#include <string>
#include <vector>

#include "records/VrfName.h"
#include "tools/TopologyFile.h"
#include "topo/TopoRecords.h"

namespace Platform {
class StateTree;
}

namespace Cspf::TopoFile {

struct LevelRecords {
    std::vector<Routing::Topology::Router> routers;
    std::vector<Routing::Topology::Network> networks;
    std::vector<Routing::Topology::Neighbor> neighbors;
};

// The records of `level` (1 or 2). Throws TopologyError naming `fileName`
// when a router has more adjacencies, or a LAN more members, than a record
// holds.
LevelRecords levelRecords( const Topology& topology, int level,
                           const std::string& fileName = "topology" );

struct LoadSummary {
    size_t records = 0;  // records of both levels in the file
    size_t written = 0;  // records written because they were new or differed
    size_t removed = 0;  // records the tables held that the file does not
};

// Makes the level tables of `vrf` hold exactly the file's records; records
// that are already equal are not rewritten, so readers see only real changes.
LoadSummary loadIntoTree( const Topology& topology, Platform::StateTree& tree,
                          const L3::VrfName& vrf,
                          const std::string& fileName = "topology" );

}  // namespace Cspf::TopoFile

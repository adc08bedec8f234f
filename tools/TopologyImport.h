// Importers of research topology formats into the topology file model.
//
// Each importer makes a consistent single-level (level 2) IS-IS topology out
// of a graph of nodes and weighted edges, with generated names, system ids,
// TE router ids, interfaces and addresses (the plan is in
// docs/topology-format.md). Bad input raises TopologyError naming the file
// and the line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/TopologyFile.h"

namespace Cspf::TopoFile {

struct ImportResult {
    Topology topology;
    // Input that was accepted but changed: clamped weights, edges without a
    // reverse direction.
    std::vector<std::string> warnings;
};

// REPETITA "*.graph": NODES and directed EDGES sections.
ImportResult importRepetita( const std::string& path );
ImportResult parseRepetita( std::string_view text, const std::string& fileName );

// NetDice inputs, told apart by content: the JSON form ("AS-*.json": a
// "topology" with "nodes" and undirected "links") or the text form ("Kdl.in":
// a node count, then "u v w_uv w_vu" per undirected link).
ImportResult importNetdice( const std::string& path );
ImportResult parseNetdice( std::string_view text, const std::string& fileName );

}  // namespace Cspf::TopoFile

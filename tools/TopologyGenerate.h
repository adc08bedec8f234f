// Random IS-IS TE topologies for tests and benchmarks.
//
// generateTopology() builds a topology file model from a seed: a random
// spanning tree (so that the topology is connected before any fault), extra
// random adjacencies up to the mean degree, parallel links, LANs, and then
// the faults the agent must cope with, each drawn with its own probability.
// The address plan follows the importers (docs/topology-format.md), so that
// generated and imported topologies read alike:
//   router i      name "r<i>", system id i + 1, TE router id 10.255.0.1 + i
//   link k        10.0.0.0 + 2k and + 2k + 1 (/31); 2001:db8:1::2k, ::2k+1 (/127)
//   LAN l         11.0.0.0 + 256 l + member + 1 (/24); 2001:db8:2:l::member+1 (/64)
//   interfaces    "Ethernet<n>", numbered per router from 1
// A mismatched far-end address is the address of some link end, one from
// 12.0.0.0/8 or 2001:db8:ff::/64 (which nothing else uses), or, on parallel
// links, crossed cables: one end and the far end of a sibling link name each
// other.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/TopologyFile.h"

namespace Cspf::TopoFile {

struct GenerateOptions {
    size_t routers = 100;
    double meanDegree = 4;  // point-to-point adjacencies per router, on average
    double lanShare =
        0.05;  // share of routers that sit on a LAN (LANs of 3 to 6 members)
    double parallelShare = 0.02;  // share of adjacencies doubled by a parallel link
    uint32_t minMetric = 1, maxMetric = 20;  // a small range makes equal costs common
    bool bothLevels = false;  // routers in level 1, level 2 or both; links per level
    bool ipv6 = false;        // IPv6 interface addresses as well
    // Faults, each a probability, all 0 by default (benchmarks use none):
    double overload = 0, oneWay = 0, addressMismatch = 0, missingRecord = 0,
           zeroMetric = 0, hugeMetric = 0, noTeRouterId = 0;
    uint64_t seed = 1;
};

// A valid topology (validateTopology passes), connected before faults, deterministic
// for a seed. Router i is named "r<i>", has system id i+1 and TE router id 10.255.x.y
// counting from 10.255.0.1 as the importers do; interface names and addresses generated.
// Options out of range (a share or probability outside 0..1, metrics outside
// 1..16777215 or inverted, more routers than the address plan holds) raise
// Platform::RangeError naming the option.
Topology generateTopology( const GenerateOptions& options );

}  // namespace Cspf::TopoFile

// Topology files: the in-memory model of an IS-IS TE topology described in
// JSON ("cspf-topology/1", laid out in docs/topology-format.md), its loader,
// its validation and its writer.
//
//   TopologyError       every problem of a file, "<file>: <where>: <problem>"
//   Router ... Topology plain structs mirroring the file, comparable with ==
//   parseTopology()     JSON text -> validated Topology
//   validateTopology()  the checks that need the whole model (also used on
//                       topologies built in code, such as imported ones)
//   toJson()            Topology -> JSON text that parses back to the same model
//   readJson()          the JSON reader shared with the importers: refuses
//                       duplicate keys and can tell the line of each value
#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/Error.h"
#include "records/IntfId.h"
#include "records/IpGenAddr.h"

namespace Cspf::TopoFile {

inline constexpr std::string_view kFormat = "cspf-topology/1";
// IS-IS wide metrics (RFC 5305) and the TE default metric are 24-bit.
inline constexpr uint32_t kMaxMetric = 16777215;
inline constexpr size_t kPriorities = 8;

// A bad topology file: names the file, the place in it (a JSON path such as
// "$.links[3].ends[1].metric", or "line 12" for the line-based importers) and
// the problem.
class TopologyError : public Platform::Error {
  public:
    TopologyError( const std::string& file, const std::string& where,
                   const std::string& problem );
    const std::string& file() const { return file_; }
    const std::string& where() const { return where_; }
    const std::string& problem() const { return problem_; }

  private:
    std::string file_;
    std::string where_;
    std::string problem_;
};

using SystemId = std::array<uint8_t, 6>;
// "0000.0000.0001"
std::string systemIdText( const SystemId& id );

// An interface address with the prefix length of its subnet.
struct Address {
    Net::IpGenAddr addr;
    uint8_t prefixLength = 0;

    bool operator==( const Address& other ) const = default;
    // "10.1.12.1/31"
    std::string toString() const;
};

struct Router {
    std::string name;
    SystemId systemId{};
    // A router without one is allowed; the agent ignores it on LANs.
    std::optional<Net::IpGenAddr> teRouterId;
    // In file order; each 1 or 2, no duplicates.
    std::vector<uint8_t> levels;
    bool overload = false;

    bool inLevel( unsigned level ) const;
    bool operator==( const Router& other ) const = default;
};

// What a router advertises about one of its interfaces; shared by link ends
// and LAN members.
struct Attachment {
    std::string router;
    Net::IntfId interface;
    std::optional<Address> ipv4;
    std::optional<Address> ipv6;
    uint32_t metric = 0;
    std::optional<uint32_t> teMetric;  // absent: no TE metric advertised
    uint32_t adminGroup = 0;
    // Bytes per second.
    double maxBandwidth = 0;
    double maxReservableBandwidth = 0;
    // Per priority 0..7; absent: not advertised.
    std::optional<std::array<double, kPriorities>> unreservedBandwidth;
    // Fault switches: `advertise` false hides the adjacency from the router's
    // own list; `record` false lists it without a neighbor record.
    bool advertise = true;
    bool record = true;

    bool operator==( const Attachment& other ) const = default;
};

struct LinkEnd : Attachment {
    // Fault switches: the far-end address this end reports instead of the
    // other end's address, per family.
    std::optional<Net::IpGenAddr> neighborAddress4;
    std::optional<Net::IpGenAddr> neighborAddress6;

    bool operator==( const LinkEnd& other ) const = default;
};

struct Link {
    uint8_t level = 0;
    std::array<LinkEnd, 2> ends;

    bool operator==( const Link& other ) const = default;
};

struct LanMember : Attachment {
    bool operator==( const LanMember& other ) const = default;
};

struct Lan {
    uint8_t level = 0;
    std::string dr;
    uint8_t pseudonode = 0;
    std::vector<LanMember> members;

    bool operator==( const Lan& other ) const = default;
};

struct Topology {
    std::vector<Router> routers;
    std::vector<Link> links;
    std::vector<Lan> lans;

    bool operator==( const Topology& other ) const = default;
};

// Parses and validates; any problem raises TopologyError naming `fileName`.
Topology parseTopology( std::string_view json, const std::string& fileName );
// As above; a file that cannot be read raises TopologyError too.
Topology loadTopologyFile( const std::string& path );
// The checks across the model: references, uniqueness, levels and ranges.
// Errors name the JSON path the offending value has (or would have) in a file.
void validateTopology( const Topology& topology, const std::string& fileName );
// Pretty, in a stable order, with only the optional fields that differ from
// their defaults; parseTopology( toJson( t ) ) == t for every valid t.
std::string toJson( const Topology& topology );

const Router* routerByName( const Topology& topology, std::string_view name );

// JSON paths as used in errors: pathKey( "$", "links" ) is "$.links",
// pathIndex( "$.links", 3 ) is "$.links[3]".
std::string pathKey( const std::string& parent, std::string_view key );
std::string pathIndex( const std::string& parent, size_t index );

// How readJson names the place of a problem.
enum class JsonPlace { path, line };

// Line of each value (the line of its first character), by JSON path.
using JsonLines = std::unordered_map<std::string, unsigned>;

// Parses JSON text, refusing duplicate keys and nesting deeper than 64.
// Errors are TopologyErrors naming `fileName` and, by `place`, the JSON path
// or the line. `lines`, when given, receives the line of every value.
nlohmann::json readJson( std::string_view text, const std::string& fileName,
                         JsonPlace place, JsonLines* lines = nullptr );

}  // namespace Cspf::TopoFile

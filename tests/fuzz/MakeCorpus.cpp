// Writes the fuzz targets' seed inputs: `fuzz_make_corpus <corpus dir>`
// fills <corpus dir>/<target>/seed-* (tools/fuzz.sh --make-corpus). The
// output depends on nothing but this file and examples/topology.json: table
// files get a fixed table id and writer pid, so that a run makes the same
// bytes every time. Regression inputs (regress-*) are left alone.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>

#include "tests/fuzz/PeerRecords.h"
#include "tests/support/ShmTableKit.h"
#include "tests/support/TempDir.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyLoad.h"

using namespace Platform;
namespace fs = std::filesystem;

namespace {

constexpr size_t kWriterPidAt = 132, kTableIdAt = 152;
constexpr uint64_t kTableId = 0x5eed'7ab1e'0001ull;

fs::path corpus;
TestKit::TempDir scratch( "fuzzcorpus" );

void save( const std::string& target, const std::string& name,
           const std::vector<uint8_t>& bytes ) {
    fs::create_directories( corpus / target );
    std::ofstream out( corpus / target / ( "seed-" + name ), std::ios::binary );
    out.write( reinterpret_cast<const char*>( bytes.data() ),
               static_cast<std::streamsize>( bytes.size() ) );
    if ( !out.flush() ) {
        throw std::runtime_error( "cannot write seed " + target + "/" + name );
    }
}

void save( const std::string& target, const std::string& name, const std::string& text ) {
    save( target, name, std::vector<uint8_t>( text.begin(), text.end() ) );
}

// The bytes of a table that `fill` wrote, made reproducible.
std::vector<uint8_t> tableBytes( const TableLayout& layout,
                                 const std::function<void( ShmTableWriter& )>& fill ) {
    const std::string path = scratch / "table";
    fs::remove( path );
    {
        ShmTableWriter w( path, layout );
        fill( w );
    }
    std::vector<uint8_t> bytes = TestKit::readFile( path );
    const uint32_t pid = 0;
    std::memcpy( bytes.data() + kWriterPidAt, &pid, sizeof( pid ) );
    std::memcpy( bytes.data() + kTableIdAt, &kTableId, sizeof( kTableId ) );
    return bytes;
}

// Appends an in-place damage, as TableFileFuzz.cpp reads it.
void appendDamage( std::vector<uint8_t>& bytes, uint32_t offset, uint8_t width,
                   uint64_t value ) {
    const size_t at = bytes.size();
    bytes.resize( at + 13 );
    std::memcpy( bytes.data() + at, &offset, 4 );
    bytes[at + 4] = static_cast<uint8_t>( width - 1 );
    std::memcpy( bytes.data() + at + 5, &value, 8 );
}

// A test table of plain byte values: `n` records of varied sizes, every
// fifth one removed, and more changes than the ring holds when `churn`.
std::vector<uint8_t> genericTable( uint32_t n, bool churn ) {
    return tableBytes(
        TestKit::shmLayout( "Test::Fuzz", 2048 ), [&]( ShmTableWriter& w ) {
            std::mt19937 rng( n );
            for ( int round = 0; round < ( churn ? 8 : 1 ); ++round ) {
                for ( uint32_t id = 0; id < n; ++id ) {
                    const uint32_t len = rng() % 4 == 0 ? rng() % 2048 : rng() % 100;
                    TestKit::put(
                        w, id, std::string( len, static_cast<char>( 'a' + id % 26 ) ) );
                }
            }
            for ( uint32_t id = 0; id < n; id += 5 ) {
                TestKit::del( w, id );
            }
        } );
}

void tableSeeds() {
    save( "table_file", "generic-empty", genericTable( 0, false ) );
    const std::vector<uint8_t> small = genericTable( 24, false );
    save( "table_file", "generic-24", small );
    save( "table_file", "generic-churn", genericTable( 150, true ) );
    // Damages that random bytes rarely make, done under a mapped reader.
    const uint64_t slot = TestKit::liveSlots( small ).at( 3 ).offset;
    std::vector<uint8_t> bytes = small;
    appendDamage( bytes, uint32_t( slot + TestKit::kSlotLenAt ), 4, 0x80000001 );
    save( "table_file", "damage-length-above-2GiB", bytes );
    bytes = small;
    appendDamage( bytes, uint32_t( slot + TestKit::kSlotKeyAt ), 4, 2 );
    save( "table_file", "damage-two-records-with-one-key", bytes );
    bytes = small;
    appendDamage( bytes, TestKit::kIndexCapacityAt, 4, 1u << 30 );
    appendDamage( bytes, 160, 8, 1u << 20 );  // the change sequence
    save( "table_file", "damage-index-capacity-and-sequence", bytes );
}

// One realistic record of each peer type, by the type's position.
struct Samples {
    Cspf::PathConfig pathConfig{ Cspf::PathKey( Net::IpGenAddr( "10.0.0.6" ), 7 ), 1,
                                 true,
                                 Cspf::PathConstraint( Net::IntfId( "Ethernet3" ) ) };
    Cspf::ClientEntry clientEntry = Cspf::ClientEntry::ofVrf( L3::VrfName( "red" ) );
    TrafficEngineering::ConfigValue teConfig{ true, Net::IpGenAddr( "10.0.0.1" ) };
    Cspf::CspfCliConfigValue cliConfig{ 50, 200, 1000 };
    Ip::IntfAddrs intfAddrs;
    Cspf::PathStatus pathStatus;
    Cspf::TopoFile::LevelRecords topo;  // of both levels

    Samples( const std::string& topologyFile ) {
        intfAddrs.active = { Net::IpGenAddr( "10.1.12.0" ), 31 };
        intfAddrs.secondary.push_back( { Net::IpGenAddr( "10.9.9.1" ), 24 } );
        intfAddrs.ip6.push_back( { Net::IpGenAddr( "2001:db8::1" ), 64 } );
        pathStatus.key = pathConfig.key;
        pathStatus.refreshRespSeq = 1;
        pathStatus.changeCount = 2;
        pathStatus.lastUpdated = 1000.5;
        pathStatus.hops.append( Net::IpGenAddr( "10.1.12.1" ) );
        pathStatus.hops.append( Net::IpGenAddr( "10.1.26.1" ) );
        const auto topology = Cspf::TopoFile::loadTopologyFile( topologyFile );
        for ( int level = 1; level <= 2; ++level ) {
            auto records = Cspf::TopoFile::levelRecords( topology, level );
            topo.routers.insert( topo.routers.end(), records.routers.begin(),
                                 records.routers.end() );
            topo.networks.insert( topo.networks.end(), records.networks.begin(),
                                  records.networks.end() );
            topo.neighbors.insert( topo.neighbors.end(), records.neighbors.begin(),
                                   records.neighbors.end() );
        }
        if ( topo.routers.empty() || topo.networks.empty() || topo.neighbors.empty() ) {
            throw std::runtime_error( topologyFile +
                                      " lacks a router, LAN or adjacency" );
        }
    }

    // Keys and values of type R, as the tables hold them.
    template <typename R>
    std::vector<std::pair<typename R::Key, typename R::Value>> of() const {
        using namespace Routing::Topology;
        if constexpr ( std::is_same_v<R, Cspf::PathConfigRecord> ) {
            return { { pathConfig.key, pathConfig } };
        } else if constexpr ( std::is_same_v<R, Cspf::ClientEntryRecord> ) {
            return { { clientEntry, true },
                     { Cspf::ClientEntry::ofAddressFamily( Net::AddressFamily::ipv4 ),
                       true } };
        } else if constexpr ( std::is_same_v<R, SingletonRecord<
                                                    TrafficEngineering::ConfigRecord>> ) {
            return { { {}, teConfig } };
        } else if constexpr ( std::is_same_v<
                                  R, SingletonRecord<Cspf::CspfCliConfigRecord>> ) {
            return { { {}, cliConfig } };
        } else if constexpr ( std::is_same_v<R, Ip::IntfAddrsRecord> ) {
            return { { Net::IntfId( "Ethernet1" ), intfAddrs } };
        } else if constexpr ( std::is_same_v<R, RouterRecord> ) {
            return keyed( topo.routers, &Router::routerId );
        } else if constexpr ( std::is_same_v<R, NetworkRecord> ) {
            return keyed( topo.networks, &Network::networkId );
        } else if constexpr ( std::is_same_v<R, NeighborRecord> ) {
            return keyed( topo.neighbors, &Neighbor::neighborKey );
        } else {
            static_assert( std::is_same_v<R, Cspf::PathStatusRecord> );
            return { { pathStatus.key, pathStatus } };
        }
    }

    template <typename V, typename K>
    static std::vector<std::pair<K, V>> keyed( const std::vector<V>& values,
                                               const K& ( V::*key )() const ) {
        std::vector<std::pair<K, V>> out;
        for ( const V& v : values ) {
            out.emplace_back( ( v.*key )(), v );
        }
        return out;
    }
};

std::string fileName( std::string type ) {
    std::replace( type.begin(), type.end(), ':', '-' );
    return type;
}

void recordSeeds( const Samples& samples ) {
    Fuzz::forEachPeerRecord( [&]<typename R>( size_t index ) {
        const auto records = samples.of<R>();
        save( "table_file", fileName( R::typeName ),
              tableBytes( tableLayoutOf<R>(), [&]( ShmTableWriter& w ) {
                  for ( const auto& [k, v] : records ) {
                      uint8_t key[R::keySize];
                      R::encodeKey( k, key );
                      std::vector<uint8_t> value;
                      R::encodeValue( v, value );
                      w.set( key, value.data(), static_cast<uint32_t>( value.size() ) );
                  }
              } ) );
        std::vector<uint8_t> input( 1 + R::keySize );
        input[0] = static_cast<uint8_t>( index );
        R::encodeKey( records.front().first, input.data() + 1 );
        std::vector<uint8_t> value;
        R::encodeValue( records.front().second, value );
        input.insert( input.end(), value.begin(), value.end() );
        save( "records", fileName( R::typeName ), input );
    } );
}

void topologySeeds( const std::string& topologyFile ) {
    std::ifstream in( topologyFile );
    save( "topology_file", "example.json",
          std::string( std::istreambuf_iterator<char>( in ), {} ) );
    save( "topology_file", "repetita.graph",
          "NODES 3\nlabel x y\na 0 0\nb 0 0\nc 1 1\n\nEDGES 4\n"
          "label src dest weight bw delay\n"
          "e0 0 1 10 1000 1\ne1 1 0 10 1000 1\ne2 1 2 5 2000 1\ne3 2 1 7 2000 1\n" );
    save( "topology_file", "netdice.in", "3\n0 1 1 2\n1 2 3 3\n" );
    save( "topology_file", "netdice.json",
          "{ \"topology\": { \"nodes\": [\"a\", \"b\"], \"links\": [\n"
          "  {\"u\": \"a\", \"v\": \"b\", \"w_uv\": 1, \"w_vu\": 2} ] } }\n" );
}

void commandSeeds() {
    save( "command_line", "dump", "CspfDump DUMP_CSPF_STATE\n" );
    save( "command_line", "sched-stats",
          "CspfSchedStats DUMP_SCHEDSTATS detail debug history\n" );
    save( "command_line", "sched-stats-clear", "CspfSchedStats DUMP_SCHEDSTATS clear\n" );
    save( "command_line", "unknown-handler", "Nobody here\n" );
    save( "command_line", "unknown-command", "CspfDump DUMP_EVERYTHING\n" );
    save( "command_line", "no-newline", "CspfDump DUMP_CSPF_STATE" );
    save( "command_line", "too-long", "CspfDump " + std::string( 4100, 'x' ) + "\n" );
}

}  // namespace

int main( int argc, char** argv ) {
    if ( argc != 3 ) {
        std::cerr << "usage: fuzz_make_corpus <corpus dir> <examples/topology.json>\n";
        return 2;
    }
    corpus = argv[1];
    try {
        tableSeeds();
        recordSeeds( Samples( argv[2] ) );
        topologySeeds( argv[2] );
        commandSeeds();
    } catch ( const std::exception& e ) {
        std::cerr << "fuzz_make_corpus: " << e.what() << "\n";
        return 1;
    }
    return 0;
}

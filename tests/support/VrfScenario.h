// One VRF end to end on the manual clock: a VrfRoot and its VrfRootSm over a
// fresh state tree, a topology written into the level tables as the IS-IS
// side would, requests written into client te1's table with path intake
// played by the test, and results read back from its status table.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Inotify.h"
#include "platform/MountGroup.h"
#include "platform/TaskScheduler.h"
#include "records/Client.h"
#include "tests/support/TempDir.h"
#include "tools/TopologyFile.h"
#include "tools/TopologyLoad.h"
#include "vrf/VrfRoot.h"
#include "vrf/VrfRootSm.h"

namespace TestKit {

using Hops = std::vector<Net::IpGenAddr>;

inline Hops hops( std::initializer_list<const char*> texts ) {
    return Hops( texts.begin(), texts.end() );
}

class VrfScenario : public ::testing::Test {
  protected:
    using Intfs = std::initializer_list<std::pair<const char*, const char*>>;

    // The model `topologyJson` in the level tables, initial wait 50 ms, hold
    // wait 200 ms, cap 1000 ms, our TE router id 10.0.0.1, and `intfs`
    // (interface, address) as our interfaces' active /31 addresses.
    void setUp( const char* topologyJson, Intfs intfs ) {
        topology = Cspf::TopoFile::parseTopology( topologyJson, "scenario" );
        Cspf::TopoFile::loadIntoTree( topology, tree, vrf );
        cliWriter = Platform::create<Cspf::CspfCliConfigWriter>(
            tree, nullptr, Cspf::kCspfCliConfigPath );
        cliWriter->valueIs( { 50, 200, 1000 } );
        manager.mount<Cspf::CspfCliConfig>( Cspf::kCspfCliConfigPath,
                                            Platform::MountMode::read );
        teWriter = Platform::create<TrafficEngineering::ConfigWriter>(
            tree, nullptr, TrafficEngineering::kConfigPath );
        teWriter->valueIs( { true, Net::IpGenAddr( "10.0.0.1" ) } );
        teConfig = manager.mount<TrafficEngineering::Config>(
            TrafficEngineering::kConfigPath, Platform::MountMode::read );
        ipWriter = Platform::create<Ip::StatusWriter>( tree, nullptr, Ip::kStatusPath );
        for ( const auto& [intf, addr] : intfs ) {
            intfIs( intf, addr );
        }
        manager.mount<Ip::Status>( Ip::kStatusPath, Platform::MountMode::read );
        clientDir = manager.mount<Platform::DirectoryWatch>(
            "routing/export/topodb/client", Platform::MountMode::writeImmediate );
        const auto af = Net::AddressFamily::ipv4;
        writer = Platform::create<Cspf::ConfigWriter>(
            tree, nullptr, Cspf::pathConfigTablePath( vrf, af, "te1" ) );
        config = Platform::create<Cspf::Config>(
            tree, nullptr, Cspf::pathConfigTablePath( vrf, af, "te1" ) );
        status = Platform::create<Cspf::Status>(
            tree, nullptr, Cspf::pathStatusTablePath( vrf, af, "te1" ) );
        results = Platform::create<Cspf::StatusReader>(
            tree, nullptr, Cspf::pathStatusTablePath( vrf, af, "te1" ) );
    }
    void TearDown() override { stop(); }

    void start() {
        root = Cspf::vrfRootFactory( vrf, Net::AddressFamily::ipv4, manager, teConfig,
                                     clientDir, scheduler );
        sm = Platform::create<Cspf::VrfRootSm>( vrf, root );
    }
    // The end of the VRF, as the family's root ends it when its last client
    // leaves.
    void stop() {
        sm = nullptr;
        if ( root ) {
            root->handleDestruction();
        }
        root = nullptr;
    }
    void intfIs( const char* intf, const char* addr ) {
        Ip::IntfAddrs addrs;
        addrs.active = { Net::IpGenAddr( addr ), 31 };
        ipWriter->intfAddrsIs( Net::IntfId( intf ), addrs );
    }
    // The IS-IS side rewrites the level tables; the agent hears of it.
    void publishTopology() {
        Cspf::TopoFile::loadIntoTree( topology, tree, vrf );
        inotify.poll();
    }
    // The client writes a request; path intake notes it.
    Cspf::PathInfoKey request( const Net::IpGenAddr& dst, uint32_t id, uint32_t seq,
                               const char* exclude = "" ) {
        const Cspf::PathKey key( dst, id );
        writer->pathConfigIs( Cspf::PathConfig(
            key, seq, true, Cspf::PathConstraint( Net::IntfId( exclude ) ) ) );
        config->sync();
        const Cspf::PathInfoKey infoKey( "te1", key );
        auto info = root->pathConfigInfoTable()->pathConfigInfoIs( infoKey, config );
        root->pathStatusInfoTable()->pathStatusInfoIs( infoKey, status );
        info->changeCountInc();
        return infoKey;
    }
    Cspf::PathStatus result( const Cspf::PathInfoKey& key ) {
        results->sync();
        return results->pathStatus( key.pathKey() );
    }
    Hops resultHops( const Cspf::PathInfoKey& key ) {
        const Cspf::PathStatus s = result( key );
        return Hops( s.hops.data(), s.hops.data() + s.hops.size() );
    }
    Platform::Ptr<Cspf::ConstraintStats> statsOf( const Cspf::PathInfoKey& key ) {
        auto info = root->pathStatusInfoTable()->pathStatusInfo( key );
        return root->constraintStatsTable()->constraintStats( info->constraint().get() );
    }
    void advanceMs( double ms ) { clock->advance( ms / 1000.0 ); }

    TempTree tmp{ "vrfscenario" };
    Platform::StateTree& tree = tmp.tree;
    Platform::ManualClockScope clock;
    Platform::TaskScheduler scheduler{ nullptr, "Cspf", *clock };
    Platform::Inotify inotify{ nullptr };
    Platform::EntityManager manager{ tree, inotify, nullptr };
    const L3::VrfName vrf;
    Cspf::TopoFile::Topology topology;
    Platform::Ptr<Cspf::CspfCliConfigWriter> cliWriter;
    Platform::Ptr<TrafficEngineering::ConfigWriter> teWriter;
    Platform::Ptr<TrafficEngineering::Config> teConfig;
    Platform::Ptr<Ip::StatusWriter> ipWriter;
    Platform::Ptr<Platform::DirectoryWatch> clientDir;
    Platform::Ptr<Cspf::ConfigWriter> writer;
    Platform::Ptr<Cspf::Config> config;
    Platform::Ptr<Cspf::Status> status;
    Platform::Ptr<Cspf::StatusReader> results;
    Platform::Ptr<Cspf::VrfRoot> root;
    Platform::Ptr<Cspf::VrfRootSm> sm;
};

}  // namespace TestKit

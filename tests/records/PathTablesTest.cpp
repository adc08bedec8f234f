// The client's path tables across a writer and a reader of the state tree.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"
#include "records/Client.h"
#include "records/PathTables.h"

using namespace Cspf;

TEST( PathTables, RequestsAndResultsTravelBetweenClientAndAgent ) {
    char tmpl[] = "/dev/shm/pathtables-XXXXXX";
    const std::string root = mkdtemp( tmpl );
    {
        Platform::StateTree tree( root );
        Platform::EventLoop loop;
        Platform::Inotify inotify( &loop );
        const L3::VrfName vrf( "red" );
        const auto af = Net::AddressFamily::ipv4;

        auto requests = Platform::create<ConfigWriter>(
            tree, &loop, pathConfigTablePath( vrf, af, "rsvp" ) );
        auto config = Platform::create<Config>( tree, &inotify,
                                                pathConfigTablePath( vrf, af, "rsvp" ) );
        std::vector<PathKey> seen;
        auto sub =
            Platform::subscribe( config.get(), Config::pathConfigTag,
                                 [&]( const PathKey& k ) { seen.push_back( k ); } );
        PathConfig c;
        c.key = PathKey( Net::IpGenAddr( "10.0.0.9" ), 2 );
        c.refreshReqSeq = 4;
        c.autoUpdate = true;
        c.constraint = PathConstraint( Net::IntfId( "Ethernet3/1" ) );
        requests->pathConfigIs( c );
        for ( int i = 0; i < 10 && seen.empty(); ++i ) {
            loop.runOnce( 50 );
        }
        ASSERT_EQ( seen.size(), 1u );
        EXPECT_EQ( config->pathConfig( c.key ), c );

        auto status = Platform::create<Status>( tree, &loop,
                                                pathStatusTablePath( vrf, af, "rsvp" ) );
        PathStatus s;
        s.key = c.key;
        s.changeCount = 1;
        s.lastUpdated = 1234.5;
        for ( int h = 1; h <= 3; ++h ) {
            s.hops.append( Net::IpGenAddr( "10.1.0." + std::to_string( h ) ) );
        }
        EXPECT_TRUE( status->pathStatusIs( s ) );
        EXPECT_FALSE( status->pathStatusIs( s ) );  // unchanged: not rewritten
        auto results = Platform::create<StatusReader>(
            tree, &inotify, pathStatusTablePath( vrf, af, "rsvp" ) );
        EXPECT_EQ( results->pathStatus( c.key ), s );
        EXPECT_EQ( tree.listTables( "te/cspf/status" ),
                   std::vector<std::string>{ "te/cspf/status/vrf/red/ipv4/rsvp" } );
    }
    std::filesystem::remove_all( root );
}

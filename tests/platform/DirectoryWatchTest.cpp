// Directory watches and the shared inotify instance: per-name notifications,
// silent rename-over, a directory that appears and goes, handles destroyed
// during dispatch, and resynchronisation after a queue overflow.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "platform/DirectoryWatch.h"
#include "platform/Error.h"
#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"
#include "tests/support/TempDir.h"

using namespace Platform;
using Names = std::vector<std::string>;

namespace {

struct Fixture : TestKit::TempTree {
    Fixture() : TempTree( "cspf-watch" ) {}
    std::string file( const std::string& statePath ) const { return *this / statePath; }
    void table( const std::string& statePath ) const {
        std::ofstream( file( statePath ) ) << StateTree::kTableMagic;
    }
};

Names namesOf( const DirectoryWatch& w ) {
    Names out;
    for ( const auto& kv : w.entryColl() ) {
        out.push_back( kv.first );
    }
    return out;
}

TEST( DirectoryWatch, ReportsEachNameThatComesOrGoes ) {
    Fixture f;
    f.tree.makeDirectory( "clients" );
    f.table( "clients/old" );
    f.table( "clients/.old.tmp" );
    Inotify inotify( nullptr );
    auto w = create<DirectoryWatch>( f.tree, inotify, "clients/te", true );
    EXPECT_TRUE( w->present() );
    EXPECT_EQ( w->entries(), 0u );

    auto w2 = create<DirectoryWatch>( f.tree, inotify, "clients", false );
    EXPECT_EQ( namesOf( *w2 ), ( Names{ "old", "te" } ) );
    Names log;
    auto sub = subscribe( w2.get(), DirectoryWatch::entryTag,
                          [&]( const std::string& name ) { log.push_back( name ); } );

    f.table( "clients/a" );
    f.table( "clients/.a.tmp" );
    mkdir( f.file( "clients/sub" ).c_str(), 0700 );
    std::ofstream( f.file( "clients/pending" ) );  // no magic yet: still a name
    inotify.poll();
    EXPECT_EQ( log, ( Names{ "a", "sub", "pending" } ) );

    log.clear();
    unlink( f.file( "clients/old" ).c_str() );
    rmdir( f.file( "clients/sub" ).c_str() );
    inotify.poll();
    EXPECT_EQ( log, ( Names{ "old", "sub" } ) );

    // A writer replacing a table: the name never left.
    log.clear();
    rename( f.file( "clients/.a.tmp" ).c_str(), f.file( "clients/a" ).c_str() );
    inotify.poll();
    EXPECT_TRUE( log.empty() );
    EXPECT_TRUE( w2->entryHas( "a" ) );

    rename( f.file( "clients/a" ).c_str(), f.file( "clients/b" ).c_str() );
    inotify.poll();
    EXPECT_EQ( log, ( Names{ "a", "b" } ) );
    EXPECT_EQ( namesOf( *w2 ), ( Names{ "b", "pending", "te" } ) );
}

TEST( DirectoryWatch, FollowsADirectoryThatAppearsAndGoes ) {
    Fixture f;
    EventLoop loop;
    Inotify inotify( &loop );
    auto w = create<DirectoryWatch>( f.tree, inotify, "x/y/z", false );
    EXPECT_FALSE( w->present() );
    Names log;
    auto sub = subscribe( w.get(), DirectoryWatch::entryTag,
                          [&]( const std::string& name ) { log.push_back( name ); } );
    auto pump = [&] {
        while ( loop.runOnce( 0 ) > 0 ) {
        }
    };

    f.tree.makeDirectory( "x/y" );
    pump();
    EXPECT_FALSE( w->present() );

    // Made all at once, faster than the watch moves down.
    f.tree.makeDirectory( "x/y/z" );
    f.table( "x/y/z/t" );
    pump();
    EXPECT_TRUE( w->present() );
    EXPECT_EQ( log, ( Names{ "t" } ) );

    log.clear();
    std::filesystem::remove_all( f.file( "x" ) );
    pump();
    EXPECT_FALSE( w->present() );
    EXPECT_EQ( log, ( Names{ "t" } ) );
    EXPECT_EQ( w->entries(), 0u );

    log.clear();
    f.tree.makeDirectory( "x/y/z/u" );
    pump();
    EXPECT_EQ( log, ( Names{ "u" } ) );
}

TEST( Inotify, HandlesShareAWdAndMayGoDuringDispatch ) {
    Fixture f;
    Inotify inotify( nullptr );
    int a = 0, b = 0, c = 0, d = 0, e = 0;
    std::unique_ptr<InotifyWatch> ha, hb, hc, hd, he;
    ha = inotify.watch( f.path(), IN_CREATE, [&]( uint32_t, std::string_view ) {
        ++a;
        ha.reset();
        hb.reset();
        hd = inotify.watch( f.path(), IN_CREATE,
                            [&]( uint32_t, std::string_view ) { ++d; } );
    } );
    hb = inotify.watch( f.path(), IN_CREATE, [&]( uint32_t, std::string_view ) { ++b; } );
    hc = inotify.watch( f.path(), IN_CREATE, [&]( uint32_t, std::string_view ) { ++c; } );
    // Adding a delete-only handle must not narrow what the others hear.
    he = inotify.watch( f.path(), IN_DELETE, [&]( uint32_t, std::string_view ) { ++e; } );
    EXPECT_EQ( inotify.watchedPaths(), 1u );

    f.table( "one" );
    inotify.poll();
    EXPECT_EQ( std::vector<int>( { a, b, c, d, e } ),
               std::vector<int>( { 1, 0, 1, 0, 0 } ) );
    f.table( "two" );
    unlink( f.file( "one" ).c_str() );
    inotify.poll();
    EXPECT_EQ( std::vector<int>( { a, b, c, d, e } ),
               std::vector<int>( { 1, 0, 2, 1, 1 } ) );
    EXPECT_EQ( inotify.handles(), 3u );

    hc.reset();
    hd.reset();
    he.reset();
    EXPECT_EQ( inotify.watchedPaths(), 0u );
    f.table( "three" );
    inotify.poll();
    EXPECT_EQ( c + d + e, 4 );

    EXPECT_THROW(
        inotify.watch( f.file( "missing" ), IN_CREATE, []( uint32_t, auto ) {} ), Error );
}

TEST( Inotify, KernelDroppedWatchBecomesInert ) {
    Fixture f;
    Inotify inotify( nullptr );
    f.table( "t" );
    std::vector<uint32_t> masks;
    auto h = inotify.watch(
        f.file( "t" ), IN_ATTRIB,
        [&]( uint32_t mask, std::string_view ) { masks.push_back( mask ); } );
    unlink( f.file( "t" ).c_str() );
    inotify.poll();
    ASSERT_FALSE( masks.empty() );
    EXPECT_TRUE( masks.front() & IN_ATTRIB );  // the link count went to 0
    EXPECT_TRUE( masks.back() & IN_IGNORED );
    EXPECT_FALSE( h->active() );
    EXPECT_EQ( inotify.watchedPaths(), 0u );
    h.reset();
}

TEST( DirectoryWatch, OverflowResyncReportsOnlyChangedNames ) {
    Fixture f;
    long limit = 0;
    std::ifstream( "/proc/sys/fs/inotify/max_queued_events" ) >> limit;
    if ( limit <= 0 || limit > 100000 ) {
        GTEST_SKIP() << "inotify queue limit " << limit;
    }
    Inotify inotify( nullptr );
    f.tree.makeDirectory( "big" );
    f.table( "big/keep" );
    f.table( "big/gone" );
    auto w = create<DirectoryWatch>( f.tree, inotify, "big", false );
    std::multiset<std::string> log;
    auto sub = subscribe( w.get(), DirectoryWatch::entryTag,
                          [&]( const std::string& name ) { log.insert( name ); } );

    const long extra = limit + 50;
    for ( long i = 0; i < extra; ++i ) {
        std::ofstream( f.file( "big/n" + std::to_string( i ) ) );
    }
    unlink( f.file( "big/gone" ).c_str() );
    inotify.poll();
    EXPECT_EQ( inotify.overflows(), 1u );
    EXPECT_EQ( w->rescans(), 1u );
    EXPECT_EQ( w->entries(), static_cast<size_t>( extra + 1 ) );
    EXPECT_EQ( log.size(), static_cast<size_t>( extra + 1 ) );  // each name once
    EXPECT_EQ( log.count( "gone" ), 1u );
    EXPECT_EQ( log.count( "keep" ), 0u );

    // Changes behind the watch's back, then the events that describe them
    // arrive late: the rescan reports them, the late events add nothing.
    log.clear();
    f.table( "big/late" );
    unlink( f.file( "big/keep" ).c_str() );
    w->resync();
    EXPECT_EQ( log, ( std::multiset<std::string>{ "keep", "late" } ) );
    inotify.poll();
    EXPECT_EQ( log.size(), 2u );
}

TEST( DirectoryWatch, ReactorMayDropTheWatchInItsHandler ) {
    Fixture f;
    Inotify inotify( nullptr );
    Ptr<DirectoryWatch> w = create<DirectoryWatch>( f.tree, inotify, "d", false );
    int calls = 0;
    auto sub = subscribe( w.get(), DirectoryWatch::entryTag, [&]( const std::string& ) {
        ++calls;
        w.reset();  // the last reference, in the middle of applying a scan
    } );
    f.tree.makeDirectory( "d" );
    f.table( "d/a" );
    f.table( "d/b" );
    inotify.poll();
    EXPECT_EQ( calls, 1 );
    EXPECT_EQ( inotify.handles(), 0u );
}

}  // namespace

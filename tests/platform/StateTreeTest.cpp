// The state tree: path refusals that name the path, modes under a strict
// umask, listing that skips everything but tables and never follows a link,
// and table removal.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/ShmTable.h"
#include "platform/StateTree.h"
#include "tests/support/Child.h"
#include "tests/support/TempDir.h"

using namespace Platform;
using testing::HasSubstr;
using Names = std::vector<std::string>;

namespace {

using TestKit::TempDir;

void writeFile( const std::string& path, const std::string& content ) {
    std::ofstream( path, std::ios::binary ) << content;
}

mode_t modeOf( const std::string& path ) {
    struct stat st {};
    EXPECT_EQ( lstat( path.c_str(), &st ), 0 ) << path;
    return st.st_mode & 07777;
}

TEST( StateTree, RefusesBadPathsNamingThem ) {
    TempDir tmp;
    StateTree tree( tmp.path() );
    EXPECT_EQ( tree.filePath( "te/cspf/status" ), tmp.path() + "/te/cspf/status" );

    const std::string longName( 101, 'x' );
    struct Case {
        std::string path, shown, reason;
    } cases[] = {
        { "", "", "is empty" },
        { "a//b", "a//b", "is empty" },
        { "a/", "a/", "is empty" },
        { "/etc/passwd", "/etc/passwd", "must be relative" },
        { "a/../../b", "a/../../b", "relative directory name" },
        { "a/./b", "a/./b", "relative directory name" },
        { "a/.t.tmp.1", "a/.t.tmp.1", "starts with '.'" },
        { "a/b\x01z", "a/b\\x01z", "control character" },
        { "a/" + longName + "/t", "a/" + longName + "/t", "longer than 100 bytes" },
    };
    for ( const Case& c : cases ) {
        try {
            tree.filePath( c.path );
            ADD_FAILURE() << "accepted " << c.shown;
        } catch ( const NameError& e ) {
            EXPECT_THAT( e.what(), HasSubstr( "invalid state path '" + c.shown + "'" ) );
            EXPECT_THAT( e.what(), HasSubstr( c.reason ) );
        }
    }
    // Every entry point checks before touching the file system.
    EXPECT_THROW( tree.removeTable( "../x" ), NameError );
    EXPECT_THROW( tree.listTables( "a/.." ), NameError );
    EXPECT_THROW( tree.makeDirectory( "a/../.." ), NameError );
}

TEST( StateTree, DefaultRootFollowsTheEnvironment ) {
    const char* saved = getenv( "CSPF_STATE_ROOT" );
    std::string before = saved ? saved : "";
    setenv( "CSPF_STATE_ROOT", "/tmp/elsewhere", 1 );
    EXPECT_EQ( StateTree::defaultRoot(), "/tmp/elsewhere" );
    setenv( "CSPF_STATE_ROOT", "", 1 );
    EXPECT_EQ( StateTree::defaultRoot(), "/dev/shm/cspf" );
    unsetenv( "CSPF_STATE_ROOT" );
    EXPECT_EQ( StateTree::defaultRoot(), "/dev/shm/cspf" );
    if ( saved ) {
        setenv( "CSPF_STATE_ROOT", before.c_str(), 1 );
    }
}

TEST( StateTree, ModesHoldWhateverTheUmask ) {
    TempDir tmp;
    mode_t savedMask = umask( 077 );  // would turn a bare mkdir 0750 into 0700

    StateTree plain( tmp.path() + "/p/q/root" );
    EXPECT_EQ( modeOf( tmp.path() + "/p" ), 0700u );
    EXPECT_EQ( modeOf( plain.root() ), 0700u );
    plain.makeParents( "a/b/t" );
    EXPECT_EQ( modeOf( plain.root() + "/a/b" ), 0700u );
    EXPECT_FALSE( plain.exists( "a/b/t" ) );
    int fd = open( ( plain.root() + "/a/b/t" ).c_str(), O_CREAT | O_RDWR, 0666 );
    plain.applyFileMode( fd );
    close( fd );
    EXPECT_EQ( modeOf( plain.root() + "/a/b/t" ), 0600u );

    StateTree grouped( tmp.path() + "/g", StateTree::Permissions{ getgid() } );
    grouped.makeDirectory( "d/e" );
    struct stat st {};
    ASSERT_EQ( stat( ( grouped.root() + "/d/e" ).c_str(), &st ), 0 );
    EXPECT_EQ( st.st_mode & 07777, 0750u );
    EXPECT_EQ( st.st_gid, getgid() );
    fd = open( ( grouped.root() + "/d/e/t" ).c_str(), O_CREAT | O_RDWR, 0600 );
    grouped.applyFileMode( fd );
    close( fd );
    EXPECT_EQ( modeOf( grouped.root() + "/d/e/t" ), 0640u );

    umask( savedMask );
}

TEST( StateTree, ListsOnlyTablesInPathOrderAndRemovesNothingElse ) {
    // Tables at several depths and one of everything else.
    TempDir tmp;
    StateTree tree( tmp.path() );
    const std::string r = tree.root();
    const std::string table = std::string( StateTree::kTableMagic ) + "payload";
    for ( const char* dir : { "a/b/c", "a-x" } ) {
        tree.makeDirectory( dir );
    }
    mkdir( ( r + "/.hidden" ).c_str(), 0700 );
    for ( const char* t :
          { "z", "a/t1", "a/b/t2", "a/b/c/t3", "a-x/t", ".hidden/t", "a/.t1.tmp" } ) {
        writeFile( r + "/" + t, table );
    }
    writeFile( r + "/a/junk", "hello, not a table" );
    writeFile( r + "/a/short", "CSPF" );
    symlink( ( r + "/a/t1" ).c_str(), ( r + "/a/link" ).c_str() );
    symlink( ( r + "/a/b" ).c_str(), ( r + "/linkdir" ).c_str() );
    mkfifo( ( r + "/a/fifo" ).c_str(), 0600 );
    const int sock = socket( AF_UNIX, SOCK_STREAM, 0 );
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy( addr.sun_path, ( r + "/a/sock" ).c_str(), sizeof( addr.sun_path ) - 1 );
    ASSERT_EQ( bind( sock, reinterpret_cast<sockaddr*>( &addr ), sizeof( addr ) ), 0 );

    // '-' sorts before '/': the list is ordered by path, not by walk.
    EXPECT_EQ( tree.listTables( "" ),
               ( Names{ "a-x/t", "a/b/c/t3", "a/b/t2", "a/t1", "z" } ) );
    EXPECT_EQ( tree.listTables( "a/b" ), ( Names{ "a/b/c/t3", "a/b/t2" } ) );
    EXPECT_EQ( tree.listTables( "z" ), ( Names{ "z" } ) );
    EXPECT_TRUE( tree.listTables( "missing/dir" ).empty() );
    EXPECT_TRUE( tree.listTables( "linkdir" ).empty() );
    EXPECT_EQ( tree.listDirectory( "" ), ( Names{ "a", "a-x", "z" } ) );
    EXPECT_EQ( tree.listDirectory( "a" ), ( Names{ "b", "t1" } ) );
    EXPECT_TRUE( tree.listDirectory( "missing" ).empty() );
    EXPECT_TRUE( tree.exists( "a/sock" ) );
    EXPECT_FALSE( tree.exists( "a/nothing" ) );

    EXPECT_TRUE( tree.removeTable( "a/t1" ) );
    EXPECT_FALSE( tree.exists( "a/t1" ) );
    EXPECT_FALSE( tree.removeTable( "a/t1" ) );
    EXPECT_FALSE( tree.removeTable( "never/was" ) );
    for ( const char* notTable : { "a/b", "a/junk", "a/link", "a/sock", "a/fifo" } ) {
        try {
            tree.removeTable( notTable );
            ADD_FAILURE() << "removed " << notTable;
        } catch ( const Error& e ) {
            EXPECT_THAT( e.what(), HasSubstr( tree.root() + "/" + notTable ) );
        }
        EXPECT_TRUE( tree.exists( notTable ) ) << notTable;
    }
    close( sock );
}

// An unprivileged user makes the root before the agent, open to all, and links
// a directory of the tree to a third user's directory. The agent's tree must
// neither trust that root nor reach the third user's files through the link.
TEST( StateTree, AnotherUsersRootOrLinkIsNeverTakenOver ) {
    const passwd* nobody = getpwnam( "nobody" );
    if ( geteuid() != 0 || !nobody ) {
        GTEST_SKIP() << "needs to run as root with a user 'nobody' to play the attacker";
    }
    TempDir tmp;
    const std::string shared = tmp / "shm";  // like /dev/shm: anyone may create
    const std::string victim = tmp / "victim";
    const std::string root = shared + "/cspf";
    const std::string link = "te/cspf/status/vrf/default/ipv4";
    chmod( tmp.path().c_str(), 0755 );
    mkdir( shared.c_str(), 01777 );
    chmod( shared.c_str(), 01777 );
    mkdir( victim.c_str(), 0700 );
    writeFile( victim + "/rsvp", std::string( StateTree::kTableMagic ) + "not yours" );
    const uid_t other = nobody->pw_uid - 1;  // a third user
    ASSERT_EQ( chown( victim.c_str(), other, other ), 0 );
    ASSERT_EQ( chown( ( victim + "/rsvp" ).c_str(), other, other ), 0 );
    const pid_t attacker = TestKit::forkChild( [&] {
        if ( setgid( nobody->pw_gid ) != 0 || setuid( nobody->pw_uid ) != 0 ) {
            return 2;
        }
        umask( 0 );
        std::filesystem::create_directories( root + "/te/cspf/status/vrf/default" );
        std::filesystem::permissions( root, std::filesystem::perms::all );
        return symlink( victim.c_str(), ( root + "/" + link ).c_str() ) == 0 ? 0 : 3;
    } );
    ASSERT_EQ( TestKit::reapChild( attacker, 10 ), 0 );

    try {
        StateTree tree( root );
        ADD_FAILURE() << "took over a root of uid " << nobody->pw_uid;
    } catch ( const Error& e ) {
        EXPECT_EQ( std::string( e.what() ), "refusing state directory " + root +
                                                ": owned by uid " +
                                                std::to_string( nobody->pw_uid ) +
                                                ", not by this process's uid 0" );
    }
    // Ours but open to all: refused as well.
    ASSERT_EQ( chown( root.c_str(), 0, 0 ), 0 );
    EXPECT_THAT(
        [&] { StateTree tree( root ); },
        testing::ThrowsMessage<Error>( HasSubstr( "writable by others (mode 0777)" ) ) );

    // Every directory of the tree ours, but a link where one should be: no
    // operation goes through it.
    for ( const std::string dir :
          { "", "/te", "/te/cspf", "/te/cspf/status", "/te/cspf/status/vrf",
            "/te/cspf/status/vrf/default" } ) {
        ASSERT_EQ( lchown( ( root + dir ).c_str(), 0, 0 ), 0 );
        ASSERT_EQ( chmod( ( root + dir ).c_str(), 0700 ), 0 );
    }
    StateTree tree( root );
    const std::string table = link + "/rsvp";
    EXPECT_FALSE( tree.removeTable( table ) );
    EXPECT_FALSE( tree.exists( table ) );
    EXPECT_TRUE( tree.listTables( "" ).empty() );
    EXPECT_TRUE( tree.listDirectory( link ).empty() );
    const TableLayout layout{ "Victim", 1, 8, 8 };
    EXPECT_THAT( [&] { tree.makeParents( table ); },
                 testing::ThrowsMessage<Error>( HasSubstr( "is in the way" ) ) );
    EXPECT_THROW( ShmTableWriter( TablePath( root, table ), layout ), Error );
    EXPECT_FALSE( ShmTableReader( TablePath( root, table ), layout ).attached() );

    // A table file of another user in our own directory is not ours to
    // remove, whatever its header says.
    tree.makeDirectory( "te/cspf/client" );
    const std::string foreign = root + "/te/cspf/client/rsvp";
    writeFile( foreign, std::string( StateTree::kTableMagic ) + "damaged header" );
    ASSERT_EQ( chown( foreign.c_str(), other, other ), 0 );
    EXPECT_THAT( [&] { tree.removeTable( "te/cspf/client/rsvp" ); },
                 testing::ThrowsMessage<Error>( HasSubstr( "owned by uid" ) ) );
    EXPECT_THAT(
        [&] { ShmTableWriter( TablePath( root, "te/cspf/client/rsvp" ), layout ); },
        testing::ThrowsMessage<Error>( HasSubstr( "left in place" ) ) );
    EXPECT_TRUE( tree.exists( "te/cspf/client/rsvp" ) );
    struct stat st {};
    EXPECT_EQ( stat( ( victim + "/rsvp" ).c_str(), &st ), 0 );
    EXPECT_EQ( st.st_uid, other );
    EXPECT_EQ( st.st_size, 17 );
}

}  // namespace

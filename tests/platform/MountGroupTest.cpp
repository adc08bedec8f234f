// Mount groups: one completion on the loop, with the path and reason of a
// failure; immediate mounts never fail the group.
#include <gtest/gtest.h>

#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/MountGroup.h"
#include "platform/StateTree.h"
#include "tests/support/ByteRecord.h"
#include "tests/support/TempDir.h"

using namespace Platform;

namespace {

constexpr char kFlagType[] = "Test::Flag";
using FlagRecord = TestKit::ByteRecord<kFlagType>;
using FlagReader = SingletonReader<FlagRecord>;
using FlagWriter = SingletonWriter<FlagRecord>;

class MountGroupTest : public ::testing::Test {
  protected:
    MountStatus run( MountGroup& group ) {
        MountStatus got;
        int calls = 0;
        group.doMounts( [&]( const MountStatus& s ) {
            got = s;
            ++calls;
        } );
        EXPECT_EQ( calls, 0 );  // never from inside doMounts when there is a loop
        loop_.runOnce( 0 );
        EXPECT_EQ( calls, 1 );
        return got;
    }

    TestKit::TempTree tmp_{ "mounttest" };
    StateTree& tree_ = tmp_.tree;
    EventLoop loop_;
    Inotify inotify_{ &loop_ };
    std::unique_ptr<EntityManager> manager_ =
        std::make_unique<EntityManager>( tree_, inotify_, &loop_ );
};

TEST_F( MountGroupTest, MountsInOrderAndCompletesOnTheLoop ) {
    MountGroup group( *manager_ );
    group.mount<DirectoryWatch>( "te/cspf/client", "ri" );
    group.mount<FlagReader>( "te/config", "r" );  // absent: an empty view
    group.mount<FlagWriter>( "te/cspf/agentStatus", "w" );
    group.mount<DirectoryWatch>( "routing/export/topodb/client", "wi" );
    MountStatus s = run( group );
    EXPECT_TRUE( s.ok ) << s.failedPath << ": " << s.reason;
    EXPECT_TRUE( s.skipped.empty() );
    EXPECT_FALSE( manager_->entity<FlagReader>( "te/config" )->exists() );
    manager_->entity<FlagWriter>( "te/cspf/agentStatus" )->valueIs( 1 );
    EXPECT_TRUE( tree_.exists( "routing/export/topodb/client" ) );
    EXPECT_FALSE( tree_.exists( "te/cspf/client" ) );  // read mounts create nothing
    EXPECT_THROW( group.mount<FlagReader>( "x", "rw" ), Error );
}

TEST_F( MountGroupTest, FailureNamesThePathUnlessImmediate ) {
    auto other = create<FlagWriter>( tree_, &loop_, "held" );  // another writer
    MountGroup lenient( *manager_ );
    lenient.mount<FlagWriter>( "held", "wi" );
    lenient.mount<FlagReader>( "fine", "r" );
    MountStatus s = run( lenient );
    EXPECT_TRUE( s.ok );
    ASSERT_EQ( s.skipped.size(), 1u );
    EXPECT_EQ( s.skipped[0].first, "held" );
    EXPECT_NE( s.skipped[0].second.find( "already has a writer" ), std::string::npos );

    MountGroup strict( *manager_ );
    strict.mount<FlagWriter>( "held", "w" );
    s = run( strict );
    EXPECT_FALSE( s.ok );
    EXPECT_EQ( s.failedPath, "held" );
    EXPECT_NE( s.reason.find( "already has a writer" ), std::string::npos );
}

}  // namespace

// The agent framework: doInit, the mounts and doMountsComplete in that order,
// at once without a loop and at the end of the round with one; a failed mount
// still reaches the agent; one framework per process.
#include <gtest/gtest.h>

#include <memory>

#include "platform/AgentBase.h"
#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"
#include "tests/support/ByteRecord.h"
#include "tests/support/TempDir.h"

using namespace Platform;
using AgentBase::Framework;

namespace {

using TestKit::ByteRecord;

constexpr char kConfigType[] = "Test::AgentConfig";
constexpr char kOtherType[] = "Test::Other";
using ConfigReader = SingletonReader<ByteRecord<kConfigType>>;
using StatusWriter = SingletonWriter<ByteRecord<kConfigType>>;
using OtherWriter = SingletonWriter<ByteRecord<kOtherType>>;

class TestAgent : public AgentBase::CAgent {
  public:
    using CAgent::CAgent;

    void doInit() override {
        ++inits;
        mountGroup().mount<DirectoryWatch>( "te/cspf/client", "ri" );
        mountGroup().mount<ConfigReader>( "te/config", "r" );
        mountGroup().mount<StatusWriter>( "te/cspf/agentStatus", "w" );
    }
    void doMountsComplete( const MountStatus& s, EntityManager& manager ) override {
        ++completions;
        status = s;
        sawInit = inits == 1;
        sawEntities = manager.entity<DirectoryWatch>( "te/cspf/client" ) &&
                      manager.entity<ConfigReader>( "te/config" ) &&
                      manager.entity<StatusWriter>( "te/cspf/agentStatus" );
    }

    int inits = 0;
    int completions = 0;
    bool sawInit = false;
    bool sawEntities = false;
    MountStatus status;
};

class AgentBaseTest : public ::testing::Test {
  protected:
    TestKit::TempTree tmp_{ "agentbasetest" };
    StateTree& tree_ = tmp_.tree;
};

TEST_F( AgentBaseTest, WithoutALoopTheMountsCompleteInsideStart ) {
    Inotify inotify( nullptr );
    {
        Framework framework( tree_, inotify, nullptr );
        EXPECT_EQ( Framework::current(), &framework );
        TestAgent agent( "Cspf" );
        framework.start( agent );
        EXPECT_EQ( framework.agent(), &agent );
        EXPECT_TRUE( framework.mountsComplete() );
        EXPECT_EQ( agent.completions, 1 );
        EXPECT_TRUE( agent.sawInit );
        EXPECT_TRUE( agent.sawEntities );
        EXPECT_TRUE( agent.status.ok ) << agent.status.reason;
        // The absent directory of an "ri" mount is not an error.
        EXPECT_TRUE( agent.status.skipped.empty() );
    }
    EXPECT_EQ( Framework::current(), nullptr );
}

TEST_F( AgentBaseTest, WithALoopTheMountsCompleteAtTheEndOfTheRound ) {
    EventLoop loop;
    Inotify inotify( &loop );
    Framework framework( tree_, inotify, &loop, "agents/one" );
    TestAgent agent( "Cspf" );
    EXPECT_EQ( agent.agentRoot(), "agents/one" );
    framework.start( agent );
    EXPECT_EQ( agent.inits, 1 );
    EXPECT_EQ( agent.completions, 0 );
    EXPECT_FALSE( framework.mountsComplete() );
    loop.runOnce( 0 );
    EXPECT_TRUE( framework.mountsComplete() );
    EXPECT_EQ( agent.completions, 1 );
    EXPECT_TRUE( agent.sawEntities );
    loop.runOnce( 0 );
    EXPECT_EQ( agent.completions, 1 );
}

TEST_F( AgentBaseTest, AFailedReadMountReachesTheAgentWithItsPath ) {
    create<OtherWriter>( tree_, nullptr, "te/config" )->valueIs( 1 );
    EventLoop loop;
    Inotify inotify( &loop );
    Framework framework( tree_, inotify, &loop );
    TestAgent agent( "Cspf" );
    framework.start( agent );
    loop.runOnce( 0 );
    ASSERT_EQ( agent.completions, 1 );
    EXPECT_FALSE( agent.status.ok );
    EXPECT_EQ( agent.status.failedPath, "te/config" );
    EXPECT_NE( agent.status.reason.find( kOtherType ), std::string::npos )
        << agent.status.reason;
    EXPECT_FALSE( agent.sawEntities );  // the group stops at its first failure
}

TEST_F( AgentBaseTest, ACompletionLeftOnTheLoopFindsNobody ) {
    EventLoop loop;
    Inotify inotify( &loop );
    {
        Framework framework( tree_, inotify, &loop );
        auto agent = std::make_unique<TestAgent>( "Cspf" );
        framework.start( *agent );
        agent.reset();
        EXPECT_EQ( framework.agent(), nullptr );
        loop.runOnce( 0 );
        EXPECT_TRUE( framework.mountsComplete() );
    }
    {
        Framework framework( tree_, inotify, &loop );
        TestAgent agent( "Cspf" );
        framework.start( agent );
    }
    loop.runOnce( 0 );  // the framework is gone: nothing runs
}

using AgentBaseDeathTest = AgentBaseTest;

TEST_F( AgentBaseDeathTest, OneFrameworkAtATimeAndAgentsNeedOne ) {
    Inotify inotify( nullptr );
    EXPECT_DEATH( TestAgent( "Cspf" ), "framework_ != nullptr" );
    Framework framework( tree_, inotify, nullptr );
    EXPECT_DEATH( Framework( tree_, inotify, nullptr ), "currentFramework == nullptr" );
    TestAgent agent( "Cspf" );
    framework.start( agent );
    EXPECT_DEATH( framework.start( agent ), "!started_" );
}

}  // namespace

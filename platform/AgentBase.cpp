// The agent framework: the process's current framework, and the order in
// which it takes an agent through start-up (see AgentBase.h and
// docs/agent-runner.md).
#include "platform/AgentBase.h"

#include "platform/Assert.h"
#include "platform/Mivlog.h"

namespace AgentBase {

namespace {

// Agents attach to the framework current when they are built, so there is
// at most one per process; in the shared platform library, so that the
// runner and the agent library it loads see the same one.
Framework* currentFramework = nullptr;

}  // namespace

CAgent::CAgent( std::string name )
    : name_( std::move( name ) ), framework_( Framework::current() ) {
    CSPF_ASSERT( framework_ != nullptr );
    ++framework_->agents_;
}

CAgent::~CAgent() {
    CSPF_ASSERT( framework_->agents_ > 0 );
    --framework_->agents_;
    if ( framework_->agent_ == this ) {
        // A completion still queued on the loop must not reach a dead agent.
        framework_->agent_ = nullptr;
    }
}

Platform::MountGroup& CAgent::mountGroup() {
    return framework_->mountGroup();
}

Platform::EventLoop* CAgent::eventLoop() const {
    return framework_->eventLoop();
}

Platform::StateTree& CAgent::stateTree() const {
    return framework_->stateTree();
}

Platform::EntityManager& CAgent::entityManager() const {
    return framework_->entityManager();
}

const std::string& CAgent::agentRoot() const {
    return framework_->agentRoot();
}

Framework::Framework( Platform::StateTree& tree, Platform::Inotify& inotify,
                      Platform::EventLoop* loop, std::string agentRoot )
    : tree_( tree ),
      inotify_( inotify ),
      loop_( loop ),
      agentRoot_( std::move( agentRoot ) ),
      manager_( tree, inotify, loop ),
      mountGroup_( manager_ ),
      self_( std::make_shared<Framework*>( this ) ) {
    CSPF_ASSERT( currentFramework == nullptr );
    currentFramework = this;
}

Framework::~Framework() {
    CSPF_ASSERT( agents_ == 0 );
    CSPF_ASSERT( currentFramework == this );
    currentFramework = nullptr;
    *self_ = nullptr;
}

Framework* Framework::current() {
    return currentFramework;
}

void Framework::start( CAgent& agent ) {
    CSPF_ASSERT( &agent.framework() == this );
    CSPF_ASSERT( !started_ );
    started_ = true;
    agent_ = &agent;
    TRACE1( "agent " << agent.name() << ": init" );
    agent.doInit();
    TRACE1( "agent " << agent.name() << ": mounting" );
    mountGroup_.doMounts( [self = self_]( const Platform::MountStatus& status ) {
        Framework* framework = *self;
        if ( framework == nullptr ) {
            return;
        }
        framework->mountsComplete_ = true;
        CAgent* agent = framework->agent_;
        if ( agent == nullptr ) {
            TRACE0( "mounts complete after the agent was destroyed" );
            return;
        }
        if ( status.ok ) {
            TRACE1( "agent " << agent->name() << ": mounts complete, "
                             << status.skipped.size() << " skipped" );
        } else {
            TRACE0( "agent " << agent->name() << ": mount " << status.failedPath
                             << " failed: " << status.reason );
        }
        // Not a structured binding: clang 14 cannot capture one in the
        // trace's lambda.
        for ( const auto& skipped : status.skipped ) {
            TRACE0( "agent " << agent->name() << ": mount " << skipped.first
                             << " skipped: " << skipped.second );
        }
        agent->doMountsComplete( status, framework->manager_ );
    } );
}

}  // namespace AgentBase

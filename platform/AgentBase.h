// The agent framework: what loads an agent and runs it through its life.
//
// An agent library exports `agentFactory( name )` (C linkage), which builds a
// CAgent. The framework that is current at that moment (one per process, made
// before the factory runs) gives the agent its state tree, its inotify
// instance, its entity manager and its event loop; the agent's constructor may
// already use them (the agent's task scheduler takes the loop).
//
// Life of an agent under a framework:
//   1. agentFactory( name )                the agent is built
//   2. start( agent ): agent.doInit()      declares its mounts in mountGroup()
//   3. the mount group runs; then agent.doMountsComplete( status, manager )
//   4. the event loop runs until stop()    (cspfd: SIGTERM, SIGINT)
//   5. the agent is destroyed, then the framework
//
// Without an event loop (tests on the manual clock), step 3 happens inside
// start() and the test pumps the inotify instance itself.
#pragma once

#include <memory>
#include <string>

#include "platform/MountGroup.h"

namespace Platform {
class EventLoop;
class Inotify;
class StateTree;
}  // namespace Platform

namespace AgentBase {

class Framework;

class CAgent {
  public:
    // Takes the current framework (fatal assertion when there is none).
    explicit CAgent( std::string name );
    virtual ~CAgent();
    CAgent( const CAgent& ) = delete;
    CAgent& operator=( const CAgent& ) = delete;

    const std::string& name() const { return name_; }
    Framework& framework() const { return *framework_; }

    // Declares the agent's mounts in mountGroup(); sets up tracing.
    virtual void doInit() = 0;
    // The mount group is done; `status` says how.
    virtual void doMountsComplete( const Platform::MountStatus& status,
                                   Platform::EntityManager& entityManager ) = 0;

    Platform::MountGroup& mountGroup();
    // Null when the framework runs without a loop (tests).
    Platform::EventLoop* eventLoop() const;
    Platform::StateTree& stateTree() const;
    Platform::EntityManager& entityManager() const;
    // The state path under which the agent's own directories live ("agent/..."
    // below it); the empty path is the tree's root.
    const std::string& agentRoot() const;

  private:
    std::string name_;
    Framework* framework_;
};

// The signature of an agent library's `agentFactory`.
using AgentFactory = CAgent* (*)( const char* name );
// The signature of an agent library's `dumpStateCallback`.
using DumpStateCallback = void ( * )();

class Framework {
  public:
    // Becomes the process's current framework (fatal assertion when one is
    // current already). `loop` may be null.
    Framework( Platform::StateTree& tree, Platform::Inotify& inotify,
               Platform::EventLoop* loop, std::string agentRoot = "" );
    ~Framework();
    Framework( const Framework& ) = delete;
    Framework& operator=( const Framework& ) = delete;

    // The framework that agents built now attach to; null when none.
    static Framework* current();

    Platform::StateTree& stateTree() const { return tree_; }
    Platform::Inotify& inotify() const { return inotify_; }
    Platform::EventLoop* eventLoop() const { return loop_; }
    Platform::EntityManager& entityManager() { return manager_; }
    Platform::MountGroup& mountGroup() { return mountGroup_; }
    const std::string& agentRoot() const { return agentRoot_; }

    // The activity manager's way of waiting: the agent asks for epoll at
    // start-up; it is the only way this framework waits.
    void epollWaitIs( bool on ) { epollWait_ = on; }
    bool epollWait() const { return epollWait_; }

    // doInit, then the mounts, then doMountsComplete (at the end of the
    // loop's round, or at once without a loop).
    // One agent per framework: a second start() is a fatal assertion.
    void start( CAgent& agent );
    bool mountsComplete() const { return mountsComplete_; }
    // The agent started, until it is destroyed; null before start().
    CAgent* agent() const { return agent_; }

  private:
    friend class CAgent;

    Platform::StateTree& tree_;
    Platform::Inotify& inotify_;
    Platform::EventLoop* loop_;
    std::string agentRoot_;
    Platform::EntityManager manager_;
    Platform::MountGroup mountGroup_;
    bool epollWait_ = false;
    bool mountsComplete_ = false;
    bool started_ = false;
    CAgent* agent_ = nullptr;
    // Agents built on this framework and not yet destroyed: the framework
    // must outlive them.
    size_t agents_ = 0;
    // Cleared by the destructor: a completion queued on a loop that outlives
    // the framework finds it gone.
    std::shared_ptr<Framework*> self_;
};

}  // namespace AgentBase

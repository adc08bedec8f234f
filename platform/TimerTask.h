// A timer task: a named callback that its TaskScheduler runs at a deadline.
//
// A task is armed with scheduleTaskDelay()/scheduleTaskAt() and runs once per
// arming; re-arming a scheduled task moves it. Destroying a task cancels it,
// also from inside its own callback or another task's. Tasks due at the same
// time run by priority (higher first), then in the order they were armed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Platform {

class DumpContext;
class TaskScheduler;
struct TaskRecord;

class TimerTask {
  public:
    TimerTask( TaskScheduler& scheduler, uint32_t priority, std::string name,
               std::function<void()> onRun );
    ~TimerTask();
    TimerTask( const TimerTask& ) = delete;
    TimerTask& operator=( const TimerTask& ) = delete;

    // Arms (or re-arms) the task for the scheduler's now + `seconds`; a
    // negative delay means now.
    void scheduleTaskDelay( double seconds );
    // Arms (or re-arms) the task for the absolute time `when` of the
    // scheduler's clock; a time in the past means now.
    void scheduleTaskAt( double when );
    void cancel();

    bool scheduled() const { return heapIndex_ != kNone || dueIndex_ != kNone; }
    // The pending deadline; meaningful only while scheduled().
    double deadline() const { return deadline_; }
    const std::string& name() const { return name_; }
    uint32_t priority() const { return priority_; }
    // Null once the scheduler is gone; the task is then inert.
    TaskScheduler* scheduler() const { return scheduler_; }

    void dumpState( DumpContext& context, unsigned indent ) const;

  private:
    friend class TaskScheduler;
    static constexpr size_t kNone = static_cast<size_t>( -1 );

    TaskScheduler* scheduler_;
    uint32_t priority_;
    std::string name_;
    // On the heap so that a task deleting itself keeps its callback alive
    // until the callback returns.
    std::unique_ptr<std::function<void()>> onRun_;
    double deadline_ = 0.0;
    uint64_t seq_ = 0;          // arming order, breaks ties
    size_t heapIndex_ = kNone;  // position in the scheduler's queue
    size_t dueIndex_ = kNone;   // position in the round being run
    TaskRecord* record_ = nullptr;
};

}  // namespace Platform

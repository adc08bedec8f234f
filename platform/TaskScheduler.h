// The task scheduler: runs TimerTasks at their deadlines on the event loop,
// and keeps figures about every task.
//
// Drivers:
//  - a real clock and an EventLoop: one timerfd (CLOCK_MONOTONIC, absolute
//    time) armed to the earliest deadline;
//  - a ManualClock: the scheduler listens to the clock and runs due tasks as
//    the test advances it; no fd is used and the loop may be null.
//
// One round (runDue): read now once, take every task due at that time out of
// the queue in order (deadline, priority high first, arming order), then run
// them. A task cancelled, re-armed or destroyed by an earlier task of the
// round is skipped; a task re-armed during the round runs in a later round.
// Rounds do not nest: a task must not advance the manual clock.
//
// Figures per task (TaskStats) live here, not in the task, so that a deleted
// task's figures are folded into the totals when its own entry goes.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/TimerTask.h"

namespace Platform {

class DumpContext;
class EventLoop;
class FdWatch;

// One run of a task: start on the scheduler's clock, duration on the system
// clock, lateness (start minus deadline) on the scheduler's clock; seconds.
struct TaskRun {
    double start = 0.0;
    double duration = 0.0;
    double lateness = 0.0;
};

struct TaskStats {
    uint64_t runs = 0;
    double runTime = 0.0;     // total, seconds
    double maxRunTime = 0.0;  // longest run
    double lateness = 0.0;    // total
    double maxLateness = 0.0;
    double lastRunStart = 0.0;     // on the scheduler's clock; 0 when never run
    double lastRunTime = 0.0;      // duration of the last run
    std::vector<TaskRun> history;  // oldest first; empty in totals

    double avgRunTime() const { return runs ? runTime / static_cast<double>( runs ) : 0; }
    double avgLateness() const {
        return runs ? lateness / static_cast<double>( runs ) : 0;
    }
    // Adds `other`'s figures (not its history).
    void fold( const TaskStats& other );
};

// The scheduler's entry for one task. Internal to the scheduler.
struct TaskRecord {
    static constexpr size_t kHistory = 16;
    TimerTask* task = nullptr;  // null while a task deleted in its own run finishes
    size_t index = 0;           // in the scheduler's record list
    uint64_t serial = 0;        // creation order, breaks ties between equal names
    TaskStats figures;          // history kept in the ring below instead
    std::array<TaskRun, kHistory> ring{};
    size_t ringNext = 0;
    size_t ringCount = 0;
};

class TaskScheduler final : public ClockListener {
  public:
    // `loop` may be null on a manual clock. With a clock that is neither
    // manual nor given a loop, the owner calls runDue() itself. The clock and
    // the loop outlive the scheduler.
    TaskScheduler( EventLoop* loop, std::string activityName,
                   Clock& clock = Platform::clock() );
    ~TaskScheduler() override;
    TaskScheduler( const TaskScheduler& ) = delete;
    TaskScheduler& operator=( const TaskScheduler& ) = delete;

    const std::string& activityName() const { return activityName_; }
    Clock& clock() const { return clock_; }
    double now() const { return clock_.now(); }
    bool manualClock() const { return manual_ != nullptr; }

    size_t taskCount() const { return records_.size(); }
    size_t pendingCount() const;
    uint64_t rounds() const { return rounds_; }
    // The time the timerfd is armed for, or a negative number when it is not.
    double timerArmedFor() const { return armedFor_; }

    // ClockListener: the earliest deadline (negative when none), and one round.
    double nextDeadline() const override;
    void runDue() override;

    // Figures. History of the last runs is recorded unless switched off.
    TaskStats stats( const TimerTask& task ) const;
    TaskStats totals() const;  // live tasks and deleted ones
    uint64_t deletedTasks() const { return deletedTasks_; }
    bool historyEnabled() const { return historyEnabled_; }
    void historyEnabledIs( bool enabled ) { historyEnabled_ = enabled; }
    void resetStats();

    // The figures as text (format in docs/event-loop.md).
    void printStats( DumpContext& context, bool detail, bool taskDetail, bool debug,
                     bool history ) const;
    void dumpState( DumpContext& context, unsigned indent ) const;

  private:
    friend class TimerTask;

    void doTaskIs( TimerTask& task );
    void doTaskDel( TimerTask& task );
    void doSchedule( TimerTask& task, double deadline );
    void doUnschedule( TimerTask& task );
    void doRun( TimerTask& task );
    void doRecord( TaskRecord& record, const TaskRun& run );
    void doRecordDel( TaskRecord& record );
    void doArm();
    void handleTimer();
    std::vector<const TaskRecord*> doSortedRecords() const;
    TaskStats doStats( const TaskRecord& record ) const;

    // The queue: a binary min-heap of tasks by (deadline, priority, arming).
    static bool doBefore( const TimerTask* a, const TimerTask* b );
    void doHeapPush( TimerTask* task );
    TimerTask* doHeapPop();
    void doHeapErase( TimerTask* task );
    void doSiftUp( size_t i );
    void doSiftDown( size_t i );
    void doHeapPlace( size_t i, TimerTask* task ) {
        heap_[i] = task;
        task->heapIndex_ = i;
    }

    EventLoop* loop_;
    std::string activityName_;
    Clock& clock_;
    ManualClock* manual_ = nullptr;
    bool systemClock_ = false;  // the scheduler's clock is the system clock
    SystemClock system_;        // measures run durations whatever clock_ is

    int timerFd_ = -1;
    std::unique_ptr<FdWatch> timerWatch_;
    double armedFor_ = -1.0;
    uint64_t wakeups_ = 0;

    std::vector<TimerTask*> heap_;
    std::vector<TimerTask*> round_;  // the tasks collected for this round
    bool inRound_ = false;
    uint64_t nextSeq_ = 0;
    uint64_t nextSerial_ = 0;
    uint64_t rounds_ = 0;
    uint64_t idleRounds_ = 0;

    TaskRecord* running_ = nullptr;
    std::unique_ptr<std::function<void()>> parkedRun_;

    std::vector<std::unique_ptr<TaskRecord>> records_;
    TaskStats deleted_;
    uint64_t deletedTasks_ = 0;
    bool historyEnabled_ = true;
};

}  // namespace Platform

// TaskScheduler: the queue of armed tasks, the rounds that run them, the
// timerfd that wakes the loop, and the figures per task.
//
// Map: construction and drivers; the queue (a binary heap with positions kept
// in the tasks, so cancel and re-arm are O(log n)); rounds; figures; text.
#include "platform/TaskScheduler.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/Assert.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/EventLoop.h"

namespace Platform {

namespace {

double ms( double seconds ) {
    return seconds * 1e3;
}

}  // namespace

void TaskStats::fold( const TaskStats& other ) {
    runs += other.runs;
    runTime += other.runTime;
    maxRunTime = std::max( maxRunTime, other.maxRunTime );
    lateness += other.lateness;
    maxLateness = std::max( maxLateness, other.maxLateness );
    if ( other.lastRunStart > lastRunStart ) {
        lastRunStart = other.lastRunStart;
        lastRunTime = other.lastRunTime;
    }
}

// --- Construction and drivers ----------------------------------------------

TaskScheduler::TaskScheduler( EventLoop* loop, std::string activityName, Clock& clock )
    : loop_( loop ), activityName_( std::move( activityName ) ), clock_( clock ) {
    manual_ = dynamic_cast<ManualClock*>( &clock_ );
    systemClock_ = dynamic_cast<SystemClock*>( &clock_ ) != nullptr;
    if ( manual_ ) {
        manual_->listenerIs( this );
        return;
    }
    if ( !loop_ ) {
        return;
    }
    timerFd_ = timerfd_create( CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC );
    if ( timerFd_ < 0 ) {
        throw Error( "timerfd_create for scheduler " + activityName_ + ": " +
                     std::strerror( errno ) );
    }
    try {
        timerWatch_ =
            loop_->watchFd( timerFd_, EPOLLIN, [this]( uint32_t ) { handleTimer(); } );
    } catch ( ... ) {
        ::close( timerFd_ );
        throw;
    }
}

TaskScheduler::~TaskScheduler() {
    // Deleting the scheduler from one of its own tasks would pull the round
    // out from under itself.
    CSPF_ASSERT( !inRound_ );
    for ( auto& record : records_ ) {
        TimerTask* task = record->task;
        task->scheduler_ = nullptr;
        task->record_ = nullptr;
        task->heapIndex_ = TimerTask::kNone;
        task->dueIndex_ = TimerTask::kNone;
    }
    if ( manual_ ) {
        manual_->listenerDel( this );
    }
    timerWatch_.reset();
    if ( timerFd_ >= 0 ) {
        ::close( timerFd_ );
    }
}

void TaskScheduler::handleTimer() {
    uint64_t expirations;
    // EAGAIN means the timer was re-armed after epoll saw it fire: it is
    // still armed for armedFor_.
    if ( ::read( timerFd_, &expirations, sizeof( expirations ) ) ==
         static_cast<ssize_t>( sizeof( expirations ) ) ) {
        armedFor_ = -1.0;
    }
    ++wakeups_;
    runDue();
}

// Arms the timerfd when the earliest deadline comes before the time it is
// armed for. A later or cancelled head leaves it armed: it then fires once
// for nothing and is re-armed, which costs less than a syscall per change.
void TaskScheduler::doArm() {
    if ( timerFd_ < 0 || heap_.empty() ) {
        return;
    }
    const double next = heap_[0]->deadline_;
    if ( armedFor_ >= 0.0 && armedFor_ <= next ) {
        return;
    }
    double at = systemClock_ ? next : system_.now() + ( next - clock_.now() );
    itimerspec its{};
    double whole = std::floor( std::max( at, 0.0 ) );
    its.it_value.tv_sec = static_cast<time_t>( whole );
    // Rounded up so that the wake-up never comes before the deadline.
    long nsec = static_cast<long>( std::ceil( ( at - whole ) * 1e9 ) );
    if ( nsec >= 1000000000L ) {
        its.it_value.tv_sec += 1;
        nsec = 0;
    }
    its.it_value.tv_nsec = nsec;
    if ( its.it_value.tv_sec == 0 && its.it_value.tv_nsec == 0 ) {
        its.it_value.tv_nsec = 1;  // zero would disarm
    }
    if ( timerfd_settime( timerFd_, TFD_TIMER_ABSTIME, &its, nullptr ) < 0 ) {
        throw Error( "timerfd_settime for scheduler " + activityName_ + ": " +
                     std::strerror( errno ) );
    }
    armedFor_ = next;
}

// --- Tasks and the queue ---------------------------------------------------

void TaskScheduler::doTaskIs( TimerTask& task ) {
    auto record = std::make_unique<TaskRecord>();
    record->task = &task;
    record->index = records_.size();
    record->serial = ++nextSerial_;
    task.record_ = record.get();
    records_.push_back( std::move( record ) );
}

void TaskScheduler::doTaskDel( TimerTask& task ) {
    doUnschedule( task );
    TaskRecord* record = task.record_;
    task.record_ = nullptr;
    task.scheduler_ = nullptr;
    if ( record == running_ ) {
        // Deleted from its own callback: the run ends first, then the figures
        // are folded; the callback stays alive until it returns.
        record->task = nullptr;
        parkedRun_ = std::move( task.onRun_ );
        return;
    }
    doRecordDel( *record );
}

void TaskScheduler::doSchedule( TimerTask& task, double deadline ) {
    if ( !std::isfinite( deadline ) ) {
        throw RangeError( "TimerTask " + task.name_ + ": deadline " +
                          std::to_string( deadline ) + " is not a finite time" );
    }
    deadline = std::max( deadline, 0.0 );
    if ( task.heapIndex_ != TimerTask::kNone ) {
        task.deadline_ = deadline;
        task.seq_ = nextSeq_++;
        doSiftUp( task.heapIndex_ );
        doSiftDown( task.heapIndex_ );
    } else {
        doUnschedule( task );  // out of the round being run, if it is there
        task.deadline_ = deadline;
        task.seq_ = nextSeq_++;
        doHeapPush( &task );
    }
    if ( !inRound_ ) {
        doArm();
    }
}

void TaskScheduler::doUnschedule( TimerTask& task ) {
    if ( task.heapIndex_ != TimerTask::kNone ) {
        doHeapErase( &task );
    } else if ( task.dueIndex_ != TimerTask::kNone ) {
        round_[task.dueIndex_] = nullptr;
        task.dueIndex_ = TimerTask::kNone;
    }
}

size_t TaskScheduler::pendingCount() const {
    size_t n = heap_.size();
    for ( const TimerTask* task : round_ ) {
        n += task != nullptr;
    }
    return n;
}

double TaskScheduler::nextDeadline() const {
    return heap_.empty() ? -1.0 : heap_[0]->deadline_;
}

bool TaskScheduler::doBefore( const TimerTask* a, const TimerTask* b ) {
    if ( a->deadline_ != b->deadline_ ) {
        return a->deadline_ < b->deadline_;
    }
    if ( a->priority_ != b->priority_ ) {
        return a->priority_ > b->priority_;
    }
    return a->seq_ < b->seq_;
}

void TaskScheduler::doHeapPush( TimerTask* task ) {
    heap_.push_back( task );
    task->heapIndex_ = heap_.size() - 1;
    doSiftUp( task->heapIndex_ );
}

TimerTask* TaskScheduler::doHeapPop() {
    TimerTask* top = heap_.front();
    TimerTask* last = heap_.back();
    heap_.pop_back();
    if ( !heap_.empty() ) {
        doHeapPlace( 0, last );
        doSiftDown( 0 );
    }
    top->heapIndex_ = TimerTask::kNone;
    return top;
}

void TaskScheduler::doHeapErase( TimerTask* task ) {
    size_t i = task->heapIndex_;
    CSPF_ASSERT( i < heap_.size() && heap_[i] == task );
    TimerTask* last = heap_.back();
    heap_.pop_back();
    task->heapIndex_ = TimerTask::kNone;
    if ( i < heap_.size() ) {
        doHeapPlace( i, last );
        doSiftUp( i );
        doSiftDown( last->heapIndex_ );
    }
}

void TaskScheduler::doSiftUp( size_t i ) {
    TimerTask* task = heap_[i];
    while ( i > 0 ) {
        size_t parent = ( i - 1 ) / 2;
        if ( !doBefore( task, heap_[parent] ) ) {
            break;
        }
        doHeapPlace( i, heap_[parent] );
        i = parent;
    }
    doHeapPlace( i, task );
}

void TaskScheduler::doSiftDown( size_t i ) {
    TimerTask* task = heap_[i];
    const size_t n = heap_.size();
    for ( ;; ) {
        size_t child = 2 * i + 1;
        if ( child >= n ) {
            break;
        }
        if ( child + 1 < n && doBefore( heap_[child + 1], heap_[child] ) ) {
            ++child;
        }
        if ( !doBefore( heap_[child], task ) ) {
            break;
        }
        doHeapPlace( i, heap_[child] );
        i = child;
    }
    doHeapPlace( i, task );
}

// --- Rounds ----------------------------------------------------------------

void TaskScheduler::runDue() {
    CSPF_ASSERT( !inRound_ );
    const double now = clock_.now();
    ++rounds_;
    inRound_ = true;
    round_.clear();
    // Everything due is collected before anything runs: a task armed during
    // the round, even for "now", waits for the next one.
    while ( !heap_.empty() && heap_[0]->deadline_ <= now ) {
        TimerTask* task = doHeapPop();
        task->dueIndex_ = round_.size();
        round_.push_back( task );
    }
    if ( round_.empty() ) {
        ++idleRounds_;
    }
    try {
        for ( size_t i = 0; i < round_.size(); ++i ) {
            TimerTask* task = round_[i];
            if ( !task ) {
                continue;  // cancelled, re-armed or deleted earlier this round
            }
            round_[i] = nullptr;
            task->dueIndex_ = TimerTask::kNone;
            doRun( *task );
        }
    } catch ( ... ) {
        // A throwing task must not lose the tasks collected after it.
        for ( TimerTask* task : round_ ) {
            if ( task ) {
                task->dueIndex_ = TimerTask::kNone;
                doHeapPush( task );
            }
        }
        round_.clear();
        inRound_ = false;
        doArm();
        throw;
    }
    round_.clear();
    inRound_ = false;
    doArm();
}

void TaskScheduler::doRun( TimerTask& task ) {
    TaskRecord* record = task.record_;
    TaskRun run;
    run.start = clock_.now();
    const double realStart = systemClock_ ? run.start : system_.now();
    run.lateness = std::max( 0.0, run.start - task.deadline_ );
    running_ = record;
    std::function<void()>* onRun = task.onRun_.get();
    auto finish = [&] {
        run.duration = std::max( 0.0, system_.now() - realStart );
        running_ = nullptr;
        parkedRun_.reset();
        doRecord( *record, run );
        if ( !record->task ) {
            doRecordDel( *record );
        }
    };
    try {
        ( *onRun )();
    } catch ( ... ) {
        finish();
        throw;
    }
    finish();
}

// --- Figures ---------------------------------------------------------------

void TaskScheduler::doRecord( TaskRecord& record, const TaskRun& run ) {
    TaskStats& f = record.figures;
    ++f.runs;
    f.runTime += run.duration;
    f.maxRunTime = std::max( f.maxRunTime, run.duration );
    f.lateness += run.lateness;
    f.maxLateness = std::max( f.maxLateness, run.lateness );
    f.lastRunStart = run.start;
    f.lastRunTime = run.duration;
    if ( historyEnabled_ ) {
        record.ring[record.ringNext] = run;
        record.ringNext = ( record.ringNext + 1 ) % TaskRecord::kHistory;
        record.ringCount = std::min( record.ringCount + 1, TaskRecord::kHistory );
    }
}

void TaskScheduler::doRecordDel( TaskRecord& record ) {
    deleted_.fold( record.figures );
    ++deletedTasks_;
    size_t i = record.index;
    CSPF_ASSERT( i < records_.size() && records_[i].get() == &record );
    if ( i + 1 != records_.size() ) {
        records_[i] = std::move( records_.back() );
        records_[i]->index = i;
    }
    records_.pop_back();  // frees `record`
}

TaskStats TaskScheduler::doStats( const TaskRecord& record ) const {
    TaskStats s = record.figures;
    s.history.reserve( record.ringCount );
    size_t first = ( record.ringNext + TaskRecord::kHistory - record.ringCount ) %
                   TaskRecord::kHistory;
    for ( size_t k = 0; k < record.ringCount; ++k ) {
        s.history.push_back( record.ring[( first + k ) % TaskRecord::kHistory] );
    }
    return s;
}

TaskStats TaskScheduler::stats( const TimerTask& task ) const {
    CSPF_ASSERT( task.scheduler_ == this && task.record_ != nullptr );
    return doStats( *task.record_ );
}

TaskStats TaskScheduler::totals() const {
    TaskStats t = deleted_;
    for ( const auto& record : records_ ) {
        t.fold( record->figures );
    }
    return t;
}

void TaskScheduler::resetStats() {
    for ( auto& record : records_ ) {
        record->figures = TaskStats();
        record->ringNext = 0;
        record->ringCount = 0;
    }
    deleted_ = TaskStats();
    deletedTasks_ = 0;
    rounds_ = 0;
    idleRounds_ = 0;
    wakeups_ = 0;
}

// --- Text ------------------------------------------------------------------

std::vector<const TaskRecord*> TaskScheduler::doSortedRecords() const {
    std::vector<const TaskRecord*> sorted;
    sorted.reserve( records_.size() );
    for ( const auto& record : records_ ) {
        if ( record->task ) {
            sorted.push_back( record.get() );
        }
    }
    std::sort( sorted.begin(), sorted.end(),
               []( const TaskRecord* a, const TaskRecord* b ) {
                   int c = a->task->name_.compare( b->task->name_ );
                   return c != 0 ? c < 0 : a->serial < b->serial;
               } );
    return sorted;
}

void TaskScheduler::printStats( DumpContext& context, bool detail, bool taskDetail,
                                bool debug, bool history ) const {
    const TaskStats t = totals();
    objDumpPrintf( context,
                   "Task scheduler %s: %zu tasks, %zu scheduled, %llu runs, run %.3f ms "
                   "total, max %.3f ms, late avg %.3f ms, max %.3f ms",
                   activityName_.c_str(), records_.size(), pendingCount(),
                   static_cast<unsigned long long>( t.runs ), ms( t.runTime ),
                   ms( t.maxRunTime ), ms( t.avgLateness() ), ms( t.maxLateness ) );
    if ( deletedTasks_ ) {
        objDumpPrintf( context, " (%llu deleted tasks included)",
                       static_cast<unsigned long long>( deletedTasks_ ) );
    }
    objDumpPrintf( context, "\n" );

    const std::vector<const TaskRecord*> sorted = doSortedRecords();
    const double now = clock_.now();
    if ( detail || taskDetail ) {
        int width = 4;
        for ( const TaskRecord* r : sorted ) {
            width = std::max( width, static_cast<int>( r->task->name_.size() ) );
        }
        objDumpPrintf( context, "  %-*s %8s %11s %9s %9s %12s %12s", width, "Task",
                       "Runs", "Total ms", "Avg ms", "Max ms", "Late avg ms",
                       "Late max ms" );
        if ( taskDetail ) {
            objDumpPrintf( context, " %4s %5s %12s %9s", "Prio", "Sched", "Next in ms",
                           "Last ms" );
        }
        objDumpPrintf( context, "\n" );
        for ( const TaskRecord* r : sorted ) {
            const TaskStats& f = r->figures;
            objDumpPrintf( context, "  %-*s %8llu %11.3f %9.3f %9.3f %12.3f %12.3f",
                           width, r->task->name_.c_str(),
                           static_cast<unsigned long long>( f.runs ), ms( f.runTime ),
                           ms( f.avgRunTime() ), ms( f.maxRunTime ),
                           ms( f.avgLateness() ), ms( f.maxLateness ) );
            if ( taskDetail ) {
                const TimerTask& task = *r->task;
                char next[32] = "-";
                if ( task.scheduled() ) {
                    snprintf( next, sizeof( next ), "%.3f", ms( task.deadline_ - now ) );
                }
                objDumpPrintf( context, " %4u %5s %12s %9.3f", task.priority_,
                               task.scheduled() ? "yes" : "no", next,
                               ms( f.lastRunTime ) );
            }
            objDumpPrintf( context, "\n" );
        }
    }

    if ( debug ) {
        if ( manual_ ) {
            objDumpPrintf( context, "  debug: manual clock, no timer fd\n" );
        } else if ( timerFd_ < 0 ) {
            objDumpPrintf( context, "  debug: no timer fd, rounds run by the owner\n" );
        } else if ( armedFor_ >= 0.0 ) {
            objDumpPrintf(
                context,
                "  debug: timer fd %d armed for %.6f (in %.3f ms), %llu wakeups\n",
                timerFd_, armedFor_, ms( armedFor_ - now ),
                static_cast<unsigned long long>( wakeups_ ) );
        } else {
            objDumpPrintf( context, "  debug: timer fd %d not armed, %llu wakeups\n",
                           timerFd_, static_cast<unsigned long long>( wakeups_ ) );
        }
        objDumpPrintf(
            context,
            "  debug: queue %zu, rounds %llu (%llu ran nothing), next seq %llu, "
            "history %s\n",
            heap_.size(), static_cast<unsigned long long>( rounds_ ),
            static_cast<unsigned long long>( idleRounds_ ),
            static_cast<unsigned long long>( nextSeq_ ), historyEnabled_ ? "on" : "off" );
    }

    if ( history ) {
        if ( !historyEnabled_ ) {
            objDumpPrintf( context, "  history: not recorded\n" );
        }
        for ( const TaskRecord* r : sorted ) {
            if ( r->ringCount == 0 ) {
                objDumpPrintf( context, "  history of %s: no runs\n",
                               r->task->name_.c_str() );
                continue;
            }
            objDumpPrintf( context, "  history of %s (last %zu runs, oldest first):\n",
                           r->task->name_.c_str(), r->ringCount );
            for ( const TaskRun& run : doStats( *r ).history ) {
                objDumpPrintf( context, "    start %.6f ran %.3f ms late %.3f ms\n",
                               run.start, ms( run.duration ), ms( run.lateness ) );
            }
        }
    }
}

void TaskScheduler::dumpState( DumpContext& context, unsigned indent ) const {
    const char* driver = manual_ ? "manual clock" : timerFd_ >= 0 ? "timer fd" : "owner";
    objDumpLine( context, indent,
                 "TaskScheduler %s: %zu tasks, %zu scheduled, driven by %s\n",
                 activityName_.c_str(), records_.size(), pendingCount(), driver );
    for ( const TaskRecord* r : doSortedRecords() ) {
        ObjDumpChild( r->task, context, indent + 2 );
    }
}

}  // namespace Platform

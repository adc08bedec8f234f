// TimerTask: the task side of the scheduler. The queue, the rounds and the
// figures live in TaskScheduler.cpp.
#include "platform/TimerTask.h"

#include <algorithm>
#include <cmath>

#include "platform/Assert.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/TaskScheduler.h"

namespace Platform {

TimerTask::TimerTask( TaskScheduler& scheduler, uint32_t priority, std::string name,
                      std::function<void()> onRun )
    : scheduler_( &scheduler ), priority_( priority ), name_( std::move( name ) ) {
    if ( !onRun ) {
        throw Error( "TimerTask " + name_ + " has no callback" );
    }
    onRun_ = std::make_unique<std::function<void()>>( std::move( onRun ) );
    scheduler_->doTaskIs( *this );
}

TimerTask::~TimerTask() {
    if ( scheduler_ ) {
        scheduler_->doTaskDel( *this );
    }
}

void TimerTask::scheduleTaskDelay( double seconds ) {
    CSPF_ASSERT( scheduler_ != nullptr );
    if ( std::isnan( seconds ) ) {
        throw RangeError( "TimerTask " + name_ + ": delay is not a number" );
    }
    scheduler_->doSchedule( *this, scheduler_->now() + std::max( seconds, 0.0 ) );
}

void TimerTask::scheduleTaskAt( double when ) {
    CSPF_ASSERT( scheduler_ != nullptr );
    scheduler_->doSchedule( *this, when );
}

void TimerTask::cancel() {
    if ( scheduler_ ) {
        scheduler_->doUnschedule( *this );
    }
}

void TimerTask::dumpState( DumpContext& context, unsigned indent ) const {
    if ( !scheduled() ) {
        objDumpLine( context, indent, "TimerTask %s prio %u: idle\n", name_.c_str(),
                     priority_ );
        return;
    }
    double in = scheduler_ ? deadline_ - scheduler_->now() : 0.0;
    objDumpLine( context, indent, "TimerTask %s prio %u: due at %.6f (in %.6f s)\n",
                 name_.c_str(), priority_, deadline_, in );
}

}  // namespace Platform

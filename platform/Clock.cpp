#include "platform/Clock.h"

#include <time.h>

#include <algorithm>

namespace Platform {

double SystemClock::now() const {
    timespec ts;
    clock_gettime( CLOCK_MONOTONIC, &ts );
    return static_cast<double>( ts.tv_sec ) + static_cast<double>( ts.tv_nsec ) * 1e-9;
}

void ManualClock::advance( double seconds ) {
    const double target = now_ + seconds;
    for ( ;; ) {
        // The earliest deadline over all listeners that falls within the step.
        double next = -1.0;
        for ( ClockListener* l : listeners_ ) {
            double d = l->nextDeadline();
            if ( d >= 0.0 && d <= target && ( next < 0.0 || d < next ) ) {
                next = d;
            }
        }
        if ( next < 0.0 ) {
            break;
        }
        now_ = std::max( now_, next );
        // Copy: a task may create or delete schedulers.
        std::vector<ClockListener*> listeners = listeners_;
        for ( ClockListener* l : listeners ) {
            if ( std::find( listeners_.begin(), listeners_.end(), l ) !=
                 listeners_.end() ) {
                l->runDue();
            }
        }
    }
    now_ = std::max( now_, target );
}

void ManualClock::listenerIs( ClockListener* listener ) {
    if ( std::find( listeners_.begin(), listeners_.end(), listener ) ==
         listeners_.end() ) {
        listeners_.push_back( listener );
    }
}

void ManualClock::listenerDel( ClockListener* listener ) {
    listeners_.erase( std::remove( listeners_.begin(), listeners_.end(), listener ),
                      listeners_.end() );
}

namespace {
SystemClock systemClock;
Clock* current = &systemClock;
}  // namespace

Clock& clock() {
    return *current;
}

void clockIs( Clock* c ) {
    current = c ? c : &systemClock;
}

}  // namespace Platform

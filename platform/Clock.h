// The platform clock: monotonic seconds as a double.
//
// The system clock reads CLOCK_MONOTONIC, which every process on the machine
// shares, so a time stamp written by one process (a result's lastUpdated)
// means the same to another. Tests install a ManualClock; advancing it runs
// the timer tasks that fall due, in deadline order.
#pragma once

#include <vector>

namespace Platform {

class Clock {
  public:
    virtual ~Clock() = default;
    virtual double now() const = 0;
};

class SystemClock final : public Clock {
  public:
    double now() const override;
};

// Something that keeps deadlines on a manual clock (a TaskScheduler).
class ClockListener {
  public:
    virtual ~ClockListener() = default;
    // The earliest pending deadline, or a negative number when none.
    virtual double nextDeadline() const = 0;
    // Runs everything due at the clock's present time.
    virtual void runDue() = 0;
};

class ManualClock final : public Clock {
  public:
    // Starts well away from 0, which stands for "not set" in time stamps.
    explicit ManualClock( double start = 1000.0 ) : now_( start ) {}
    double now() const override { return now_; }

    // Moves time forward by `seconds`, stopping at every deadline on the way
    // (earliest first) and running what is due there.
    void advance( double seconds );
    // Runs what is due now without moving time.
    void runDue() { advance( 0.0 ); }

    void listenerIs( ClockListener* listener );
    void listenerDel( ClockListener* listener );

  private:
    double now_;
    std::vector<ClockListener*> listeners_;
};

// The process-wide clock: the system clock unless a test installed another.
Clock& clock();
void clockIs( Clock* clock );  // nullptr restores the system clock
inline double now() {
    return clock().now();
}

// Installs a manual clock for the life of a scope (tests).
class ManualClockScope {
  public:
    explicit ManualClockScope( double start = 1000.0 ) : clock_( start ) {
        clockIs( &clock_ );
    }
    ~ManualClockScope() { clockIs( nullptr ); }
    ManualClockScope( const ManualClockScope& ) = delete;
    ManualClockScope& operator=( const ManualClockScope& ) = delete;
    ManualClock& operator*() { return clock_; }
    ManualClock* operator->() { return &clock_; }

  private:
    ManualClock clock_;
};

}  // namespace Platform

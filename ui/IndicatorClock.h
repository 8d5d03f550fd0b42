#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kv {

// The pauses of the activity indicator: the one-second rest and the pause
// after each animation frame. Tests give the indicator a clock of their own
// and so see every pause without sleeping.
//
// pause() is called by the indicator thread only; interrupt() by any thread.
class IndicatorClock {
public:
    virtual ~IndicatorClock() = default;

    // Sleeps for the duration. False when interrupted: the indicator is
    // stopping and should return.
    virtual bool pause(std::chrono::microseconds duration) = 0;

    // Ends the current pause and makes every later one return false at once.
    virtual void interrupt() = 0;
};

// The real clock: sleeps on a condition variable, so an interrupt wakes it at
// once instead of after the rest of the pause.
class SteadyIndicatorClock : public IndicatorClock {
public:
    bool pause(std::chrono::microseconds duration) override;
    void interrupt() override;

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool interrupted_ = false; // guarded by mutex_
};

} // namespace kv

#include "ui/IndicatorClock.h"

namespace kv {

bool SteadyIndicatorClock::pause(std::chrono::microseconds duration)
{
    std::unique_lock<std::mutex> lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + duration;
    // Waits out spurious wake-ups until the deadline or an interrupt.
    wake_.wait_until(lock, deadline, [this] { return interrupted_; });
    return !interrupted_;
}

void SteadyIndicatorClock::interrupt()
{
    std::lock_guard<std::mutex> lock(mutex_);
    interrupted_ = true;
    wake_.notify_all();
}

} // namespace kv

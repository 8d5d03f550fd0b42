#pragma once

#include <condition_variable>
#include <mutex>

namespace kv {

// A mutex with one condition variable attached: the "condition object" that
// the queue, the scanners and the activity indicator wait on.
//
// Usage follows the classic pattern: lock(), test the predicate in a loop and
// wait() while it does not hold, unlock(). signal() is sent with the mutex
// held, so a signal can never fall between a waiter's test and its wait.
class ConditionLock {
public:
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }
    bool try_lock() { return mutex_.try_lock(); }

    // Releases the mutex, sleeps until signalled, takes the mutex again.
    // The caller must hold the mutex. Spurious wake-ups can happen.
    void wait()
    {
        std::unique_lock<std::mutex> held(mutex_, std::adopt_lock);
        condition_.wait(held);
        held.release();
    }

    // Wakes one waiting thread, if there is one.
    void signal() { condition_.notify_one(); }
    // Wakes every waiting thread.
    void broadcast() { condition_.notify_all(); }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
};

} // namespace kv

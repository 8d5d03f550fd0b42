#pragma once

#include <condition_variable>
#include <mutex>

namespace kv {

// A mutex with one condition variable attached: the "condition object" that
// the queue, the scanners and the activity indicator wait on.
//
// Every operation takes the mutex itself, for its own length: a waiter tests
// its predicate under it, and a signal is sent under it, so a signal can
// never fall between a waiter's test and its wait. No caller ever holds the
// mutex by hand.
//
// The predicate runs with the mutex held; it may take locks of its own that
// rank below this one (the queue's list lock does), never this one again.
class ConditionLock {
public:
    // Returns once pred() holds, sleeping between tests.
    template <typename Predicate>
    void waitUntil(Predicate pred)
    {
        std::unique_lock<std::mutex> held(mutex_);
        condition_.wait(held, pred);
    }

    // Wakes one waiting thread, if there is one.
    void signal()
    {
        std::lock_guard<std::mutex> held(mutex_);
        condition_.notify_one();
    }

    // Wakes every waiting thread.
    void broadcast()
    {
        std::lock_guard<std::mutex> held(mutex_);
        condition_.notify_all();
    }

    // Makes a change that waiters test (a count, a flag) and wakes every
    // waiter, both under the mutex.
    template <typename Change>
    void changeAndBroadcast(Change change)
    {
        std::lock_guard<std::mutex> held(mutex_);
        change();
        condition_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
};

} // namespace kv

#pragma once

#include "platform/ConditionLock.h"

#include <atomic>
#include <cstdint>

namespace kv {

// What the agent is busy with: scan runs and definitions updates in
// progress, the count the activity indicator animates while it is above 0
// (the scanner count).
//
// Any thread changes it, through a Busy scope for the life of a run or an
// update, so that every path out of a run (an exception among them) gives
// its share back. The indicator thread waits on it. The count and the
// update count are written under throbberLock_ and read without it.
class ScanActivity {
public:
    enum class Kind { Scan, Update };

    // +1 for its life; an update also counts among the updates, which the
    // indicator animates apart.
    class Busy {
    public:
        Busy(ScanActivity& activity, Kind kind);
        ~Busy();
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;

    private:
        ScanActivity& activity_;
        const Kind kind_;
    };

    // Scans and updates in progress.
    std::int32_t scannerCount() const { return scannerCount_.load(); }
    bool updating() const { return updates_.load() > 0; }

    // Indicator thread: returns true once anything is busy, false once
    // stopRequested is set (and wakeWaiters() called after setting it).
    bool waitUntilBusy(const std::atomic<bool>& stopRequested);
    void wakeWaiters() { throbberLock_.broadcast(); }

private:
    void change(Kind kind, std::int32_t delta);

    ConditionLock throbberLock_;
    std::atomic<std::int32_t> scannerCount_{0};  // written under throbberLock_
    std::atomic<std::int32_t> updates_{0};       // written under throbberLock_
};

} // namespace kv

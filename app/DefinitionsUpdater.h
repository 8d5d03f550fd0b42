#pragma once

#include "app/DefinitionsUpdate.h"

#include <condition_variable>
#include <functional>
#include <mutex>

namespace kv {

class Notifications;
class Panels;
class ScanActivity;

// Runs definitions updates, each on a thread of its own, and tells the user
// how they went: a notification, or the update panel where notifications
// cannot be shown; the no-engine panel when there is no updater. An update
// counts as busy (ScanActivity) from its start to its end, so the indicator
// animates while it runs.
//
// start() runs on the main thread; the update threads call only the parts
// given at construction, which outlive the updater. The destructor waits for
// every update still running.
class DefinitionsUpdater {
public:
    DefinitionsUpdater(ScanActivity& activity, Notifications& notifications, Panels* panels)
        : activity_(activity), notifications_(notifications), panels_(panels) {}
    ~DefinitionsUpdater();
    DefinitionsUpdater(const DefinitionsUpdater&) = delete;
    DefinitionsUpdater& operator=(const DefinitionsUpdater&) = delete;

    // Starts the update and returns at once. notify: every outcome is told
    // (the menu command); otherwise only an error (an update at launch).
    void start(DefinitionsUpdate update, bool notify);

    // Any thread, after an update installed new definitions (files found
    // clean before are news to them). Set before the first start().
    void setUpdatedHandler(std::function<void()> handler) { updated_ = std::move(handler); }

private:
    void perform(const DefinitionsUpdate& update, bool notify);

    ScanActivity& activity_;
    Notifications& notifications_;
    Panels* panels_;
    std::function<void()> updated_;

    std::mutex mutex_;
    std::condition_variable ended_;  // with mutex_
    int running_ = 0;                // guarded by mutex_
};

} // namespace kv

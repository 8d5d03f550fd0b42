#pragma once

#include <string>

namespace kv {

// The status menu and activity indicator as the controller drives it.
// Called on the main thread.
class StatusMenu {
public:
    // Menu states, the argument of enableMenuItems().
    enum State { kDisabled = 0, kStopped = 1, kWatching = 2, kBusy = 3 };

    virtual ~StatusMenu() = default;
    virtual void enableMenuItems(int state) = 0;
    virtual void clearMenu() = 0;
    virtual void setNumItemsToWatch(int count) = 0;
    virtual void addToMenu(const std::string& title, const std::string& objectToWatch) = 0;
    virtual void setReady() = 0;
};

} // namespace kv

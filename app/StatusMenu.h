#pragma once

#include <mutex>
#include <string>

namespace kv {

class KorvaneVelgar;

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

    // The operations below have do-nothing defaults for a status menu
    // without an indicator (a test's recording menu).

    // Starts the indicator thread with the controller. Returns once the
    // menu's start-up steps are done, so that the first folder rebuild finds
    // them complete. The controller calls it first at launch.
    virtual void startIndicator(KorvaneVelgar& controller) {}
    // The quit item's current title. Any thread.
    virtual std::string getQuitMenuName() const { return {}; }
    // A definitions update begins and ends: the flag, then the scanner count
    // (+1 and -1). Any thread.
    virtual void startUpdate() {}
    virtual void stopUpdate() {}
    // The menu object's own lock. Callers hold it around startUpdate() and
    // stopUpdate(), so that the flag and count changes of one update's start
    // or end never interleave with another's. Recursive, so that code run
    // under it may take it again.
    std::recursive_mutex& updateLock() { return updateLock_; }
    // A scripted restart: restarts watching only while the restart item is
    // enabled.
    virtual void canRestartFromAS() {}

private:
    std::recursive_mutex updateLock_;
};

} // namespace kv

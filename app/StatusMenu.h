#pragma once

#include <string>

namespace kv {

class ScanActivity;

// The states of the status menu: which of its items are on.
enum class MenuState { Disabled = 0, Stopped = 1, Watching = 2, Busy = 3 };

// The status menu and activity indicator as the controller drives it.
// Called on the main thread.
class StatusMenu {
public:
    virtual ~StatusMenu() = default;
    virtual void enableMenuItems(MenuState state) = 0;
    virtual void clearMenu() = 0;
    virtual void setNumItemsToWatch(int count) = 0;
    virtual void addToMenu(const std::string& title, const std::string& objectToWatch) = 0;
    virtual void setReady() = 0;

    // The operations below have do-nothing defaults for a status menu
    // without an indicator (a test's recording menu).

    // Starts the indicator thread, which animates while the activity is
    // busy. Returns once the menu's start-up steps are done, so that the
    // first folder rebuild finds them complete. The controller calls it
    // first at launch.
    virtual void startIndicator(ScanActivity& activity) {}
    // The quit item's current title. Any thread.
    virtual std::string getQuitMenuName() const { return {}; }
    // A scripted restart: restarts watching only while the restart item is
    // enabled.
    virtual void canRestartFromAS() {}
};

} // namespace kv

#pragma once

#include "platform/BusName.h"

#include <functional>
#include <memory>
#include <string>

namespace kv {

class AgentBusObject;
class AgentScripting;
class DesktopNotifier;
class DistributedCenter;
class IndicatorClock;
class InfectionDialogs;
class KorvaneVelgar;
class MainInterface;
class Preferences;
class Throbber;
class Workspace;

// The agent as one piece: the platform layers, the desktop parts and the
// controller, made and wired together in one place. main() runs it; the
// desktop tests, the screenshot scene and the indicator benchmark make it
// with parts of their own in place of some real ones.
//
// Main thread; a QApplication must exist first.
class Agent {
public:
    // Parts a caller supplies; each one left empty is made here, the real
    // one. The caller keeps what it supplies alive for the agent's life.
    struct Parts {
        Preferences* preferences = nullptr;              // the agent's JSON preference domain
        DistributedCenter* distributedCenter = nullptr;  // distributed notifications over the session bus
        DesktopNotifier* notifier = nullptr;             // the desktop's notification service
        Workspace* workspace = nullptr;                  // launching, opening, beeping
        IndicatorClock* clock = nullptr;                 // the indicator's animation clock
        std::string resourcesFolder;                     // resourcesDirectory()
        std::string homeDirectory;                       // the user's home folder
        // Sleep and wake (logind on the system bus) and mounted volumes.
        bool systemEvents = true;
        // Whether the standard streams go to the scan log.
        bool redirectToScanLog = true;
        // Ends the process (default: flushes and _exit).
        std::function<void(int status)> exitProcess;
    };

    explicit Agent(Parts parts);
    // Ends the indicator thread, which uses the controller, first.
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // Claims the agent's bus name (one agent a session) and exports its
    // object for scripts. Taken: another agent runs, and this one should end.
    BusNameResult publishOnSessionBus();

    // Runs the launch sequence from the event loop, once it runs.
    void launchSoon();

    KorvaneVelgar& controller() { return *controller_; }
    Throbber& menu() { return *menu_; }
    InfectionDialogs& dialogs() { return *dialogs_; }
    MainInterface& mainInterface() { return *mainInterface_; }
    Preferences& preferences() { return *preferences_; }

private:
    struct Owned;
    std::unique_ptr<Owned> owned_;  // the real parts made here
    Preferences* preferences_;
    std::unique_ptr<MainInterface> mainInterface_;
    std::unique_ptr<Throbber> menu_;
    std::unique_ptr<InfectionDialogs> dialogs_;
    std::unique_ptr<KorvaneVelgar> controller_;
    std::unique_ptr<AgentScripting> scripting_;
    std::unique_ptr<AgentBusObject> busObject_;
};

} // namespace kv

#pragma once

#include "app/DefinitionsUpdater.h"
#include "app/LoadedConfiguration.h"
#include "app/MainApplicationLink.h"
#include "app/Notifications.h"
#include "app/ScanLog.h"
#include "engine/ClamdSupervisor.h"
#include "intake/FSEventWatcher.h"
#include "intake/WatcherHost.h"
#include "platform/BusContract.h"
#include "platform/Panels.h"
#include "queue/Dispatcher.h"
#include "scan/ScanActivity.h"
#include "scan/ScannerHost.h"
#include "scan/Scanners.h"

#include <QObject>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace kv {

class DistributedCenter;
class Preferences;
class ScanAlerts;
class SleepEvents;
class StatusMenu;
class StringTable;
class VolumeEvents;
class Workspace;

// Everything the controller is built on. The controller does not own these;
// the agent's composition (ui/Agent) or a test does, for the life of the
// controller.
struct ControllerParts {
    Preferences* velgarPrefs = nullptr;             // the shared preferences
    DistributedCenter* distributedCenter = nullptr; // restart, quit and has-quit
    DesktopNotifier* notifier = nullptr;            // desktop notifications
    Panels* panels = nullptr;                       // null without a desktop
    StatusMenu* mainMenu = nullptr;                 // null without a status menu
    Workspace* workspace = nullptr;                 // launching, opening, beeping; null without a desktop
    SleepEvents* sleepEvents = nullptr;             // sleep and wake; null: no sleep handling
    VolumeEvents* volumeEvents = nullptr;           // mounted volumes; null: mounts go unnoticed
    const StringTable* strings = nullptr;
    ScanAlerts* scanAlerts = nullptr;               // the scanners' dialogs; null without a desktop
    // The queue's pause between its two measurement passes; one second
    // when empty (tests pass a shorter one).
    Dispatcher::Pause dispatcherPause;
    std::string homeDirectory;
    // Ends the process; tests replace it to observe the exit status.
    std::function<void(int status)> exitProcess;
    // Whether stdout and stderr are redirected to the scan log (tests that
    // read the log through its file turn this on; others keep their output).
    bool redirectToScanLog = true;
};

// The agent's controller: owns the workers and what they share, runs the
// sequences of the agent's life (launch; start, stop and restart of
// watching; sleep and wake; a new volume; quit) and wires the parts
// together. Each start of watching loads one LoadedConfiguration, which the
// workers are handed and a stop drops. The workers reach the controller
// through the interfaces their layers declare (ScannerHost, WatcherHost).
//
// Lives on the main thread; every operation runs there unless its comment
// says otherwise.
class KorvaneVelgar : public QObject, public ScannerHost, public WatcherHost {
    Q_OBJECT
public:
    static constexpr const char* kBundleIdentifier = bus::kAgentName;

    // init: creates the workers and redirects the standard streams to the
    // scan log.
    explicit KorvaneVelgar(ControllerParts parts);
    // Stops and joins the workers (the agent itself never gets here: it
    // ends through quit()).
    ~KorvaneVelgar() override;

    // The launch sequence: the indicator, the notification texts, the
    // workers, the first start of watching (with a definitions update when
    // the preferences ask for one), the foreground icon, the observers.
    void applicationDidFinishLaunching();

    void startWatcher(bool update = false) override;
    void stopWatcher() override;
    void restartWatcher();
    // Empties the queue and kills the agent's own running clamdscan clients.
    void abortScans();
    // The shutdown sequence; ends the process with status 0.
    void quit() override;
    // A definitions update on a thread of its own; with no argument it is
    // the menu command, which tells every outcome.
    void updateVirusDefs(bool notify = true);
    // Launches the main application, then quits (the no-engine panel).
    void openAppFromError();

    // What the desktop reads: whether watching, the busy count the
    // indicator animates, the update log of the last load, the links to
    // the main application.
    bool isWatching() const { return gfsLogger_.isWatching(); }
    ScanActivity& scanActivity() { return activity_; }
    std::optional<std::string> updateLogPath() const;
    MainApplicationLink& mainApplication() { return mainApplication_; }

    // ScannerHost and WatcherHost; any thread.
    ClamdSupervisor& clamd() override { return clamd_; }
    bool clamdStillAlive() override;
    bool recoverFromCrashedClamd(uint64_t generation) override;
    void engineAnswered() override { engineUnreachableTold_.store(false); }
    void engineUnreachable(const std::string& scannerName) override;
    void noEnginePanic() override;
    bool displayGrowlDialog(NotificationKind kind, const std::string& description) override;
    ScanAlerts* scanAlerts() const override { return parts_.scanAlerts; }
    std::string localizedString(const std::string& key) const override;
    void postToMainThread(std::function<void()> task) override;
    void holdChannelOpened(UniqueFd channel) override { scanners_.serveHeldOpens(std::move(channel)); }

    // Whether opens wait for their verdict, and how many waited and were
    // refused since watching began: "off", or "on HELD BLOCKED".
    std::string preventionStatus() const;

private:
    void populateMenu(const Settings& settings);
    void rotateLogFile();
    void displayDialog(Panel panel);
    void goingToSleep();
    void wakingUp();
    // A volume was mounted at devicePath while watching.
    void newVolumeAppeared(const std::string& devicePath);

    ControllerParts parts_;
    StatusMenu* mainMenu_;
    Notifications notifications_;
    MainApplicationLink mainApplication_;
    ClamdSupervisor clamd_;
    ScanLog scanLog_;
    ScanActivity activity_;
    Dispatcher theDispatcher_;
    Scanners scanners_;
    FSEventWatcher gfsLogger_;  // after the queue it feeds, so it stops first
    DefinitionsUpdater updater_;
    std::thread queueThread_;

    std::atomic<bool> engineUnreachableTold_{false};  // since the engine last answered
    bool needsExit1FreshclamFlag_ = false;  // main thread; stays set once a load sets it
    bool startAfterSleep = false;           // main thread

    // The configuration of the current start; null while not watching.
    // Main thread only: the workers get their parts of it.
    std::shared_ptr<const LoadedConfiguration> loaded_;
};

} // namespace kv

#pragma once

#include "app/MainApplicationLink.h"
#include "app/Notifications.h"
#include "app/ScanLog.h"
#include "engine/ClamdSupervisor.h"
#include "intake/FSEventWatcher.h"
#include "intake/WatcherHost.h"
#include "platform/BusContract.h"
#include "platform/ConditionLock.h"
#include "platform/DesktopNotifier.h"
#include "platform/Panels.h"
#include "platform/Settings.h"
#include "queue/Dispatcher.h"
#include "scan/PatientScanner.h"
#include "scan/ScanClients.h"
#include "scan/ScannerHost.h"

#include <QObject>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kv {

class DefinitionsUpdate;
class DesktopNotifier;
class DialogListEntry;
class DistributedCenter;
class Preferences;
class ScanAlerts;
class SleepEvents;
class StatusMenu;
class StringTable;
class VolumeEvents;
class Workspace;

// Everything the controller is built on. The controller does not own these;
// main() (or a test) does, for the life of the controller.
struct ControllerParts {
    Preferences* velgarPrefs = nullptr;            // the shared preferences
    DistributedCenter* distributedCenter = nullptr; // restart, quit and has-quit
    DesktopNotifier* notifier = nullptr;           // desktop notifications
    Panels* panels = nullptr;                      // null without a desktop
    StatusMenu* mainMenu = nullptr;                // null until a status menu exists
    Workspace* workspace = nullptr;                // launching, opening, beeping; null without a desktop
    SleepEvents* sleepEvents = nullptr;            // sleep and wake; null: no sleep handling
    VolumeEvents* volumeEvents = nullptr;          // mounted volumes; null: mounts go unnoticed
    const StringTable* strings = nullptr;
    ScanAlerts* scanAlerts = nullptr;              // the scanners' dialogs; null without a desktop
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

// The agent's controller: owns the workers and the shared locks, keeps the
// settings of the last preferences load, runs the sequences of the agent's
// life (launch; start, stop and restart of watching; sleep and wake; a new
// volume; quit) and ends the process. The workers reach it through the
// interfaces their layers declare (ScannerHost, WatcherHost).
//
// Lives on the main thread; every operation below runs there unless its
// comment says otherwise.
class KorvaneVelgar : public QObject, public ScannerHost, public WatcherHost {
    Q_OBJECT
public:
    static constexpr const char* kBundleIdentifier = bus::kAgentName;
    static constexpr const char* kMainAppBundleIdentifier = MainApplicationLink::kBundleIdentifier;
    static constexpr const char* kMainAppPrefix = "/usr/local/korvane";
    static constexpr const char* kMainAppFreshclam = "/usr/local/korvane/bin/RunFreshclam";

    using enum NotificationKind;

    // init: creates the workers and shared objects and redirects the
    // standard streams to the scan log.
    explicit KorvaneVelgar(ControllerParts parts);
    // Stops and joins the permanent threads (the agent itself never gets
    // here: it ends through quit()).
    ~KorvaneVelgar() override;

    // The launch sequence: permanent threads, texts, first start of
    // watching with the update flag, foreground icon, distributed observers.
    void applicationDidFinishLaunching();
    // Fetches the localised notification texts and decides whether desktop
    // notifications can be used. Part of the launch sequence.
    void prepareNotifications();

    void startWatcher(bool update = false) override;
    void stopWatcher() override;
    void restartWatcher();
    // Empties the queue and kills the agent's own running clamdscan clients.
    void abortScans();
    // The shutdown sequence; ends the process with status 0.
    void quit() override;

    // Any thread. Takes throbberLock, then scannerCountLock.
    void modifyScannerCountBy(int32_t delta) override;

    // Loads the settings and makes sure an engine answers (launching the
    // user's own clamd when it must). False when there is nothing to scan with.
    bool readPrefs();
    // Builds the scan argument list handed to both scanners: clamdscan, the
    // move option of the handling mode, "--multiscan", "--stdout".
    void setScanParameters();
    const ScanParameters& scanAndUpdateParametersWithThrobber() const { return scanParameters_; }
    void logAllToScanLog();
    void rotateLogFile();

    // Rebuilds watchedFolderList, checkSubDirs and the menu's folder entries
    // from the settings' watched folders ("VelgarFolderArray").
    void populateMenu(const Settings& settings);
    // Lists the path when something exists there (a folder with exactly one
    // trailing "/"), records its subdirectory flag, and counts one more
    // record towards the menu's readiness in every case.
    void addToWatchList(const std::string& path, bool subdirs);

    // Engine link.
    bool checkForClamd();
    bool launchClamd(const std::string& clamdPath, const std::optional<std::string>& configPath);
    // Any thread. An answer counts as the engine answering again.
    bool clamdStillAlive() override;
    bool clamdSocketTrusted(const std::optional<std::string>& socket) override;
    // Also notifies the user once when the stand-in takes over from the
    // system's service (see ClamdSupervisor::recoverFromCrashedClamd()).
    // A daemon that answers after the recovery counts as the engine
    // answering again.
    bool recoverFromCrashedClamd(uint64_t generation) override;
    // Any thread. The scanners' unreachable-engine alert is told once per
    // silence: the controller keeps that, since it sends the alert's
    // notification and sees every sign that the engine answers (a PING, a
    // relaunch, a run that reached it), where the dialogs see none of them.
    bool engineUnreachableAlertDue() override { return !engineUnreachableTold_.exchange(true); }
    void engineAnswered() override { engineUnreachableTold_.store(false); }
    void discernClamdSocketLocation();
    void noEnginePanic() override;

    // Notifications and panels. Any thread.
    bool displayGrowlDialog(int kind, const std::string& description) override;
    void displayDialog(Panel panel);

    // Definitions updates. updateVirusDefs() starts one on a thread of its
    // own and returns at once; with no argument it is the menu command,
    // which notifies of every outcome (a launch-time update notifies only of
    // an error). Takes the status menu's update lock around startUpdate().
    void updateVirusDefs(bool notify = true);
    // The update thread's body: runs the updater, tells the user and ends
    // with stopUpdate() on every path. Any thread.
    void performDefsUpdate(bool notify, const DefinitionsUpdate& update);

    // System events and the scripted restart. Main thread.
    void goingToSleep();
    void wakingUp();
    // A volume was mounted at devicePath while watching.
    void newVolumeAppeared(const std::string& devicePath);
    // True for the one key a script may read, "restartWatchingViaAS".
    bool applicationDelegateHandlesKey(const std::string& key) const;
    // Asks the status menu for a restart (done only while its restart item
    // is enabled) and answers "Restart Requested" either way.
    std::string restartWatchingViaAS();

    // Links to the main application, from menu items and panel buttons
    // (see MainApplicationLink).
    void openApp() { mainApplication_.openApp(); }
    // Launches the main application, then quits.
    void openAppFromError();
    void openPrefs(bool fromOpenPrefsButton) { mainApplication_.openPrefs(fromOpenPrefsButton); }
    // The main application at one of its pages; false when it cannot be launched.
    bool openPage(const std::string& page) { return mainApplication_.openPage(page); }

    // The open warning dialogs, in the order they opened. Main thread only:
    // the dialogs are created there.
    void addToDialogList(DialogListEntry* entry);
    void removeFromDialogList(DialogListEntry* entry);
    // Closes every listed dialog as ignored, in list order, and empties the list.
    void removeAllFromDialogList();
    const std::vector<DialogListEntry*>& dialogList() const { return theDialogList; }

    // Accessors.
    const std::vector<std::string>& getWatchedFolderList() const { return watchedFolderList; }
    const std::map<std::string, bool>& getCheckSubDirs() const { return checkSubDirs; }
    std::optional<std::string> getTheTempDirToWatch() const { return theTempDirToWatch; }
    std::optional<std::string> getTheThrobberTempDir() const { return theThrobberTempDir; }
    // "--move=" and the quarantine folder in quarantine mode, else "".
    std::string getQuarantineLocation() const;
    std::optional<std::string> freshclamLogLocation() const { return freshclamLogLocation_; }
    ConditionLock& throbberLock() { return throbberLock_; }
    std::mutex& scannerCountLock() { return scannerCountLock_; }
    int32_t scannerCount() const { return scannerCount_.load(); }
    StatusMenu* mainMenu() const { return mainMenu_; }
    std::string quitMenuName() const override;
    bool needsExit1FreshclamFlag() const { return needsExit1FreshclamFlag_; }
    void setNeedsExit1FreshclamFlag(bool flag) { needsExit1FreshclamFlag_ = flag; }
    bool isWatching() const { return gfsLogger_.isWatching(); }
    FSEventWatcher& gfsLogger() { return gfsLogger_; }
    Dispatcher& theDispatcher() override { return theDispatcher_; }
    PatientScanner& firstPatientScanner() { return firstPatientScanner_; }
    PatientScanner& secondPatientScanner() { return secondPatientScanner_; }
    ScanAlerts* scanAlerts() const override { return parts_.scanAlerts; }
    Preferences& preferences() const { return *parts_.velgarPrefs; }
    std::optional<std::string> temporaryFolder() const override;
    void postToMainThread(std::function<void()> task) override;

    void registerScanClient(pid_t pid) override { scanClients_.add(pid); }
    void unregisterScanClient(pid_t pid) override { scanClients_.remove(pid); }

    // The settings of the last preferences load (null before the first and
    // after a stop), and what the controller derived from them.
    std::shared_ptr<const Settings> settings() const { return settings_; }
    std::optional<std::string> clamPATH() const { return settings_ ? settings_->clamPath : std::nullopt; }
    std::optional<std::string> clamScanPATH() const { return clamScanPATH_; }
    std::optional<std::string> freshclamPATH() const { return freshclamPATH_; }
    bool useMultiscan() const { return settings_ && settings_->multiscan; }
    bool updateDefsAtLaunch() const { return settings_ && settings_->updateDefsAtLaunch; }
    ClamdSupervisor& clamd() override { return clamd_; }
    const ScanLog& scanLog() const { return scanLog_; }
    std::string localizedString(const std::string& key) const override;

private:
    void prepareTemporaryFolders(const std::string& temporaryFolder);
    void createMoveDestinations();
    void startPermanentThreads();

    ControllerParts parts_;
    StatusMenu* mainMenu_;
    Notifications notifications_;
    MainApplicationLink mainApplication_;
    ClamdSupervisor clamd_;
    ScanLog scanLog_;

    std::mutex scannerCountLock_;       // guards writes of scannerCount_
    ConditionLock throbberLock_;        // taken before scannerCountLock_
    std::atomic<int32_t> scannerCount_{0};
    std::atomic<bool> engineUnreachableTold_{false};  // since the engine last answered

    Dispatcher theDispatcher_;
    FSEventWatcher gfsLogger_;  // after the queue it feeds, so it stops first
    PatientScanner firstPatientScanner_;
    PatientScanner secondPatientScanner_;
    std::vector<std::thread> permanentThreads_;
    ScanClients scanClients_;
    ScanParameters scanParameters_;

    // Rebuilt by populateMenu() on the main thread; the event watcher reads
    // its own snapshot of them, handed over at each start.
    std::vector<std::string> watchedFolderList;
    std::map<std::string, bool> checkSubDirs;
    std::vector<DialogListEntry*> theDialogList;  // main thread only; entries own themselves

    bool startAfterSleep = false;

    // Update threads still running; the destructor waits for them.
    std::mutex updatesMutex_;
    std::condition_variable updatesEnded_;  // with updatesMutex_
    int runningUpdates_ = 0;                // guarded by updatesMutex_

    // Per start, made by readPrefs(), given up by stopWatcher(); main
    // thread only. The workers get the settings with their parameters.
    std::shared_ptr<const Settings> settings_;
    std::optional<std::string> freshclamPATH_;
    std::optional<std::string> freshclamLogLocation_;
    std::optional<std::string> clamScanPATH_;
    std::optional<std::string> theTempDirToWatch;
    std::optional<std::string> theThrobberTempDir;
    bool needsExit1FreshclamFlag_ = false;  // stays set once a load sets it
    mutable std::mutex temporaryFolderMutex_;
    std::optional<std::string> temporaryFolder_;  // guarded by temporaryFolderMutex_
};

} // namespace kv

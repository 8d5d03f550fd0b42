#pragma once

#include "app/ScanLog.h"
#include "engine/ClamdSupervisor.h"
#include "intake/FSEventWatcher.h"
#include "platform/ConditionLock.h"
#include "platform/Panels.h"
#include "queue/Dispatcher.h"
#include "scan/PatientScanner.h"

#include <QObject>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
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

// The agent's controller: owns the workers, the shared locks and the
// configuration derived from the preferences, runs the start and stop
// sequences of watching, answers restart and quit requests and ends the
// process.
//
// Lives on the main thread; every operation below runs there unless its
// comment says otherwise.
class KorvaneVelgar : public QObject {
    Q_OBJECT
public:
    // Notification kinds of displayGrowlDialog().
    enum NotificationKind { kFound = 1, kQuarantined = 2, kRemoved = 3, kUpdated = 4, kUpToDate = 5, kError = 6 };
    static constexpr int32_t kMinimumNotificationSystem = 0x1040;
    static constexpr const char* kBundleIdentifier = "com.korvane.KorvaneVelgar";
    static constexpr const char* kMainAppBundleIdentifier = "com.korvane.Korvane";
    static constexpr const char* kMainAppPrefix = "/usr/local/korvane";
    static constexpr const char* kMainAppFreshclam = "/usr/local/korvane/bin/RunFreshclam";

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

    void startWatcher(bool update = false);
    void stopWatcher();
    void restartWatcher();
    // Empties the queue and kills the agent's own running clamdscan clients.
    void abortScans();
    // The shutdown sequence; ends the process with status 0.
    void quit();

    // Any thread. Takes throbberLock, then scannerCountLock.
    void modifyScannerCountBy(int32_t delta);

    bool readPrefs();
    // Builds the scan argument list handed to both scanners: clamdscan, the
    // move option of the handling mode, "--multiscan", "--stdout".
    void setScanParameters();
    const ScanParameters& scanAndUpdateParametersWithThrobber() const { return scanParameters_; }
    // "--move=" followed by the Trash's files folder.
    const std::string& trashLocation() const { return trashLocation_; }
    void logAllToScanLog();
    void rotateLogFile();

    // Rebuilds watchedFolderList, checkSubDirs and the menu's folder entries
    // from the preference "VelgarFolderArray".
    void populateMenu();
    // Lists the path when something exists there (a folder with exactly one
    // trailing "/"), records its subdirectory flag, and counts one more
    // record towards the menu's readiness in every case.
    void addToWatchList(const std::string& path, bool subdirs);

    // Engine link.
    bool checkForClamd();
    bool launchClamd(const std::string& clamdPath, const std::optional<std::string>& configPath);
    bool clamdStillAlive();          // any thread
    // False, after a log line, when a scan run's socket is served by another
    // user (see ClamdCtrl); true without a socket (a daemon over TCP). Any
    // thread.
    bool clamdSocketTrusted(const std::optional<std::string>& socket);
    // After a run that began with GENERATION lost its daemon (see
    // ClamdSupervisor::recoverFromCrashedClamd()); notifies the user once
    // when the stand-in takes over from the system's service. True when the
    // user's own daemon was launched again. Any thread.
    bool recoverFromCrashedClamd(uint64_t generation);
    void discernClamdSocketLocation();
    void noEnginePanic();            // any thread

    // Notifications and panels. Any thread.
    bool displayGrowlDialog(int kind, const std::string& description);
    void displayDialog(Panel panel);
    // "AllNotifications" and "DefaultNotifications": the six notification
    // names, each list in the same order.
    std::map<std::string, std::vector<std::string>> registrationDictionaryForGrowl() const;

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

    // Links to the main application, from menu items and panel buttons.
    static constexpr int kOpenPrefsWaitSeconds = 30;
    void openApp();
    // Launches the main application, then quits.
    void openAppFromError();
    // Launches the main application and, once it owns its bus name (at most
    // kOpenPrefsWaitSeconds later, waiting in the event loop), posts
    // "KorvaneShouldOpenPrefs". A launch that cannot start beeps and posts
    // nothing. Sent by the no-engine panel's button, it then quits.
    void openPrefs(bool fromOpenPrefsButton);

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
    std::string getQuarantineOrTrash() const;
    std::string getQuarantineLocation() const;
    std::optional<std::string> freshclamLogLocation() const { return freshclamLogLocation_; }
    ConditionLock& throbberLock() { return throbberLock_; }
    std::mutex& scannerCountLock() { return scannerCountLock_; }
    int32_t scannerCount() const { return scannerCount_.load(); }
    StatusMenu* mainMenu() const { return mainMenu_; }
    bool needsExit1FreshclamFlag() const { return needsExit1FreshclamFlag_; }
    void setNeedsExit1FreshclamFlag(bool flag) { needsExit1FreshclamFlag_ = flag; }
    bool isWatching() const { return gfsLogger_.isWatching(); }
    FSEventWatcher& gfsLogger() { return gfsLogger_; }
    Dispatcher& theDispatcher() { return theDispatcher_; }
    PatientScanner& firstPatientScanner() { return firstPatientScanner_; }
    PatientScanner& secondPatientScanner() { return secondPatientScanner_; }
    ScanAlerts* scanAlerts() const { return parts_.scanAlerts; }
    Preferences& preferences() const { return *parts_.velgarPrefs; }
    // The private temporary folder of the last preferences load. Any thread.
    std::optional<std::string> temporaryFolder() const;

    // The clamdscan clients running now, so an abort kills only ours. Any
    // thread; a client leaves before it is reaped.
    void registerScanClient(pid_t pid);
    void unregisterScanClient(pid_t pid);

    // The configuration of the last preferences load, for inspection.
    std::optional<std::string> clamPATH() const { return clamPATH_; }
    std::optional<std::string> clamScanPATH() const { return clamScanPATH_; }
    std::optional<std::string> freshclamPATH() const { return freshclamPATH_; }
    bool useMultiscan() const { return useMultiscan_; }
    bool quarantineInfected() const { return quarantineInfected_; }
    bool deleteInfected() const { return deleteInfected_; }
    bool updateDefsAtLaunch() const { return updateDefsAtLaunch_; }
    ClamdSupervisor& clamd() { return clamd_; }
    const ScanLog& scanLog() const { return scanLog_; }
    std::string localizedString(const std::string& key) const;

private:
    std::optional<std::string> stringPreference(const char* key) const;
    void prepareTemporaryFolders(const std::string& temporaryFolder);
    void createMoveDestinations();
    void startPermanentThreads();

    ControllerParts parts_;
    StatusMenu* mainMenu_;
    ClamdSupervisor clamd_;
    ScanLog scanLog_;

    std::mutex scannerCountLock_;       // guards writes of scannerCount_
    ConditionLock throbberLock_;        // taken before scannerCountLock_
    std::atomic<int32_t> scannerCount_{0};

    Dispatcher theDispatcher_;
    FSEventWatcher gfsLogger_;  // after the queue it feeds, so it stops first
    PatientScanner firstPatientScanner_;
    PatientScanner secondPatientScanner_;
    std::vector<std::thread> permanentThreads_;
    std::mutex scanClientsMutex_;
    std::set<pid_t> scanClients_;  // guarded by scanClientsMutex_
    ScanParameters scanParameters_;
    std::string trashLocation_;

    // Rebuilt by populateMenu() on the main thread; the event watcher reads
    // its own snapshot of them, handed over at each start.
    std::vector<std::string> watchedFolderList;
    std::map<std::string, bool> checkSubDirs;
    std::vector<DialogListEntry*> theDialogList;  // main thread only; entries own themselves

    // Localised notification texts, fetched at launch.
    std::string growlFound, growlRemoved, growlQuarantined, updateSuccessful, alreadyUpToDate, unknownError;
    int32_t MacOSVersion = 0;
    bool notificationsRegistered_ = false;
    bool startAfterSleep = false;

    // Update threads still running; the destructor waits for them.
    std::mutex updatesMutex_;
    std::condition_variable updatesEnded_;  // with updatesMutex_
    int runningUpdates_ = 0;                // guarded by updatesMutex_

    // Per-start configuration, made by readPrefs(), given up by stopWatcher().
    // Written on the main thread only; mode strings are read by scanner
    // threads under configMutex_.
    std::optional<std::string> clamPATH_;
    std::optional<std::string> freshclamPATH_;
    std::optional<std::string> freshclamLogLocation_;
    std::optional<std::string> clamScanPATH_;
    std::optional<std::string> theTempDirToWatch;
    std::optional<std::string> theThrobberTempDir;
    mutable std::mutex configMutex_;
    std::optional<std::string> temporaryFolder_;  // guarded by configMutex_
    std::string quarantineLocation;  // guarded by configMutex_
    std::string quarantineOrTrash;   // guarded by configMutex_
    bool quarantineInfected_ = false;
    bool deleteInfected_ = false;
    bool useMultiscan_ = false;
    bool needsExit1FreshclamFlag_ = false;
    bool updateDefsAtLaunch_ = false;
};

} // namespace kv

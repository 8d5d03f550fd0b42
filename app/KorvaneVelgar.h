#pragma once

#include "app/ScanLog.h"
#include "engine/ClamdSupervisor.h"
#include "platform/ConditionLock.h"
#include "platform/Panels.h"

#include <QObject>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kv {

class DesktopNotifier;
class DistributedCenter;
class Preferences;
class StatusMenu;
class StringTable;

// Everything the controller is built on. The controller does not own these;
// main() (or a test) does, for the life of the controller.
struct ControllerParts {
    Preferences* velgarPrefs = nullptr;            // the shared preferences
    DistributedCenter* distributedCenter = nullptr; // restart, quit and has-quit
    DesktopNotifier* notifier = nullptr;           // desktop notifications
    Panels* panels = nullptr;                      // null without a desktop
    StatusMenu* mainMenu = nullptr;                // null until a status menu exists
    const StringTable* strings = nullptr;
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
    ~KorvaneVelgar() override;

    // The launch sequence: permanent threads, texts, first start of
    // watching with the update flag, foreground icon, distributed observers.
    void applicationDidFinishLaunching();

    void startWatcher(bool update = false);
    void stopWatcher();
    void restartWatcher();
    void abortScans();
    // The shutdown sequence; ends the process with status 0.
    void quit();

    // Any thread. Takes throbberLock, then scannerCountLock.
    void modifyScannerCountBy(int32_t delta);

    bool readPrefs();
    void logAllToScanLog();
    void rotateLogFile();

    // Engine link.
    bool checkForClamd();
    bool launchClamd(const std::string& clamdPath, const std::optional<std::string>& configPath);
    bool clamdStillAlive();          // any thread
    void recoverFromCrashedClamd();  // any thread
    void discernClamdSocketLocation();
    void noEnginePanic();            // any thread

    // Notifications and panels. Any thread.
    bool displayGrowlDialog(int kind, const std::string& description);
    void displayDialog(Panel panel);

    // Accessors.
    const std::vector<std::string>& getWatchedFolderList() const { return watchedFolderList; }
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
    bool isWatching() const { return watching_.load(); }

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

    ControllerParts parts_;
    StatusMenu* mainMenu_;
    ClamdSupervisor clamd_;
    ScanLog scanLog_;

    std::mutex scannerCountLock_;       // guards writes of scannerCount_
    ConditionLock throbberLock_;        // taken before scannerCountLock_
    std::atomic<int32_t> scannerCount_{0};

    std::atomic<bool> watching_{false};
    std::vector<std::string> watchedFolderList;

    // Localised notification texts, fetched at launch.
    std::string growlFound, growlRemoved, growlQuarantined, updateSuccessful, alreadyUpToDate, unknownError;
    int32_t MacOSVersion = 0;
    bool notificationsRegistered_ = false;
    bool startAfterSleep = false;

    // Per-start configuration, made by readPrefs(), given up by stopWatcher().
    // Written on the main thread only; mode strings are read by scanner
    // threads under configMutex_.
    std::optional<std::string> clamPATH_;
    std::optional<std::string> freshclamPATH_;
    std::optional<std::string> freshclamLogLocation_;
    std::optional<std::string> clamScanPATH_;
    std::optional<std::string> theTempDirToWatch;
    std::optional<std::string> theThrobberTempDir;
    std::optional<std::string> temporaryFolder_;
    mutable std::mutex configMutex_;
    std::string quarantineLocation;  // guarded by configMutex_
    std::string quarantineOrTrash;   // guarded by configMutex_
    bool quarantineInfected_ = false;
    bool deleteInfected_ = false;
    bool useMultiscan_ = false;
    bool needsExit1FreshclamFlag_ = false;
    bool updateDefsAtLaunch_ = false;
};

} // namespace kv

#pragma once

#include "platform/ChildProcess.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class Dispatcher;
class KorvaneVelgar;
class StatusMenu;

// The scan argument list a start of watching builds: the status menu to
// report to, then the clamdscan path followed by the options every run
// starts with.
struct ScanParameters {
    StatusMenu* menu = nullptr;
    std::vector<std::string> arguments;
};

// One scanning worker. The controller creates two, names them and runs each
// one's mainLoop() on a thread of its own. A worker sleeps until the queue
// has ready paths, takes a batch of at most 200, drops the excluded ones,
// writes the rest to its list file and runs clamdscan over it, turning the
// output into scan-log lines and alerts while the program runs.
//
// setMenuAndParams() runs on the main thread, possibly while the worker is
// busy; everything else runs on the worker's thread. The configuration is
// guarded by configMutex_ and copied at the start of each cycle, so a cycle
// works with one consistent configuration.
class PatientScanner {
public:
    PatientScanner() = default;
    PatientScanner(const PatientScanner&) = delete;
    PatientScanner& operator=(const PatientScanner&) = delete;

    void setMyName(std::string name);
    std::string myName() const;

    // The controller the worker reports to; set before its thread starts.
    void setController(KorvaneVelgar* controller) { korvaneVelgarController = controller; }

    // Takes the argument list (without its menu), the handling mode, the
    // exclusion records and the dialog switch. Main thread.
    void setMenuAndParams(const ScanParameters& parameters);

    // The worker loop. Never returns in the agent; returns after
    // requestStop() for tests and orderly teardown.
    void mainLoop();
    void requestStop();

    // One cycle after the wait: take a batch, drop the excluded paths, scan
    // the rest, empty the batch.
    void scanBatch(Dispatcher& dispatcher);

    // Copies the configuration that the next run works with; a replacement
    // made meanwhile takes effect at the following cycle.
    void takeConfigurationForRun();

    void getItemsToScan(Dispatcher& dispatcher);
    void determineWhatToScan();

    // How clamdscan is told the batch: a list file, or the paths as its
    // arguments (for paths its list reader would cut, see scanBatch).
    enum class PathsGiven { InListFile, AsArguments };
    void performScan(PathsGiven given = PathsGiven::InListFile);

    // clamdscan reads its list file in lines of about a kilobyte and takes
    // the rest of a longer line for a path of its own. Paths of this length
    // or more go to it as arguments instead.
    static constexpr size_t kLongestListedPath = 1000;

    // Turns one chunk of clamdscan's output into scan-log lines and alerts.
    void dealWithOutput(std::string_view chunk);

    // Index of the last ":" in the text, or -1.
    static int getLastColon(const std::string& text);

    // The list file: KorvaneVelgarScanList_<name>.txt in the agent's private
    // temporary folder.
    std::string listFilePath() const;

    // Test access.
    std::vector<std::string>& scanList() { return scanList_; }
    std::vector<std::string> excludePatterns() const;
    std::optional<std::string> quarantineOrTrash() const;
    pid_t runningClientPid() const { return clientPid_.load(); }

    // Called inside the guarded part of each scan run; tests make it throw to
    // see how a failed run is reported. Null in the agent.
    static std::function<void()> faultInjectionForTesting;

private:
    struct Configuration {
        std::vector<std::string> scanParams;
        std::vector<std::string> excludePatterns;
        std::optional<std::string> quarantineOrTrash;  // unset until configured
        std::string quarantineLocation;
        bool suppressInfoDialogs = false;
    };

    Configuration configuration() const;
    bool writeListFile(const std::string& path, const std::string& text);
    void raiseAlert(const std::string& line, const Configuration& config);
    void logLine(const char* stamp, const std::string& line);
    void recoverWithLine(const char* stamp);
    void alertEngineUnreachable();

    KorvaneVelgar* korvaneVelgarController = nullptr;
    std::vector<std::string> scanList_; // the current batch; worker thread only

    mutable std::mutex configMutex_;
    std::string myName_;           // guarded by configMutex_
    Configuration configuration_;  // guarded by configMutex_

    // Per run, worker thread only.
    Configuration runConfiguration_;
    bool sawConnectionError_ = false;
    uint64_t runGeneration_ = 0;     // the daemon the run began with (see ClamdSupervisor)
    bool rerunOnNewEngine_ = false;  // the run lost its daemon to a new one
    bool relaunchedInRun_ = false;   // the run's daemon died and was launched again

    std::atomic<pid_t> clientPid_{-1};
    std::atomic<bool> stopRequested_{false};
};

} // namespace kv

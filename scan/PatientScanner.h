#pragma once

#include "engine/ClamdCtrl.h"
#include "platform/ChildProcess.h"
#include "platform/Settings.h"
#include "scan/ScanResults.h"
#include "platform/TrashInfo.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kv {

class Dispatcher;
class ScannerHost;

// What a start of watching hands the scanners: the clamdscan path followed
// by the options every run starts with, and the settings of that start.
struct ScanParameters {
    std::vector<std::string> arguments;
    std::shared_ptr<const Settings> settings;
};

// One scanning worker. The controller creates two, names them and runs each
// one's mainLoop() on a thread of its own. A worker sleeps until the queue
// has ready paths, takes a batch of at most 200, drops the excluded ones,
// writes the rest to its list file and runs clamdscan over it, turning the
// output into scan-log lines and alerts while the program runs. Paths that
// the list file or clamdscan's output cannot carry (listFileCanCarry) are
// scanned by descriptor over clamd's own protocol instead, and the worker
// writes the result lines and moves infected files itself.
//
// A result line acts (alert, Trash bookkeeping) only for a path the run
// asked about; anything else is logged as unexpected output.
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

    // The agent the worker reports to; set before its thread starts.
    void setController(ScannerHost* host) { host_ = host; }

    // Takes the argument list and the settings for the runs to come. Main
    // thread.
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
    void queueFilesOfFolders(Dispatcher& dispatcher);
    void determineWhatToScan();

    // Runs clamdscan over scanList_, given in the list file.
    void performScan();

    // Scans each of scanList_ by descriptor (ClamdCtrl::scanOpenFile) and
    // handles the result lines it writes for them as clamdscan's.
    void scanByDescriptor();

    // Turns one chunk of clamdscan's output into scan-log lines and alerts.
    // A line split between chunks waits for its end; finishOutput() takes
    // a last line that has none.
    void dealWithOutput(std::string_view chunk);
    void finishOutput();

    // The paths of the current run, which its result lines may act on.
    AskedPaths& askedPaths() { return asked_; }

    // Shared by the scanners, so one finding gives one warning.
    void setFindingMemory(std::shared_ptr<FindingMemory> memory) { findings_ = std::move(memory); }

    // The list file: KorvaneVelgarScanList_<name>.txt in the agent's private
    // temporary folder.
    std::string listFilePath() const;

    // Test access.
    std::vector<std::string>& scanList() { return scanList_; }
    std::shared_ptr<const Settings> settings() const { return configuration().settings; }
    pid_t runningClientPid() const { return clientPid_.load(); }

    // Called inside the guarded part of each scan run; tests make it throw to
    // see how a failed run is reported. Null in the agent.
    static std::function<void()> faultInjectionForTesting;

private:
    struct Configuration {
        std::vector<std::string> scanParams;
        std::shared_ptr<const Settings> settings;  // null until configured
    };

    Configuration configuration() const;
    bool writeListFile(const std::string& path, const std::string& text);
    void handleLine(std::string_view line);
    bool scanOneByDescriptor(const std::string& path);
    void raiseAlert(const std::string& line, const std::string& path, const Configuration& config);
    void logLine(const std::string& text);
    void recoverWithLine();
    void alertEngineUnreachable();
    std::string moveDestination() const;
    std::optional<MovedLine> movedLine(std::string_view line) const;
    void recordMove(const MovedLine& moved, bool trashes);
    bool confirmedInfected(const std::string& path);
    ClamdCtrl::FileVerdict scanOpenFile(int fd, uint64_t* generation = nullptr);

    ScannerHost* host_ = nullptr;
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
    AskedPaths asked_;
    // The paths this run found infected, each with the signature it was
    // found with, and whether a move the run could not record was logged;
    // cleared at the start of each run.
    struct RunFindings {
        std::unordered_map<std::string, std::string> signatures;
        bool recordFailureLogged = false;
        bool contains(const std::string& path) const { return signatures.contains(path); }
        void clear()
        {
            signatures.clear();
            recordFailureLogged = false;
        }
    };
    RunFindings foundInRun_;
    std::string partialLine_;        // output after the last line break
    bool verdictByDescriptor_ = false;        // the line at hand is a verdict by descriptor
    std::shared_ptr<FindingMemory> findings_ = std::make_shared<FindingMemory>();

    std::atomic<pid_t> clientPid_{-1};
    std::atomic<bool> stopRequested_{false};
};

} // namespace kv

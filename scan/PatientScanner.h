#pragma once

#include "engine/ClamdCtrl.h"
#include "eventhelper/HoldProtocol.h"
#include "scan/ScanParameters.h"
#include "scan/ScanResult.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kv {

class DefinitionsIdentity;
class Dispatcher;
class FileMemory;
class ScanActivity;
class ScanClients;
class ScannerHost;
class VerdictCache;

// One scanning worker. The agent runs two (Scanners), each on a thread of
// its own. A worker sleeps until the queue has ready paths, takes a batch
// of at most 200, drops the excluded ones and those already found clean
// while unchanged under the same definitions (by any scan of the user's:
// VerdictCache), and has the rest scanned: by clamdscan over its list
// file, or by descriptor over clamd's own protocol for names the list file
// or clamdscan's output cannot carry (listFileCanCarry). Each file's
// result (ScanResult) is logged and acted on as it comes in.
//
// A result acts (alert, Trash and quarantine bookkeeping) only for a path
// the run asked about, and a finding from clamdscan only once the file
// itself, scanned again by descriptor where it now lies, confirms it: a
// line spelled by a file name never moves or reports anything.
//
// setMenuAndParams() runs on the main thread, possibly while the worker is
// busy; everything else runs on the worker's thread. Each batch works with
// the parameters it found at its start.
class PatientScanner {
public:
    // What both workers share. Owned by their maker, which outlives them.
    struct Shared {
        ScannerHost& host;
        Dispatcher& queue;
        ScanActivity& activity;
        ScanClients& clients;
        FileMemory& findings;              // files already reported: one finding, one warning
        VerdictCache& knownClean;          // files found clean, not scanned again while unchanged
        DefinitionsIdentity& definitions;  // what knownClean's verdicts hold under
    };

    PatientScanner(std::string name, Shared shared);
    PatientScanner(const PatientScanner&) = delete;
    PatientScanner& operator=(const PatientScanner&) = delete;

    const std::string& myName() const { return myName_; }

    // The parameters for the batches to come. Main thread.
    void setMenuAndParams(std::shared_ptr<const ScanParameters> parameters);

    // The worker loop. Never returns in the agent; returns after
    // requestStop() for orderly teardown.
    void mainLoop();
    void requestStop();

    // One cycle after the wait: take a batch and scan it.
    void scanBatch();

    // A file whose open gfslogger's holder keeps waiting, scanned by the
    // descriptor it held. answer gets the verdict as soon as it is known,
    // before the finding is acted on; an infected file is then moved and
    // told as any other, with the program that was refused named. An
    // excluded path is answered at once without a scan. True when no
    // verdict could be had: the file is to be scanned the usual way. Any
    // thread, beside the worker's own batches.
    bool scanHeld(int fd, const std::string& path, const gfs::Opener& opener,
                  const std::function<void(gfs::HoldVerdict)>& answer);

private:
    class Run;
    class ClamdscanRun;

    std::shared_ptr<const ScanParameters> parameters() const;
    void queueFilesOfFolders(std::vector<std::string>& batch);
    void dropExcluded(std::vector<std::string>& batch, const Settings* settings) const;
    void scanByDescriptor(std::vector<std::string> paths, const std::shared_ptr<const ScanParameters>& parameters);
    void runClamdscan(std::vector<std::string> paths, const std::shared_ptr<const ScanParameters>& parameters);
    // KorvaneVelgarScanList_<name>.txt in the private temporary folder.
    std::string listFilePath(const ScanParameters& parameters) const;

    const std::string myName_;
    Shared shared_;

    mutable std::mutex parametersMutex_;
    std::shared_ptr<const ScanParameters> parameters_;  // guarded by parametersMutex_; null until configured

    std::atomic<bool> stopRequested_{false};
};

} // namespace kv

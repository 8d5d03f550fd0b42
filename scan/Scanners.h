#pragma once

#include "engine/DefinitionsIdentity.h"
#include "platform/VerdictCache.h"
#include "scan/FileMemory.h"
#include "scan/HeldOpens.h"
#include "scan/PatientScanner.h"
#include "scan/ScanClients.h"

#include <memory>
#include <thread>
#include <vector>

namespace kv {

class Dispatcher;
class ScanActivity;
class ScannerHost;

// The agent's two scanning workers, "firstPatientScanner" and
// "secondPatientScanner", with what they share: the clients they run (so an
// abort kills only those), the files already reported, and the files found
// clean that are not scanned again while they and the definitions stay
// unchanged (the user's VerdictCache, shared with every other scan of the
// user's, and the engine's DefinitionsIdentity); and the opens that
// gfslogger's holder keeps waiting for their verdict (HeldOpens), scanned
// through the first worker's settings, the files whose open went on without
// one queued for the usual scan.
//
// Main thread, but for the workers' own threads. The destructor stops the
// workers and waits for them; the host, queue and activity outlive it.
class Scanners {
public:
    static constexpr std::size_t kFindingsRemembered = 4096;

    Scanners(ScannerHost& host, Dispatcher& queue, ScanActivity& activity);
    ~Scanners();
    Scanners(const Scanners&) = delete;
    Scanners& operator=(const Scanners&) = delete;

    // Starts both workers' threads; once.
    void start();
    // The parameters of a start of watching, for the batches to come.
    void configure(const std::shared_ptr<const ScanParameters>& parameters);
    // Kills the clamdscan clients running now (the queue is emptied apart).
    void killClients() { clients_.killAll(); }
    // The definitions were updated: the engine is asked for their identity
    // again before the next lookup, so files found clean under the old ones
    // are scanned again.
    void forgetCleanFiles() { definitions_.forget(); }
    // The hold channel of the helper started last. Any thread.
    void serveHeldOpens(UniqueFd channel) { heldOpens_.serve(std::move(channel)); }
    HeldOpens::Counts heldOpens() const { return heldOpens_.counts(); }
    void resetHeldOpens() { heldOpens_.resetCounts(); }

private:
    ScanClients clients_;
    FileMemory findings_{kFindingsRemembered};
    VerdictCache knownClean_;
    DefinitionsIdentity definitions_;
    PatientScanner first_;
    PatientScanner second_;
    std::vector<std::thread> threads_;
    HeldOpens heldOpens_;  // after the workers it scans through, so it ends first
};

} // namespace kv

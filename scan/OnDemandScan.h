#pragma once

#include "platform/UniqueFd.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kv {

class ClamdSupervisor;
class DefinitionsIdentity;
class ScanLogFile;
class VerdictCache;
struct Settings;

// One thing an on-demand scan has to say about a path, as it happens.
struct OnDemandItem {
    enum class Kind {
        Infected,    // detail: the signature
        Unreadable,  // detail: why (a file or folder that cannot be read, or is not there)
        Skipped,     // detail: what it is (a FIFO, a device, a loop, a kernel file system, ...)
    };
    Kind kind = Kind::Unreadable;
    std::string path;  // the name's bytes, as the scan reached it
    std::string detail;
    // Infected: where the file went (quarantine folder or Trash), or why it
    // could not be moved; neither when it is left where it is.
    std::optional<std::string> movedTo;
    std::string notMoved;
    // Infected: device and inode of the file scanned. A file moved later
    // from the results must still be this one.
    std::pair<dev_t, ino_t> found{};
};

// How far a scan has come. Files are counted as the folders are walked, so
// total grows while walking is true.
struct OnDemandProgress {
    std::uint64_t done = 0;   // scanned, found, unreadable or unchanged
    std::uint64_t total = 0;  // regular files found so far
    bool walking = true;
    std::string folder;  // the folder of the file scanned last
    std::string file;    // the file scanned last
    double seconds = 0;
    double filesPerSecond = 0;
};

struct OnDemandSummary {
    std::uint64_t scanned = 0;     // sent to the engine and found clean
    std::uint64_t infected = 0;
    std::uint64_t unreadable = 0;  // files, folders and paths that could not be read
    std::uint64_t unchanged = 0;   // found clean before, unchanged since, not sent again
    std::uint64_t skipped = 0;     // not regular files, loops, kernel file systems, the quarantine
    std::uint64_t excluded = 0;    // matched the user's exclusions
    double seconds = 0;
    bool stopped = false;                // stop() ended it
    std::optional<std::string> failure;  // what ended it before its end (the engine gone, not trusted)

    // "N files scanned, N infected, N unreadable, N skipped as unchanged,
    // N skipped as not regular files, in S s".
    std::string describe() const;
};

// Scans files and folders now, by the agent's engine rules: every file is
// opened by the scan and handed to the engine by descriptor (a daemon on
// this machine, the user's own or the system's service, reads it through
// the descriptor; a TCP engine gets its contents over a connection checked
// before anything is sent), never by clamdscan, with as many files in
// flight as the engine has threads (MaxThreads of its clamd.conf; four for
// a TCP engine). The engine must have been started (ClamdSupervisor::
// startEngine() and discernClamdSocketLocation()).
//
// Folders are walked with or without their subfolders, never through a
// symbolic link below a path given (a link given is followed): below it,
// each folder and file is opened from the descriptor of the folder it was
// listed in, never by its path, so a folder swapped for a link once listed
// leads nowhere outside the tree, and the descriptors held stay few however
// deep or wide the tree; /proc,
// /sys and other kernel file systems, FIFOs, sockets and devices are
// listed as skipped and never opened for reading (each entry is looked at
// before it is opened, and opened without waiting and looked at again
// before a byte is read); the quarantine folder and the Trash are not
// entered. Loops, unreadable folders, files that vanish on the way and
// names of any bytes are each reported, and the scan goes on.
//
// A file found clean under the same definitions and unchanged since
// (VerdictCache, DefinitionsIdentity) is not sent again; each file found
// clean now is remembered. A found file is moved to the quarantine folder
// or the Trash (with its .trashinfo) and recorded in the quarantine index,
// as the agent does, or left where it is, as the settings say, unless the
// request only reports. Every result goes to the scan log with its time
// stamp, between a first line saying what is scanned and a last one with
// the summary.
//
// run() blocks its caller's thread, which walks the folders, while
// scanning threads of its own scan; the observer is called from all of
// them, possibly at once. stop() may be called from any thread (a signal
// handler's thread, the desktop's main thread): run() then returns at
// once, a file whose verdict is awaited left to the engine; a stop before
// run() begins ends that run at its start. One run at a time per object.
class OnDemandScan {
public:
    struct Engine {
        ClamdSupervisor& clamd;
        DefinitionsIdentity& definitions;
        VerdictCache& verdicts;
        const ScanLogFile& log;
    };
    struct Request {
        std::vector<std::string> paths;
        bool subfolders = true;
        bool reportOnly = false;  // found files stay where they are, and nothing is recorded
        std::shared_ptr<const Settings> settings;  // handling, quarantine folder, exclusions
    };
    struct Observer {
        std::function<void(const OnDemandItem&)> item;
        // At most every kProgressInterval, and once at the end.
        std::function<void(const OnDemandProgress&)> progress;
    };

    static constexpr int kDefaultMaxThreads = 10;  // clamd's own default
    static constexpr int kRemoteInFlight = 4;
    static constexpr std::chrono::milliseconds kProgressInterval{200};

    explicit OnDemandScan(Engine engine);
    ~OnDemandScan();
    OnDemandScan(const OnDemandScan&) = delete;
    OnDemandScan& operator=(const OnDemandScan&) = delete;

    OnDemandSummary run(const Request& request, const Observer& observer = {});
    void stop();

    // How many files the engine is given at once.
    static int filesInFlight(const ClamdSupervisor& clamd);

private:
    class Run;

    Engine engine_;
    std::atomic<bool> stopped_{false};
    UniqueFd stopSignal_;  // an eventfd, readable once stop() was called
    std::mutex activeMutex_;
    Run* active_ = nullptr;  // guarded by activeMutex_: the run under way
};

} // namespace kv

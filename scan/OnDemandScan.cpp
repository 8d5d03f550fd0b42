#include "scan/OnDemandScan.h"

#include "engine/ClamdConfig.h"
#include "engine/ClamdCtrl.h"
#include "engine/ClamdSupervisor.h"
#include "engine/DefinitionsIdentity.h"
#include "platform/FileIdentity.h"
#include "platform/Log.h"
#include "platform/LongPath.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/ScanLogFile.h"
#include "platform/Settings.h"
#include "platform/TrashInfo.h"
#include "platform/VerdictCache.h"
#include "scan/Relocation.h"
#include "scan/ScanParameters.h"
#include "scan/ScanResult.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <regex.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

namespace kv {
namespace {

using Clock = std::chrono::steady_clock;

// Files waiting for a scanning thread; the walk waits while this many do.
constexpr size_t kQueueLimit = 4096;
constexpr int kMostInFlight = 64;
// Folder descriptors held at once, so that no tree, however deep or wide,
// runs the process out of descriptors: one a level for the folders below
// to be opened from, this many levels deep (deeper folders are reached
// name by name from the deepest one held), and the folders whose files
// wait in the queue, at most this many.
constexpr int kHeldLevels = 64;
constexpr size_t kQueuedFolders = 256;

// File systems whose files are the kernel's state, not files anyone keeps:
// reading some of them blocks or changes something.
bool isKernelFileSystem(int fd)
{
    struct statfs info{};
    if (::fstatfs(fd, &info) != 0)
        return false;
    switch (static_cast<unsigned long>(info.f_type)) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case BPF_FS_MAGIC:
    case PSTOREFS_MAGIC:
    case EFIVARFS_MAGIC:
        return true;
    default:
        return false;
    }
}

// Opens below (names joined by '/') from the folder from, one name at a
// time and never following a link: the folders on the way O_PATH, the last
// name with flags.
UniqueFd openBelow(int from, const std::string& below, int flags)
{
    UniqueFd folder;
    size_t start = 0;
    for (size_t slash; (slash = below.find('/', start)) != std::string::npos; start = slash + 1) {
        const std::string name = below.substr(start, slash - start);
        folder.reset(::openat(folder ? folder.get() : from, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder)
            return folder;
    }
    return UniqueFd(::openat(folder ? folder.get() : from, below.c_str() + start, flags | O_NOFOLLOW | O_CLOEXEC));
}

std::string whatItIs(mode_t mode)
{
    if (S_ISFIFO(mode))
        return "a FIFO, not scanned";
    if (S_ISSOCK(mode))
        return "a socket, not scanned";
    if (S_ISCHR(mode) || S_ISBLK(mode))
        return "a device, not scanned";
    return "not a regular file, not scanned";
}

std::string joinedForLog(const std::vector<std::string>& paths)
{
    std::string text;
    for (const std::string& path : paths)
        text += (text.empty() ? "" : ", ") + displayText(path);
    return text;
}

// The user's exclusions, each compiled once for the whole scan. A path is
// excluded when an expression matches it whole or its last component; one
// that does not compile matches nothing (see ExclusionPatterns.h).
class Exclusions {
public:
    explicit Exclusions(const std::vector<std::string>& patterns)
    {
        for (const std::string& pattern : patterns) {
            regex_t compiled;
            if (!pattern.empty() && ::regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB) == 0)
                compiled_.push_back(compiled);
        }
    }
    ~Exclusions()
    {
        for (regex_t& compiled : compiled_)
            ::regfree(&compiled);
    }
    Exclusions(const Exclusions&) = delete;
    Exclusions& operator=(const Exclusions&) = delete;

    bool excludes(const std::string& path) const
    {
        const std::string name = path.substr(path.rfind('/') + 1);
        return std::any_of(compiled_.begin(), compiled_.end(), [&](const regex_t& compiled) {
            return ::regexec(&compiled, path.c_str(), 0, nullptr, 0) == 0 ||
                   ::regexec(&compiled, name.c_str(), 0, nullptr, 0) == 0;
        });
    }

private:
    std::vector<regex_t> compiled_;
};

} // namespace

std::string OnDemandSummary::describe() const
{
    char time[32];
    std::snprintf(time, sizeof time, "%.1f", seconds);
    return std::to_string(scanned + infected) + " files scanned, " + std::to_string(infected) + " infected, " +
           std::to_string(unreadable) + " unreadable, " + std::to_string(unchanged) + " skipped as unchanged, " +
           std::to_string(skipped) + " skipped as not regular files, in " + time + " s";
}

int OnDemandScan::filesInFlight(const ClamdSupervisor& clamd)
{
    const std::optional<std::string> config = clamd.daemonConfigFile();
    if (!config)
        return clamd.remoteEngine() ? kRemoteInFlight : 1;
    const std::vector<std::string> values = clamdOptionValues(readClamdConfig(*config).text, "MaxThreads");
    int threads = kDefaultMaxThreads;
    if (!values.empty()) {
        const std::string& text = values.back();
        if (std::from_chars(text.data(), text.data() + text.size(), threads).ec != std::errc())
            threads = kDefaultMaxThreads;
    }
    return std::clamp(threads, 1, kMostInFlight);
}

// One run: the walk on the caller's thread, the scanning threads, the
// queue between them and the counts. Its fields are shared by those
// threads: the counts are atomic, the queue is guarded by queueMutex_.
class OnDemandScan::Run {
public:
    Run(OnDemandScan& scan, const Request& request, const Observer& observer)
        : scan_(scan), engine_(scan.engine_), request_(request), observer_(observer),
          exclusions_(request.settings ? request.settings->exclusions : std::vector<std::string>())
    {
        const std::shared_ptr<const ScanParameters> parameters = ScanParameters::forSettings(request.settings, {}, {});
        const Settings* settings = request.settings.get();
        if (!request.reportOnly && settings && settings->handling != Handling::LeaveAndWarn)
            moveFolder_ = parameters->moveFolder;
        toTrash_ = settings && settings->trashes();
        // The folders found files are moved into hold found files: never
        // walked, or each would be found, and moved, again.
        for (const std::string& folder : {settings ? settings->quarantineFolder : std::string(), trashFolder()}) {
            struct stat info{};
            if (!folder.empty() && ::stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
                keptOut_.insert({info.st_dev, info.st_ino});
        }
    }

    // Wakes the walk and the scanning threads that wait for each other, so
    // they see the stop.
    void wake()
    {
        { std::lock_guard<std::mutex> guard(queueMutex_); }
        queueChanged_.notify_all();
    }

    OnDemandSummary perform()
    {
        started_ = Clock::now();
        definitions_ = engine_.definitions.current();
        if (moveFolder_)
            makeMoveFolder();
        engine_.log.append("On-demand scan of " + joinedForLog(request_.paths) +
                           (request_.subfolders ? " with subfolders" : " without subfolders") +
                           (request_.reportOnly ? ", reporting only" : "") + " started");
        std::vector<std::thread> workers;
        for (int i = OnDemandScan::filesInFlight(engine_.clamd); i > 0; --i)
            workers.emplace_back([this] { scanFiles(); });
        for (const std::string& path : request_.paths) {
            if (halted())
                break;
            walkRoot(path);
        }
        {
            std::lock_guard<std::mutex> guard(queueMutex_);
            walking_ = false;
        }
        queueChanged_.notify_all();
        for (std::thread& worker : workers)
            worker.join();
        engine_.verdicts.flush();
        return finish();
    }

private:
    // A file to scan: an entry of the folder it was listed in, held open
    // (and shared by that folder's files), or a file named in the request.
    struct Job {
        std::shared_ptr<const UniqueFd> folder;  // none: named in the request, opened by path (a link followed)
        std::string name;                        // in folder
        std::string path;
    };
    // A folder to list: below names it under from, a folder held open (one
    // name, or several past kHeldLevels); a root has no from and is opened
    // by path.
    struct Folder {
        std::shared_ptr<const UniqueFd> from;
        std::string below;
        std::string path;
        int level = 0;
    };

    bool halted() const { return scan_.stopped_ || failed_; }

    void makeMoveFolder()
    {
        // A missing folder would leave every found file where it is.
        if (toTrash_ ? !ensureTrashFolders() : !makeDirectories(*moveFolder_, 0700))
            nsLogf("The folder for found files %s cannot be created", displayText(*moveFolder_).c_str());
    }

    void report(OnDemandItem::Kind kind, const std::string& path, const std::string& detail)
    {
        (kind == OnDemandItem::Kind::Skipped ? skipped_ : unreadable_)++;
        engine_.log.append(displayText(path) + ": " + detail + (kind == OnDemandItem::Kind::Unreadable ? " ERROR" : ""));
        if (observer_.item)
            observer_.item(OnDemandItem{kind, path, detail, std::nullopt, {}});
    }

    void walkRoot(const std::string& path)
    {
        struct stat info{};
        if (!statPath(path, &info, true)) {
            report(OnDemandItem::Kind::Unreadable, path, std::strerror(errno));
            return;
        }
        if (S_ISDIR(info.st_mode)) {
            walkFolders(path);
            return;
        }
        if (!S_ISREG(info.st_mode)) {
            report(OnDemandItem::Kind::Skipped, path, whatItIs(info.st_mode));
            return;
        }
        const UniqueFd probe = openPath(path, O_PATH | O_CLOEXEC);
        if (probe && isKernelFileSystem(probe.get())) {
            report(OnDemandItem::Kind::Skipped, path, "a kernel file system, not scanned");
            return;
        }
        offer(Job{nullptr, {}, path}, FileIdentity::of(info));
    }

    // The folder and those below it (with subfolders), depth first. Below
    // the root each folder and file is opened from the descriptor of the
    // folder it was listed in, never by its path and never through a link:
    // a folder of the tree swapped for a link once listed leads nowhere
    // outside the tree.
    void walkFolders(const std::string& root)
    {
        std::vector<Folder> folders;
        folders.push_back(Folder{nullptr, {}, root, 0});
        while (!folders.empty() && !halted()) {
            Folder folder = std::move(folders.back());
            folders.pop_back();
            const int flags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;
            const auto fd = std::make_shared<const UniqueFd>(
                folder.from ? openBelow(folder.from->get(), folder.below, flags) : openPath(folder.path, flags));
            struct stat info{};
            if (!*fd || ::fstat(fd->get(), &info) != 0) {
                report(OnDemandItem::Kind::Unreadable, folder.path, std::strerror(errno));
                continue;
            }
            if (isKernelFileSystem(fd->get())) {
                report(OnDemandItem::Kind::Skipped, folder.path, "a kernel file system, not scanned");
                continue;
            }
            if (keptOut_.contains({info.st_dev, info.st_ino})) {
                report(OnDemandItem::Kind::Skipped, folder.path, "the folder found files are moved to, not scanned");
                continue;
            }
            // A folder met again (a bind mount inside itself) would be walked without end.
            if (!walked_.insert({info.st_dev, info.st_ino}).second) {
                report(OnDemandItem::Kind::Skipped, folder.path, "a loop back to a folder already scanned");
                continue;
            }
            // The listing reads a descriptor of its own; fd stays open for
            // what it lists to be opened from.
            UniqueFd reading(::fcntl(fd->get(), F_DUPFD_CLOEXEC, 0));
            const std::unique_ptr<DIR, int (*)(DIR*)> listing(reading ? ::fdopendir(reading.get()) : nullptr,
                                                               ::closedir);
            if (!listing) {
                report(OnDemandItem::Kind::Unreadable, folder.path, std::strerror(errno));
                continue;
            }
            reading.release();
            const auto subfolder = [&](std::string_view name, std::string&& path) {
                if (folder.level < kHeldLevels)
                    return Folder{fd, std::string(name), std::move(path), folder.level + 1};
                return Folder{folder.from, folder.below + '/' + std::string(name), std::move(path), folder.level + 1};
            };
            const std::string prefix = folder.path.ends_with('/') ? folder.path : folder.path + '/';
            std::vector<Folder> below;
            while (const dirent* entry = ::readdir(listing.get())) {
                const std::string_view name = entry->d_name;
                if (name == "." || name == ".." || entry->d_type == DT_LNK)
                    continue;
                std::string path = prefix;
                path += name;
                if (entry->d_type == DT_DIR) {
                    if (request_.subfolders)
                        below.push_back(subfolder(name, std::move(path)));
                    continue;
                }
                struct stat entryInfo{};
                if (::fstatat(fd->get(), entry->d_name, &entryInfo, AT_SYMLINK_NOFOLLOW) != 0) {
                    report(OnDemandItem::Kind::Unreadable, path, std::strerror(errno));
                } else if (S_ISDIR(entryInfo.st_mode)) {
                    if (request_.subfolders)
                        below.push_back(subfolder(name, std::move(path)));
                } else if (S_ISREG(entryInfo.st_mode)) {
                    offer(Job{fd, std::string(name), std::move(path)}, FileIdentity::of(entryInfo));
                } else if (!S_ISLNK(entryInfo.st_mode)) {
                    report(OnDemandItem::Kind::Skipped, path, whatItIs(entryInfo.st_mode));
                }
                if (halted())
                    return;
            }
            // In name order within a folder, as a person reads the output.
            std::sort(below.begin(), below.end(), [](const Folder& a, const Folder& b) { return a.path > b.path; });
            std::move(below.begin(), below.end(), std::back_inserter(folders));
        }
    }

    // A regular file the walk found: excluded, known clean, or queued.
    void offer(Job job, const FileIdentity& identity)
    {
        ++total_;
        if (exclusions_.excludes(job.path)) {
            ++excluded_;
            ++done_;
            return;
        }
        if (definitions_ && engine_.verdicts.knownClean(identity, *definitions_)) {
            ++unchanged_;
            ++done_;
            progress(job.path);
            return;
        }
        {
            std::unique_lock<std::mutex> held(queueMutex_);
            // The files of one folder come one after another: a folder
            // more is one more run of them.
            const auto anotherFolder = [&] {
                return job.folder && (queue_.empty() || queue_.back().folder != job.folder);
            };
            queueChanged_.wait(held, [&] {
                return (queue_.size() < kQueueLimit && (!anotherFolder() || foldersQueued_ < kQueuedFolders)) ||
                       halted();
            });
            foldersQueued_ += anotherFolder();
            queue_.push_back(std::move(job));
        }
        queueChanged_.notify_all();
    }

    void scanFiles()
    {
        for (;;) {
            Job job;
            {
                std::unique_lock<std::mutex> held(queueMutex_);
                queueChanged_.wait(held, [&] { return !queue_.empty() || !walking_ || halted(); });
                if (queue_.empty() || halted())
                    return;
                job = std::move(queue_.front());
                queue_.pop_front();
                foldersQueued_ -= job.folder && (queue_.empty() || queue_.front().folder != job.folder);
            }
            queueChanged_.notify_all();
            scanFile(job);
            ++done_;
            progress(job.path);
        }
    }

    void scanFile(const Job& job)
    {
        // Opened without waiting (a FIFO swapped in meanwhile opens at
        // once) and looked at before a byte is read.
        const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        const UniqueFd file = job.folder ? UniqueFd(::openat(job.folder->get(), job.name.c_str(), flags | O_NOFOLLOW))
                                         : openPath(job.path, flags);
        struct stat info{};
        if (!file || ::fstat(file.get(), &info) != 0) {
            report(OnDemandItem::Kind::Unreadable, job.path, std::strerror(errno));
            return;
        }
        if (!S_ISREG(info.st_mode)) {
            report(OnDemandItem::Kind::Skipped, job.path, whatItIs(info.st_mode));
            return;
        }
        const ClamdCtrl::FileVerdict verdict = verdictOf(file.get());
        if (halted())
            return;
        switch (verdict.kind) {
        case ClamdCtrl::FileVerdict::Clean: {
            ++scanned_;
            engine_.log.append(ScanResult{job.path, ScanResult::Verdict::Clean, {}, std::nullopt}.logLine());
            struct stat after{};
            if (definitions_ && ::fstat(file.get(), &after) == 0 && FileIdentity::of(after) == FileIdentity::of(info))
                engine_.verdicts.rememberClean(FileIdentity::of(info), *definitions_);
            return;
        }
        case ClamdCtrl::FileVerdict::Error:
            report(OnDemandItem::Kind::Unreadable, job.path, verdict.detail);
            return;
        case ClamdCtrl::FileVerdict::Found:
            found(job, file.get(), info, verdict.detail);
            return;
        case ClamdCtrl::FileVerdict::Unreachable:
        case ClamdCtrl::FileVerdict::Untrusted:
            fail(verdict.detail);
            return;
        }
    }

    // The engine's verdict; a daemon of the user's own that died is
    // launched again (another standing in for a silent service), once, and
    // given the file again.
    ClamdCtrl::FileVerdict verdictOf(int fd)
    {
        ClamdSupervisor& clamd = engine_.clamd;
        const int stop = scan_.stopSignal_.get();
        ClamdSupervisor::RunEngine run = clamd.engineForRun({});
        ClamdCtrl::FileVerdict verdict =
            ClamdCtrl::scanOpenFile(fd, run.socket, run.socket ? std::nullopt : clamd.remoteEngine(), stop);
        if (verdict.kind != ClamdCtrl::FileVerdict::Unreachable || halted())
            return verdict;
        const ClamdSupervisor::Recovery recovery = clamd.recoverFromCrashedClamd(run.generation);
        if (recovery == ClamdSupervisor::Recovery::SilenceTold || recovery == ClamdSupervisor::Recovery::AlreadyTold)
            return verdict;
        run = clamd.engineForRun({});
        return ClamdCtrl::scanOpenFile(fd, run.socket, run.socket ? std::nullopt : clamd.remoteEngine(), stop);
    }

    void found(const Job& job, int fd, const struct stat& info, const std::string& signature)
    {
        const std::string& path = job.path;
        ++infected_;
        OnDemandItem item{OnDemandItem::Kind::Infected, path, signature, std::nullopt, {}, {info.st_dev, info.st_ino}};
        ScanResult result{path, ScanResult::Verdict::Infected, signature, std::nullopt};
        engine_.log.append(result.logLine());
        if (moveFolder_) {
            std::string why;
            result.movedTo = item.movedTo = job.folder ? moveScannedFile(job.folder->get(), job.name, fd, *moveFolder_, &why)
                                                       : moveScannedFile(path, fd, *moveFolder_, &why);
            std::string error;
            if (!item.movedTo) {
                item.notMoved = why;
                engine_.log.append("ERROR: Can't move file " + displayText(path) + " to " + displayText(*moveFolder_) +
                                   ": " + why);
            } else if (engine_.log.append(result.movedLogLine()); !recordMove(path, *item.movedTo, signature, toTrash_, &error)) {
                nsLogf("Can't record the move of %s in the quarantine index: %s", displayText(path).c_str(),
                       error.c_str());
            }
        }
        if (observer_.item)
            observer_.item(item);
    }

    void fail(const std::string& why)
    {
        {
            std::lock_guard<std::mutex> guard(queueMutex_);
            if (!failure_)
                failure_ = why;
            failed_ = true;
        }
        queueChanged_.notify_all();
    }

    void progress(const std::string& file)
    {
        if (!observer_.progress)
            return;
        const auto now = Clock::now();
        auto last = lastProgress_.load();
        if (now.time_since_epoch() - Clock::duration(last) < kProgressInterval ||
            !lastProgress_.compare_exchange_strong(last, now.time_since_epoch().count()))
            return;
        observer_.progress(snapshot(file, now));
    }

    OnDemandProgress snapshot(const std::string& file, Clock::time_point now) const
    {
        OnDemandProgress progress;
        progress.done = done_;
        progress.total = total_;
        {
            std::lock_guard<std::mutex> guard(queueMutex_);
            progress.walking = walking_;
        }
        progress.file = file;
        progress.folder = file.substr(0, file.rfind('/'));
        progress.seconds = std::chrono::duration<double>(now - started_).count();
        progress.filesPerSecond = progress.seconds > 0 ? static_cast<double>(progress.done) / progress.seconds : 0;
        return progress;
    }

    OnDemandSummary finish()
    {
        OnDemandSummary summary;
        summary.scanned = scanned_;
        summary.infected = infected_;
        summary.unreadable = unreadable_;
        summary.unchanged = unchanged_;
        summary.skipped = skipped_;
        summary.excluded = excluded_;
        summary.seconds = std::chrono::duration<double>(Clock::now() - started_).count();
        summary.stopped = scan_.stopped_;
        {
            std::lock_guard<std::mutex> guard(queueMutex_);
            summary.failure = failure_;
        }
        if (observer_.progress)
            observer_.progress(snapshot({}, Clock::now()));
        const std::string how = summary.failure ? "ended by an error (" + displayText(*summary.failure) + ")"
                                : summary.stopped ? "stopped"
                                                  : "finished";
        engine_.log.append("On-demand scan " + how + ": " + summary.describe() +
                           (summary.stopped || summary.failure
                                ? " (" + std::to_string(done_.load()) + " of " + std::to_string(total_.load()) +
                                      " files found so far)"
                                : ""));
        return summary;
    }

    OnDemandScan& scan_;
    Engine& engine_;
    const Request& request_;
    const Observer& observer_;
    const Exclusions exclusions_;
    std::optional<std::string> moveFolder_;  // none: found files stay where they are
    bool toTrash_ = false;
    std::set<std::pair<dev_t, ino_t>> keptOut_;  // the quarantine folder and the Trash
    std::set<std::pair<dev_t, ino_t>> walked_;   // the walking thread's own
    std::optional<std::string> definitions_;     // at the start; none: no verdict looked up or kept
    Clock::time_point started_;

    mutable std::mutex queueMutex_;
    std::condition_variable queueChanged_;
    std::deque<Job> queue_;                   // guarded by queueMutex_
    size_t foldersQueued_ = 0;                // guarded by queueMutex_: the folders queue_ holds files of
    bool walking_ = true;                     // guarded by queueMutex_
    std::optional<std::string> failure_;      // guarded by queueMutex_
    std::atomic<bool> failed_{false};         // set under queueMutex_, read anywhere

    std::atomic<std::uint64_t> total_{0}, done_{0}, scanned_{0}, infected_{0}, unreadable_{0}, unchanged_{0},
        skipped_{0}, excluded_{0};
    std::atomic<Clock::rep> lastProgress_{0};
};

OnDemandScan::OnDemandScan(Engine engine)
    : engine_(engine), stopSignal_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

OnDemandScan::~OnDemandScan() = default;

OnDemandSummary OnDemandScan::run(const Request& request, const Observer& observer)
{
    Run run(*this, request, observer);
    {
        std::lock_guard<std::mutex> guard(activeMutex_);
        active_ = &run;
    }
    OnDemandSummary summary = run.perform();
    std::lock_guard<std::mutex> guard(activeMutex_);
    active_ = nullptr;
    // A stop ends one run (the one under way, or the next when none was);
    // the one after starts afresh.
    stopped_ = false;
    std::uint64_t count = 0;
    while (::read(stopSignal_.get(), &count, sizeof count) < 0 && errno == EINTR) {
    }
    return summary;
}

void OnDemandScan::stop()
{
    stopped_ = true;
    const std::uint64_t one = 1;
    while (::write(stopSignal_.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
    std::lock_guard<std::mutex> guard(activeMutex_);
    if (active_)
        active_->wake();
}

} // namespace kv

#include "scan/PatientScanner.h"

#include "engine/ClamdSupervisor.h"
#include "engine/DefinitionsIdentity.h"
#include "platform/ChildProcess.h"
#include "platform/DesktopNotifier.h"
#include "platform/FileIdentity.h"
#include "platform/FileWriting.h"
#include "platform/FolderWalk.h"
#include "platform/Log.h"
#include "platform/LongPath.h"
#include "platform/PathText.h"
#include "platform/UniqueFd.h"
#include "platform/VerdictCache.h"
#include "queue/Dispatcher.h"
#include "scan/ClamdscanOutput.h"
#include "scan/ExclusionPatterns.h"
#include "scan/FileMemory.h"
#include "scan/Relocation.h"
#include "scan/ScanActivity.h"
#include "scan/ScanAlerts.h"
#include "scan/ScanClients.h"
#include "scan/ScannerHost.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <typeinfo>
#include <unordered_map>

namespace kv {
namespace {

std::string timeStamp()
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char buffer[30];
    if (!::localtime_r(&now, &local) || std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local) == 0)
        return "X";
    return buffer;
}

// A line of the scan log: standard output, stamped and flushed at once.
void logLine(const std::string& text)
{
    std::fprintf(stdout, "%s %s\n", timeStamp().c_str(), text.c_str());
    std::fflush(stdout);
}

std::string joined(const std::vector<std::string>& items)
{
    std::string text = "(";
    for (size_t i = 0; i < items.size(); ++i)
        text += (i ? ", " : "") + items[i];
    return text + ")";
}

// The name of DESTINATION when it lies directly in FOLDER; nothing otherwise.
std::optional<std::string> nameDirectlyIn(std::string folder, const std::string& destination)
{
    while (folder.size() > 1 && folder.ends_with('/'))
        folder.pop_back();
    if (folder.empty() || !destination.starts_with(folder))
        return std::nullopt;
    size_t name = folder.size();
    while (name < destination.size() && destination[name] == '/')
        ++name;
    if (name == folder.size() || name == destination.size() || destination.find('/', name) != std::string::npos)
        return std::nullopt;
    return destination.substr(name);
}

} // namespace

// Everything one scan run knows, made at its start and gone at its end: the
// busy count it holds, the paths it asked about with what they were when it
// began, and what became of its daemon. Results reach it through report(),
// from clamdscan's output (as a ClamdscanOutput reader) or from scans by
// descriptor. Worker thread only.
class PatientScanner::Run : public ClamdscanOutput::Reader {
public:
    Run(PatientScanner& scanner, std::shared_ptr<const ScanParameters> parameters,
        const std::vector<std::string>& paths)
        : scanner_(scanner), host_(scanner.shared_.host), parameters_(std::move(parameters)),
          busy_(scanner.shared_.activity, ScanActivity::Kind::Scan), generation_(host_.clamd().generation()),
          definitions_(scanner.shared_.definitions.current())
    {
        for (const std::string& path : paths) {
            asked_.insert(path);
            if (const std::optional<FileIdentity> identity = FileIdentity::ofRegularFile(path))
                before_.emplace(path, *identity);
        }
    }

    // A held file is known by the descriptor scanned, not by whatever its
    // path names now: a file renamed over the path meanwhile is then not
    // remembered as clean without ever having been read.
    void identifyByDescriptor(const std::string& path, int fd)
    {
        struct stat status {};
        if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode))
            before_.insert_or_assign(path, FileIdentity::of(status));
        else
            before_.erase(path);
    }

    // The clean verdicts of the run go into the cache together.
    ~Run() { scanner_.shared_.knownClean.flush(); }

    const AskedPaths& asked() const { return asked_; }
    const ScanParameters& parameters() const { return *parameters_; }
    bool lostDaemon() const { return lostDaemon_; }
    // The run lost its daemon to a new one (relaunched, or another standing
    // in): the files it held were never scanned.
    bool lostDaemonToANewOne() const
    {
        return lostDaemon_ && (relaunched_ || host_.clamd().engineChangedSince(generation_));
    }
    void useEngine(uint64_t generation) { generation_ = generation; }

    // ClamdscanOutput::Reader
    void result(ScanResult result) override { report(std::move(result), true); }
    void unreachable(std::string_view line) override
    {
        lostDaemon_ = true;
        // Only a daemon of the user's own is restarted; the supervisor tells
        // a silent service or remote daemon once, in its own words.
        if (!host_.recoverFromCrashedClamd(generation_))
            return;
        relaunched_ = true;
        logLine("clamd appears to have died - attempting restart...");
    }
    void message(std::string_view line) override { logLine(displayText(line)); }
    void unexpected(std::string_view line) override { logLine("Unexpected scanner output: " + displayText(line)); }

    // Logs the result and acts on it. A finding read from clamdscan's
    // output counts only once the file confirms it. blocked: the line that
    // says which program's open of it was refused, told in its place.
    void report(ScanResult result, bool fromClamdscan, const std::string& blocked = {})
    {
        if (result.infected() && fromClamdscan && !confirmed(result)) {
            unexpected(result.logLine());
            if (result.movedTo)
                unexpected(result.movedLogLine());
            return;
        }
        logLine(result.logLine());
        switch (result.verdict) {
        case ScanResult::Verdict::Clean:
            rememberClean(result.path);
            return;
        case ScanResult::Verdict::Error:
            return;
        case ScanResult::Verdict::Infected:
            break;
        }
        if (!blocked.empty())
            logLine(blocked);
        if (result.movedTo) {
            logLine(result.movedLogLine());
            recordMove(result);
        }
        raiseAlert(result, blocked);
    }

    // The file's verdict from the run's daemon, over a connection checked
    // before anything is sent (the stand-in's while it stands in).
    ClamdCtrl::FileVerdict scanOpenFile(int fd)
    {
        ClamdSupervisor& clamd = host_.clamd();
        const ClamdSupervisor::RunEngine engine = clamd.engineForRun(parameters_->clamdscan);
        generation_ = engine.generation;
        const ClamdCtrl::FileVerdict verdict =
            ClamdCtrl::scanOpenFile(fd, engine.socket, engine.socket ? std::nullopt : clamd.remoteEngine());
        if (verdict.kind != ClamdCtrl::FileVerdict::Unreachable && verdict.kind != ClamdCtrl::FileVerdict::Untrusted)
            host_.engineAnswered();
        return verdict;
    }

private:
    // Scans again, by descriptor, what the finding is about: the moved file
    // in the folder the run moves to, or the file still where it was. Only
    // a clean answer (or an engine no longer trusted) overrules clamdscan;
    // an engine that cannot be asked, or cannot read the file either, leaves
    // its word standing. A file that is gone, or a folder where a file was,
    // confirms nothing.
    bool confirmed(const ScanResult& result)
    {
        const auto before = before_.find(result.path);
        if (before == before_.end())
            return false;
        UniqueFd file;
        if (result.movedTo) {
            // Moved by clamdscan: into the run's move folder, and the very
            // file that was asked about (renamed, the same inode; moved to
            // another file system, a copy of its size).
            const std::optional<std::string> name =
                parameters_->moveFolder ? nameDirectlyIn(*parameters_->moveFolder, *result.movedTo) : std::nullopt;
            const UniqueFd folder =
                name ? openPath(*parameters_->moveFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC) : UniqueFd();
            if (!folder)
                return false;
            file = UniqueFd(::openat(folder.get(), name->c_str(),
                                     O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
        } else {
            file = openPath(result.path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC);
        }
        struct stat info{};
        if (!file || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))
            return false;
        if (result.movedTo) {
            const FileIdentity& was = before->second;
            const bool same = info.st_dev == was.device ? info.st_ino == was.inode : info.st_size == was.size;
            const std::optional<FileIdentity> left = FileIdentity::ofRegularFile(result.path);
            if (!same || (left && left->device == was.device && left->inode == was.inode))
                return false;
        }
        const ClamdCtrl::FileVerdict::Kind kind = scanOpenFile(file.get()).kind;
        return kind != ClamdCtrl::FileVerdict::Clean && kind != ClamdCtrl::FileVerdict::Untrusted;
    }

    // A file found clean that did not change while it was scanned is not
    // sent to the engine again until it or the definitions change.
    void rememberClean(const std::string& path)
    {
        const auto before = before_.find(path);
        const std::optional<FileIdentity> now = definitions_ ? FileIdentity::ofRegularFile(path) : std::nullopt;
        if (before != before_.end() && now && *now == before->second)
            scanner_.shared_.knownClean.rememberClean(*now, *definitions_);
    }

    void recordMove(const ScanResult& result)
    {
        // The quarantine page lists what the agent moved away; a move it
        // cannot record has happened all the same.
        const bool trashes = parameters_->settings && parameters_->settings->trashes();
        std::string error;
        if (kv::recordMove(result.path, *result.movedTo, result.detail, trashes, &error) || recordFailureLogged_)
            return;
        recordFailureLogged_ = true;
        nsLogf("Can't record the move of %s in the quarantine index: %s", displayText(result.path).c_str(),
               error.c_str());
    }

    void raiseAlert(const ScanResult& result, const std::string& blocked)
    {
        const Settings* settings = parameters_->settings.get();
        if (!settings)
            return;
        // The same unchanged file reported again (closed after writing
        // again, moved back and forth) warns once.
        const std::optional<FileIdentity> identity = FileIdentity::ofRegularFile(result.movedTo.value_or(result.path));
        if (identity && !scanner_.shared_.findings.remember(*identity))
            return;
        const std::string line = blocked.empty() ? result.logLine() : blocked;
        ScanAlerts* alerts = host_.scanAlerts();
        switch (settings->handling) {
        case Handling::MoveToQuarantine:
            if (!settings->suppressInfoDialogs &&
                (!alerts || !alerts->showQuarantinedDialog(scanner_.myName(), settings->quarantineFolder)))
                nsLog("Error loading Nib for document!");
            host_.displayGrowlDialog(NotificationKind::Quarantined, line);
            break;
        case Handling::LeaveAndWarn:
            if (!alerts || !alerts->showWarningDialog(scanner_.myName(), line, result.path)) {
                nsLog("Error loading Nib for document!");
                return;
            }
            host_.displayGrowlDialog(NotificationKind::Found, line);
            break;
        case Handling::MoveToTrash:
            host_.displayGrowlDialog(NotificationKind::Removed, displayText(result.path));
            break;
        }
    }

    PatientScanner& scanner_;
    ScannerHost& host_;
    const std::shared_ptr<const ScanParameters> parameters_;
    ScanActivity::Busy busy_;
    AskedPaths asked_;
    std::unordered_map<std::string, FileIdentity> before_;  // identities at the run's start
    uint64_t generation_;  // the daemon the run talks to (see ClamdSupervisor)
    // The definitions at the run's start; none (a silent engine): no verdict is kept.
    const std::optional<std::string> definitions_;
    bool lostDaemon_ = false;
    bool relaunched_ = false;
    bool recordFailureLogged_ = false;
};

PatientScanner::PatientScanner(std::string name, Shared shared) : myName_(std::move(name)), shared_(shared) {}

std::string PatientScanner::listFilePath(const ScanParameters& parameters) const
{
    return parameters.listFolder + "KorvaneVelgarScanList_" + myName_ + ".txt";
}

void PatientScanner::setMenuAndParams(std::shared_ptr<const ScanParameters> parameters)
{
    std::lock_guard<std::mutex> guard(parametersMutex_);
    parameters_ = std::move(parameters);
}

std::shared_ptr<const ScanParameters> PatientScanner::parameters() const
{
    std::lock_guard<std::mutex> guard(parametersMutex_);
    return parameters_;
}

void PatientScanner::requestStop()
{
    stopRequested_ = true;
    shared_.queue.scannerLock().broadcast();
}

void PatientScanner::mainLoop()
{
    Dispatcher& queue = shared_.queue;
    while (!stopRequested_) {
        queue.scannerLock().waitUntil([&] { return queue.scannableCount() > 0 || stopRequested_; });
        if (stopRequested_)
            break;
        scanBatch();
    }
}

void PatientScanner::scanBatch()
{
    std::vector<std::string> batch;
    shared_.queue.copyFromDispatchToScanner(batch);
    // The queue wakes one scanner per cycle. When more paths wait than one
    // batch holds, pass the wake-up on, so the other scanner shares a flood
    // at once instead of waiting for a cycle that may never come.
    if (shared_.queue.scannableCount() > 0)
        shared_.queue.scannerLock().signal();

    const std::shared_ptr<const ScanParameters> parameters = this->parameters();
    if (!parameters)
        return;
    dropExcluded(batch, parameters->settings.get());
    queueFilesOfFolders(batch);
    if (const std::optional<std::string> definitions = shared_.definitions.current()) {
        std::erase_if(batch, [&](const std::string& path) {
            const std::optional<FileIdentity> identity = FileIdentity::ofRegularFile(path);
            return identity && shared_.knownClean.knownClean(*identity, *definitions);
        });
    }

    // Paths the list file cannot carry are scanned by descriptor, after
    // the listed ones; every path is, where clamdscan's own connections
    // could reach someone posing as the engine.
    std::vector<std::string> byDescriptor;
    std::erase_if(batch, [&](const std::string& path) {
        if (listFileCanCarry(path) && !parameters->checkedConnectionsOnly)
            return false;
        byDescriptor.push_back(path);
        return true;
    });
    if (!batch.empty())
        runClamdscan(std::move(batch), parameters);
    if (!byDescriptor.empty())
        scanByDescriptor(std::move(byDescriptor), parameters);
}

void PatientScanner::queueFilesOfFolders(std::vector<std::string>& batch)
{
    // A folder in a batch (a volume's root) is scanned whole, file by file:
    // its files join the queue like any others, so that every result names
    // a file the agent asked about, and no name inside a folder can forge
    // one.
    std::vector<std::string> files;
    std::erase_if(batch, [&](const std::string& path) {
        struct stat info{};
        if (!statPath(path, &info, false) || !S_ISDIR(info.st_mode))
            return false;
        walkFiles(
            {path}, false, [](const std::string&) { return true; },
            [&](std::string&& file) {
                files.push_back(std::move(file));
                if (files.size() >= Dispatcher::kBatchLimit)
                    shared_.queue.addToItemList(files);
                return !stopRequested_;
            });
        return true;
    });
    if (!files.empty())
        shared_.queue.addToItemList(files);
}

void PatientScanner::dropExcluded(std::vector<std::string>& batch, const Settings* settings) const
{
    if (!settings || settings->exclusions.empty())
        return;
    std::erase_if(batch, [settings](const std::string& path) {
        for (const std::string& pattern : settings->exclusions) {
            if (!pattern.empty() && search(path, pattern))
                return true;
        }
        return false;
    });
}

// One run of clamdscan over a list file: the file, the client and its
// output, each with one owner for the run.
class PatientScanner::ClamdscanRun {
public:
    ClamdscanRun(PatientScanner& scanner, Run& run) : scanner_(scanner), run_(run), host_(scanner.shared_.host) {}

    // Runs the client and feeds its output to the run. The client's exit
    // status, or nothing when it did not run.
    std::optional<int> perform(const std::vector<std::string>& paths)
    {
        const std::string listPath = scanner_.listFilePath(run_.parameters());
        std::string listText;
        for (const std::string& path : paths)
            listText += path + "\n";
        bool replacedLink = false;
        listWritten_ = writeFileNoFollow(listPath, listText, &replacedLink);
        if (replacedLink)
            nsLogf("Removed a link planted at the scan list %s", listPath.c_str());
        if (listWritten_)
            listPath_ = listPath;

        // The daemon of this run: while the user's own stands in for the
        // system's service, the stand-in's clamdscan talks to it.
        const ClamdSupervisor::RunEngine engine = host_.clamd().engineForRun(run_.parameters().clamdscan);
        run_.useEngine(engine.generation);
        argv_ = run_.parameters().commandLine(engine.clamdscan, listPath, engine.socket.has_value());

        // clamdscan sends every path to whoever serves the socket: never to
        // a daemon of another user, which could read them and answer OK.
        if (!host_.clamd().socketTrusted(engine.socket)) {
            nsLogf("%zu files are not scanned: the engine's socket is not trusted", paths.size());
            return std::nullopt;
        }
        int launchError = 0;
        client_ = ChildProcess::spawn(argv_, ChildProcess::Output::Pipe, &launchError);
        if (!client_) {
            if (launchError == ENOENT || launchError == EACCES || launchError == ENOTDIR)
                host_.noEnginePanic();
            else
                nsLogf("Could not start %s: %s", argv_.front().c_str(), std::strerror(launchError));
            return std::nullopt;
        }
        scanner_.shared_.clients.add(client_->pid());
        registered_ = true;

        // Output is handled chunk by chunk while the program runs.
        ClamdscanOutput output(run_.asked(), run_);
        std::string chunk;
        while (client_->readChunk(&chunk) == ChildProcess::ReadStatus::Data) {
            lastChunk_ = chunk;
            output.feed(chunk);
            chunk.clear();
        }
        output.finish();
        // Left unreaped until it is off the abort list, so an abort can never
        // signal a recycled pid.
        client_->waitForExitWithoutReaping();
        unregister();
        return client_->wait();
    }

    // What the run held when it failed, for the log.
    void logFailure(const std::exception& exception) const
    {
        const std::string pid = client_ ? std::to_string(client_->pid()) : std::string();
        const std::string pipe = client_ ? std::to_string(client_->outputFd()) : std::string();
        const std::vector<std::string> arguments = argv_.empty() ? argv_ : std::vector(argv_.begin() + 1, argv_.end());
        std::vector<std::string> asked(run_.asked().begin(), run_.asked().end());
        nsLogf("Scanner: Caught %s: %s", typeid(exception).name(), exception.what());
        nsLogf("Scanner v1 of 9: scanArguments: %s", joined(arguments).c_str());
        nsLogf("Scanner v2 of 9: scanCommandPath: %s", argv_.empty() ? "" : argv_.front().c_str());
        nsLogf("Scanner v3 of 9: outputPipe: %s", pipe.c_str());
        nsLogf("Scanner v4 of 9: taskOutput: %s", pipe.c_str());
        nsLogf("Scanner v5 of 9: scanCheckTask: %s", pid.c_str());
        nsLogf("Scanner v6 of 9: scanParams: %s", joined(argv_).c_str());
        nsLogf("Scanner v7 of 9: thePaths: %s", displayText(joined(asked)).c_str());
        nsLogf("Scanner v8 of 9: [scanArguments objectAtIndex:0]: %s", arguments.empty() ? "" : arguments.front().c_str());
        nsLogf("Scanner v9 of 9: data: %s", displayText(lastChunk_).c_str());
    }

    ~ClamdscanRun()
    {
        unregister();
        if (listPath_)
            ::unlink(listPath_->c_str());
    }

private:
    void unregister()
    {
        if (registered_)
            scanner_.shared_.clients.remove(client_->pid());
        registered_ = false;
    }

    PatientScanner& scanner_;
    Run& run_;
    ScannerHost& host_;
    bool listWritten_ = false;
    std::optional<std::string> listPath_;  // removed with the run
    std::vector<std::string> argv_;
    std::optional<ChildProcess> client_;
    bool registered_ = false;  // on the abort list
    std::string lastChunk_;
};

void PatientScanner::runClamdscan(std::vector<std::string> paths, const std::shared_ptr<const ScanParameters>& parameters)
{
    // A run that lost its daemon while another took over (the user's own
    // standing in for the system's service), or while the user's own was
    // launched again, is run once more on the new one: the files it held
    // were never scanned.
    for (int attempt = 0; attempt < 2; ++attempt) {
        Run run(*this, parameters, paths);
        std::optional<int> status;
        {
            ClamdscanRun client(*this, run);
            try {
                status = client.perform(paths);
            } catch (const std::exception& exception) {
                client.logFailure(exception);
            }
        }
        if (!status)
            return;
        ScannerHost& host = shared_.host;
        // clamdscan ends with 2 when it could not reach the daemon; any
        // other status means the daemon answered this run.
        if (*status != 2)
            host.engineAnswered();
        else if (!host.clamdStillAlive() && host.clamd().unreachableAlertDue())
            host.engineUnreachable(myName_);
        if (!run.lostDaemonToANewOne())
            return;
    }
}

void PatientScanner::scanByDescriptor(std::vector<std::string> paths,
                                      const std::shared_ptr<const ScanParameters>& parameters)
{
    Run run(*this, parameters, paths);
    bool unreachable = false;
    for (const std::string& path : paths) {
        // The last component may be a link, as in a list file; a move then
        // finds the name leads elsewhere and leaves it.
        const UniqueFd file = openPath(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        struct stat info{};
        if (!file || ::fstat(file.get(), &info) != 0) {
            run.report(ScanResult{path, ScanResult::Verdict::Error, std::strerror(errno), std::nullopt}, false);
            continue;
        }
        if (!S_ISREG(info.st_mode)) {
            run.report(ScanResult{path, ScanResult::Verdict::Error, "Not a regular file", std::nullopt}, false);
            continue;
        }
        ClamdCtrl::FileVerdict verdict = run.scanOpenFile(file.get());
        if (verdict.kind == ClamdCtrl::FileVerdict::Unreachable && !run.lostDaemon()) {
            // The first loss of a run starts the recovery; a daemon launched
            // again, or another standing in, gets the file again.
            run.unreachable(verdict.detail);
            if (run.lostDaemonToANewOne())
                verdict = run.scanOpenFile(file.get());
        }
        switch (verdict.kind) {
        case ClamdCtrl::FileVerdict::Clean:
            run.report(ScanResult{path, ScanResult::Verdict::Clean, {}, std::nullopt}, false);
            break;
        case ClamdCtrl::FileVerdict::Error:
            run.report(ScanResult{path, ScanResult::Verdict::Error, verdict.detail, std::nullopt}, false);
            break;
        case ClamdCtrl::FileVerdict::Untrusted:
            nsLogf("%s is not scanned: the engine is not trusted (%s)", displayText(path).c_str(),
                   verdict.detail.c_str());
            break;
        case ClamdCtrl::FileVerdict::Unreachable:
            logLine(displayText(verdict.detail));
            unreachable = true;
            break;
        case ClamdCtrl::FileVerdict::Found: {
            ScanResult result{path, ScanResult::Verdict::Infected, verdict.detail, std::nullopt};
            const Settings* settings = parameters->settings.get();
            if (settings && settings->handling != Handling::LeaveAndWarn && parameters->moveFolder) {
                std::string why;
                result.movedTo = moveScannedFile(path, file.get(), *parameters->moveFolder, &why);
                if (!result.movedTo)
                    logLine("ERROR: Can't move file " + displayText(path) + " to " +
                            displayText(*parameters->moveFolder) + ": " + why);
            }
            run.report(std::move(result), false);
            break;
        }
        }
    }
    ScannerHost& host = shared_.host;
    if (unreachable && !host.clamdStillAlive() && host.clamd().unreachableAlertDue())
        host.engineUnreachable(myName_);
}

bool PatientScanner::scanHeld(int fd, const std::string& path, const gfs::Opener& opener,
                              const std::function<void(gfs::HoldVerdict)>& answer)
{
    const std::shared_ptr<const ScanParameters> parameters = this->parameters();
    std::vector<std::string> batch{path};
    if (parameters)
        dropExcluded(batch, parameters->settings.get());
    if (!parameters || batch.empty()) {
        answer(gfs::HoldVerdict::AllowUnknown);
        return false;
    }
    Run run(*this, parameters, batch);
    run.identifyByDescriptor(path, fd);
    ClamdCtrl::FileVerdict verdict = run.scanOpenFile(fd);
    if (verdict.kind == ClamdCtrl::FileVerdict::Unreachable) {
        // A daemon launched again, or another standing in, gets the file again.
        run.unreachable(verdict.detail);
        if (run.lostDaemonToANewOne())
            verdict = run.scanOpenFile(fd);
    }
    switch (verdict.kind) {
    case ClamdCtrl::FileVerdict::Clean:
        answer(gfs::HoldVerdict::AllowClean);
        run.report(ScanResult{path, ScanResult::Verdict::Clean, {}, std::nullopt}, false);
        return false;
    case ClamdCtrl::FileVerdict::Error:
        answer(gfs::HoldVerdict::AllowUnknown);
        run.report(ScanResult{path, ScanResult::Verdict::Error, verdict.detail, std::nullopt}, false);
        return false;
    case ClamdCtrl::FileVerdict::Untrusted:
    case ClamdCtrl::FileVerdict::Unreachable:
        answer(gfs::HoldVerdict::AllowUnknown);
        logLine(displayText(verdict.detail));
        return true;
    case ClamdCtrl::FileVerdict::Found:
        break;
    }
    answer(gfs::HoldVerdict::Deny);
    ScanResult result{path, ScanResult::Verdict::Infected, verdict.detail, std::nullopt};
    const std::string blocked = "Blocked " + displayText(opener.command) + " (pid " + std::to_string(opener.pid) +
                                ") from opening " + result.logLine();
    const Settings* settings = parameters->settings.get();
    if (settings && settings->handling != Handling::LeaveAndWarn && parameters->moveFolder) {
        std::string why;
        result.movedTo = moveScannedFile(path, fd, *parameters->moveFolder, &why);
        if (!result.movedTo)
            logLine("ERROR: Can't move file " + displayText(path) + " to " + displayText(*parameters->moveFolder) +
                    ": " + why);
    }
    run.report(std::move(result), false, blocked);
    return false;
}

} // namespace kv

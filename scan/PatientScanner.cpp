#include "scan/PatientScanner.h"

#include "engine/ClamdCtrl.h"
#include "engine/ClamdSupervisor.h"
#include "platform/DesktopNotifier.h"
#include "platform/FileWriting.h"
#include "platform/FolderWalk.h"
#include "platform/Log.h"
#include "platform/LongPath.h"
#include "platform/PathText.h"
#include "platform/QuarantineRecords.h"
#include "queue/Dispatcher.h"
#include "scan/ExclusionPatterns.h"
#include "scan/Relocation.h"
#include "scan/ScanAlerts.h"
#include "scan/ScannerHost.h"
#include "platform/TrashInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <typeinfo>

namespace kv {

std::function<void()> PatientScanner::faultInjectionForTesting;

namespace {

constexpr const char* kConnectWarning = "WARNING: Can't connect to clamd.";
constexpr std::string_view kConnectError = "ERROR: Could not connect to clamd on";
constexpr std::string_view kMoveOption = "--move=";
constexpr std::string_view kMovedMarker = ": moved to '";
// Output without a line break for this long is taken as a line of its own.
constexpr size_t kLongestOutputLine = 64 * 1024;

// The summary block after the results: its separators, counts, elapsed
// time and (from ClamAV 1.x) start and end dates.
bool isSummaryLine(std::string_view line)
{
    for (const std::string_view start : {"-----", "Time:", "Infec", "Total errors:", "Start Date:", "End Date:"}) {
        if (line.starts_with(start))
            return true;
    }
    return false;
}

std::string timeStamp()
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char buffer[30];
    if (!::localtime_r(&now, &local) || std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local) == 0)
        return "X";
    return buffer;
}

std::string joined(const std::vector<std::string>& items)
{
    std::string text = "(";
    for (size_t i = 0; i < items.size(); ++i)
        text += (i ? ", " : "") + items[i];
    return text + ")";
}

} // namespace

void PatientScanner::setMyName(std::string name)
{
    std::lock_guard<std::mutex> guard(configMutex_);
    myName_ = std::move(name);
}

std::string PatientScanner::myName() const
{
    std::lock_guard<std::mutex> guard(configMutex_);
    return myName_;
}

std::string PatientScanner::listFilePath() const
{
    const std::optional<std::string> folder = host_ ? host_->temporaryFolder() : std::nullopt;
    return folder.value_or("/tmp/") + "KorvaneVelgarScanList_" + myName() + ".txt";
}

void PatientScanner::setMenuAndParams(const ScanParameters& parameters)
{
    std::lock_guard<std::mutex> guard(configMutex_);
    configuration_ = Configuration{parameters.arguments, parameters.settings};
}

PatientScanner::Configuration PatientScanner::configuration() const
{
    std::lock_guard<std::mutex> guard(configMutex_);
    return configuration_;
}

void PatientScanner::requestStop()
{
    stopRequested_ = true;
    Dispatcher& dispatcher = host_->theDispatcher();
    dispatcher.scannerLock().lock();
    dispatcher.scannerLock().broadcast();
    dispatcher.scannerLock().unlock();
}

void PatientScanner::mainLoop()
{
    Dispatcher& dispatcher = host_->theDispatcher();
    while (!stopRequested_) {
        ConditionLock& scannerLock = dispatcher.scannerLock();
        scannerLock.lock();
        while (dispatcher.scannableCount() == 0 && !stopRequested_)
            scannerLock.wait();
        scannerLock.unlock();
        if (stopRequested_)
            break;

        scanBatch(dispatcher);
    }
}

void PatientScanner::scanBatch(Dispatcher& dispatcher)
{
    getItemsToScan(dispatcher);
    takeConfigurationForRun();
    determineWhatToScan();
    queueFilesOfFolders(dispatcher);

    // Paths the list file cannot carry are scanned by descriptor, after
    // the listed ones.
    std::vector<std::string> byDescriptor;
    std::erase_if(scanList_, [&byDescriptor](const std::string& path) {
        if (listFileCanCarry(path))
            return false;
        byDescriptor.push_back(path);
        return true;
    });
    if (!scanList_.empty()) {
        performScan();
        // A run that lost its daemon while another took over (the user's
        // own standing in for the system's service), or while the user's
        // own was launched again, is run once more on the new one: the
        // files it held were never scanned.
        if (rerunOnNewEngine_)
            performScan();
    }
    if (!byDescriptor.empty()) {
        scanList_ = std::move(byDescriptor);
        scanByDescriptor();
    }
    scanList_.clear();
}

void PatientScanner::queueFilesOfFolders(Dispatcher& dispatcher)
{
    // A folder in a batch (a volume's root) is scanned whole, file by file:
    // its files join the queue like any others, so that every result line
    // names a file the agent asked about, and no name inside a folder can
    // forge one.
    std::vector<std::string> files;
    std::erase_if(scanList_, [&](const std::string& path) {
        struct stat info{};
        if (!statPath(path, &info, false) || !S_ISDIR(info.st_mode))
            return false;
        walkFiles(
            {path}, false, [](const std::string&) { return true; },
            [&](std::string&& file) {
                files.push_back(std::move(file));
                if (files.size() >= Dispatcher::kBatchLimit)
                    dispatcher.addToItemList(files);
                return !stopRequested_;
            });
        return true;
    });
    if (!files.empty())
        dispatcher.addToItemList(files);
}

void PatientScanner::takeConfigurationForRun()
{
    runConfiguration_ = configuration();
    sawConnectionError_ = false;
    if (host_)
        runGeneration_ = host_->clamd().generation();
}

void PatientScanner::getItemsToScan(Dispatcher& dispatcher)
{
    dispatcher.copyFromDispatchToScanner(scanList_);
    // The queue wakes one scanner per cycle. When more paths wait than one
    // batch holds, pass the wake-up on, so the other scanner shares a flood
    // at once instead of waiting for a cycle that may never come.
    if (dispatcher.scannableCount() > 0) {
        ConditionLock& scannerLock = dispatcher.scannerLock();
        scannerLock.lock();
        scannerLock.signal();
        scannerLock.unlock();
    }
}

void PatientScanner::determineWhatToScan()
{
    if (!runConfiguration_.settings || runConfiguration_.settings->exclusions.empty())
        return;
    const std::vector<std::string>& patterns = runConfiguration_.settings->exclusions;
    for (size_t i = scanList_.size(); i-- > 0;) {
        for (const std::string& pattern : patterns) {
            if (!pattern.empty() && search(scanList_[i], pattern)) {
                scanList_.erase(scanList_.begin() + static_cast<long>(i));
                break;
            }
        }
    }
}

bool PatientScanner::writeListFile(const std::string& path, const std::string& text)
{
    bool replacedLink = false;
    const bool written = writeFileNoFollow(path, text, &replacedLink);
    if (replacedLink)
        nsLogf("Removed a link planted at the scan list %s", path.c_str());
    return written;
}

void PatientScanner::performScan()
{
    ScannerHost& controller = *host_;
    controller.modifyScannerCountBy(1);

    std::vector<std::string> scanArguments;
    std::string scanCommandPath;
    std::string data;
    std::optional<ChildProcess> scanCheckTask;
    const std::string listPath = listFilePath();
    sawConnectionError_ = false;
    rerunOnNewEngine_ = false;
    relaunchedInRun_ = false;
    bool listWritten = false;
    asked_.clear();
    foundInRun_.clear();
    partialLine_.clear();

    try {
        scanArguments = runConfiguration_.scanParams;

        std::string listText;
        for (const std::string& path : scanList_) {
            listText += path + "\n";
            asked_.insert(path);
        }
        listWritten = writeListFile(listPath, listText);
        if (faultInjectionForTesting)
            faultInjectionForTesting();

        scanArguments.push_back("--file-list=" + listPath);
        if (!scanArguments.empty()) {
            scanCommandPath = scanArguments.front();
            scanArguments.erase(scanArguments.begin());
        }
        // The daemon of this run: while the user's own stands in for the
        // system's service, the stand-in's clamdscan talks to it.
        const ClamdSupervisor::RunEngine engine = controller.clamd().engineForRun(scanCommandPath);
        scanCommandPath = engine.clamdscan;
        runGeneration_ = engine.generation;

        std::vector<std::string> argv{scanCommandPath};
        argv.insert(argv.end(), scanArguments.begin(), scanArguments.end());
        int launchError = 0;
        // clamdscan sends every path to whoever serves the socket: never to
        // a daemon of another user, which could read them and answer OK.
        const bool trusted = controller.clamdSocketTrusted(engine.socket);
        if (trusted)
            scanCheckTask = ChildProcess::spawn(argv, ChildProcess::Output::Pipe, &launchError);
        if (!trusted) {
            nsLogf("%zu files are not scanned: the engine's socket is not trusted", scanList_.size());
            if (listWritten)
                ::unlink(listPath.c_str());
        } else if (!scanCheckTask) {
            if (launchError == ENOENT || launchError == EACCES || launchError == ENOTDIR)
                controller.noEnginePanic();
            else
                nsLogf("Could not start %s: %s", scanCommandPath.c_str(), std::strerror(launchError));
        } else {
            clientPid_ = scanCheckTask->pid();
            controller.registerScanClient(scanCheckTask->pid());

            // Output is handled chunk by chunk while the program runs.
            std::string chunk;
            while (scanCheckTask->readChunk(&chunk) == ChildProcess::ReadStatus::Data) {
                data = chunk;
                dealWithOutput(chunk);
                chunk.clear();
            }
            finishOutput();
            // Leave the child unreaped until it is out of the abort list, so
            // an abort can never signal a recycled pid.
            scanCheckTask->waitForExitWithoutReaping();
            controller.unregisterScanClient(scanCheckTask->pid());
            clientPid_ = -1;
            const int status = scanCheckTask->wait();

            rerunOnNewEngine_ =
                sawConnectionError_ && (relaunchedInRun_ || controller.clamd().engineChangedSince(runGeneration_));
            // clamdscan ends with 2 when it could not reach the daemon; any
            // other status means the daemon answered this run.
            if (status != 2)
                controller.engineAnswered();
            else if (!controller.clamdStillAlive() && controller.clamd().unreachableAlertDue())
                alertEngineUnreachable();

            if (listWritten)
                ::unlink(listPath.c_str());
        }
    } catch (const std::exception& exception) {
        nsLogf("Scanner: Caught %s: %s", typeid(exception).name(), exception.what());
        nsLogf("Scanner v1 of 9: scanArguments: %s", joined(scanArguments).c_str());
        nsLogf("Scanner v2 of 9: scanCommandPath: %s", scanCommandPath.c_str());
        nsLogf("Scanner v3 of 9: outputPipe: %s", scanCheckTask ? std::to_string(scanCheckTask->outputFd()).c_str() : "");
        nsLogf("Scanner v4 of 9: taskOutput: %s", scanCheckTask ? std::to_string(scanCheckTask->outputFd()).c_str() : "");
        nsLogf("Scanner v5 of 9: scanCheckTask: %s", scanCheckTask ? std::to_string(scanCheckTask->pid()).c_str() : "");
        nsLogf("Scanner v6 of 9: scanParams: %s", joined(runConfiguration_.scanParams).c_str());
        nsLogf("Scanner v7 of 9: thePaths: %s", displayText(joined(scanList_)).c_str());
        nsLogf("Scanner v8 of 9: [scanArguments objectAtIndex:0]: %s",
               scanArguments.empty() ? "" : scanArguments.front().c_str());
        nsLogf("Scanner v9 of 9: data: %s", displayText(data).c_str());
    }
    if (clientPid_ > 0) {
        controller.unregisterScanClient(clientPid_);
        clientPid_ = -1;
    }
    scanCheckTask.reset();
    controller.modifyScannerCountBy(-1);
}

void PatientScanner::alertEngineUnreachable()
{
    ScannerHost& controller = *host_;
    nsLog("can't connect to clamd");
    // Every silent run is logged; the user is told once per silence.
    if (!controller.engineUnreachableAlertDue())
        return;
    const std::string message = controller.localizedString("CLAMDSCAN_ERROR");
    ScanAlerts* alerts = controller.scanAlerts();
    const std::string quitTitle = controller.quitMenuName();
    if (!alerts || !alerts->showEngineUnreachableDialog(myName(), message, quitTitle)) {
        nsLog("Error loading nib for warning dialog!");
        return;
    }
    controller.displayGrowlDialog(kError, message);
}

void PatientScanner::dealWithOutput(std::string_view chunk)
{
    partialLine_.append(chunk);
    size_t start = 0;
    for (size_t end; (end = partialLine_.find('\n', start)) != std::string::npos; start = end + 1)
        handleLine(std::string_view(partialLine_).substr(start, end - start));
    partialLine_.erase(0, start);
    if (partialLine_.size() >= kLongestOutputLine)
        finishOutput();
}

void PatientScanner::finishOutput()
{
    if (!partialLine_.empty())
        handleLine(partialLine_);
    partialLine_.clear();
}

void PatientScanner::handleLine(std::string_view line)
{
    const Configuration& config = runConfiguration_;
    const std::string shown = displayText(line);

    if (const std::optional<std::string> found = pathOfFinding(line)) {
        if (!asked_.contains(*found) || !confirmedInfected(*found)) {
            logLine("Unexpected scanner output: " + shown);
            return;
        }
        // "PATH: SIGNATURE FOUND"
        const size_t signatureStart = found->size() + 2;
        foundInRun_.signatures[*found] =
            std::string(line.substr(signatureStart, line.size() - signatureStart - std::strlen(" FOUND")));
        raiseAlert(shown, *found, config);
    }
    if (const std::optional<MovedLine> moved = movedLine(line)) {
        const bool trashes = config.settings && config.settings->trashes();
        if (trashes)
            writeTrashInfo(*moved, std::time(nullptr));
        if (config.settings && config.settings->handling != Handling::LeaveAndWarn)
            recordMove(*moved, trashes);
    } else if (line.ends_with("'") && line.find(kMovedMarker) != std::string_view::npos) {
        // clamdscan moves only what it found; a move of anything else was
        // written by a file name.
        logLine("Unexpected scanner output: " + shown);
        return;
    }

    if (line.size() < 6) {
        if (!line.empty())
            logLine(shown);
    } else if (line == kConnectWarning) {
        recoverWithLine();
    } else if (!sawConnectionError_ && line.starts_with(kConnectError)) {
        // Current clamdscan reports an unreachable daemon this way, once
        // per file: the first such line of a run starts the recovery.
        sawConnectionError_ = true;
        recoverWithLine();
    } else if (!isSummaryLine(line)) {
        logLine(shown);
    }
}

std::optional<MovedLine> PatientScanner::movedLine(std::string_view line) const
{
    // The path may itself hold the marker: the one that counts follows a
    // path this run found infected.
    if (!line.ends_with("'"))
        return std::nullopt;
    for (size_t at = line.find(kMovedMarker); at != std::string_view::npos; at = line.find(kMovedMarker, at + 1)) {
        std::string path(line.substr(0, at));
        if (!foundInRun_.contains(path))
            continue;
        const size_t start = at + kMovedMarker.size();
        if (start + 1 >= line.size())
            return std::nullopt;
        return MovedLine{std::move(path), std::string(line.substr(start, line.size() - 1 - start))};
    }
    return std::nullopt;
}

void PatientScanner::recordMove(const MovedLine& moved, bool trashes)
{
    // The quarantine page lists what the agent moved away; a move it cannot
    // record has happened all the same. Only a file directly in the folder
    // the run moves to is recorded: a destination read from a line that a
    // file name helped to spell is no place to restore from.
    std::string folder = moveDestination();
    while (folder.size() > 1 && folder.ends_with('/'))
        folder.pop_back();
    const std::string& destination = moved.destination;
    size_t name = folder.size();
    while (name < destination.size() && destination[name] == '/')
        ++name;
    if (folder.empty() || !destination.starts_with(folder) || name == folder.size() || name == destination.size() ||
        destination.find('/', name) != std::string::npos)
        return;
    QuarantineRecord record;
    record.originalPath = moved.originalPath;
    record.storedPath = moved.destination;
    if (const auto found = foundInRun_.signatures.find(moved.originalPath); found != foundInRun_.signatures.end())
        record.signature = found->second;
    record.movedAt = std::time(nullptr);
    record.place = trashes ? QuarantineRecord::Place::Trash : QuarantineRecord::Place::Quarantine;
    std::string error;
    if (QuarantineRecords().record(std::move(record), &error) || foundInRun_.recordFailureLogged)
        return;
    foundInRun_.recordFailureLogged = true;
    nsLogf("Can't record the move of %s in the quarantine index: %s", displayText(moved.originalPath).c_str(),
           error.c_str());
}

ClamdCtrl::FileVerdict PatientScanner::scanOpenFile(int fd, uint64_t* generation)
{
    // The daemon this run's clamdscan would talk to: while the user's own
    // stands in for the system's service, the stand-in.
    ClamdSupervisor& clamd = host_->clamd();
    const std::string clamdscan = runConfiguration_.scanParams.empty() ? std::string()
                                                                       : runConfiguration_.scanParams.front();
    const ClamdSupervisor::RunEngine engine = clamd.engineForRun(clamdscan);
    if (generation)
        *generation = engine.generation;
    const ClamdCtrl::FileVerdict verdict =
        ClamdCtrl::scanOpenFile(fd, engine.socket, engine.socket ? std::nullopt : clamd.remoteEngine());
    if (verdict.kind != ClamdCtrl::FileVerdict::Unreachable && verdict.kind != ClamdCtrl::FileVerdict::Untrusted)
        host_->engineAnswered();
    return verdict;
}

bool PatientScanner::confirmedInfected(const std::string& path)
{
    // By descriptor, the result cannot be spelled by a name: a path that a
    // folder's name put into clamdscan's output (a file swapped for a folder
    // after it was queued) is scanned again, alone. A file that is gone
    // has been moved by clamdscan, or deleted: either way nothing more is
    // done to it.
    if (verdictByDescriptor_)
        return true;
    const UniqueFd file = openPath(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
    struct stat info{};
    if (!file)
        return errno == ENOENT;
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return false;
    // Only a clean answer (or an engine no longer trusted) overrules
    // clamdscan: an engine that cannot be asked, or cannot read the file
    // either, leaves its word standing.
    const ClamdCtrl::FileVerdict::Kind kind = scanOpenFile(file.get()).kind;
    return kind != ClamdCtrl::FileVerdict::Clean && kind != ClamdCtrl::FileVerdict::Untrusted;
}

void PatientScanner::logLine(const std::string& text)
{
    std::fprintf(stdout, "%s %s\n", timeStamp().c_str(), text.c_str());
    std::fflush(stdout);
}

void PatientScanner::recoverWithLine()
{
    // Only a daemon of the user's own is restarted; the supervisor tells a
    // silent service or remote daemon once, in its own words.
    if (!host_->recoverFromCrashedClamd(runGeneration_))
        return;
    relaunchedInRun_ = true;
    logLine("clamd appears to have died - attempting restart...");
}

std::string PatientScanner::moveDestination() const
{
    for (const std::string& argument : runConfiguration_.scanParams) {
        if (argument.starts_with(kMoveOption))
            return argument.substr(kMoveOption.size());
    }
    return {};
}

void PatientScanner::scanByDescriptor()
{
    ScannerHost& controller = *host_;
    controller.modifyScannerCountBy(1);
    sawConnectionError_ = false;
    relaunchedInRun_ = false;
    asked_.clear();
    foundInRun_.clear();
    asked_.insert(scanList_.begin(), scanList_.end());
    bool unreachable = false;
    for (const std::string& path : scanList_) {
        if (scanOneByDescriptor(path))
            continue;
        // The first loss of a run starts the recovery (see handleLine); a
        // daemon launched again, or another standing in, gets the file again.
        if ((relaunchedInRun_ || controller.clamd().engineChangedSince(runGeneration_)) && scanOneByDescriptor(path)) {
            relaunchedInRun_ = false;
            continue;
        }
        unreachable = true;
    }
    if (unreachable && !controller.clamdStillAlive() && controller.clamd().unreachableAlertDue())
        alertEngineUnreachable();
    controller.modifyScannerCountBy(-1);
}

bool PatientScanner::scanOneByDescriptor(const std::string& path)
{
    // The last component may be a link, as in a list file; the move below
    // then finds the name leads elsewhere and leaves it.
    const UniqueFd file = openPath(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    struct stat info{};
    if (!file || ::fstat(file.get(), &info) != 0) {
        handleLine(path + ": " + std::strerror(errno) + " ERROR");
        return true;
    }
    if (!S_ISREG(info.st_mode)) {
        handleLine(path + ": Not a regular file ERROR");
        return true;
    }
    const ClamdCtrl::FileVerdict verdict = scanOpenFile(file.get(), &runGeneration_);
    switch (verdict.kind) {
    case ClamdCtrl::FileVerdict::Clean:
        handleLine(path + ": OK");
        return true;
    case ClamdCtrl::FileVerdict::Error:
        handleLine(path + ": " + verdict.detail + " ERROR");
        return true;
    case ClamdCtrl::FileVerdict::Untrusted:
        nsLogf("%s is not scanned: the engine is not trusted (%s)", displayText(path).c_str(), verdict.detail.c_str());
        return true;
    case ClamdCtrl::FileVerdict::Unreachable:
        handleLine(verdict.detail);
        return false;
    case ClamdCtrl::FileVerdict::Found:
        break;
    }
    verdictByDescriptor_ = true;
    handleLine(path + ": " + verdict.detail + " FOUND");
    verdictByDescriptor_ = false;
    const std::string folder = moveDestination();
    const Settings* settings = runConfiguration_.settings.get();
    if (!settings || settings->handling == Handling::LeaveAndWarn || folder.empty())
        return true;
    std::string why;
    if (const std::optional<std::string> moved = moveScannedFile(path, file.get(), folder, &why))
        handleLine(path + ": moved to '" + *moved + "'");
    else
        logLine("ERROR: Can't move file " + displayText(path) + " to " + displayText(folder) + ": " + why);
    return true;
}

void PatientScanner::raiseAlert(const std::string& line, const std::string& path, const Configuration& config)
{
    const Settings* settings = config.settings.get();
    if (!settings)
        return;
    if (findings_ && !findings_->isNews(path))
        return;
    ScannerHost& controller = *host_;
    ScanAlerts* alerts = controller.scanAlerts();
    switch (settings->handling) {
    case Handling::MoveToQuarantine:
        if (!settings->suppressInfoDialogs &&
            (!alerts || !alerts->showQuarantinedDialog(myName(), settings->quarantineFolder)))
            nsLog("Error loading Nib for document!");
        controller.displayGrowlDialog(kQuarantined, line);
        break;
    case Handling::LeaveAndWarn:
        if (!alerts || !alerts->showWarningDialog(myName(), line, path)) {
            nsLog("Error loading Nib for document!");
            return;
        }
        controller.displayGrowlDialog(kFound, line);
        break;
    case Handling::MoveToTrash:
        controller.displayGrowlDialog(kRemoved, displayText(path));
        break;
    }
}

} // namespace kv

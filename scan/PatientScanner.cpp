#include "scan/PatientScanner.h"

#include "app/KorvaneVelgar.h"
#include "app/StatusMenu.h"
#include "platform/FileWriting.h"
#include "platform/Log.h"
#include "platform/Utf8.h"
#include "platform/Preferences.h"
#include "queue/Dispatcher.h"
#include "scan/ExclusionPatterns.h"
#include "scan/ScanAlerts.h"
#include "scan/TrashInfo.h"

#include <unistd.h>

#include <QJsonArray>

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
    const std::optional<std::string> folder = korvaneVelgarController ? korvaneVelgarController->temporaryFolder()
                                                                      : std::nullopt;
    return folder.value_or("/tmp/") + "KorvaneVelgarScanList_" + myName() + ".txt";
}

void PatientScanner::setMenuAndParams(const ScanParameters& parameters)
{
    Configuration updated;
    updated.scanParams = parameters.arguments;
    KorvaneVelgar& controller = *korvaneVelgarController;
    updated.quarantineOrTrash = controller.getQuarantineOrTrash();
    const std::optional<QJsonArray> records = controller.preferences().array("ExcludePatterns");
    updated.excludePatterns = records ? buildExcludePatterns(*records) : std::vector<std::string>();
    std::lock_guard<std::mutex> guard(configMutex_);
    // Outside quarantine mode the former quarantine folder is kept.
    updated.quarantineLocation = configuration_.quarantineLocation;
    if (updated.quarantineOrTrash == "Q") {
        const std::string location = controller.getQuarantineLocation();
        updated.quarantineLocation = location.size() >= 7 ? location.substr(7) : std::string();
    }
    updated.suppressInfoDialogs = controller.preferences().boolean("SuppressInfoDialogs");
    configuration_ = std::move(updated);
}

PatientScanner::Configuration PatientScanner::configuration() const
{
    std::lock_guard<std::mutex> guard(configMutex_);
    return configuration_;
}

std::vector<std::string> PatientScanner::excludePatterns() const { return configuration().excludePatterns; }

std::optional<std::string> PatientScanner::quarantineOrTrash() const { return configuration().quarantineOrTrash; }

void PatientScanner::requestStop()
{
    stopRequested_ = true;
    Dispatcher& dispatcher = korvaneVelgarController->theDispatcher();
    dispatcher.scannerLock().lock();
    dispatcher.scannerLock().broadcast();
    dispatcher.scannerLock().unlock();
}

void PatientScanner::mainLoop()
{
    Dispatcher& dispatcher = korvaneVelgarController->theDispatcher();
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

    // Paths too long for the list file get a run of their own, after the
    // listed ones, with the same arguments and output handling.
    std::vector<std::string> longPaths;
    std::erase_if(scanList_, [&longPaths](const std::string& path) {
        if (path.size() < kLongestListedPath)
            return false;
        longPaths.push_back(path);
        return true;
    });
    // A run that lost its daemon while another took over (the user's own
    // standing in for the system's service), or while the user's own was
    // launched again, is run once more on the new one: the files it held
    // were never scanned.
    const auto scan = [this](PathsGiven given) {
        performScan(given);
        if (rerunOnNewEngine_)
            performScan(given);
    };
    if (!scanList_.empty())
        scan(PathsGiven::InListFile);
    if (!longPaths.empty()) {
        scanList_ = std::move(longPaths);
        scan(PathsGiven::AsArguments);
    }
    scanList_.clear();
}

void PatientScanner::takeConfigurationForRun()
{
    runConfiguration_ = configuration();
    sawConnectionError_ = false;
    if (korvaneVelgarController)
        runGeneration_ = korvaneVelgarController->clamd().generation();
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
    const std::vector<std::string>& patterns = runConfiguration_.excludePatterns;
    if (patterns.empty())
        return;
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

void PatientScanner::performScan(PathsGiven given)
{
    KorvaneVelgar& controller = *korvaneVelgarController;
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

    try {
        scanArguments = runConfiguration_.scanParams;

        if (given == PathsGiven::InListFile) {
            std::string listText;
            for (const std::string& path : scanList_)
                listText += path + "\n";
            listWritten = writeListFile(listPath, listText);
        }
        if (faultInjectionForTesting)
            faultInjectionForTesting();

        if (given == PathsGiven::InListFile)
            scanArguments.push_back("--file-list=" + listPath);
        else
            scanArguments.insert(scanArguments.end(), scanList_.begin(), scanList_.end());
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
            // Leave the child unreaped until it is out of the abort list, so
            // an abort can never signal a recycled pid.
            scanCheckTask->waitForExitWithoutReaping();
            controller.unregisterScanClient(scanCheckTask->pid());
            clientPid_ = -1;
            const int status = scanCheckTask->wait();

            rerunOnNewEngine_ =
                sawConnectionError_ && (relaunchedInRun_ || controller.clamd().engineChangedSince(runGeneration_));
            if (status == 2 && !controller.clamdStillAlive() && controller.clamd().unreachableAlertDue())
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
        nsLogf("Scanner v7 of 9: thePaths: %s", joined(scanList_).c_str());
        nsLogf("Scanner v8 of 9: [scanArguments objectAtIndex:0]: %s",
               scanArguments.empty() ? "" : scanArguments.front().c_str());
        nsLogf("Scanner v9 of 9: data: %s", data.c_str());
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
    KorvaneVelgar& controller = *korvaneVelgarController;
    nsLog("can't connect to clamd");
    const std::string message = controller.localizedString("CLAMDSCAN_ERROR");
    ScanAlerts* alerts = controller.scanAlerts();
    const std::string quitTitle = controller.mainMenu() ? controller.mainMenu()->getQuitMenuName() : std::string();
    if (!alerts || !alerts->showEngineUnreachableDialog(myName(), message, quitTitle)) {
        nsLog("Error loading nib for warning dialog!");
        return;
    }
    controller.displayGrowlDialog(KorvaneVelgar::kError, message);
}

int PatientScanner::getLastColon(const std::string& text)
{
    const size_t colon = text.rfind(':');
    return colon == std::string::npos ? -1 : static_cast<int>(colon);
}

void PatientScanner::dealWithOutput(std::string_view chunk)
{
    const std::string stamp = timeStamp();
    if (!isValidUtf8(chunk))
        return;
    const Configuration& config = runConfiguration_;

    size_t start = 0;
    while (start < chunk.size()) {
        size_t end = chunk.find('\n', start);
        if (end == std::string_view::npos)
            end = chunk.size();
        const std::string line(chunk.substr(start, end - start));
        start = end + 1;

        if (line.size() >= 6 && line.compare(line.size() - 6, 6, " FOUND") == 0)
            raiseAlert(line, config);
        if (config.quarantineOrTrash == "T") {
            if (const std::optional<MovedLine> moved = parseMovedLine(line))
                writeTrashInfo(*moved, std::time(nullptr));
        }

        if (line.size() < 6) {
            if (!line.empty())
                logLine(stamp.c_str(), line);
        } else if (line == kConnectWarning) {
            recoverWithLine(stamp.c_str());
        } else if (!sawConnectionError_ && line.compare(0, kConnectError.size(), kConnectError) == 0) {
            // Current clamdscan reports an unreachable daemon this way, once
            // per file: the first such line of a run starts the recovery.
            sawConnectionError_ = true;
            recoverWithLine(stamp.c_str());
        } else if (line.compare(0, 5, "-----") == 0 || line.compare(0, 5, "Time:") == 0 ||
                   line.compare(0, 5, "Infec") == 0) {
            // The summary block's separators, elapsed time and count.
        } else {
            logLine(stamp.c_str(), line);
        }
    }
}

void PatientScanner::logLine(const char* stamp, const std::string& line)
{
    std::fprintf(stdout, "%s %s\n", stamp, line.c_str());
    std::fflush(stdout);
}

void PatientScanner::recoverWithLine(const char* stamp)
{
    // Only a daemon of the user's own is restarted; the supervisor tells a
    // silent service or remote daemon once, in its own words.
    if (!korvaneVelgarController->recoverFromCrashedClamd(runGeneration_))
        return;
    relaunchedInRun_ = true;
    std::fprintf(stdout, "%s clamd appears to have died - attempting restart...\n", stamp);
    std::fflush(stdout);
}

void PatientScanner::raiseAlert(const std::string& line, const Configuration& config)
{
    if (!config.quarantineOrTrash)
        return;
    KorvaneVelgar& controller = *korvaneVelgarController;
    ScanAlerts* alerts = controller.scanAlerts();
    const std::string& mode = *config.quarantineOrTrash;
    if (mode == "Q") {
        if (!config.suppressInfoDialogs && (!alerts || !alerts->showQuarantinedDialog(myName(), config.quarantineLocation)))
            nsLog("Error loading Nib for document!");
        controller.displayGrowlDialog(KorvaneVelgar::kQuarantined, line);
    } else if (mode.empty()) {
        if (!alerts || !alerts->showWarningDialog(myName(), line)) {
            nsLog("Error loading Nib for document!");
            return;
        }
        controller.displayGrowlDialog(KorvaneVelgar::kFound, line);
    } else if (mode == "T") {
        const int colon = getLastColon(line);
        controller.displayGrowlDialog(KorvaneVelgar::kRemoved, colon < 0 ? line : line.substr(0, static_cast<size_t>(colon)));
    }
}

} // namespace kv

#include "intake/FSEventWatcher.h"

#include "app/KorvaneVelgar.h"
#include "eventhelper/ExitStatus.h"
#include "eventhelper/HelperOutput.h"
#include "platform/ChildProcess.h"
#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/RootControlled.h"
#include "platform/UniqueFd.h"
#include "platform/Utf8.h"
#include "queue/Dispatcher.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QMetaObject>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <thread>
#include <typeinfo>

namespace kv {
namespace {

using Clock = std::chrono::steady_clock;

// A helper that ends sooner than this after its start is restarted after a
// pause that doubles with each such run, so one that fails at every start
// costs a few wake-ups, not a spinning thread.
constexpr auto kSteadyRun = std::chrono::seconds(2);
constexpr int kFirstPauseMs = 250;
constexpr int kLongestPauseMs = 8000;
// A helper that says it cannot watch (no fanotify, a nosuid mount) will
// most likely say so again: it is asked again less and less often, up to
// every five minutes.
constexpr int kLongestPauseCannotWatchMs = 5 * 60 * 1000;
// How long a terminated helper may take before it is killed outright.
constexpr auto kTerminateGrace = std::chrono::seconds(2);
// Walks of the watched folders after lost events start at least this far
// apart: any user can overflow the kernel's queue, and must not be able to
// keep every agent walking without end.
constexpr auto kWalkSpacing = std::chrono::seconds(30);

std::string parentOf(const std::string& path)
{
    const size_t slash = path.find_last_of('/', path.size() > 1 ? path.size() - 2 : 0);
    if (slash == std::string::npos)
        return {};
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Whether top is where a file system is mounted and that file system holds
// path (judged by its deepest folder that still exists).
bool isTopOfFileSystemHolding(const std::string& top, const std::string& path)
{
    struct stat topInfo{};
    if (::stat(top.c_str(), &topInfo) != 0)
        return false;
    if (top != "/") {
        struct stat aboveInfo{};
        if (::stat(parentOf(top).c_str(), &aboveInfo) != 0 || aboveInfo.st_dev == topInfo.st_dev)
            return false;
    }
    for (std::string probe = path; !probe.empty(); probe = parentOf(probe)) {
        struct stat info{};
        if (::stat(probe.c_str(), &info) == 0)
            return info.st_dev == topInfo.st_dev;
        if (probe == "/")
            break;
    }
    return false;
}

} // namespace

struct FSEventWatcher::Loop {
    KorvaneVelgar* korvaneVelgarController = nullptr;
    // Cleared by stopWatching(), never set again: a loop that has been
    // stopped ends, and the next start makes a new one.
    std::atomic<bool> isWatching{true};
    // An eventfd that becomes readable when the loop is stopped, so that
    // waits for helper output or for a restart end at once.
    UniqueFd stopSignal;
    // How the helper's last run ended, so the same end is logged once.
    int lastStatus = -1;
};

FSEventWatcher::FSEventWatcher(Dispatcher& queue) : queue_(queue), watchList_(std::make_shared<const WatchList>()) {}

FSEventWatcher::~FSEventWatcher()
{
    if (isWatching())
        stopWatching();
    std::unique_lock<std::mutex> held(mutex_);
    changed_.wait(held, [this] { return runningLoops_ == 0; });
}

std::string FSEventWatcher::helperPath() { return resourcesDirectory() + "/gfslogger"; }

void FSEventWatcher::setWatchList(std::shared_ptr<const WatchList> list)
{
    std::lock_guard<std::mutex> held(mutex_);
    watchList_ = list ? std::move(list) : std::make_shared<const WatchList>();
}

std::shared_ptr<const WatchList> FSEventWatcher::watchList() const
{
    std::lock_guard<std::mutex> held(mutex_);
    return watchList_;
}

bool FSEventWatcher::isWatching() const
{
    std::lock_guard<std::mutex> held(mutex_);
    return current_ && current_->isWatching;
}

pid_t FSEventWatcher::helperPid() const
{
    std::lock_guard<std::mutex> held(mutex_);
    return scanCheckTask_;
}

void FSEventWatcher::start(KorvaneVelgar& controller)
{
    std::lock_guard<std::mutex> held(mutex_);
    if (current_ && current_->isWatching)
        return;
    auto loop = std::make_shared<Loop>();
    loop->korvaneVelgarController = &controller;
    loop->stopSignal.reset(::eventfd(0, EFD_CLOEXEC));
    try {
        std::thread([this, loop] { mainLoop(loop); }).detach();
    } catch (const std::exception& error) {
        nsLogf("The file-event thread cannot be started: %s", error.what());
        return;
    }
    current_ = std::move(loop);
    ++runningLoops_;
}

void FSEventWatcher::stopWatching()
{
    nsLog("attempting to terminate gfslogger");
    std::unique_lock<std::mutex> held(mutex_);
    if (current_ && current_->isWatching.exchange(false)) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(current_->stopSignal.get(), &one, sizeof one);
    }
    const pid_t helper = scanCheckTask_;
    if (helper < 0)
        return;
    // The helper is reaped under mutex_ as scanCheckTask_ is cleared, so
    // these signals can never reach another process.
    ::kill(helper, SIGTERM);
    const auto ended = [this, helper] { return scanCheckTask_ != helper; };
    if (!changed_.wait_for(held, kTerminateGrace, ended)) {
        ::kill(helper, SIGKILL);
        changed_.wait(held, ended);
    }
}

void FSEventWatcher::mainLoop(const std::shared_ptr<Loop>& loop)
{
    int pauseMs = 0;
    while (loop->isWatching) {
        const Clock::time_point began = Clock::now();
        // After an installation the controller's new start runs a new loop.
        if (startWatching(*loop) == RunEnd::Installed)
            break;
        const int longest = loop->lastStatus == gfs::kCannotWatch ? kLongestPauseCannotWatchMs : kLongestPauseMs;
        pauseMs = Clock::now() - began >= kSteadyRun ? 0 : std::clamp(pauseMs * 2, kFirstPauseMs, longest);
        if (pauseMs > 0 && !pauseBeforeRestart(*loop, pauseMs))
            break;
    }
    std::lock_guard<std::mutex> held(mutex_);
    --runningLoops_;
    changed_.notify_all();
}

bool FSEventWatcher::pauseBeforeRestart(Loop& loop, int milliseconds)
{
    pollfd stop{loop.stopSignal.get(), POLLIN, 0};
    const Clock::time_point until = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (loop.isWatching) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        if (left <= 0 || ::poll(&stop, 1, static_cast<int>(left)) > 0)
            break;
    }
    return loop.isWatching;
}

FSEventWatcher::RunEnd FSEventWatcher::startWatching(Loop& loop)
{
    const std::string helper = helperPath();
    int error = 0;
    std::optional<ChildProcess> task = ChildProcess::spawn({helper}, ChildProcess::Output::Pipe, &error);
    if (!task) {
        nsLog("gfslogger could not be started");
        nsLogf("%s: %s", helper.c_str(), std::strerror(error));
        return RunEnd::Ended;
    }
    const pid_t pid = task->pid();
    bool registered = false;
    {
        std::lock_guard<std::mutex> held(mutex_);
        if (loop.isWatching) {
            scanCheckTask_ = pid;
            registered = true;
        }
    }

    ChildProcess::ReadStatus status = ChildProcess::ReadStatus::Stopped;
    std::string chunk;
    while (registered) {
        chunk.clear();
        status = task->readChunk(&chunk, loop.stopSignal.get());
        if (status != ChildProcess::ReadStatus::Data)
            break;
        if (!loop.isWatching)
            continue;  // stopped: drain until the helper's end closes the pipe
        try {
            taskDataAvailable(chunk);
        } catch (const std::exception& exception) {
            nsLog(typeid(exception).name());
            nsLog(exception.what());
        }
    }
    if (status != ChildProcess::ReadStatus::EndOfFile)
        ::kill(pid, SIGTERM);

    // Wait for the end without reaping; the reap itself happens under the
    // lock, together with letting go of the process id, so stopWatching()
    // never signals an id the system may have handed to another process.
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    int terminationStatus;
    {
        std::lock_guard<std::mutex> held(mutex_);
        terminationStatus = task->wait();
        if (scanCheckTask_ == pid)
            scanCheckTask_ = -1;
        changed_.notify_all();
    }
    task->closeOutput();
    // A helper that keeps ending the same way, at once, has said why the
    // first time; its reason is in the log (see taskDataAvailable).
    if (terminationStatus != loop.lastStatus || terminationStatus == gfs::kLacksPrivileges)
        nsLogf("termination status = %d", terminationStatus);
    loop.lastStatus = terminationStatus;
    if (terminationStatus != 1)
        return RunEnd::Ended;
    installHelper(loop, helper);
    return RunEnd::Installed;
}

void FSEventWatcher::installHelper(Loop& loop, const std::string& helper)
{
    KorvaneVelgar* controller = loop.korvaneVelgarController;
    // The stop empties the controller's folder list and menu, which belong
    // to the main thread; queued calls run there in the order they were
    // made, so this stop comes before the start asked for below.
    QMetaObject::invokeMethod(controller, [controller] { controller->stopWatcher(); }, Qt::QueuedConnection);

    // Making a file set-user-ID root hands root to whoever can change that
    // file or its folders: only a helper that root alone controls (an
    // installed copy), with the installer of the same installation, is
    // ever offered to the administrator. A build tree or a per-user
    // installation is installed first.
    const std::string installer = helperInstallerPath();
    std::string why = whyNotRootControlled(helper);
    if (why.empty())
        why = whyNotRootControlled(installer);
    if (!why.empty()) {
        nsLogf("gfslogger cannot watch without root rights, and it is not installed where only root can change it "
               "(%s): install Korvane Velgar with \"sudo cmake --install build\" or its Debian package, then choose "
               "Start Watching",
               why.c_str());
        controller->displayGrowlDialog(KorvaneVelgar::kError, controller->localizedString("FSEVENT_NOT_INSTALLED"));
        return;
    }
    controller->displayGrowlDialog(KorvaneVelgar::kError, controller->localizedString("FSEVENT_NOT_SETUID"));
    // The installer takes no arguments and has a polkit action of its own,
    // whose message says what the password is for. pkexec exits 0 only
    // when the installer ran and succeeded; 126 (dismissed), 127 (refused)
    // and the installer's own refusal all fail.
    if (runAndWait({"pkexec", installer}, ChildProcess::Output::Inherit) == 0) {
        QMetaObject::invokeMethod(controller, [controller] { controller->startWatcher(); }, Qt::QueuedConnection);
        return;
    }
    nsLog("Authentication failed. Sorry!");
    QMetaObject::invokeMethod(controller, [controller] { controller->quit(); }, Qt::QueuedConnection);
}

void FSEventWatcher::taskDataAvailable(std::string_view chunk)
{
    if (chunk.empty() || !isValidUtf8(chunk))
        return;
    const std::shared_ptr<const WatchList> list = watchList();
    size_t start = 0;
    while (start < chunk.size()) {
        const size_t end = std::min(chunk.find('\n', start), chunk.size());
        const std::string_view line = chunk.substr(start, end - start);
        start = end + 1;
        if (line.starts_with('/')) {
            if (list->admits(line))
                queue_.addStringToItemList(std::string(line));
        } else if (line == gfs::kQueueOverflowed) {
            scanWatchedFoldersWhole();
        } else if (line.starts_with(gfs::kDiagnosticPrefix)) {
            std::unique_lock<std::mutex> held(mutex_);
            if (diagnosticsLogged_.insert(std::string(line)).second) {
                held.unlock();
                nsLog(std::string(line));
            }
        }
    }
}

void FSEventWatcher::scanWatchedFoldersWhole()
{
    {
        std::lock_guard<std::mutex> held(mutex_);
        if (walking_) {
            walkAgain_ = true;
            return;
        }
        walking_ = true;
        ++runningLoops_;
    }
    nsLog("File events were lost (the kernel's event queue overflowed), so every file in the watched folders is "
          "scanned");
    try {
        std::thread([this] { walkFolders(); }).detach();
    } catch (const std::exception& error) {
        nsLogf("The folder walk cannot be started: %s", error.what());
        std::lock_guard<std::mutex> held(mutex_);
        walking_ = false;
        --runningLoops_;
        changed_.notify_all();
    }
}

bool FSEventWatcher::isWalkingFolders() const
{
    std::lock_guard<std::mutex> held(mutex_);
    return walking_;
}

void FSEventWatcher::walkFolders()
{
    // A stop of the loop that read the overflow ends the walk.
    std::shared_ptr<Loop> loop;
    {
        std::lock_guard<std::mutex> held(mutex_);
        loop = current_;
    }
    const auto goesOn = [&loop] { return !loop || loop->isWatching; };
    for (;;) {
        const Clock::time_point began = Clock::now();
        // The list of the moment: a restart while walking hands over a new one.
        watchList()->forEachAdmittedFile([this, &goesOn](std::vector<std::string>& files) {
            if (!goesOn())
                return false;
            queue_.addToItemList(files);
            return true;
        });
        {
            std::lock_guard<std::mutex> held(mutex_);
            if (!walkAgain_ || !goesOn()) {
                walking_ = walkAgain_ = false;
                --runningLoops_;
                changed_.notify_all();
                return;
            }
            walkAgain_ = false;
        }
        while (goesOn() && Clock::now() - began < kWalkSpacing)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

bool FSEventWatcher::isTrashedFileAtPath(const std::string& path)
{
    const auto isInside = [&path](const std::string& folder) {
        return path.size() > folder.size() + 1 && path.starts_with(folder) && path[folder.size()] == '/';
    };
    if (isInside(joinPath(dataHome(), "Trash")) || isInside(joinPath(homeDirectory(), ".Trash")))
        return true;

    // A Trash at the top of another file system: <top>/.Trash/<uid>/ or
    // <top>/.Trash-<uid>/. Only paths that name one pay for the checks.
    const std::string uid = std::to_string(::getuid());
    const std::string shared = "/.Trash/" + uid + "/";
    const std::string own = "/.Trash-" + uid + "/";
    for (size_t at = path.find("/.Trash"); at != std::string::npos; at = path.find("/.Trash", at + 1)) {
        const std::string_view rest(path.data() + at, path.size() - at);
        const bool namesTrash = (rest.starts_with(shared) && rest.size() > shared.size()) ||
                                (rest.starts_with(own) && rest.size() > own.size());
        if (namesTrash && isTopOfFileSystemHolding(at == 0 ? "/" : path.substr(0, at), path))
            return true;
    }
    return false;
}

} // namespace kv

#include "intake/FSEventWatcher.h"

#include "eventhelper/ExitStatus.h"
#include "eventhelper/HelperInput.h"
#include "eventhelper/HelperOutput.h"
#include "intake/WatcherHost.h"
#include "platform/ChildProcess.h"
#include "platform/DesktopNotifier.h"
#include "platform/Log.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/RootControlled.h"
#include "platform/UniqueFd.h"
#include "queue/Dispatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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
// One that finds another helper watching for the user (the agent of another
// session of theirs) is asked again up to every minute, so that this agent
// takes over soon after that one quits.
constexpr int kLongestPauseAnotherHelperMs = 60 * 1000;
// How long a terminated helper may take before it is killed outright.
constexpr auto kTerminateGrace = std::chrono::seconds(2);
constexpr size_t kLongestRecord = 1024 * 1024;
constexpr size_t kRememberedDiagnostics = 1000;

// The watch list as the helper reads it (eventhelper/HelperInput.h).
std::string encodedList(const WatchList& list)
{
    std::string records;
    for (const auto& [folder, subfolders] : list.foldersAndSubfolders()) {
        // A path cannot hold a NUL byte, and a record must not either.
        if (folder.find(gfs::kRecordEnd) != std::string::npos)
            continue;
        records.append(subfolders ? gfs::kWatchTree : gfs::kWatchFolder);
        records += gfs::kRecordEnd;
        records += folder;
        records += gfs::kRecordEnd;
    }
    if (list.holdSeconds() > 0) {
        records.append(gfs::kHoldSeconds);
        records += gfs::kRecordEnd;
        records += std::to_string(list.holdSeconds());
        records += gfs::kRecordEnd;
    }
    records.append(gfs::kListEnd);
    records += gfs::kRecordEnd;
    return records;
}

// Writes to the helper's input what its pipe takes now. A helper that no
// longer reads its input gets no more.
void writeSome(ChildProcess& task, std::string& pending)
{
    const ssize_t written = ::write(task.inputFd(), pending.data(), pending.size());
    if (written > 0) {
        pending.erase(0, static_cast<size_t>(written));
    } else if (written < 0 && errno != EAGAIN && errno != EINTR) {
        pending.clear();
        task.closeInput();
    }
}

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
    WatcherHost* host = nullptr;
    // Cleared by stopWatching(), never set again: a loop that has been
    // stopped ends, and the next start makes a new one.
    std::atomic<bool> isWatching{true};
    // An eventfd that becomes readable when the loop is stopped, so that
    // waits for helper output or for a restart end at once.
    UniqueFd stopSignal;
    // An eventfd that becomes readable when the watch list changes, so that
    // the helper is told.
    UniqueFd listChanged;
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
    if (current_ && current_->isWatching) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(current_->listChanged.get(), &one, sizeof one);
    }
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

void FSEventWatcher::start(WatcherHost& host)
{
    std::lock_guard<std::mutex> held(mutex_);
    if (current_ && current_->isWatching)
        return;
    auto loop = std::make_shared<Loop>();
    loop->host = &host;
    loop->stopSignal.reset(::eventfd(0, EFD_CLOEXEC));
    loop->listChanged.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
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
        changed_.notify_all();  // a walk waiting for its next turn ends
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
    // A helper that has ended makes a write to its input fail with EPIPE
    // rather than end the agent.
    sigset_t brokenPipe;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
    int pauseMs = 0;
    while (loop->isWatching) {
        const Clock::time_point began = Clock::now();
        // After an installation the controller's new start runs a new loop.
        if (startWatching(*loop) == RunEnd::Installed)
            break;
        const int longest = loop->lastStatus == gfs::kCannotWatch      ? kLongestPauseCannotWatchMs
                            : loop->lastStatus == gfs::kAlreadyRunning ? kLongestPauseAnotherHelperMs
                                                                       : kLongestPauseMs;
        const bool wasWatching = Clock::now() - began >= kSteadyRun;
        // A helper that watched and ended (killed, or crashed) missed what
        // happened until its next start: the folders are walked.
        if (wasWatching && loop->isWatching)
            scanWatchedFoldersWhole(WhyWalk::HelperEnded);
        pauseMs = wasWatching ? 0 : std::clamp(pauseMs * 2, kFirstPauseMs, longest);
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
    // Each helper gets a hold channel of its own (gfs::kHoldChannelFd): its
    // holder ends with it, and the host serves the agent's end.
    int channel[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel) != 0)
        nsLogf("No hold channel for gfslogger: %s", std::strerror(errno));
    UniqueFd agentEnd(channel[0]);
    const UniqueFd helperEnd(channel[1]);
    std::optional<ChildProcess> task = ChildProcess::spawn({helper}, ChildProcess::Output::Pipe, &error,
                                                           ChildProcess::Input::Pipe, helperEnd.get());
    if (!task) {
        nsLog("gfslogger could not be started");
        nsLogf("%s: %s", helper.c_str(), std::strerror(error));
        return RunEnd::Ended;
    }
    const pid_t pid = task->pid();
    if (agentEnd)
        loop.host->holdChannelOpened(std::move(agentEnd));
    bool registered = false;
    {
        std::lock_guard<std::mutex> held(mutex_);
        if (loop.isWatching) {
            scanCheckTask_ = pid;
            registered = true;
            // A new helper's records start afresh. Only a loop that still
            // watches touches this state: a stop that came before the
            // helper was registered returns at once, and the next loop may
            // be reading records already.
            partialRecord_.clear();
            fieldsOf_.clear();
            fields_.clear();
        }
    }

    // The helper watches the folders of the list it was given last: the
    // list now (which takes in every change so far), and again at every
    // change. Its input is written without blocking, so that a helper that
    // does not read it never holds up the reading of its output.
    uint64_t changes = 0;
    [[maybe_unused]] const ssize_t earlier = ::read(loop.listChanged.get(), &changes, sizeof changes);
    std::string toHelper = encodedList(*watchList());
    ::fcntl(task->inputFd(), F_SETFL, ::fcntl(task->inputFd(), F_GETFL) | O_NONBLOCK);
    ChildProcess::ReadStatus status = ChildProcess::ReadStatus::Stopped;
    std::string chunk;
    enum { kOutput, kStop, kListChanged, kInput };
    while (registered) {
        pollfd watched[] = {
            {task->outputFd(), POLLIN, 0},
            {loop.stopSignal.get(), POLLIN, 0},
            {loop.listChanged.get(), POLLIN, 0},
            {toHelper.empty() ? -1 : task->inputFd(), POLLOUT, 0},
        };
        if (::poll(watched, std::size(watched), -1) < 0) {
            if (errno == EINTR)
                continue;
            status = ChildProcess::ReadStatus::Failed;
            break;
        }
        if (watched[kListChanged].revents & POLLIN) {
            [[maybe_unused]] const ssize_t read = ::read(loop.listChanged.get(), &changes, sizeof changes);
            if (task->inputFd() >= 0)
                toHelper += encodedList(*watchList());
        }
        if (watched[kInput].revents)
            writeSome(*task, toHelper);
        if (watched[kOutput].revents) {
            chunk.clear();
            status = task->readChunk(&chunk);
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
        } else if (watched[kStop].revents & POLLIN) {
            status = ChildProcess::ReadStatus::Stopped;
            break;
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
    // The end is logged before stopWatching() may return: a restart that
    // follows moves the log to a new file, which must not race this line.
    // A helper that keeps ending the same way, at once, has said why the
    // first time; its reason is in the log (see taskDataAvailable).
    const int ended = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
    if (ended != loop.lastStatus || ended == gfs::kLacksPrivileges)
        nsLogf("termination status = %d", ended);
    int terminationStatus;
    {
        std::lock_guard<std::mutex> held(mutex_);
        terminationStatus = task->wait();
        if (scanCheckTask_ == pid)
            scanCheckTask_ = -1;
        changed_.notify_all();
    }
    task->closeOutput();
    loop.lastStatus = terminationStatus;
    // A helper that lacks root's rights is installed only for a loop that
    // still watches: never during a stop or the agent's teardown.
    if (terminationStatus != 1 || !loop.isWatching)
        return RunEnd::Ended;
    installHelper(loop, helper);
    return RunEnd::Installed;
}

void FSEventWatcher::installHelper(Loop& loop, const std::string& helper)
{
    WatcherHost* host = loop.host;
    // The stop empties the controller's folder list and menu, which belong
    // to the main thread; posted tasks run there in the order they were
    // posted, so this stop comes before the start asked for below.
    host->postToMainThread([host] { host->stopWatcher(); });

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
        host->displayGrowlDialog(NotificationKind::Error, host->localizedString("FSEVENT_NOT_INSTALLED"));
        return;
    }
    host->displayGrowlDialog(NotificationKind::Error, host->localizedString("FSEVENT_NOT_SETUID"));
    // The installer takes no arguments and has a polkit action of its own,
    // whose message says what the password is for. pkexec exits 0 only
    // when the installer ran and succeeded; 126 (dismissed), 127 (refused)
    // and the installer's own refusal all fail.
    if (runAndWait({"pkexec", installer}, ChildProcess::Output::Inherit) == 0) {
        host->postToMainThread([host] { host->startWatcher(false); });
        return;
    }
    nsLog("Authentication failed. Sorry!");
    host->postToMainThread([host] { host->quit(); });
}

void FSEventWatcher::taskDataAvailable(std::string_view chunk)
{
    const std::shared_ptr<const WatchList> list = watchList();
    partialRecord_.append(chunk);
    size_t start = 0;
    for (size_t end; (end = partialRecord_.find(gfs::kRecordEnd, start)) != std::string::npos; start = end + 1)
        handleRecord(std::string_view(partialRecord_).substr(start, end - start), *list);
    partialRecord_.erase(0, start);
    // No path is this long: text without record ends (a sanitizer's report
    // in a test build) is dropped rather than kept without bound.
    if (partialRecord_.size() > kLongestRecord)
        partialRecord_.clear();
}

void FSEventWatcher::handleRecord(std::string_view record, const WatchList& list)
{
    if (!fieldsOf_.empty()) {
        fields_.emplace_back(record);
        if (fields_.size() == 2)
            handleFields(list);
        return;
    }
    if (record.starts_with('/')) {
        if (list.admits(record))
            queue_.addStringToItemList(std::string(record));
    } else if (record == gfs::kQueueOverflowed) {
        scanWatchedFoldersWhole(WhyWalk::QueueOverflowed);
    } else if (record == gfs::kFolderArrived || record == gfs::kUnresolved) {
        fieldsOf_ = record;
    } else if (record.starts_with(gfs::kDiagnosticPrefix)) {
        if (record.ends_with('\n'))
            record.remove_suffix(1);
        logOnce(displayText(record));
    }
}

void FSEventWatcher::handleFields(const WatchList& list)
{
    const std::string kind = std::exchange(fieldsOf_, std::string());
    const std::vector<std::string> fields = std::exchange(fields_, {});
    if (kind == gfs::kFolderArrived) {
        // Its files raised no events of their own as it arrived. Even from
        // a watched folder it is walked: a file queued under its old path
        // would be lost, and an excluded folder's files were never scanned.
        // Files scanned before are scanned again, which costs time only:
        // an unchanged finding warns once.
        const std::string& to = fields[1];
        if (to.starts_with('/') && list.mayHoldAdmitted(to))
            scanFolderWhole(to);
        return;
    }
    const std::string& reason = fields[0];
    const std::string& folder = fields[1];
    if (!folder.starts_with('/')) {
        logOnce("gfslogger could not give the path of a file event (" + displayText(reason) + ")");
        return;
    }
    if (!list.mayHoldAdmitted(folder))
        return;
    logOnce("gfslogger could not give the path of a file event (" + displayText(reason) + "), so the folder " +
            displayText(folder) + " is scanned whole");
    scanFolderWhole(folder);
}

void FSEventWatcher::logOnce(const std::string& line)
{
    {
        std::lock_guard<std::mutex> held(mutex_);
        // Lines name folders: a helper that meets many is heard afresh
        // rather than remembered without end.
        if (diagnosticsLogged_.size() >= kRememberedDiagnostics)
            diagnosticsLogged_.clear();
        if (!diagnosticsLogged_.insert(line).second)
            return;
    }
    nsLog(line);
}

void FSEventWatcher::scanWatchedFoldersWhole(WhyWalk why)
{
    {
        std::lock_guard<std::mutex> held(mutex_);
        if (!walks_.askForAll(Clock::now()))
            return;
        ++walksAsked_;
    }
    changed_.notify_all();
    if (why == WhyWalk::QueueOverflowed)
        nsLog("File events were lost (the kernel's event queue overflowed), so every file in the watched folders is "
              "scanned");
    else
        nsLog("gfslogger ended while watching and file events may have been lost, so every file in the watched "
              "folders is scanned");
    startWalking();
}

void FSEventWatcher::scanFolderWhole(const std::string& folder)
{
    WalkSchedule::Asked asked;
    {
        std::lock_guard<std::mutex> held(mutex_);
        asked = walks_.askForFolder(folder, Clock::now());
        ++walksAsked_;
    }
    changed_.notify_all();  // a walk waiting for its next turn takes it at once
    if (asked == WalkSchedule::Asked::FoldedIntoAll)
        nsLogf("More than %zu folders arrived within %lld s, so every file in the watched folders is scanned instead "
               "of each folder",
               WalkSchedule::kMostFolderWalks, static_cast<long long>(WalkSchedule::kWholeSpacing.count()));
    startWalking();
}

void FSEventWatcher::startWalking()
{
    {
        std::lock_guard<std::mutex> held(mutex_);
        if (walking_)
            return;
        walking_ = true;
        ++runningLoops_;
    }
    try {
        std::thread([this] { walkFolders(); }).detach();
    } catch (const std::exception& error) {
        nsLogf("The folder walk cannot be started: %s", error.what());
        std::lock_guard<std::mutex> held(mutex_);
        endWalking();
    }
}

// Under mutex_.
void FSEventWatcher::endWalking()
{
    walking_ = false;
    walks_.clear();
    --runningLoops_;
    changed_.notify_all();
}

bool FSEventWatcher::isWalkingFolders() const
{
    std::lock_guard<std::mutex> held(mutex_);
    return walking_;
}

void FSEventWatcher::walkFolders()
{
    // A stop of the loop that was watching ends the walk.
    std::shared_ptr<Loop> loop;
    {
        std::lock_guard<std::mutex> held(mutex_);
        loop = current_;
    }
    const auto goesOn = [&loop] { return !loop || loop->isWatching; };
    for (;;) {
        WalkSchedule::Walk walk;
        {
            std::unique_lock<std::mutex> held(mutex_);
            for (;;) {
                if (!goesOn()) {
                    endWalking();
                    return;
                }
                if (std::optional<WalkSchedule::Walk> due = walks_.take(Clock::now())) {
                    walk = std::move(*due);
                    break;
                }
                const std::optional<Clock::time_point> next = walks_.nextDue();
                if (!next) {
                    endWalking();
                    return;
                }
                // Waits for its turn; a walk asked for meanwhile, which may
                // be due sooner, or a stop ends the wait.
                const std::uint64_t asked = walksAsked_;
                changed_.wait_until(held, *next, [&] { return walksAsked_ != asked || !goesOn(); });
            }
        }
        // The list of the moment: a restart while walking hands over a new one.
        const std::shared_ptr<const WatchList> list = watchList();
        // The watched folders may be links; a folder that arrived is
        // walked only as itself, never through a link put in its place.
        const std::vector<std::string> roots = walk.all ? list->folders() : walk.folders;
        try {
            list->forEachAdmittedFileIn(roots, walk.all, [this, &goesOn](std::vector<std::string>& files) {
                if (!goesOn())
                    return false;
                queue_.addToItemList(files);
                return true;
            });
        } catch (const std::exception& error) {
            nsLogf("A folder walk failed: %s", error.what());
        }
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

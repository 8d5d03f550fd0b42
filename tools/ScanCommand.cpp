#include "tools/ScanCommand.h"

#include "platform/FileWriting.h"
#include "platform/FreedesktopNotifier.h"
#include "platform/Log.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/ScanLogFile.h"
#include "platform/UniqueFd.h"
#include "scan/OnDemandEngine.h"
#include "scan/ScanResult.h"
#include "tools/CommandStatus.h"

#include <QDBusConnection>
#include <QDBusMessage>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>
#include <thread>

namespace kv {
namespace {

struct Options {
    bool subfolders = true;
    bool reportOnly = false;
    bool scheduled = false;
    std::vector<std::string> paths;
};

constexpr const char* kUsage = "usage: velgarctl scan [--no-subdirs] [--report-only] [--scheduled] PATH...";

// The command's own lines: results on its standard output, the progress
// line (on a terminal only) and problems on its standard error, one writer
// at a time, so a result never lands in the middle of the progress line.
class Console {
public:
    Console(int out, int err) : out_(out), err_(err), terminal_(::isatty(err) == 1) {}

    void line(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        clearProgressLocked();
        writeAll(out_, text + "\n");
    }
    void problem(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        clearProgressLocked();
        writeAll(err_, "velgarctl: " + text + "\n");
    }
    void progress(const OnDemandProgress& progress)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        last_ = progress;
        if (!terminal_)
            return;
        char counts[96];
        std::snprintf(counts, sizeof counts, "%llu of %llu%s files, %.0f files/s, ",
                      static_cast<unsigned long long>(progress.done), static_cast<unsigned long long>(progress.total),
                      progress.walking ? "+" : "", progress.filesPerSecond);
        std::string text = counts;
        std::string folder = displayText(progress.folder);
        winsize size{};
        const size_t columns = ::ioctl(err_, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
        // The folder's end tells most; its start gives way.
        const size_t room = columns > text.size() + 4 ? columns - text.size() - 1 : 3;
        if (folder.size() > room)
            folder = "..." + folder.substr(folder.size() - room + 3);
        writeAll(err_, "\r\033[K" + text + folder);
        shown_ = true;
    }
    void endProgress()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        clearProgressLocked();
    }
    OnDemandProgress last() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return last_;
    }

private:
    void clearProgressLocked()
    {
        if (shown_)
            writeAll(err_, "\r\033[K");
        shown_ = false;
    }

    const int out_;
    const int err_;
    const bool terminal_;
    mutable std::mutex mutex_;
    bool shown_ = false;      // guarded by mutex_: a progress line is on the terminal
    OnDemandProgress last_;  // guarded by mutex_
};

// Fills *options; the exit status for bad input, or -1.
int parse(const std::vector<std::string>& arguments, Options* options)
{
    bool optionsEnd = false;
    for (const std::string& argument : arguments) {
        if (!optionsEnd && argument == "--")
            optionsEnd = true;
        else if (!optionsEnd && argument == "--no-subdirs")
            options->subfolders = false;
        else if (!optionsEnd && argument == "--report-only")
            options->reportOnly = true;
        else if (!optionsEnd && argument == "--scheduled")
            options->scheduled = true;
        else if (!optionsEnd && argument.starts_with("-") && argument != "-")
            return reportBadInput("unknown option \"" + argument + "\" (" + kUsage + ")");
        else if (argument.empty())
            return reportBadInput("an empty path names nothing");
        else
            options->paths.push_back(argument);
    }
    if (options->paths.empty())
        return reportBadInput(kUsage);
    // The log, the quarantine index and the Trash keep full paths.
    std::string here;
    for (std::string& path : options->paths) {
        if (path.starts_with('/'))
            continue;
        if (here.empty()) {
            char buffer[PATH_MAX];
            if (!::getcwd(buffer, sizeof buffer))
                return reportBadInput("the current folder cannot be named, so " + displayText(path) + " cannot either");
            here = buffer;
        }
        path = joinPath(here, path);
    }
    return -1;
}

// The command's standard streams go to the scan log, as the agent's do:
// what the engine layer says (nsLog, ClamdCtrl) is found there, beside the
// results.
void logStreamsTo(const std::string& logPath)
{
    makeDirectories(logPath.substr(0, logPath.rfind('/')), 0755);
    const UniqueFd log(::open(logPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0640));
    if (!log)
        return;
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(log.get(), STDOUT_FILENO);
    ::dup2(log.get(), STDERR_FILENO);
}

std::string itemLine(const OnDemandItem& item)
{
    switch (item.kind) {
    case OnDemandItem::Kind::Infected: {
        ScanResult result{item.path, ScanResult::Verdict::Infected, item.detail, item.movedTo};
        if (item.movedTo)
            return result.logLine() + "\n" + result.movedLogLine();
        if (!item.notMoved.empty())
            return result.logLine() + "\n" + displayText(item.path) + ": not moved: " + displayText(item.notMoved);
        return result.logLine();
    }
    case OnDemandItem::Kind::Unreadable:
        return ScanResult{item.path, ScanResult::Verdict::Error, item.detail, std::nullopt}.logLine();
    case OnDemandItem::Kind::Skipped:
        return displayText(item.path) + ": " + item.detail;
    }
    return {};
}

// The scheduled scan's outcome, on the desktop.
void notifyOutcome(const OnDemandSummary& summary, const std::vector<std::string>& paths)
{
    DesktopNotification notification;
    notification.name = "Scan";
    notification.title = "Scheduled virus scan";
    notification.sticky = summary.infected > 0 || summary.failure.has_value();
    if (summary.failure)
        notification.description = "The scan ended early: " + displayText(*summary.failure);
    else if (summary.infected > 0)
        notification.description = std::to_string(summary.infected) + " infected file" +
                                   (summary.infected == 1 ? "" : "s") + " found. The History page lists them.";
    else
        notification.description = "No viruses found.";
    std::string folders;
    for (const std::string& path : paths)
        folders += (folders.empty() ? "" : ", ") + displayText(path);
    notification.description += "\n" + summary.describe() + " (" + folders + ")";

    QDBusConnection bus = QDBusConnection::sessionBus();
    FreedesktopNotifier notifier(bus);
    if (!bus.isConnected() || !notifier.isRunning() || !notifier.notify(notification)) {
        nsLog("The scheduled scan's outcome is not shown on the desktop: no notification service answers");
        return;
    }
    // Answered only after everything sent before it: the notification has
    // left once the reply is in.
    bus.call(QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                            "GetId"),
             QDBus::Block, 10000);
}

} // namespace

std::string ScanCommand::summaryText(const OnDemandSummary& summary)
{
    char time[32];
    std::snprintf(time, sizeof time, "%.3f", summary.seconds);
    std::string text = "\n----------- SCAN SUMMARY -----------\n";
    text += "Scanned files: " + std::to_string(summary.scanned + summary.infected) + "\n";
    text += "Infected files: " + std::to_string(summary.infected) + "\n";
    text += "Unreadable: " + std::to_string(summary.unreadable) + "\n";
    text += "Skipped as unchanged: " + std::to_string(summary.unchanged) + "\n";
    text += "Skipped as not regular files: " + std::to_string(summary.skipped) + "\n";
    if (summary.excluded > 0)
        text += "Excluded: " + std::to_string(summary.excluded) + "\n";
    text += std::string("Time: ") + time + " sec";
    return text;
}

int ScanCommand::run(const std::vector<std::string>& arguments)
{
    Options options;
    if (const int status = parse(arguments, &options); status >= 0)
        return status;

    // SIGINT and SIGTERM become events of the loop below, blocked before
    // any thread starts so that every thread inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const UniqueFd signals(::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    const UniqueFd done(::eventfd(0, EFD_CLOEXEC));
    if (!signals || !done)
        return reportFailure("cannot watch for SIGINT and SIGTERM");

    const UniqueFd out(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    const UniqueFd err(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    Console console(out.get(), err.get());
    logStreamsTo(ScanLogFile::defaultPath());

    JsonPreferences preferences(kAgentDomain);
    std::string problem;
    const std::unique_ptr<OnDemandEngine> engine = OnDemandEngine::start(preferences, &problem);
    if (!engine) {
        console.problem(problem);
        return kExitError;
    }
    OnDemandScan scan(engine->parts());
    const OnDemandScan::Request request{options.paths, options.subfolders, options.reportOnly, engine->settings()};
    const OnDemandScan::Observer observer{
        [&console](const OnDemandItem& item) { console.line(itemLine(item)); },
        [&console](const OnDemandProgress& progress) { console.progress(progress); },
    };
    OnDemandSummary summary;
    std::thread scanning([&] {
        summary = scan.run(request, observer);
        const std::uint64_t one = 1;
        writeAll(done.get(), std::string_view(reinterpret_cast<const char*>(&one), sizeof one));
    });
    int stoppedBy = 0;
    for (;;) {
        pollfd waits[2] = {{done.get(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
        if (::poll(waits, 2, -1) < 0 && errno == EINTR)
            continue;
        if (waits[0].revents & POLLIN)
            break;
        signalfd_siginfo signal{};
        if ((waits[1].revents & POLLIN) && ::read(signals.get(), &signal, sizeof signal) == sizeof signal &&
            stoppedBy == 0) {
            stoppedBy = static_cast<int>(signal.ssi_signo);
            scan.stop();
        }
    }
    scanning.join();
    console.endProgress();

    std::string closing = summaryText(summary);
    if (stoppedBy != 0) {
        const OnDemandProgress last = console.last();
        closing += "\nStopped by " + std::string(stoppedBy == SIGINT ? "SIGINT" : "SIGTERM") + " after " +
                   std::to_string(last.done) + " of " + std::to_string(last.total) + (last.walking ? "+" : "") +
                   " files";
    }
    console.line(closing);
    if (summary.failure)
        console.problem("the scan ended early: " + displayText(*summary.failure));
    if (options.scheduled)
        notifyOutcome(summary, options.paths);
    if (stoppedBy != 0)
        return 128 + stoppedBy;
    if (summary.infected > 0)
        return kExitInfected;
    return summary.failure ? kExitError : kExitSuccess;
}

} // namespace kv

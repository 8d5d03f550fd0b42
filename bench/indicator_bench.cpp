// What the activity indicator costs: the process's CPU time while the scan
// animation runs, and how often the indicator thread wakes while folders are
// watched and nothing is scanned.
//
//   indicator_bench [--seconds N]
//
// Runs the real status menu, images and tray icon on the display it is
// given (Qt's offscreen platform when there is none) for N seconds of
// animation (13 by default, ten scan cycles), then N seconds at rest.

#include "app/KorvaneVelgar.h"
#include "platform/Preferences.h"
#include "scan/ScanActivity.h"
#include "ui/Agent.h"
#include "ui/Throbber.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

namespace {

double processCpuSeconds()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Voluntary plus involuntary context switches of one thread: every wake-up
// of a sleeping thread counts.
long contextSwitches(long tid)
{
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    long total = 0;
    for (std::string line; std::getline(status, line);) {
        if (line.find("ctxt_switches:") != std::string::npos)
            total += std::atol(line.substr(line.find(':') + 1).c_str());
    }
    return total;
}

class FrameCounter : public kv::Throbber::Observer {
public:
    std::atomic<long> frames{0};
    std::atomic<long> indicatorThread{0};
    void imagesShown(const std::string& name) override
    {
        if (name.starts_with("scanning")) {
            ++frames;
            indicatorThread = ::syscall(SYS_gettid);
        }
    }
    void menuStateShown(kv::MenuState) override {}
};

// Runs the event loop for the given time, so queued icon changes are drawn.
void runFor(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace

int main(int argc, char* argv[])
{
    int seconds = 13;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::string(argv[i]) == "--seconds")
            seconds = std::max(2, std::atoi(argv[i + 1]));
    }
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);

    QApplication application(argc, argv);
    application.setQuitOnLastWindowClosed(false);
    char folder[] = "/tmp/kv-indicator-bench-XXXXXX";
    if (!::mkdtemp(folder))
        return 1;

    kv::JsonPreferences preferences(kv::kAgentDomain, folder);
    kv::Agent::Parts parts;
    parts.preferences = &preferences;
    parts.homeDirectory = folder;
    parts.systemEvents = false;
    parts.redirectToScanLog = false;
    parts.exitProcess = [](int) {};
    kv::Agent agent(parts);
    kv::ScanActivity& activity = agent.controller().scanActivity();
    kv::Throbber& menu = agent.menu();
    FrameCounter counter;
    menu.setObserver(&counter);

    menu.startIndicator(activity);
    menu.clearMenu();
    menu.setNumItemsToWatch(1);
    menu.addToMenu(folder, "");
    menu.setReady();
    runFor(1500);

    // Animating: one scan runs for the whole period.
    std::optional<kv::ScanActivity::Busy> scan(std::in_place, activity, kv::ScanActivity::Kind::Scan);
    QElapsedTimer wall;
    wall.start();
    const double cpuBefore = processCpuSeconds();
    runFor(seconds * 1000);
    const double animatingCpu = processCpuSeconds() - cpuBefore;
    const double animatingWall = wall.elapsed() / 1000.0;
    const long frames = counter.frames;
    scan.reset();

    // Let the last cycle and the one-second rest pass, then watch the idle
    // indicator thread.
    runFor(3000);
    const long tid = counter.indicatorThread;
    const long switchesBefore = contextSwitches(tid);
    const double restCpuBefore = processCpuSeconds();
    wall.restart();
    runFor(seconds * 1000);
    const double restWall = wall.elapsed() / 1000.0;
    const double restCpu = processCpuSeconds() - restCpuBefore;
    const long wakeUps = contextSwitches(tid) - switchesBefore;

    std::printf("platform: %s\n", qPrintable(QGuiApplication::platformName()));
    std::printf("animating: %ld frames in %.1f s (%.1f frames/s), process CPU %.3f s = %.2f%% of one core\n", frames,
                animatingWall, frames / animatingWall, animatingCpu, 100.0 * animatingCpu / animatingWall);
    std::printf("at rest while watching: indicator thread woke %ld times in %.1f s, process CPU %.2f%% of one core\n",
                wakeUps, restWall, 100.0 * restCpu / restWall);

    menu.stopIndicator();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return 0;
}

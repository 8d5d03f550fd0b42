// The agent's desktop parts on a real display, put into the states the
// screenshot script photographs. Reads one command a line on standard input
// and answers "ready <command>" on standard output once the state is shown:
//
//   rest                the tray icon at rest (nothing watched)
//   watching            one folder watched, nothing scanned
//   scanning            a scan runs (answers once the first frame is shown)
//   idle                the scan ends
//   menu                the status menu opened below the tray icon
//   warning <line>      a warning dialog for a finding
//   notify <line>       a "found" notification
//   quit
//
// The scanning engine is not needed: the scan is the controller's scanner
// activity, as a scanner raises it. Run by scripts/screenshots.sh.

#include "app/KorvaneVelgar.h"
#include "platform/DesktopNotifier.h"
#include "platform/FreedesktopNotifier.h"
#include "platform/Paths.h"
#include "ui/Agent.h"
#include "ui/InfectionDialogs.h"
#include "ui/Throbber.h"

#include <QApplication>
#include <QMenu>
#include <QSocketNotifier>
#include <QSystemTrayIcon>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <optional>
#include <string>

namespace {

void answer(const std::string& command)
{
    std::printf("ready %s\n", command.c_str());
    std::fflush(stdout);
}

// Answers "scanning" once the indicator thread has shown its first frame.
class FirstFrame : public kv::Throbber::Observer {
public:
    std::atomic<bool> waiting{false};
    void imagesShown(const std::string& name) override
    {
        if (name.starts_with("scanning") && waiting.exchange(false))
            QMetaObject::invokeMethod(qApp, [] { answer("scanning"); }, Qt::QueuedConnection);
    }
    void menuStateShown(kv::MenuState) override {}
};

// The desktop's notification service, shut off while the scene starts: the
// launch finds no engine and would say so.
class GatedNotifier : public kv::DesktopNotifier {
public:
    bool open = false;
    bool isRunning() override { return open && real_.isRunning(); }
    bool notify(const kv::DesktopNotification& notification) override { return open && real_.notify(notification); }

private:
    kv::FreedesktopNotifier real_;
};

} // namespace

int main(int argc, char* argv[])
{
    QApplication application(argc, argv);
    application.setQuitOnLastWindowClosed(false);
    application.setApplicationName("Korvane Velgar");

    GatedNotifier notifier;
    kv::Agent::Parts parts;
    parts.notifier = &notifier;
    parts.systemEvents = false;
    parts.redirectToScanLog = false;
    kv::Agent agent(parts);
    kv::KorvaneVelgar& controller = agent.controller();
    kv::Throbber& mainMenu = agent.menu();
    kv::InfectionDialogs& dialogs = agent.dialogs();
    FirstFrame firstFrame;
    mainMenu.setObserver(&firstFrame);
    // What the launch sets up for the desktop, without looking for an
    // engine (whose absence the launch would report in a panel).
    mainMenu.startIndicator(controller.scanActivity());
    notifier.open = true;
    std::optional<kv::ScanActivity::Busy> scan;
    mainMenu.clearMenu();

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    std::string pending;
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char buffer[4096];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (got <= 0) {
            application.quit();
            return;
        }
        pending.append(buffer, static_cast<size_t>(got));
        for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
            const std::string line = pending.substr(0, end);
            const std::string command = line.substr(0, line.find(' '));
            const std::string argument = line.size() > command.size() ? line.substr(command.size() + 1) : "";
            if (command == "rest") {
                mainMenu.clearMenu();
                answer(command);
            } else if (command == "watching") {
                mainMenu.clearMenu();
                mainMenu.setNumItemsToWatch(1);
                mainMenu.addToMenu(kv::joinPath(kv::homeDirectory(), "Downloads/"), "");
                mainMenu.setReady();
                answer(command);
            } else if (command == "scanning") {
                firstFrame.waiting = true;
                scan.emplace(controller.scanActivity(), kv::ScanActivity::Kind::Scan);
            } else if (command == "idle") {
                scan.reset();
                answer(command);
            } else if (command == "menu") {
                const QRect icon = mainMenu.statusItem()->geometry();
                mainMenu.theMenu()->popup(icon.isValid() ? icon.bottomLeft() : QPoint(0, 0));
                answer(command);
            } else if (command == "warning") {
                dialogs.showWarningDialog("firstPatientScanner", argument, argument.substr(0, argument.rfind(": ")));
                answer(command);
            } else if (command == "notify") {
                controller.displayGrowlDialog(kv::NotificationKind::Found, argument);
                answer(command);
            } else if (command == "quit") {
                application.quit();
            }
        }
    });

    return application.exec();
}

// The agent's entry point: the application, the agent (ui/Agent) and the
// event loop.

#include "app/KorvaneVelgar.h"
#include "platform/Log.h"
#include "ui/Agent.h"

#include <QApplication>
#include <QSocketNotifier>

#include "platform/UniqueFd.h"

#include <csignal>
#include <cstdlib>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

// Qt's own warnings reach the scan log in the agent's line format, so every
// line there says when it was written and by which process.
void qtMessage(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    kv::nsLogf("Qt: %s", qPrintable(message));
    if (type == QtFatalMsg)
        std::abort();
}

} // namespace

int main(int argc, char* argv[])
{
    // Without a display the agent still watches and scans; its panels and
    // menu then live on Qt's offscreen platform.
    // A termination request goes through the same orderly quit as a quit
    // request from the main application: SIGTERM and SIGINT are blocked
    // here, before any thread starts (every thread inherits the mask), and
    // read from a descriptor of their own in the event loop. Children start
    // with an empty mask (ChildProcess).
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigaddset(&termination, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &termination, nullptr);
    const kv::UniqueFd terminationSignals(::signalfd(-1, &termination, SFD_CLOEXEC | SFD_NONBLOCK));

    const bool noDisplay = !std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM");
    if (noDisplay)
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    std::signal(SIGPIPE, SIG_IGN);
    qInstallMessageHandler(qtMessage);

    QApplication application(argc, argv);
    application.setQuitOnLastWindowClosed(false);
    application.setApplicationName("Korvane Velgar");
    application.setDesktopFileName(kv::KorvaneVelgar::kBundleIdentifier);

    kv::Agent agent({});
    kv::KorvaneVelgar& controller = agent.controller();
    // Said once the controller has pointed the streams at the scan log.
    if (noDisplay)
        kv::nsLog("No display: the menu, dialogs and icon are not shown; watching, scanning and notifications go on");

    switch (agent.publishOnSessionBus()) {
    case kv::BusNameResult::Taken:
        kv::nsLog("Korvane Velgar is already running");
        return 0;
    case kv::BusNameResult::NoBus:
        kv::nsLog("No D-Bus session bus: running without single-instance protection, desktop notifications and "
                  "velgarctl requests");
        break;
    case kv::BusNameResult::Owned:
        break;
    }

    if (terminationSignals) {
        auto* notifierOfSignal = new QSocketNotifier(terminationSignals.get(), QSocketNotifier::Read, &application);
        QObject::connect(notifierOfSignal, &QSocketNotifier::activated, &controller, [&controller] { controller.quit(); });
    } else {
        ::pthread_sigmask(SIG_UNBLOCK, &termination, nullptr);
    }

    agent.launchSoon();
    return application.exec();
}

// The agent's entry point: builds the platform layers, hands them to the
// controller and runs the event loop.

#include "app/KorvaneVelgar.h"
#include "platform/AgentBusObject.h"
#include "platform/BusName.h"
#include "platform/DBusDistributedCenter.h"
#include "platform/FreedesktopNotifier.h"
#include "platform/Log.h"
#include "platform/MountWatcher.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/SleepWatcher.h"
#include "platform/StringTable.h"
#include "ui/DesktopWorkspace.h"
#include "ui/InfectionDialogs.h"
#include "ui/MainInterface.h"
#include "ui/Throbber.h"

#include <QApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int terminationPipe[2] = {-1, -1};

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

void onTerminationSignal(int)
{
    const char byte = 1;
    const ssize_t written = ::write(terminationPipe[1], &byte, 1);
    (void)written;
}

} // namespace

int main(int argc, char* argv[])
{
    // Without a display the agent still watches and scans; its panels and
    // menu then live on Qt's offscreen platform.
    const bool noDisplay = !std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM");
    if (noDisplay)
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    std::signal(SIGPIPE, SIG_IGN);
    qInstallMessageHandler(qtMessage);

    QApplication application(argc, argv);
    application.setQuitOnLastWindowClosed(false);
    application.setApplicationName("Korvane Velgar");
    application.setDesktopFileName(kv::KorvaneVelgar::kBundleIdentifier);

    const std::string resources = kv::resourcesDirectory();
    kv::StringTable strings;
    strings.load(resources);
    kv::JsonPreferences preferences(kv::KorvaneVelgar::kBundleIdentifier);
    kv::DBusDistributedCenter distributedCenter;
    kv::FreedesktopNotifier notifier;
    kv::MainInterface mainInterface(resources);
    kv::DesktopWorkspace workspace;
    kv::Throbber::Environment menuEnvironment;
    menuEnvironment.preferences = &preferences;
    menuEnvironment.workspace = &workspace;
    menuEnvironment.resourcesFolder = resources;
    kv::Throbber mainMenu(mainInterface.root(), menuEnvironment);
    kv::InfectionDialogs infectionDialogs(resources, workspace);

    kv::ControllerParts parts;
    parts.velgarPrefs = &preferences;
    parts.distributedCenter = &distributedCenter;
    parts.notifier = &notifier;
    parts.panels = &mainInterface;
    parts.mainMenu = &mainMenu;
    parts.workspace = &workspace;
    kv::SleepWatcher sleepWatcher(QDBusConnection::systemBus());
    parts.sleepEvents = &sleepWatcher;
    kv::MountWatcher mountWatcher;
    parts.volumeEvents = &mountWatcher;
    parts.scanAlerts = &infectionDialogs;
    parts.strings = &strings;
    kv::KorvaneVelgar controller(parts);
    // Said once the controller has pointed the streams at the scan log.
    if (noDisplay)
        kv::nsLog("No display: the menu, dialogs and icon are not shown; watching, scanning and notifications go on");
    mainInterface.setQuitAction([&controller] { controller.quit(); });
    mainInterface.setOpenPrefsAction([&controller] { controller.openPrefs(true); });
    mainMenu.setKorvaneVelgarController(&controller);
    infectionDialogs.setKorvaneVelgarController(&controller);

    switch (kv::claimBusName(QDBusConnection::sessionBus(), kv::KorvaneVelgar::kBundleIdentifier)) {
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

    // Scripts reach the agent through its object under the bus name it owns.
    kv::AgentBusObject::ScriptedKeys scriptedKeys;
    scriptedKeys.handlesKey = [&controller](const std::string& key) { return controller.applicationDelegateHandlesKey(key); };
    scriptedKeys.valueForKey = [&controller](const std::string&) { return controller.restartWatchingViaAS(); };
    scriptedKeys.names = {"restartWatchingViaAS"};
    kv::AgentBusObject busObject(scriptedKeys);
    if (QDBusConnection::sessionBus().isConnected() && !busObject.registerOn(QDBusConnection::sessionBus()))
        kv::nsLog("The agent's bus object cannot be registered: scripts cannot reach the agent");

    // A termination request goes through the same orderly quit as a quit
    // request from the main application.
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, terminationPipe) == 0) {
        auto* notifierOfSignal = new QSocketNotifier(terminationPipe[0], QSocketNotifier::Read, &application);
        QObject::connect(notifierOfSignal, &QSocketNotifier::activated, &controller, [&controller] { controller.quit(); });
        std::signal(SIGTERM, onTerminationSignal);
        std::signal(SIGINT, onTerminationSignal);
    }

    QTimer::singleShot(0, &controller, [&controller] { controller.applicationDidFinishLaunching(); });
    const int status = application.exec();
    // The indicator thread uses the controller; it ends before the controller does.
    mainMenu.stopIndicator();
    return status;
}

#include "tests/desktop/DesktopTestSupport.h"

#include "ui/MyMenuItem.h"

namespace kvtest {

std::string resourcesFolder() { return KV_RESOURCES_DIR; }

void RecordingWorkspace::openPath(const std::string& path, std::function<void(bool opened)> done)
{
    opened.push_back(path);
    if (done)
        done(opens);
}

bool RecordingWorkspace::launchApplication(const std::string& bundleIdentifier)
{
    launched.push_back(bundleIdentifier);
    return launches;
}

DesktopAgent::DesktopAgent(Options options) : interface(resourcesFolder())
{
    strings.load(resourcesFolder());
    if (options.showDockIcon)
        preferences.own.insert("ShowDockIcon", QString::fromStdString(*options.showDockIcon));

    kv::Throbber::Environment environment;
    environment.preferences = &preferences;
    environment.workspace = &workspace;
    environment.clock = options.clock;
    environment.resourcesFolder = resourcesFolder();
    environment.homeDirectory = home.path();
    menu = std::make_unique<kv::Throbber>(interface.root(), environment);

    kv::ControllerParts parts;
    parts.velgarPrefs = &preferences;
    parts.distributedCenter = &center;
    parts.notifier = options.notifier;
    parts.mainMenu = menu.get();
    parts.workspace = &workspace;
    parts.strings = &strings;
    parts.homeDirectory = home.path();
    parts.exitProcess = [this](int status) { exitStatuses.push_back(status); };
    parts.redirectToScanLog = false;
    controller = std::make_unique<kv::KorvaneVelgar>(parts);
    menu->setKorvaneVelgarController(controller.get());
}

DesktopAgent::~DesktopAgent()
{
    // The indicator thread uses the controller: it ends first.
    menu->stopIndicator();
}

} // namespace kvtest

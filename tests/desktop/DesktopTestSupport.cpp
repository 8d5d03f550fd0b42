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

DesktopAgent::DesktopAgent(Options options)
{
    if (options.showDockIcon)
        preferences.own.insert("ShowDockIcon", QString::fromStdString(*options.showDockIcon));
    kv::Agent::Parts parts;
    parts.preferences = &preferences;
    parts.distributedCenter = &center;
    parts.notifier = options.notifier;
    parts.workspace = &workspace;
    parts.clock = options.clock;
    parts.resourcesFolder = resourcesFolder();
    parts.homeDirectory = home.path();
    parts.systemEvents = false;
    parts.redirectToScanLog = false;
    parts.exitProcess = [this](int status) { exitStatuses.push_back(status); };
    agent = std::make_unique<kv::Agent>(parts);
    menu = &agent->menu();
    controller = &agent->controller();
}

} // namespace kvtest

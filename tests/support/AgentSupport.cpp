#include "tests/support/AgentSupport.h"

#include "platform/Settings.h"

#include <sys/stat.h>

namespace kvtest {

RecordingAgent::RecordingAgent(const std::string& enginePrefix) : resources("KORVANE_VELGAR_RESOURCES", KV_TEST_RESOURCES_DIR)
{
    ::chmod(home.path().c_str(), 0700);
    preferences.suite["PathToClamav"] = QString::fromStdString(enginePrefix);
    preferences.suite["PathToUpdateLog"] = QString::fromStdString(home / "update.log");
}

kv::ControllerParts RecordingAgent::parts()
{
    kv::ControllerParts parts;
    parts.velgarPrefs = &preferences;
    parts.distributedCenter = &center;
    parts.notifier = &notifier;
    parts.panels = &panels;
    parts.mainMenu = &menu;
    parts.scanAlerts = &alerts;
    parts.homeDirectory = home.path();
    parts.redirectToScanLog = false;
    parts.exitProcess = [this](int status) { exitStatus = status; };
    return parts;
}

kv::KorvaneVelgar& RecordingAgent::makeController(const std::function<void(kv::ControllerParts&)>& adjust)
{
    kv::ControllerParts made = parts();
    made.dispatcherPause = [] {};
    if (adjust)
        adjust(made);
    scanner.reset();
    controller = std::make_unique<kv::KorvaneVelgar>(made);
    return *controller;
}

kv::KorvaneVelgar& RecordingAgent::startWatching(const std::string& enginePrefix)
{
    kv::KorvaneVelgar& started = makeController();
    started.startWatcher(false);
    EXPECT_TRUE(started.isWatching());
    scanner = std::make_unique<TestScanner>(started);
    preferences.synchronize();
    scanner->configure(kv::Settings::load(preferences), enginePrefix, home.path() + "/");
    return started;
}

void AgentTest::SetUpTestSuite()
{
    EngineSuite::SetUpTestSuite();
    // The controller hands work to the main thread through Qt's event loop.
    processEventsUntil([] { return true; });
}

} // namespace kvtest

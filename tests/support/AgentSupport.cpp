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

EnginePrefix* AgentTest::engine_ = nullptr;

void AgentTest::SetUpTestSuite()
{
    engine_ = new EnginePrefix;
    // Not ASSERT: a fatal failure here would skip every test of the suite,
    // and a skipped test says nothing. Each test fails without its engine.
    EXPECT_TRUE(engine_->startDaemon()) << "clamd from Debian must start with the test database";
    // The controller hands work to the main thread through Qt's event loop.
    processEventsUntil([] { return true; });
}

void AgentTest::TearDownTestSuite()
{
    delete engine_;
    engine_ = nullptr;
}

kv::KorvaneVelgar& AgentTest::makeController(const std::function<void(kv::ControllerParts&)>& adjust)
{
    kv::ControllerParts parts = agent_.parts();
    parts.dispatcherPause = [] {};
    if (adjust)
        adjust(parts);
    scanner_.reset();
    controller_ = std::make_unique<kv::KorvaneVelgar>(parts);
    return *controller_;
}

kv::KorvaneVelgar& AgentTest::startWatching(const QJsonObject& preferences)
{
    preferences_.own = preferences;
    kv::KorvaneVelgar& controller = makeController();
    controller.startWatcher(false);
    EXPECT_TRUE(controller.isWatching());
    scanner_ = std::make_unique<TestScanner>(controller);
    preferences_.synchronize();
    scanner_->configure(kv::Settings::load(preferences_), engine_->path(), home_.path() + "/");
    return controller;
}

} // namespace kvtest

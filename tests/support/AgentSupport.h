#pragma once

// What the controller tests share: a recording status menu, the recording
// parts of a controller, and the fixture that makes one on a real clamd.

#include "app/KorvaneVelgar.h"
#include "app/StatusMenu.h"
#include "tests/support/ScanSupport.h"
#include "tests/support/TestSupport.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtest {

class RecordingStatusMenu : public kv::StatusMenu {
public:
    void enableMenuItems(kv::MenuState state) override { states.push_back(state); }
    void clearMenu() override { ++clears; entries.clear(); }
    void setNumItemsToWatch(int count) override { expected = count; }
    void addToMenu(const std::string& title, const std::string&) override { entries.push_back(title); }
    void setReady() override { ++readyCalls; }
    std::vector<kv::MenuState> states;
    std::vector<std::string> entries;
    int clears = 0;
    int expected = -1;
    int readyCalls = 0;
};

// What a controller test stands on: a private home with its XDG folders,
// preferences naming the engine prefix, and the recording fakes behind every
// platform interface. parts() hands them to a controller that keeps its
// output on the test's streams and records its exit status instead of ending.
struct RecordingAgent {
    explicit RecordingAgent(const std::string& enginePrefix);
    kv::ControllerParts parts();

    TempDir home;
    ScopedEnv runtime{"XDG_RUNTIME_DIR", home.path()};
    ScopedEnv homeEnv{"HOME", home.path()};
    ScopedEnv data{"XDG_DATA_HOME", home / "data"};
    // The build tree's staged resources, where the agent finds gfslogger.
    ScopedEnv resources;
    FakePreferences preferences;
    RecordingCenter center;
    RecordingNotifier notifier;
    RecordingPanels panels;
    RecordingStatusMenu menu;
    RecordingAlerts alerts;
    std::optional<int> exitStatus;
};

// The controller tests: one clamd from Debian for the whole suite (started
// once, it is the slowest part), and a RecordingAgent on it for each test.
class AgentTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();

    // A new controller on the engine with a queue that never pauses;
    // adjust() changes its parts first.
    kv::KorvaneVelgar& makeController(const std::function<void(kv::ControllerParts&)>& adjust = {});
    // A controller with these preferences of its own, watching (its workers
    // not started), and a scanner of the test's own on it as its host, with
    // the parameters the start loaded.
    kv::KorvaneVelgar& startWatching(const QJsonObject& preferences = {});
    std::string scan(const std::vector<std::string>& paths) { return scanner_->scan(paths); }

    static EnginePrefix* engine_;
    RecordingAgent agent_{engine_->path()};
    TempDir& home_ = agent_.home;
    FakePreferences& preferences_ = agent_.preferences;
    RecordingNotifier& notifier_ = agent_.notifier;
    RecordingPanels& panels_ = agent_.panels;
    RecordingAlerts& alerts_ = agent_.alerts;
    LogCapture log_;
    std::unique_ptr<kv::KorvaneVelgar> controller_;
    std::unique_ptr<TestScanner> scanner_;
};

} // namespace kvtest

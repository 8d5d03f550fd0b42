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

// Records the states the controller gives its menu.
class RecordingStatusMenu : public kv::StatusMenu {
public:
    void enableMenuItems(kv::MenuState state) override { states.push_back(state); }
    void clearMenu() override {}
    void setNumItemsToWatch(int) override {}
    void addToMenu(const std::string&, const std::string&) override {}
    void setReady() override {}
    std::vector<kv::MenuState> states;
};

// What a controller test stands on: a private home with its XDG folders,
// preferences naming the engine prefix, and the recording fakes behind every
// platform interface. The controllers made here keep their output on the
// test's streams and record their exit status instead of ending.
struct RecordingAgent {
    explicit RecordingAgent(const std::string& enginePrefix);
    kv::ControllerParts parts();
    // A new controller with a queue that never pauses; adjust() changes its
    // parts first.
    kv::KorvaneVelgar& makeController(const std::function<void(kv::ControllerParts&)>& adjust = {});
    // A new controller watching (its workers not started), and a scanner of
    // the test's own on it as its host, with the parameters the start loaded.
    kv::KorvaneVelgar& startWatching(const std::string& enginePrefix);
    std::string scan(const std::vector<std::string>& paths) { return scanner->scan(paths); }

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
    std::unique_ptr<kv::KorvaneVelgar> controller;
    std::unique_ptr<TestScanner> scanner;
};

// The controller tests: the suite's clamd, and a RecordingAgent on it for
// each test.
class AgentTest : public EngineSuite {
protected:
    static void SetUpTestSuite();

    kv::KorvaneVelgar& makeController(const std::function<void(kv::ControllerParts&)>& adjust = {})
    {
        return agent_.makeController(adjust);
    }
    // With these preferences of its own.
    kv::KorvaneVelgar& startWatching(const QJsonObject& preferences = {})
    {
        preferences_.own = preferences;
        return agent_.startWatching(engine_->path());
    }
    std::string scan(const std::vector<std::string>& paths) { return agent_.scan(paths); }

    RecordingAgent agent_{engine_->path()};
    TempDir& home_ = agent_.home;
    FakePreferences& preferences_ = agent_.preferences;
    RecordingNotifier& notifier_ = agent_.notifier;
    RecordingPanels& panels_ = agent_.panels;
    RecordingAlerts& alerts_ = agent_.alerts;
    std::unique_ptr<kv::KorvaneVelgar>& controller_ = agent_.controller;
    LogCapture log_;
};

} // namespace kvtest

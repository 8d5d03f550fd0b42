#pragma once

// The parts of the agent's desktop, put together as main() does, on Qt's
// offscreen platform and the test run's private session bus.

#include "app/KorvaneVelgar.h"
#include "tests/support/TestSupport.h"
#include "ui/DesktopWorkspace.h"
#include "ui/Agent.h"
#include "ui/MainInterface.h"
#include "ui/MyMenuItem.h"
#include "ui/Throbber.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtest {

// The staged resources folder of the build tree.
std::string resourcesFolder();

// The real workspace with the Trash left real; opening, revealing,
// launching and beeping are recorded instead of reaching the desktop.
class RecordingWorkspace : public kv::DesktopWorkspace {
public:
    void openPath(const std::string& path, std::function<void(bool opened)> done = {}) override;
    void revealFile(const std::string& path) override { revealed.push_back(path); }
    bool launchApplication(const std::string& bundleIdentifier) override;
    void beep() override { ++beeps; }

    bool opens = true;
    bool launches = true;
    std::vector<std::string> opened;
    std::vector<std::string> revealed;
    std::vector<std::string> launched;
    int beeps = 0;
};

// The agent as main() makes it (kv::Agent), with recording parts and a
// temporary home. The controller's exit is recorded, not carried out.
class DesktopAgent {
public:
    struct Options {
        std::optional<std::string> showDockIcon;
        kv::IndicatorClock* clock = nullptr;
        kv::DesktopNotifier* notifier = nullptr;
    };
    explicit DesktopAgent(Options options);
    DesktopAgent() : DesktopAgent(Options{}) {}

    // An item of the interface file by name.
    template <typename T = kv::MyMenuItem>
    T* find(const char* name) const
    {
        return agent->mainInterface().root()->findChild<T*>(name);
    }

    TempDir home;
    FakePreferences preferences;
    RecordingCenter center;
    RecordingWorkspace workspace;
    std::vector<int> exitStatuses;
    std::unique_ptr<kv::Agent> agent;
    kv::Throbber* menu = nullptr;
    kv::KorvaneVelgar* controller = nullptr;
};

} // namespace kvtest

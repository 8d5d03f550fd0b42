// Definitions updates: stand-in updaters in the engine prefix that end with
// each exit status, the real freshclam from Debian without a network, and
// the launch-time update.

#include "tests/support/TestSupport.h"

#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

namespace {

// Counts updates as the real status menu does, and notes the scanner count
// each time one ends.
class UpdatingMenu : public kvtest::RecordingStatusMenu {
public:
    void startUpdate() override
    {
        ++starts;
        controller->modifyScannerCountBy(1);
    }
    void stopUpdate() override
    {
        countAtStop = controller->scannerCount();
        controller->modifyScannerCountBy(-1);
        ++stops;
    }
    kv::KorvaneVelgar* controller = nullptr;
    std::atomic<int> starts{0}, stops{0}, countAtStop{0};
};

class DefinitionsUpdates : public kvtest::AgentTest {
protected:
    void TearDown() override
    {
        controller_.reset();
        std::filesystem::remove(updater());
    }

    static std::string updater() { return engine_->path() + "/bin/freshclam"; }

    // Records its arguments, writes to both streams, ends with the status.
    void installUpdater(int status)
    {
        kvtest::writeFile(updater(), "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + (home_ / "args") +
                                         "'\necho to-stdout\necho to-stderr >&2\nexit " + std::to_string(status) + "\n",
                          0755);
    }

    kv::KorvaneVelgar& agent()
    {
        kv::KorvaneVelgar& agent = makeController([this](kv::ControllerParts& parts) { parts.mainMenu = &menu_; });
        menu_.controller = &agent;
        return agent;
    }

    // Runs one update to its end; returns what it wrote to both streams.
    std::string update(bool notify)
    {
        const int ended = menu_.stops + 1;
        return kvtest::captureStandardStreams([&] {
            controller_->updateVirusDefs(notify);
            EXPECT_TRUE(kvtest::waitFor([&] { return menu_.stops == ended; }, 60000));
        });
    }

    UpdatingMenu menu_;
};

TEST_F(DefinitionsUpdates, OutcomesByExitStatusFlagNotifyAndNotificationService)
{
    struct Case {
        int status;  // -1: no updater
        bool exitOneFlag, notify, service;
        const char* notification;  // what is posted, or nullptr
        const char* windowText;    // the update window's text when shown
        bool noEnginePanel = false;
    };
    const std::vector<Case> cases = {
        {0, false, true, true, "SUCCESSFUL", nullptr},
        {0, false, false, true, nullptr, nullptr},
        {1, false, true, true, "ALREADY_UP_TO_DATE", nullptr},
        {1, false, false, true, nullptr, nullptr},
        {2, false, true, true, "Error", nullptr},
        {2, false, false, true, "Error", nullptr},
        {0, true, true, true, "ALREADY_UP_TO_DATE", nullptr},
        {0, true, false, true, nullptr, nullptr},
        {1, true, true, true, "SUCCESSFUL", nullptr},
        {1, true, false, true, nullptr, nullptr},
        {2, true, false, true, "Error", nullptr},
        {0, false, true, false, nullptr, "SUCCESSFUL"},
        {3, false, false, false, nullptr, "UNKNOWN_ERROR"},
        {-1, false, true, true, nullptr, nullptr, true},
    };
    kv::KorvaneVelgar& velgar = agent();
    ASSERT_TRUE(velgar.readPrefs());
    for (const Case& c : cases) {
        const std::string name = "status " + std::to_string(c.status) + (c.exitOneFlag ? " flag" : "") +
                                 (c.notify ? " notify" : "") + (c.service ? "" : " no service");
        std::filesystem::remove(updater());
        if (c.status >= 0)
            installUpdater(c.status);
        velgar.setNeedsExit1FreshclamFlag(c.exitOneFlag);
        notifier_.running = c.service;
        panels_.updateText.clear();
        const size_t sent = notifier_.sent().size(), panels = panels_.shown().size();

        const std::string streams = update(c.notify);
        ASSERT_EQ(notifier_.sent().size(), sent + (c.notification ? 1 : 0)) << name;
        if (c.notification) {
            EXPECT_EQ(notifier_.sent().back().name, c.notification) << name;
        }
        std::vector<kv::Panel> shown = panels_.shown();
        shown.erase(shown.begin(), shown.begin() + static_cast<long>(panels));
        const std::vector<kv::Panel> expected = c.windowText      ? std::vector<kv::Panel>{kv::Panel::Update}
                                                : c.noEnginePanel ? std::vector<kv::Panel>{kv::Panel::NoEngine}
                                                                  : std::vector<kv::Panel>{};
        EXPECT_EQ(shown, expected) << name;
        EXPECT_EQ(panels_.updateText, c.windowText ? c.windowText : "") << name;
        EXPECT_EQ(menu_.countAtStop, 1) << name << ": the update counts while it runs";
        EXPECT_EQ(velgar.scannerCount(), 0) << name;
        if (c.status < 0)
            continue;
        EXPECT_EQ(kvtest::readFile(home_ / "args"), "--log=" + (home_ / "update.log") + "\n" +
                                                        (c.exitOneFlag ? "--on-update-execute=EXIT_1\n" : ""))
            << name;
        EXPECT_NE(streams.find("to-stderr"), std::string::npos) << name << ": standard error is the scan log's";
        EXPECT_EQ(streams.find("to-stdout"), std::string::npos) << name << ": standard output is discarded";
    }
}

TEST_F(DefinitionsUpdates, OnlyALaunchAskedToUpdatesAndARestartNever)
{
    installUpdater(2);
    agent().applicationDidFinishLaunching();
    EXPECT_EQ(menu_.starts, 0);

    preferences_.own["UpdateDefsOnLaunch"] = true;
    kv::KorvaneVelgar& launched = agent();
    launched.applicationDidFinishLaunching();
    ASSERT_TRUE(kvtest::waitFor([&] { return menu_.stops == 1; }, 10000));
    ASSERT_EQ(notifier_.sent().size(), 1u) << "an error shows although a launch update does not notify";
    EXPECT_EQ(notifier_.sent()[0].description, "UNKNOWN_ERROR");
    launched.restartWatcher();
    EXPECT_TRUE(launched.isWatching());
    EXPECT_EQ(menu_.starts, 1);
}

} // namespace

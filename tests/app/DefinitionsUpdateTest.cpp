// Definitions updates: stand-in updaters that end with each exit status,
// what the user is told of each outcome, and the update at launch.

#include "app/DefinitionsUpdater.h"
#include "app/Notifications.h"
#include "tests/support/AgentSupport.h"

#include <filesystem>

namespace {

class DefinitionsUpdates : public kvtest::AgentTest {
protected:
    void TearDown() override
    {
        controller_.reset();
        std::filesystem::remove(updater());
    }

    static std::string updater() { return engine_->path() + "/bin/freshclam"; }

    // Adds its arguments to a file, writes to both streams, ends with the
    // status; one that waits for a file to appear first, when asked.
    void installUpdater(int status, const std::string& waitFor = {})
    {
        const std::string wait = waitFor.empty() ? "" : "while [ ! -e '" + waitFor + "' ]; do sleep 0.01; done\n";
        kvtest::writeFile(updater(), "#!/bin/sh\n" + wait + "printf '%s\\n' \"$@\" >> '" + (home_ / "args") +
                                         "'\necho to-stdout\necho to-stderr >&2\nexit " + std::to_string(status) + "\n",
                          0755);
    }
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
        {2, false, false, true, "Error", nullptr},
        {0, true, true, true, "ALREADY_UP_TO_DATE", nullptr},
        {1, true, true, true, "SUCCESSFUL", nullptr},
        {1, true, false, true, nullptr, nullptr},
        {0, false, true, false, nullptr, "SUCCESSFUL"},
        {3, false, false, false, nullptr, "UNKNOWN_ERROR"},
        {-1, false, true, true, nullptr, nullptr, true},
    };
    kv::Notifications notifications(&notifier_, nullptr);
    notifications.prepare();
    for (const Case& c : cases) {
        const std::string name = "status " + std::to_string(c.status) + (c.exitOneFlag ? " flag" : "") +
                                 (c.notify ? " notify" : "") + (c.service ? "" : " no service");
        std::filesystem::remove(updater());
        std::filesystem::remove(home_ / "args");
        if (c.status >= 0)
            installUpdater(c.status);
        notifier_.running = c.service;
        panels_.updateText.clear();
        const size_t sent = notifier_.sent().size(), panels = panels_.shown().size();
        kv::ScanActivity activity;
        bool updated = false;
        const std::string streams = kvtest::captureStandardStreams([&] {
            kv::DefinitionsUpdater updates(activity, notifications, &panels_);
            updates.setUpdatedHandler([&] { updated = true; });
            updates.start(kv::DefinitionsUpdate(updater(), "--log=" + (home_ / "update.log"), c.exitOneFlag),
                          c.notify);
        });
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
        EXPECT_EQ(activity.scannerCount(), 0) << name;
        EXPECT_EQ(updated, c.status == (c.exitOneFlag ? 1 : 0)) << name << ": new definitions are told to the scanners";
        if (c.status < 0)
            continue;
        EXPECT_EQ(kvtest::readFile(home_ / "args"), "--log=" + (home_ / "update.log") + "\n" +
                                                        (c.exitOneFlag ? "--on-update-execute=EXIT_1\n" : ""))
            << name;
        EXPECT_NE(streams.find("to-stderr"), std::string::npos) << name << ": standard error is the scan log's";
        EXPECT_EQ(streams.find("to-stdout"), std::string::npos) << name << ": standard output is discarded";
    }
}

// An update counts as busy while it runs; a launch updates only when asked,
// a restart never, and the exit-1 flag once loaded stays.
TEST_F(DefinitionsUpdates, LaunchUpdateCountsWhileItRunsAndARestartNeverUpdates)
{
    installUpdater(2, home_ / "go");
    preferences_.own = {{"UpdateDefsOnLaunch", true}, {"NeedsExit1FreshclamFlag", true}};
    kv::KorvaneVelgar& agent = makeController();
    agent.applicationDidFinishLaunching();
    EXPECT_TRUE(kvtest::waitFor([&] { return agent.scanActivity().updating(); }, 10000));
    kvtest::writeFile(home_ / "go", "");
    ASSERT_TRUE(kvtest::processEventsUntil([&] { return !notifier_.sent().empty(); }, 60000));
    EXPECT_EQ(notifier_.sent()[0].description, "UNKNOWN_ERROR") << "an error shows although a launch update does not notify";
    EXPECT_FALSE(agent.scanActivity().updating());

    preferences_.own = {};
    agent.restartWatcher();
    EXPECT_TRUE(agent.isWatching());
    agent.updateVirusDefs();
    ASSERT_TRUE(kvtest::processEventsUntil([&] { return notifier_.sent().size() == 2; }, 60000));
    const std::string once = "--log=" + (home_ / "update.log") + "\n--on-update-execute=EXIT_1\n";
    EXPECT_EQ(kvtest::readFile(home_ / "args"), once + once) << "one update at launch, one from the menu, none at the restart";
}

} // namespace

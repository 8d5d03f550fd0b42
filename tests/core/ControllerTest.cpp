// The controller's preferences load, start, stop, restart and quit, with the
// platform behind recording fakes and a real clamd from Debian.

#include "app/KorvaneVelgar.h"
#include "tests/support/TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QJsonArray>

#include <gtest/gtest.h>

#include <filesystem>

namespace {

class Controller : public kvtest::AgentTest {
protected:
    kvtest::RecordingCenter& center_ = agent_.center;
    kvtest::RecordingStatusMenu& menu_ = agent_.menu;
    std::optional<int>& exitStatus_ = agent_.exitStatus;
};

struct LoadCase {
    const char* name;
    QJsonObject preferences;  // the agent's own domain
    bool loads;
    const char* logged;     // a line the load logs ("" for none)
    const char* notLogged;  // a line it must not log ("" for none)
};

TEST_F(Controller, PreferenceValuesOfALoad)
{
    const std::vector<LoadCase> cases = {
        {"multiscan only for the exact word", {{"multiscan", "YES"}}, true, "", "Will use as many processor cores"},
        {"multiscan", {{"multiscan", "yes"}}, true, "Will use as many processor cores as possible for scanning", ""},
        {"email scanning off", {{"ScanEmail", false}}, true, "do NOT scan email files", ""},
        {"email scanning by default", {}, true, "scan email files", "do NOT scan email files"},
        {"a number is no installation prefix", {{"PathToClamav", 42}}, false, "\"PathToClamav\" should hold a text", ""},
        {"an array is no quarantine folder", {{"QuarantineFolder", QJsonArray{1, 2}}, {"VelgarQuarantineFiles", true}},
         true, "\"QuarantineFolder\" holds no folder path", ""},
    };
    for (const LoadCase& c : cases) {
        preferences_.own = c.preferences;
        kv::KorvaneVelgar& controller = makeController();
        kvtest::LogCapture log;
        EXPECT_EQ(controller.readPrefs(), c.loads) << c.name;
        if (*c.logged) {
            EXPECT_TRUE(log.contains(c.logged)) << c.name;
        }
        if (*c.notLogged) {
            EXPECT_FALSE(log.contains(c.notLogged)) << c.name;
        }
        if (c.preferences.contains("QuarantineFolder")) {
            EXPECT_EQ(controller.getQuarantineLocation(), "--move=") << c.name;
        }
    }
}

TEST_F(Controller, PathsFlagsAndTheDaemonFoundByALoad)
{
    kv::KorvaneVelgar& controller = makeController();
    preferences_.own = {{"NeedsExit1FreshclamFlag", true}, {"UpdateDefsOnLaunch", "true"}};
    ASSERT_TRUE(controller.readPrefs());
    EXPECT_EQ(preferences_.suites, std::vector<std::string>{"com.korvane.Korvane"});
    EXPECT_EQ(controller.clamScanPATH(), engine_->path() + "/bin/clamdscan");
    EXPECT_EQ(controller.freshclamPATH(), engine_->path() + "/bin/freshclam");
    EXPECT_EQ(controller.freshclamLogLocation(), "--log=" + (home_ / "update.log"));
    EXPECT_TRUE(controller.updateDefsAtLaunch());

    // The updater's exit-1 flag is only ever set by a load, never cleared.
    preferences_.own = {};
    ASSERT_TRUE(controller.readPrefs());
    EXPECT_TRUE(controller.needsExit1FreshclamFlag());
    EXPECT_FALSE(controller.updateDefsAtLaunch());

    // The running daemon is the one found: its socket is the one in use.
    EXPECT_EQ(controller.clamd().clamdSocket(), engine_->socket());
    EXPECT_EQ(controller.clamd().clamdConfPATH(), engine_->config());
    EXPECT_FALSE(controller.clamd().weLaunchedClamd());
}

TEST_F(Controller, TemporaryFoldersArePreparedAndThrobberFilesEmptied)
{
    kv::KorvaneVelgar& controller = makeController();
    ASSERT_TRUE(controller.readPrefs());
    const std::string watch = home_.path() + "//KorvaneVelgarII";
    EXPECT_EQ(controller.getTheTempDirToWatch(), watch);
    EXPECT_EQ(controller.getTheThrobberTempDir(), watch + "/Throbber");

    kvtest::writeFile(watch + "/Throbber/left-over", "x");
    std::filesystem::create_directory(watch + "/Throbber/keep");
    ASSERT_TRUE(controller.readPrefs());
    EXPECT_FALSE(kvtest::exists(watch + "/Throbber/left-over"));
    EXPECT_TRUE(kvtest::exists(watch + "/Throbber/keep"));
}

TEST_F(Controller, NoPrefixShowsTheNoEnginePathAndLaunchesNothing)
{
    preferences_.suite = {};
    kv::KorvaneVelgar& controller = makeController();
    kvtest::LogCapture log;
    controller.applicationDidFinishLaunching();

    EXPECT_FALSE(controller.isWatching());
    EXPECT_TRUE(log.contains("ClamAV installation couldn't be found.  Quitting now."));
    EXPECT_FALSE(log.contains("clamd not running")) << "no daemon is looked for or launched without a prefix";
    ASSERT_FALSE(notifier_.sent().empty());
    EXPECT_EQ(notifier_.sent().front().name, "Error");
    EXPECT_EQ(notifier_.sent().front().title, "Korvane Velgar");
    EXPECT_EQ(notifier_.sent().front().description, "CLAMDSCAN_ERROR") << "no string table: the key itself";
    EXPECT_GE(panels_.shown().size(), 2u) << "the no-engine alert and the failed start both show the panel";
    EXPECT_EQ(menu_.states, std::vector<int>{kv::StatusMenu::kDisabled});

    // Still answers restart and quit.
    center_.deliver("KorvaneVelgarShouldRestart", "KorvaneVelgar");
    EXPECT_TRUE(log.contains("restartWatcher"));
    center_.deliver("KorvaneVelgarShouldQuit", "KorvaneVelgar");
    EXPECT_EQ(exitStatus_, 0);
    EXPECT_FALSE(log.contains("trying to quit clamd"));
    ASSERT_EQ(center_.posted.size(), 1u);
    EXPECT_EQ(center_.posted[0], std::make_pair(std::string("KorvaneVelgarHasQuit"), std::string("KorvaneVelgar")));
}

TEST_F(Controller, DockIconOnlyForTrueOrBothInAnyCase)
{
    for (const auto& [value, expected] : std::vector<std::pair<const char*, int>>{
             {"TRUE", 1}, {"Both", 1}, {"yes", 0}, {"", 0}}) {
        preferences_.own = {{"ShowDockIcon", value}};
        panels_.foregroundRequests = 0;
        kv::KorvaneVelgar& controller = makeController();
        controller.applicationDidFinishLaunching();
        EXPECT_EQ(panels_.foregroundRequests, expected) << value;
    }
}

TEST_F(Controller, ScannerCountWakesTheIndicatorAndMayGoNegative)
{
    kv::KorvaneVelgar& controller = makeController();
    controller.modifyScannerCountBy(-1);
    EXPECT_EQ(controller.scannerCount(), -1);

    // A waiter on throbberLock sees each change.
    std::atomic<bool> sawPositive{false};
    std::thread indicator([&] {
        kv::ConditionLock& lock = controller.throbberLock();
        lock.lock();
        while (controller.scannerCount() <= 0)
            lock.wait();
        sawPositive = true;
        lock.unlock();
    });
    controller.modifyScannerCountBy(1);
    controller.modifyScannerCountBy(1);
    indicator.join();
    EXPECT_TRUE(sawPositive);
    EXPECT_EQ(controller.scannerCount(), 1);
}

} // namespace

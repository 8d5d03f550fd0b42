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

class Controller : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        engine_ = new kvtest::EnginePrefix;
        ASSERT_TRUE(engine_->startDaemon()) << "clamd from Debian must start with the test database";
    }
    static void TearDownTestSuite()
    {
        delete engine_;
        engine_ = nullptr;
    }

    std::unique_ptr<kv::KorvaneVelgar> makeController() { return std::make_unique<kv::KorvaneVelgar>(agent_.parts()); }

    static kvtest::EnginePrefix* engine_;
    kvtest::RecordingAgent agent_{engine_->path()};
    kvtest::TempDir& home_ = agent_.home;
    kvtest::FakePreferences& preferences_ = agent_.preferences;
    kvtest::RecordingCenter& center_ = agent_.center;
    kvtest::RecordingNotifier& notifier_ = agent_.notifier;
    kvtest::RecordingPanels& panels_ = agent_.panels;
    kvtest::RecordingStatusMenu& menu_ = agent_.menu;
    std::optional<int>& exitStatus_ = agent_.exitStatus;
};

kvtest::EnginePrefix* Controller::engine_ = nullptr;

struct ModeCase {
    const char* name;
    QJsonObject preferences;
    std::string mode;
    std::string location;
    std::vector<std::string> logLines;
};

TEST_F(Controller, SwitchesAndPathsOfALoad)
{
    auto controller = makeController();
    kvtest::LogCapture log;
    preferences_.own = {{"multiscan", "YES"}, {"ScanEmail", false}};
    ASSERT_TRUE(controller->readPrefs());
    EXPECT_FALSE(controller->useMultiscan()) << "only the exact word turns multiscan on";
    EXPECT_TRUE(log.contains("do NOT scan email files"));
    EXPECT_EQ(preferences_.suites, std::vector<std::string>{"com.korvane.Korvane"});

    preferences_.own = {{"multiscan", "yes"}, {"NeedsExit1FreshclamFlag", true}, {"UpdateDefsOnLaunch", "true"}};
    ASSERT_TRUE(controller->readPrefs());
    EXPECT_TRUE(controller->useMultiscan());
    EXPECT_TRUE(log.contains("Will use as many processor cores as possible for scanning"));
    EXPECT_TRUE(log.contains("scan email files"));
    EXPECT_EQ(controller->clamScanPATH(), engine_->path() + "/bin/clamdscan");
    EXPECT_EQ(controller->freshclamPATH(), engine_->path() + "/bin/freshclam");
    EXPECT_EQ(controller->freshclamLogLocation(), "--log=" + (home_ / "update.log"));
    EXPECT_TRUE(controller->updateDefsAtLaunch());

    // The updater's exit-1 flag is only ever set by a load, never cleared.
    preferences_.own = {};
    ASSERT_TRUE(controller->readPrefs());
    EXPECT_TRUE(controller->needsExit1FreshclamFlag());
    EXPECT_FALSE(controller->updateDefsAtLaunch());

    // The running daemon is the one found: its socket is the one in use.
    EXPECT_EQ(controller->clamd().clamdSocket(), engine_->socket());
    EXPECT_EQ(controller->clamd().clamdConfPATH(), engine_->config());
    EXPECT_FALSE(controller->clamd().weLaunchedClamd());
}

TEST_F(Controller, TemporaryFoldersArePreparedAndThrobberFilesEmptied)
{
    auto controller = makeController();
    ASSERT_TRUE(controller->readPrefs());
    const std::string watch = home_.path() + "//KorvaneVelgarII";
    EXPECT_EQ(controller->getTheTempDirToWatch(), watch);
    EXPECT_EQ(controller->getTheThrobberTempDir(), watch + "/Throbber");

    kvtest::writeFile(watch + "/Throbber/left-over", "x");
    std::filesystem::create_directory(watch + "/Throbber/keep");
    ASSERT_TRUE(controller->readPrefs());
    EXPECT_FALSE(kvtest::exists(watch + "/Throbber/left-over"));
    EXPECT_TRUE(kvtest::exists(watch + "/Throbber/keep"));
}

TEST_F(Controller, BadPreferenceValuesAreLoggedAndIgnored)
{
    auto controller = makeController();
    kvtest::LogCapture log;
    preferences_.own = {{"PathToClamav", 42}, {"QuarantineFolder", 7}, {"VelgarQuarantineFiles", true}};
    EXPECT_FALSE(controller->readPrefs()) << "a number is no installation prefix";
    EXPECT_TRUE(log.contains("\"PathToClamav\" should hold a text"));

    preferences_.own = {{"QuarantineFolder", QJsonArray{1, 2}}, {"VelgarQuarantineFiles", true}};
    EXPECT_TRUE(controller->readPrefs());
    EXPECT_EQ(controller->getQuarantineLocation(), "--move=");
    EXPECT_TRUE(log.contains("\"QuarantineFolder\" holds no folder path"));
}

TEST_F(Controller, NoPrefixShowsTheNoEnginePathAndLaunchesNothing)
{
    preferences_.suite = {};
    auto controller = makeController();
    kvtest::LogCapture log;
    controller->applicationDidFinishLaunching();

    EXPECT_FALSE(controller->isWatching());
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
        auto controller = makeController();
        controller->applicationDidFinishLaunching();
        EXPECT_EQ(panels_.foregroundRequests, expected) << value;
    }
}

TEST_F(Controller, ScannerCountWakesTheIndicatorAndMayGoNegative)
{
    auto controller = makeController();
    controller->modifyScannerCountBy(-1);
    EXPECT_EQ(controller->scannerCount(), -1);

    // A waiter on throbberLock sees each change.
    std::atomic<bool> sawPositive{false};
    std::thread indicator([&] {
        kv::ConditionLock& lock = controller->throbberLock();
        lock.lock();
        while (controller->scannerCount() <= 0)
            lock.wait();
        sawPositive = true;
        lock.unlock();
    });
    controller->modifyScannerCountBy(1);
    controller->modifyScannerCountBy(1);
    indicator.join();
    EXPECT_TRUE(sawPositive);
    EXPECT_EQ(controller->scannerCount(), 1);
}

TEST_F(Controller, NotificationKinds)
{
    auto controller = makeController();
    controller->applicationDidFinishLaunching();
    struct Kind {
        int kind;
        std::string name;
        std::string title;
    };
    for (const Kind& k : std::vector<Kind>{{1, "FOUND", "FOUND"},
                                           {2, "QUARANTINED", "QUARANTINED"},
                                           {3, "REMOVED", "REMOVED"},
                                           {4, "SUCCESSFUL", "Korvane Velgar"},
                                           {5, "ALREADY_UP_TO_DATE", "Korvane Velgar"},
                                           {6, "Error", "Korvane Velgar"},
                                           {0, "Error", "Korvane Velgar"},
                                           {7, "Error", "Korvane Velgar"}}) {
        EXPECT_TRUE(controller->displayGrowlDialog(k.kind, "a <b> & c"));
        const kv::DesktopNotification sent = notifier_.sent().back();
        EXPECT_EQ(sent.name, k.name) << k.kind;
        EXPECT_EQ(sent.title, k.title) << k.kind;
        EXPECT_EQ(sent.description, "a <b> & c");
        EXPECT_TRUE(sent.sticky);
    }
    notifier_.running = false;
    EXPECT_FALSE(controller->displayGrowlDialog(1, "x"));
}

} // namespace

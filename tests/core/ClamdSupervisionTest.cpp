// Finding, launching, probing, relaunching and quitting a real clamd.

#include "app/KorvaneVelgar.h"
#include "tests/support/TestSupport.h"

#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>

namespace {

class Supervision : public ::testing::Test {
protected:
    kvtest::EnginePrefix engine_;
    kvtest::RecordingAgent agent_{engine_.path()};
    kvtest::FakePreferences& preferences_ = agent_.preferences;
    std::unique_ptr<kv::KorvaneVelgar> controller_ = std::make_unique<kv::KorvaneVelgar>(agent_.parts());
    std::optional<int>& exitStatus_ = agent_.exitStatus;
};

TEST_F(Supervision, LaunchesItsOwnDaemonAndQuitsIt)
{
    ASSERT_FALSE(engine_.daemonRunning());
    kvtest::LogCapture log;
    ASSERT_TRUE(controller_->readPrefs());
    EXPECT_TRUE(log.contains("clamd not running. Now trying to launch it..."));
    EXPECT_TRUE(log.contains("clamd launched successfully.  Continuing..."));
    EXPECT_TRUE(controller_->clamd().weLaunchedClamd());
    EXPECT_EQ(controller_->clamd().clamdPATH(), engine_.path() + "/sbin/clamd");
    EXPECT_EQ(controller_->clamd().clamdSocket(), engine_.socket());
    ASSERT_TRUE(kvtest::waitFor([&] { return engine_.daemonRunning(); }, 10000));
    EXPECT_TRUE(controller_->clamdStillAlive());

    controller_->quit();
    EXPECT_TRUE(log.contains("trying to quit clamd"));
    const int pid = engine_.daemonPid();
    EXPECT_TRUE(kvtest::waitFor([&] { return kvtest::processGone(pid); }, 15000)) << "QUIT ends the daemon";
    EXPECT_EQ(exitStatus_, 0);
}

TEST_F(Supervision, ADaemonFoundRunningIsLeftRunning)
{
    ASSERT_TRUE(engine_.startDaemon());
    kvtest::LogCapture log;
    ASSERT_TRUE(controller_->readPrefs());
    EXPECT_FALSE(log.contains("clamd not running"));
    EXPECT_FALSE(controller_->clamd().weLaunchedClamd());
    EXPECT_EQ(controller_->clamd().clamdConfPATH(), engine_.config()) << "learnt from the process list";

    controller_->quit();
    EXPECT_FALSE(log.contains("trying to quit clamd"));
    EXPECT_TRUE(engine_.daemonRunning());
}

TEST_F(Supervision, RecoversADaemonKilledUnderIt)
{
    ASSERT_TRUE(controller_->readPrefs());
    ASSERT_TRUE(kvtest::waitFor([&] { return engine_.daemonRunning(); }, 10000));
    const int pid = engine_.daemonPid();
    ::kill(pid, SIGKILL);
    ASSERT_TRUE(kvtest::waitFor([&] { return kvtest::processGone(pid); }, 15000));
    std::filesystem::remove(engine_.socket());

    std::string streams = kvtest::captureStandardStreams([&] { EXPECT_FALSE(controller_->clamdStillAlive()); });
    EXPECT_NE(streams.find("can't connect to clamd through"), std::string::npos);

    controller_->recoverFromCrashedClamd();
    EXPECT_TRUE(kvtest::waitFor([&] { return kvtest::socketAccepts(engine_.socket()); }, 15000));
    EXPECT_TRUE(controller_->clamdStillAlive());
}

TEST_F(Supervision, ADaemonThatCannotStartFailsTheLoad)
{
    struct Breakage {
        const char* name;
        std::function<void()> apply;
    };
    const std::vector<Breakage> breakages = {
        {"empty database folder", [&] { std::filesystem::remove(engine_.path() + "/db/korvane-test.ndb"); }},
        {"unreadable configuration", [&] { std::filesystem::remove(engine_.config()); }},
    };
    for (const Breakage& breakage : breakages) {
        breakage.apply();
        kvtest::LogCapture log;
        EXPECT_FALSE(controller_->readPrefs()) << breakage.name;
        EXPECT_TRUE(log.contains("clamd couldn't be launched.  Quitting now.")) << breakage.name;
        EXPECT_FALSE(controller_->clamd().weLaunchedClamd());
    }
}

TEST_F(Supervision, NoExecutableInThePrefix)
{
    std::filesystem::remove(engine_.path() + "/sbin/clamd");
    kvtest::LogCapture log;
    EXPECT_FALSE(controller_->readPrefs());
    EXPECT_TRUE(log.contains("ClamAV installation couldn't be found.  Quitting now."));
}

TEST_F(Supervision, RestartReadsThePreferencesAgain)
{
    kvtest::LogCapture log;
    controller_->startWatcher(true);
    ASSERT_TRUE(controller_->isWatching());
    const int loads = preferences_.synchronizations;
    controller_->restartWatcher();
    EXPECT_TRUE(log.contains("restartWatcher"));
    EXPECT_GT(preferences_.synchronizations, loads);
    EXPECT_TRUE(controller_->isWatching());
    // The daemon launched at the first load is found running at the second,
    // so it now counts as not ours.
    EXPECT_FALSE(controller_->clamd().weLaunchedClamd());
}

} // namespace

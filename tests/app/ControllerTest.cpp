// The controller's start, stop, restart and quit, with the platform behind
// recording fakes and a real clamd from Debian.

#include "tests/support/AgentSupport.h"

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

TEST_F(Controller, WhatAStartLoadsAndLogs)
{
    struct Case {
        const char* name;
        QJsonObject preferences;  // the agent's own domain
        bool watches;
        const char* logged;     // a line the start logs ("" for none)
        const char* notLogged;  // a line it must not log ("" for none)
    };
    const std::vector<Case> cases = {
        {"multiscan only for the exact word", {{"multiscan", "YES"}}, true, "", "Will use as many processor cores"},
        {"multiscan", {{"multiscan", "yes"}}, true, "Will use as many processor cores as possible for scanning", ""},
        {"email scanning off", {{"ScanEmail", false}}, true, "do NOT scan email files", ""},
        {"email scanning by default", {}, true, "scan email files", "do NOT scan email files"},
        {"a number is no installation prefix", {{"PathToClamav", 42}}, false, "\"PathToClamav\" should hold a text", ""},
        {"an array is no quarantine folder", {{"QuarantineFolder", QJsonArray{1, 2}}, {"VelgarQuarantineFiles", true}},
         true, "\"QuarantineFolder\" holds no folder path", ""},
    };
    for (const Case& c : cases) {
        preferences_.own = c.preferences;
        kv::KorvaneVelgar& controller = makeController();
        kvtest::LogCapture log;
        controller.startWatcher(false);
        EXPECT_EQ(controller.isWatching(), c.watches) << c.name;
        if (*c.logged) {
            EXPECT_TRUE(log.contains(c.logged)) << c.name;
        }
        if (*c.notLogged) {
            EXPECT_FALSE(log.contains(c.notLogged)) << c.name;
        }
    }
    // The running daemon is the one found, and the suite is read.
    EXPECT_EQ(preferences_.suites.back(), "com.korvane.Korvane");
    EXPECT_EQ(controller_->clamd().clamdSocket(), engine_->socket());
    EXPECT_FALSE(controller_->clamd().weLaunchedClamd());
    EXPECT_EQ(controller_->updateLogPath(), home_ / "update.log");
}

TEST_F(Controller, NoPrefixShowsTheNoEnginePathAndLaunchesNothing)
{
    preferences_.suite = {};
    kv::KorvaneVelgar& controller = makeController();
    kvtest::LogCapture log;
    controller.applicationDidFinishLaunching();

    EXPECT_FALSE(controller.isWatching());
    EXPECT_TRUE(log.contains("ClamAV installation couldn't be found.  Quitting now."));
    ASSERT_FALSE(notifier_.sent().empty());
    EXPECT_EQ(notifier_.sent().front().name, "Error");
    EXPECT_EQ(notifier_.sent().front().title, "Korvane Velgar");
    EXPECT_EQ(notifier_.sent().front().description, "CLAMDSCAN_ERROR") << "no string table: the key itself";
    EXPECT_GE(panels_.shown().size(), 2u) << "the no-engine alert and the failed start both show the panel";
    EXPECT_EQ(menu_.states, std::vector<kv::MenuState>{kv::MenuState::Disabled});

    // Still answers restart and quit.
    center_.deliver("KorvaneVelgarShouldRestart", "KorvaneVelgar");
    EXPECT_TRUE(log.contains("restartWatcher"));
    center_.deliver("KorvaneVelgarShouldQuit", "KorvaneVelgar");
    EXPECT_EQ(exitStatus_, 0);
    EXPECT_FALSE(log.contains("trying to quit clamd"));
    ASSERT_EQ(center_.posted.size(), 1u);
    EXPECT_EQ(center_.posted[0], std::make_pair(std::string("KorvaneVelgarHasQuit"), std::string("KorvaneVelgar")));
}

// A silent engine is logged at every run but told (dialog and notification)
// once, until a run reaches it again; then the next silence is told again.
TEST_F(Controller, SilentEngineIsToldOnceUntilItAnswersAgain)
{
    startWatching();
    // The agent cannot bring its daemon back: the program is away, except
    // while the test starts it itself.
    const std::string clamd = engine_->path() + "/sbin/clamd";
    const auto daemonRuns = [&](bool runs) {
        if (!runs) {
            engine_->stopDaemon();
            return true;
        }
        std::filesystem::rename(clamd + ".away", clamd);
        const bool started = engine_->startDaemon();
        std::filesystem::rename(clamd, clamd + ".away");
        return started;
    };
    std::filesystem::rename(clamd, clamd + ".away");
    struct Step {
        bool engineRuns;
        int runs;
        size_t toldInAll;
    };
    const Step steps[] = {{false, 2, 1}, {true, 1, 1}, {false, 2, 2}};
    int written = 0;
    for (const Step& step : steps) {
        ASSERT_TRUE(daemonRuns(step.engineRuns));
        for (int run = 0; run < step.runs; ++run) {
            const std::string path = home_ / (std::to_string(++written) + ".com");
            kvtest::writeFile(path, kvtest::eicar());
            scan({path});
        }
        EXPECT_EQ(alerts_.count("EngineUnreachable"), step.toldInAll);
        EXPECT_EQ(notifier_.saying("CLAMDSCAN_ERROR"), step.toldInAll);
    }
    EXPECT_GE(log_.count("can't connect to clamd"), 4u) << "every silent run is logged";
    std::filesystem::rename(clamd + ".away", clamd);
    ASSERT_TRUE(engine_->startDaemon());
}

} // namespace

// Finding, launching, probing, relaunching and quitting a real clamd.

#include "app/KorvaneVelgar.h"
#include "tests/support/TestSupport.h"


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

TEST_F(Supervision, AnEngineThatCannotRunFailsTheLoad)
{
    struct Breakage {
        const char* name;
        std::function<void()> apply;
        const char* logged;
    };
    const std::vector<Breakage> breakages = {
        {"empty database folder", [&] { std::filesystem::remove(engine_.path() + "/db/korvane-test.ndb"); },
         "clamd couldn't be launched.  Quitting now."},
        {"unreadable configuration", [&] { std::filesystem::remove(engine_.config()); },
         "clamd couldn't be launched.  Quitting now."},
        {"no executable", [&] { std::filesystem::remove(engine_.path() + "/sbin/clamd"); },
         "ClamAV installation couldn't be found.  Quitting now."},
    };
    for (const Breakage& breakage : breakages) {
        breakage.apply();
        kvtest::LogCapture log;
        EXPECT_FALSE(controller_->readPrefs()) << breakage.name;
        EXPECT_TRUE(log.contains(breakage.logged)) << breakage.name;
        EXPECT_FALSE(controller_->clamd().weLaunchedClamd()) << breakage.name;
    }
}

} // namespace

// Starting the engine of a prefix whose daemon cannot run.

#include "engine/ClamdSupervisor.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

namespace {

TEST(Supervision, AnEngineThatCannotRunIsNotReady)
{
    kvtest::EnginePrefix engine;
    struct Breakage {
        const char* name;
        std::function<void()> apply;
        const char* logged;
    };
    const std::vector<Breakage> breakages = {
        {"empty database folder", [&] { std::filesystem::remove(engine.path() + "/db/korvane-test.ndb"); },
         "clamd couldn't be launched.  Quitting now."},
        {"unreadable configuration", [&] { std::filesystem::remove(engine.config()); },
         "clamd couldn't be launched.  Quitting now."},
        {"no executable", [&] { std::filesystem::remove(engine.path() + "/sbin/clamd"); },
         "ClamAV installation couldn't be found.  Quitting now."},
    };
    kv::ClamdSupervisor clamd;
    for (const Breakage& breakage : breakages) {
        breakage.apply();
        kvtest::LogCapture log;
        EXPECT_FALSE(clamd.startEngine(engine.path()).ready) << breakage.name;
        EXPECT_TRUE(log.contains(breakage.logged)) << breakage.name;
        EXPECT_FALSE(clamd.weLaunchedClamd()) << breakage.name;
    }
    kvtest::LogCapture log;
    EXPECT_FALSE(clamd.startEngine(std::nullopt).ready);
    EXPECT_TRUE(log.contains("ClamAV installation couldn't be found.  Quitting now."));
    EXPECT_FALSE(log.contains("clamd not running")) << "no daemon is looked for or launched without a prefix";
}

} // namespace

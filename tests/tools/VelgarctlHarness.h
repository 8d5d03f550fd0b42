#pragma once

// velgarctl as users run it: the built program as a child process, in a home
// of the test's own.

#include "tests/support/TestSupport.h"

#include <QProcess>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace kvtest {

struct CommandResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the built velgarctl with the test process's environment and waits
// for it (at most timeoutMs).
CommandResult runVelgarctl(const std::vector<std::string>& arguments, int timeoutMs = 30000);
// The same for a program elsewhere (a copy of velgarctl, say).
CommandResult runProgram(const std::string& program, const std::vector<std::string>& arguments, int timeoutMs = 30000);

// A QProcess of velgarctl started in the background.
std::unique_ptr<QProcess> startVelgarctl(const std::vector<std::string>& arguments);

// Gives each test its own user: HOME and the XDG folders point into a fresh
// temporary folder, so velgarctl never touches the real user's files.
class VelgarctlTest : public ::testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directories(home() + "/run"); }

    std::string home() const { return home_.path(); }
    std::string configFolder() const { return home() + "/.config/korvane"; }
    std::string domainFile(const std::string& domain) const { return configFolder() + "/" + domain + ".json"; }

private:
    TempDir home_;
    ScopedEnv homeEnv_{"HOME", home_.path()};
    ScopedEnv config_{"XDG_CONFIG_HOME", home_ / ".config"};
    ScopedEnv data_{"XDG_DATA_HOME", home_ / ".local/share"};
    ScopedEnv runtime_{"XDG_RUNTIME_DIR", home_ / "run"};
};

} // namespace kvtest

#pragma once

#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kv::test {

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

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& contents);
// Every regular file below folder, by relative path, with its bytes.
std::map<std::string, std::string> snapshotFiles(const std::string& folder);

// Gives each test its own user: HOME and the XDG folders point into a fresh
// temporary folder, so velgarctl never touches the real user's files.
class VelgarctlTest : public ::testing::Test {
protected:
    void SetUp() override;

    std::string home() const { return home_.path().toStdString(); }
    std::string configFolder() const { return home() + "/.config/korvane"; }
    std::string domainFile(const std::string& domain) const { return configFolder() + "/" + domain + ".json"; }

private:
    QTemporaryDir home_;
};

// A private session bus, started with dbus-daemon and ended with the
// object. DBUS_SESSION_BUS_ADDRESS points at it meanwhile.
class PrivateSessionBus {
public:
    PrivateSessionBus();
    ~PrivateSessionBus();
    const std::string& address() const { return address_; }

private:
    QProcess daemon_;
    std::string address_;
};

} // namespace kv::test

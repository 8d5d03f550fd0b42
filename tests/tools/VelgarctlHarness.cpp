#include "VelgarctlHarness.h"

#include <QDirIterator>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kv::test {
namespace {

QStringList toQStringList(const std::vector<std::string>& arguments)
{
    QStringList list;
    for (const std::string& argument : arguments)
        list << QString::fromStdString(argument);
    return list;
}

} // namespace

CommandResult runVelgarctl(const std::vector<std::string>& arguments, int timeoutMs)
{
    return runProgram(VELGARCTL_PATH, arguments, timeoutMs);
}

CommandResult runProgram(const std::string& program, const std::vector<std::string>& arguments, int timeoutMs)
{
    QProcess process;
    process.start(QString::fromStdString(program), toQStringList(arguments));
    CommandResult result;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        ADD_FAILURE() << program << " did not finish within " << timeoutMs << " ms";
        return result;
    }
    result.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = process.readAllStandardOutput().toStdString();
    result.err = process.readAllStandardError().toStdString();
    return result;
}

std::unique_ptr<QProcess> startVelgarctl(const std::vector<std::string>& arguments)
{
    auto process = std::make_unique<QProcess>();
    process->start(VELGARCTL_PATH, toQStringList(arguments));
    EXPECT_TRUE(process->waitForStarted());
    return process;
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

void writeFile(const std::string& path, const std::string& contents)
{
    std::ofstream(path, std::ios::binary) << contents;
}

std::map<std::string, std::string> snapshotFiles(const std::string& folder)
{
    std::map<std::string, std::string> files;
    QDirIterator it(QString::fromStdString(folder), QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const std::string path = it.next().toStdString();
        files[path.substr(folder.size())] = readFile(path);
    }
    return files;
}

void VelgarctlTest::SetUp()
{
    ASSERT_TRUE(home_.isValid());
    ::setenv("HOME", home().c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home() + "/.config").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (home() + "/.local/share").c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", (home() + "/run").c_str(), 1);
    QDir().mkpath(QString::fromStdString(home() + "/run"));
}

PrivateSessionBus::PrivateSessionBus()
{
    daemon_.start("dbus-daemon", {"--session", "--nofork", "--print-address"});
    daemon_.waitForStarted();
    while (!daemon_.canReadLine()) {
        if (!daemon_.waitForReadyRead(10000)) {
            ADD_FAILURE() << "dbus-daemon did not start";
            return;
        }
    }
    address_ = daemon_.readLine().trimmed().toStdString();
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateSessionBus::~PrivateSessionBus()
{
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    daemon_.terminate();
    if (!daemon_.waitForFinished(5000)) {
        daemon_.kill();
        daemon_.waitForFinished();
    }
}

} // namespace kv::test

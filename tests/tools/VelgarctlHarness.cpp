#include "VelgarctlHarness.h"

namespace kvtest {
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

} // namespace kvtest

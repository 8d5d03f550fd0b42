#include "VelgarctlHarness.h"

namespace kvtest {
namespace {

const std::string kRestartLine = "KorvaneVelgarShouldRestart KorvaneVelgar";

class VelgarctlBus : public VelgarctlTest {
protected:
    PrivateBus bus_;
    ScopedEnv address_{"DBUS_SESSION_BUS_ADDRESS", bus_.address()};
};

std::string readLine(QProcess& process, int timeoutMs)
{
    while (!process.canReadLine()) {
        if (!process.waitForReadyRead(timeoutMs))
            return {};
    }
    return process.readLine().trimmed().toStdString();
}

TEST_F(VelgarctlBus, ListenPrintsEveryPostedNotification)
{
    std::unique_ptr<QProcess> listener = startVelgarctl({"listen"});
    // listen subscribes in its own time: repeat the first notification
    // until it shows up, then expect the rest in order.
    std::string first;
    for (int attempt = 0; attempt < 50 && first.empty(); ++attempt) {
        ASSERT_EQ(runVelgarctl({"restart"}).status, 0);
        first = readLine(*listener, 200);
    }
    ASSERT_EQ(first, kRestartLine);

    struct Case {
        std::vector<std::string> arguments;
        std::string line;
    };
    const Case cases[] = {
        {{"quit"}, "KorvaneVelgarShouldQuit KorvaneVelgar"},
        {{"post", "KorvaneShouldOpenPrefs", "two words"}, "KorvaneShouldOpenPrefs two words"},
        {{"post", "KorvaneVelgarHasQuit"}, "KorvaneVelgarHasQuit"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const CommandResult post = runVelgarctl(c.arguments);
        EXPECT_EQ(post.status, 0) << post.err;
        std::string line = readLine(*listener, 5000);
        while (line == kRestartLine)  // late copies of the repeated first one
            line = readLine(*listener, 5000);
        EXPECT_EQ(line, c.line);
    }

    listener->terminate();
    ASSERT_TRUE(listener->waitForFinished(5000));
    EXPECT_EQ(listener->exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(listener->exitCode(), 0);
}

using VelgarctlNoBus = VelgarctlTest;

TEST_F(VelgarctlNoBus, NothingIsSentAndStatusIsOne)
{
    const ScopedEnv noBus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home() + "/no-bus");
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"restart"}, {"quit"}, {"post", "Name"}, {"listen"}, {"script", "restartWatchingViaAS"}}) {
        SCOPED_TRACE(arguments[0]);
        const CommandResult result = runVelgarctl(arguments, 10000);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

} // namespace
} // namespace kvtest

#include "VelgarctlHarness.h"

#include <QDBusConnection>
#include <QEventLoop>
#include <QObject>
#include <QTimer>

namespace kv::test {
namespace {

const std::string kRestartLine = "KorvaneVelgarShouldRestart KorvaneVelgar";

class VelgarctlBus : public VelgarctlTest {
protected:
    PrivateSessionBus bus_;
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

// Stands in for the agent's scripting object on the private bus.
class AgentStandIn : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.korvane.KorvaneVelgar")
    Q_PROPERTY(QString restartWatchingViaAS READ restartWatchingViaAS)
public:
    QString restartWatchingViaAS() const { return QStringLiteral("Restart Requested"); }
};

TEST_F(VelgarctlBus, ScriptPrintsTheAgentsAnswer)
{
    const CommandResult absent = runVelgarctl({"script", "restartWatchingViaAS"});
    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(std::count(absent.err.begin(), absent.err.end(), '\n'), 1) << absent.err;

    QDBusConnection connection = QDBusConnection::connectToBus(QString::fromStdString(bus_.address()), "agent-stand-in");
    AgentStandIn agent;
    ASSERT_TRUE(connection.registerObject("/com/korvane/KorvaneVelgar", &agent, QDBusConnection::ExportAllProperties));
    ASSERT_TRUE(connection.registerService("com.korvane.KorvaneVelgar"));

    // The stand-in answers from this thread's event loop, so run it while
    // velgarctl asks.
    std::unique_ptr<QProcess> script = startVelgarctl({"script", "restartWatchingViaAS"});
    QEventLoop loop;
    QObject::connect(script.get(), &QProcess::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(15000, &loop, &QEventLoop::quit);
    loop.exec();
    ASSERT_EQ(script->state(), QProcess::NotRunning);
    EXPECT_EQ(script->exitCode(), 0) << script->readAllStandardError().toStdString();
    EXPECT_EQ(script->readAllStandardOutput().toStdString(), "Restart Requested\n");
    connection.unregisterObject("/com/korvane/KorvaneVelgar");
    QDBusConnection::disconnectFromBus("agent-stand-in");
}

using VelgarctlNoBus = VelgarctlTest;

TEST_F(VelgarctlNoBus, NothingIsSentAndStatusIsOne)
{
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + home() + "/no-bus").c_str(), 1);
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"restart"}, {"quit"}, {"post", "Name"}, {"listen"}, {"script", "restartWatchingViaAS"}}) {
        SCOPED_TRACE(arguments[0]);
        const CommandResult result = runVelgarctl(arguments, 10000);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

} // namespace
} // namespace kv::test

#include "BusCommandTest.moc"

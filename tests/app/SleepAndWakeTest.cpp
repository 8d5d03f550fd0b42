// Sleep and wake through logind's D-Bus interface: a stand-in logind on a
// private system bus, the agent's SleepWatcher, and a controller that
// watches for real (gfslogger runs).

#include "platform/SleepWatcher.h"
#include "tests/support/AgentSupport.h"

#include <fcntl.h>
#include <unistd.h>
#include <poll.h>

#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QDBusVirtualObject>
#include <QJsonArray>

#include <cstdlib>
#include <filesystem>

namespace {

// A small logind: owns org.freedesktop.login1, hands out inhibitor locks as
// logind does (the caller gets a pipe's writing end; the lock ends when every
// copy of it is closed) and sends PrepareForSleep. Main thread.
class Login1StandIn : public QDBusVirtualObject {
public:
    explicit Login1StandIn(QDBusConnection bus) : bus_(bus)
    {
        bus_.registerVirtualObject(kv::SleepWatcher::kPath, this, QDBusConnection::SingleNode);
        bus_.registerService(kv::SleepWatcher::kService);
    }
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        int ends[2];
        if (message.member() != QLatin1String("Inhibit") || ::pipe2(ends, O_CLOEXEC) != 0)
            return false;
        QStringList lock;
        for (const QVariant& argument : message.arguments())
            lock << argument.toString();
        locks.push_back(lock.join(' ').toStdString());
        readEnds_.emplace_back(ends[0]);
        const kv::UniqueFd writeEnd(ends[1]);  // the reply carries its own copy
        connection.send(message.createReply(QVariant::fromValue(QDBusUnixFileDescriptor(writeEnd.get()))));
        return true;
    }
    void sendPrepareForSleep(bool start)
    {
        QDBusMessage signal = QDBusMessage::createSignal(kv::SleepWatcher::kPath, kv::SleepWatcher::kManager,
                                                         QStringLiteral("PrepareForSleep"));
        bus_.send(signal << start);
    }
    // Locks not yet released.
    int held() const
    {
        int count = 0;
        for (const kv::UniqueFd& end : readEnds_) {
            pollfd wait{end.get(), 0, 0};
            count += ::poll(&wait, 1, 0) == 1 && (wait.revents & POLLHUP) ? 0 : 1;
        }
        return count;
    }
    std::vector<std::string> locks;  // "what who why mode" of each Inhibit call

private:
    QDBusConnection bus_;
    std::vector<kv::UniqueFd> readEnds_;
};

// The agent's SleepWatcher, looking at the agent each time the agent lets go
// of its sleep delay, before logind can see the release.
class ObservedSleepWatcher : public kv::SleepEvents {
public:
    explicit ObservedSleepWatcher(QDBusConnection bus) : real(std::move(bus)) {}
    bool observe(Handler willSleep, Handler didWake) override { return real.observe(willSleep, didWake); }
    void holdSleepDelay() override { real.holdSleepDelay(); }
    void releaseSleepDelay() override
    {
        if (onRelease)
            onRelease();
        real.releaseSleepDelay();
    }
    kv::SleepWatcher real;
    std::function<void()> onRelease;
};

// Whether a gfslogger started by this process runs (or is not reaped yet).
bool helperRuns()
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string stat = kvtest::readFile(entry.path().string() + "/stat");
        const size_t close = stat.rfind(')');
        if (stat.find("(gfslogger)") == std::string::npos || close == std::string::npos)
            continue;
        if (std::atoi(stat.c_str() + stat.find(' ', close + 2) + 1) == ::getpid())
            return true;
    }
    return false;
}

const char* const kStopping = "We're currently watching for changes, so stop and then register to know when we wake up again";

class SleepAndWake : public kvtest::AgentTest {
protected:
    kv::KorvaneVelgar& launch()
    {
        std::filesystem::create_directories(home_ / "watched");
        preferences_.own["VelgarFolderArray"] =
            QJsonArray{QJsonObject{{"pathName", QString::fromStdString(home_ / "watched")}}};
        kv::KorvaneVelgar& agent = makeController([this](kv::ControllerParts& parts) { parts.sleepEvents = &sleep_; });
        agent.applicationDidFinishLaunching();
        EXPECT_TRUE(agent.isWatching());
        EXPECT_TRUE(kvtest::processEventsUntil([&] { return login1_.held() == 1; }));
        return agent;
    }
    bool logged(const std::string& text, size_t times = 1)
    {
        return kvtest::processEventsUntil([&] { return log_.count(text) >= times; });
    }
    // The index of the first line with the text from index from on.
    size_t lineWith(const std::string& text, size_t from = 0) const
    {
        const std::vector<std::string> lines = log_.lines();
        for (size_t index = from; index < lines.size(); ++index) {
            if (lines[index].find(text) != std::string::npos)
                return index;
        }
        return lines.size() + 1000;
    }

    kvtest::PrivateBus systemBus_{kvtest::PrivateBus::Kind::System};
    Login1StandIn login1_{systemBus_.connect()};
    ObservedSleepWatcher sleep_{systemBus_.connect()};
};

// A wake alone only logs. A sleep stops watching, gfslogger ended, before
// the sleep delay ends; a second sleep changes nothing; the wake starts
// watching again in full, preferences first, and takes a new delay. That
// used the restart up: after a sleep while stopped, watching stays off.
TEST_F(SleepAndWake, WatchingStopsBeforeTheSleepDelayEndsAndStartsAgainOnWake)
{
    kv::KorvaneVelgar& agent = launch();
    ASSERT_EQ(login1_.locks.size(), 1u);
    EXPECT_TRUE(login1_.locks[0].starts_with("sleep Korvane Velgar ")) << login1_.locks[0];
    EXPECT_TRUE(login1_.locks[0].ends_with(" delay")) << login1_.locks[0];
    ASSERT_TRUE(kvtest::waitFor([&] { return helperRuns(); }, 10000));
    const int loads = preferences_.synchronizations;
    login1_.sendPrepareForSleep(false);
    ASSERT_TRUE(logged("Wakey wakey!"));
    EXPECT_EQ(preferences_.synchronizations, loads) << "a wake alone only logs";

    std::optional<std::pair<bool, bool>> atRelease;  // watching, gfslogger runs
    sleep_.onRelease = [&] {
        if (!atRelease)
            atRelease.emplace(agent.isWatching(), helperRuns());
    };
    login1_.sendPrepareForSleep(true);
    login1_.sendPrepareForSleep(true);
    ASSERT_TRUE(kvtest::processEventsUntil([&] { return login1_.held() == 0; })) << "logind sees the delay end";
    EXPECT_EQ(atRelease, std::make_pair(false, false)) << "gfslogger has ended before the machine may sleep";
    ASSERT_TRUE(logged("Nighty night!", 2));
    EXPECT_EQ(log_.count(kStopping), 1u);

    login1_.sendPrepareForSleep(false);
    ASSERT_TRUE(logged("Wakey wakey!", 2));
    EXPECT_TRUE(agent.isWatching()) << "the second sleep kept the restart";
    EXPECT_GT(preferences_.synchronizations, loads) << "a full start, preferences first";
    const size_t woke = lineWith("Wakey wakey!", lineWith("Nighty night!"));
    EXPECT_LT(lineWith(kStopping), lineWith("Nighty night!"));
    EXPECT_LT(woke, lineWith("scan email files", woke));
    EXPECT_TRUE(kvtest::processEventsUntil([&] { return login1_.locks.size() == 2 && login1_.held() == 1; }));

    agent.stopWatcher();
    login1_.sendPrepareForSleep(true);
    login1_.sendPrepareForSleep(false);
    ASSERT_TRUE(logged("Wakey wakey!", 3));
    EXPECT_FALSE(agent.isWatching());
    EXPECT_EQ(log_.count(kStopping), 1u);
}

TEST(SleepWatcher, WithoutSystemBusOrLogindOneLineAndNoSleepHandling)
{
    kvtest::processEventsUntil([] { return true; });
    kvtest::LogCapture log;
    {
        kvtest::PrivateBus noLogind(kvtest::PrivateBus::Kind::System);
        kv::SleepWatcher watcher(noLogind.connect());
        EXPECT_FALSE(watcher.observe([] {}, [] {}));
        watcher.holdSleepDelay();
    }
    kv::SleepWatcher watcher(QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent"), QStringLiteral("none")));
    EXPECT_FALSE(watcher.observe([] {}, [] {}));
    watcher.holdSleepDelay();
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.count("No logind on the D-Bus system bus"), 1u);
    EXPECT_EQ(log.count("No D-Bus system bus"), 1u);
}

} // namespace

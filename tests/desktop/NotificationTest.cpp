// Desktop notifications as a notification service on the session bus
// receives them, and the wait for the main application before asking it to
// open its preferences.

#include "tests/desktop/DesktopTestSupport.h"

#include "platform/BusName.h"
#include "platform/DBusDistributedCenter.h"
#include "platform/FreedesktopNotifier.h"

#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QTest>


namespace {

// A peer of the agent on the private bus, on a connection of its own: it
// takes a bus name when told to (the notification service's, or the main
// application's) and keeps every Notify call it gets.
class BusPeer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Received {
        QString appName;
        uint replacesId;
        QString summary;
        QString body;
        QVariantMap hints;
        int expireTimeout;
    };

    explicit BusPeer(QString name)
        : name_(std::move(name)), connection_(QDBusConnection::connectToBus(QDBusConnection::SessionBus, name_))
    {
        connection_.registerObject("/org/freedesktop/Notifications", this, QDBusConnection::ExportAllSlots);
    }
    // The object leaves the connection here, in this thread; left to the
    // disconnection, the bus thread would unhook it while it is being freed.
    ~BusPeer() override
    {
        connection_.unregisterObject("/org/freedesktop/Notifications");
        connection_.unregisterService(name_);
        QDBusConnection::disconnectFromBus(name_);
    }
    bool takeName() { return connection_.registerService(name_); }

    std::vector<Received> received;

public Q_SLOTS:
    uint Notify(const QString& appName, uint replacesId, const QString&, const QString& summary, const QString& body,
                const QStringList&, const QVariantMap& hints, int expireTimeout)
    {
        received.push_back({appName, replacesId, summary, body, hints, expireTimeout});
        return replacesId ? replacesId : uint(received.size());
    }

private:
    QString name_;
    QDBusConnection connection_;
};

// A notification as a notification service receives it: from the agent,
// sticky and resident, its name as the category and its title as the
// summary, markup in the body escaped. Without a service it is refused.
// Which name and title each kind gets is the controller's, tested in the
// core tests.
TEST(Notifications, ReachTheServiceStickyWithTheirNameTitleAndEscapedBody)
{
    kv::FreedesktopNotifier notifier;
    BusPeer service("org.freedesktop.Notifications");
    kvtest::DesktopAgent agent({.showDockIcon = {}, .clock = nullptr, .notifier = &notifier});
    // The launch fetches the texts; its failed engine search would send an
    // error notification of its own.
    agent.controller->applicationDidFinishLaunching();
    EXPECT_FALSE(agent.controller->displayGrowlDialog(kv::NotificationKind::Updated, "/home/a/<b> & c.com"));

    ASSERT_TRUE(service.takeName());
    EXPECT_TRUE(agent.controller->displayGrowlDialog(kv::NotificationKind::Updated, "/home/a/<b> & c.com"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !service.received.empty(); }, 5000));
    ASSERT_EQ(service.received.size(), 1u);
    const BusPeer::Received& got = service.received[0];
    EXPECT_EQ(got.appName, "Korvane Velgar");
    EXPECT_EQ(got.summary, "Korvane Velgar");
    EXPECT_EQ(got.hints.value("category").toString(), "Virus definitions updated");
    EXPECT_EQ(got.body, "/home/a/&lt;b&gt; &amp; c.com");
    EXPECT_EQ(got.expireTimeout, 0) << "sticky";
    EXPECT_TRUE(got.hints.value("resident").toBool());
    EXPECT_EQ(got.hints.value("desktop-entry").toString(), "com.korvane.KorvaneVelgar");
}

// A flood of findings: the first few one by one, then one notification that
// counts the rest. Counts that come while one is on its way are folded into
// the newest; a later count replaces the shown one (the daemon's id as
// replaces_id) rather than adding another. The daemon is one the bus starts
// only when it is first called (D-Bus activation, as desktops without a
// resident daemon have it): it counts as running before it runs.
TEST(Notifications, FloodOfFindingsIsCountedInOneNotificationUpdatedInPlace)
{
    // The daemon is a process of its own, as on a desktop: what it got is
    // read from its file, one "replaces_id<TAB>summary<TAB>body" a line.
    kvtest::TempDir folder;
    const std::string received = folder / "received";
    kvtest::writeFile(folder / "services/org.freedesktop.Notifications.service",
                      "[D-BUS Service]\nName=org.freedesktop.Notifications\nExec=" KV_TEST_NOTIFICATION_DAEMON " " +
                          received + "\n");
    kvtest::PrivateBus bus(kvtest::PrivateBus::Kind::Session, folder / "services");
    kv::FreedesktopNotifier notifier(bus.connect());
    kvtest::DesktopAgent agent({.showDockIcon = {}, .clock = nullptr, .notifier = &notifier});
    const auto lines = [&] {
        std::vector<QStringList> got;
        for (const QString& line : QString::fromStdString(kvtest::readFile(received)).split('\n', Qt::SkipEmptyParts))
            got.push_back(line.split('\t'));
        return got;
    };
    struct Round {
        int findings;
        const char* lastBody;
        size_t received;  // by the daemon in all
        uint replacesId;  // of the last one
    };
    const Round rounds[] = {{40, "37 more infected files found", 4, 0}, {5, "42 more infected files found", 5, 4}};
    int written = 0;
    for (const Round& round : rounds) {
        for (int i = 0; i < round.findings; ++i, ++written)
            agent.controller->displayGrowlDialog(kv::NotificationKind::Found, "/home/a/" + std::to_string(written) + ".com: Eicar FOUND");
        ASSERT_TRUE(QTest::qWaitFor([&] { return kvtest::exists(received) && lines().size() >= round.received; }, 20000));
        QTest::qWait(100);  // nothing more follows
        const std::vector<QStringList> got = lines();
        ASSERT_EQ(got.size(), round.received);
        EXPECT_EQ(got.back().value(2).toStdString(), round.lastBody);
        EXPECT_EQ(got.back().value(0).toUInt(), round.replacesId);
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(lines()[i].value(2).toStdString(), "/home/a/" + std::to_string(i) + ".com: Eicar FOUND");
}

// The preferences live in the main application: it is launched, and asked
// to open them once its bus name shows that it runs.
TEST(OpenPrefs, PostsOnceTheMainApplicationRunsAndQuitsWhenSentByThePanelButton)
{
    kvtest::DesktopAgent agent;
    BusPeer mainApplication("com.korvane.Korvane");
    agent.controller->mainApplication().openPrefs(true);
    EXPECT_EQ(agent.workspace.launched, std::vector<std::string>{"com.korvane.Korvane"});
    QTest::qWait(0);
    EXPECT_TRUE(agent.center.posted.empty()) << "the main application is not running yet";

    ASSERT_TRUE(mainApplication.takeName());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !agent.center.posted.empty(); }, 5000));
    EXPECT_EQ(agent.center.posted.front(), std::make_pair(std::string("KorvaneShouldOpenPrefs"), std::string("KorvaneVelgar")));
    EXPECT_EQ(agent.exitStatuses, std::vector<int>{0});

    // Already running, from a menu item: at once, and the agent stays.
    agent.center.posted.clear();
    agent.controller->mainApplication().openPrefs(false);
    EXPECT_EQ(agent.center.posted.size(), 1u);
    EXPECT_EQ(agent.exitStatuses.size(), 1u);
}

TEST(OpenPrefs, LaunchThatCannotStartBeepsAndPostsNothing)
{
    kvtest::DesktopAgent agent;
    agent.workspace.launches = false;
    agent.controller->mainApplication().openPrefs(false);
    EXPECT_EQ(agent.workspace.beeps, 1);
    EXPECT_TRUE(agent.center.posted.empty());
    EXPECT_TRUE(agent.exitStatuses.empty());
    agent.controller->mainApplication().openPrefs(true);
    EXPECT_EQ(agent.exitStatuses, std::vector<int>{0});
}

} // namespace

#include "NotificationTest.moc"

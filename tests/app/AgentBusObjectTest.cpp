// The scripted read: a D-Bus client (velgarctl script, say) reads a property
// of the agent's bus object on a private session bus; the agent's scripting
// answers.

#include "app/AgentScripting.h"
#include "platform/AgentBusObject.h"
#include "tests/support/AgentSupport.h"

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QThread>

namespace {

// Counts the scripted restarts asked of the menu, and notes whether the
// last one was asked on the main thread.
class ScriptedMenu : public kvtest::RecordingStatusMenu {
public:
    void canRestartFromAS() override
    {
        ++asked;
        onMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
    }
    int asked = 0;
    bool onMainThread = false;
};

class ScriptedRead : public ::testing::Test {
protected:
    void SetUp() override
    {
        kvtest::processEventsUntil([] { return true; });
        kv::AgentBusObject::ScriptedKeys keys;
        keys.handlesKey = [this](const std::string& key) { return scripting_.applicationDelegateHandlesKey(key); };
        keys.valueForKey = [this](const std::string& key) { return scripting_.valueForKey(key); };
        keys.names = scripting_.keys();
        object_ = std::make_unique<kv::AgentBusObject>(keys);
        ASSERT_TRUE(agentBus_.registerService(kv::bus::kAgentName));
        ASSERT_TRUE(object_->registerOn(agentBus_));
    }

    // The error name of a Properties call from another client, or "" and the answer.
    std::pair<std::string, std::string> properties(const char* member, const QList<QVariant>& arguments)
    {
        QDBusMessage call = QDBusMessage::createMethodCall(kv::bus::kAgentName, kv::AgentBusObject::kPath,
                                                           "org.freedesktop.DBus.Properties", member);
        call.setArguments(arguments);
        QDBusPendingCallWatcher watcher(client_.asyncCall(call));
        kvtest::processEventsUntil([&] { return watcher.isFinished(); });
        const QDBusMessage reply = watcher.reply();
        if (reply.type() == QDBusMessage::ErrorMessage)
            return {reply.errorName().toStdString(), {}};
        return {{}, qvariant_cast<QDBusVariant>(reply.arguments().value(0)).variant().toString().toStdString()};
    }

    kvtest::PrivateBus bus_{kvtest::PrivateBus::Kind::Session};
    QDBusConnection agentBus_ = bus_.connect();
    QDBusConnection client_ = bus_.connect();
    ScriptedMenu menu_;
    kvtest::RecordingCenter center_;
    kv::AgentScripting scripting_{&menu_, &center_};
    std::unique_ptr<kv::AgentBusObject> object_;
};

TEST_F(ScriptedRead, OtherKeysAndCallsAreRefusedTheStandardWay)
{
    const QString interface = kv::AgentBusObject::kInterface;
    const QString key = "restartWatchingViaAS";
    const std::vector<std::tuple<const char*, QList<QVariant>, std::string>> refused = {
        {"Get", {interface, QString("quitViaAS")}, "org.freedesktop.DBus.Error.UnknownProperty"},
        {"Get", {QString("com.korvane.Other"), key}, "org.freedesktop.DBus.Error.UnknownInterface"},
        {"Set", {interface, key, QVariant::fromValue(QDBusVariant(QString("x")))}, "org.freedesktop.DBus.Error.PropertyReadOnly"},
        {"GetAll", {interface}, "org.freedesktop.DBus.Error.NotSupported"},
        {"Get", {interface}, "org.freedesktop.DBus.Error.InvalidArgs"},
    };
    for (const auto& [member, arguments, error] : refused)
        EXPECT_EQ(properties(member, arguments).first, error) << member;
    EXPECT_EQ(menu_.asked, 0);
    EXPECT_EQ(properties("Get", {interface, key}), std::make_pair(std::string(), std::string("Restart Requested")));
    EXPECT_EQ(menu_.asked, 1);
    EXPECT_TRUE(menu_.onMainThread);
}

// The agent's state: read by scripts, posted when it changes.
TEST_F(ScriptedRead, StateIsReadAndPostedOncePerChange)
{
    const QString interface = kv::AgentBusObject::kInterface;
    EXPECT_EQ(properties("Get", {interface, QString("agentStatus")}).second, "changing");
    for (const kv::MenuState state : {kv::MenuState::Watching, kv::MenuState::Watching, kv::MenuState::Busy,
                                      kv::MenuState::Disabled})
        scripting_.menuStateApplied(state);
    EXPECT_EQ(properties("Get", {interface, QString("agentStatus")}).second, "changing");
    const std::vector<std::pair<std::string, std::string>> posted = {
        {"KorvaneVelgarStatus", "watching"}, {"KorvaneVelgarStatus", "scanning"}, {"KorvaneVelgarStatus", "changing"}};
    EXPECT_EQ(center_.posted, posted);
}

} // namespace

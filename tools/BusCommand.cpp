#include "tools/BusCommand.h"

#include "platform/BusContract.h"
#include "platform/DBusDistributedCenter.h"
#include "platform/UniqueFd.h"
#include "tools/CommandStatus.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QSocketNotifier>

#include <signal.h>
#include <sys/signalfd.h>


namespace kv {
namespace {

using bus::kAgentInterface;
using bus::kAgentName;
using bus::kAgentObject;
using bus::kAgentPath;
using bus::kScriptKey;
constexpr int kCallTimeoutMs = 10000;

int noSessionBus(const QDBusConnection& bus)
{
    return reportFailure("cannot reach the session bus: " + bus.lastError().message().toStdString());
}

} // namespace

bool BusCommand::handles(const std::string& command)
{
    return command == "post" || command == "restart" || command == "quit" || command == "listen" || command == "script";
}

bool BusCommand::isNotificationName(const std::string& text)
{
    if (text.empty() || text.size() > 255 || (text[0] >= '0' && text[0] <= '9'))
        return false;
    for (const char c : text) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'))
            return false;
    }
    return true;
}

int BusCommand::run(const std::string& command, const std::vector<std::string>& arguments)
{
    if (command == "post") {
        if (arguments.empty() || arguments.size() > 2)
            return reportBadInput("usage: velgarctl post NAME [OBJECT]");
        if (!isNotificationName(arguments[0]))
            return reportBadInput("\"" + arguments[0] + "\" is not a notification name (letters, digits and '_')");
        return post(arguments[0], arguments.size() == 2 ? arguments[1] : std::string());
    }
    if (command == "script") {
        if (arguments.size() != 1)
            return reportBadInput("usage: velgarctl script restartWatchingViaAS|agentStatus");
        if (arguments[0] != kScriptKey && arguments[0] != bus::kStatusKey)
            return reportBadInput("the agent answers only the scripted keys " + std::string(kScriptKey) + " and " +
                                  bus::kStatusKey + ", not \"" + arguments[0] + "\"");
        return script(arguments[0]);
    }
    if (!arguments.empty())
        return reportBadInput(command + " takes no arguments");
    if (command == "restart")
        return post(bus::kShouldRestart, kAgentObject);
    if (command == "quit")
        return post(bus::kShouldQuit, kAgentObject);
    return listen();
}

int BusCommand::post(const std::string& name, const std::string& object)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return noSessionBus(bus);
    DBusDistributedCenter center(bus);
    if (!center.post(name, object))
        return reportFailure("could not send " + name + ": " + bus.lastError().message().toStdString());

    // Signals leave through the connection's own thread. A call to the bus
    // daemon is answered only after everything sent before it, so once the
    // reply is in, the notification is on the bus and we may exit.
    const QDBusMessage reply = bus.call(
        QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId"),
        QDBus::Block, kCallTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage)
        return reportFailure("the session bus did not confirm " + name + ": " + reply.errorMessage().toStdString());
    return kExitSuccess;
}

int BusCommand::listen()
{
    // Take SIGTERM and SIGINT as events of the loop, so that listening ends
    // through a normal exit. They are blocked before the bus connection
    // starts its thread, which inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    UniqueFd signals(::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals)
        return reportFailure("cannot watch for SIGTERM and SIGINT");

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return noSessionBus(bus);
    DBusDistributedCenter center(bus);
    const bool observing = center.observeAll([](const std::string& name, const std::string& object) {
        printLine(name + " " + object);
    });
    if (!observing)
        return reportFailure("cannot subscribe to distributed notifications: " + bus.lastError().message().toStdString());

    QSocketNotifier stopNotifier(signals.get(), QSocketNotifier::Read);
    QObject::connect(&stopNotifier, &QSocketNotifier::activated, [] { QCoreApplication::exit(kExitSuccess); });
    return QCoreApplication::exec();
}

int BusCommand::script(const std::string& key)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return noSessionBus(bus);
    QDBusMessage get = QDBusMessage::createMethodCall(kAgentName, kAgentPath, "org.freedesktop.DBus.Properties", "Get");
    get << QString::fromLatin1(kAgentInterface) << QString::fromStdString(key);
    const QDBusMessage reply = bus.call(get, QDBus::Block, kCallTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        const QString error = reply.errorName();
        if (error == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
            error == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner"))
            return reportFailure("Korvane Velgar is not running (nothing owns " + std::string(kAgentName) +
                                 " on the session bus)");
        return reportFailure("Korvane Velgar did not answer " + key + ": " + reply.errorMessage().toStdString());
    }
    const QVariant answer = reply.arguments().value(0);
    printLine(qvariant_cast<QDBusVariant>(answer).variant().toString().toStdString());
    return kExitSuccess;
}

} // namespace kv

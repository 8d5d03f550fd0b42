#include "platform/DBusDistributedCenter.h"

#include <QVariant>

#include <algorithm>

namespace kv {

DBusDistributedCenter::DBusDistributedCenter(QDBusConnection connection, QObject* parent)
    : QObject(parent), connection_(std::move(connection))
{
}

DBusDistributedCenter::~DBusDistributedCenter() { removeAllObservers(); }

bool DBusDistributedCenter::post(const std::string& name, const std::string& object)
{
    if (!connection_.isConnected())
        return false;
    QDBusMessage signal = QDBusMessage::createSignal(kPath, kInterface, QString::fromStdString(name));
    signal << QString::fromStdString(object);
    if (!connection_.send(signal))
        return false;
    // send() only queues the signal. A round trip to the bus daemon behind it
    // makes sure it has left the process: "KorvaneVelgarHasQuit" is posted
    // right before the agent exits.
    connection_.call(QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                    "org.freedesktop.DBus.Peer", "Ping"),
                     QDBus::Block, 2000);
    return true;
}

bool DBusDistributedCenter::observe(const std::string& name, Handler handler)
{
    if (!connection_.isConnected())
        return false;
    if (std::find(connectedNames_.begin(), connectedNames_.end(), name) == connectedNames_.end()) {
        if (!connection_.connect(QString(), kPath, kInterface, QString::fromStdString(name), this,
                                 SLOT(deliver(QDBusMessage))))
            return false;
        connectedNames_.push_back(name);
    }
    handlers_.emplace(name, std::move(handler));
    return true;
}

bool DBusDistributedCenter::observeAll(Handler handler)
{
    if (!connection_.isConnected())
        return false;
    if (!connectedAll_) {
        if (!connection_.connect(QString(), kPath, kInterface, QString(), this, SLOT(deliver(QDBusMessage))))
            return false;
        connectedAll_ = true;
    }
    catchAll_.push_back(std::move(handler));
    return true;
}

void DBusDistributedCenter::removeAllObservers()
{
    for (const std::string& name : connectedNames_)
        connection_.disconnect(QString(), kPath, kInterface, QString::fromStdString(name), this,
                               SLOT(deliver(QDBusMessage)));
    if (connectedAll_)
        connection_.disconnect(QString(), kPath, kInterface, QString(), this, SLOT(deliver(QDBusMessage)));
    connectedNames_.clear();
    connectedAll_ = false;
    handlers_.clear();
    catchAll_.clear();
}

void DBusDistributedCenter::deliver(const QDBusMessage& message)
{
    const std::string name = message.member().toStdString();
    const QList<QVariant> arguments = message.arguments();
    const std::string object = arguments.isEmpty() ? std::string() : arguments.first().toString().toStdString();

    // Copy first: a handler may remove observers (quit does).
    std::vector<Handler> toCall(catchAll_);
    if (!connectedAll_ || std::find(connectedNames_.begin(), connectedNames_.end(), name) != connectedNames_.end()) {
        auto [first, last] = handlers_.equal_range(name);
        for (auto it = first; it != last; ++it)
            toCall.push_back(it->second);
    }
    for (const Handler& handler : toCall)
        handler(name, object);
}

} // namespace kv

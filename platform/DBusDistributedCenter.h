#pragma once

#include "platform/BusContract.h"

#include "platform/DistributedCenter.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>

#include <map>
#include <vector>

namespace kv {

// Distributed notifications as D-Bus signals on the session bus: path
// /com/korvane/DistributedNotification, interface
// com.korvane.DistributedNotification, member = the notification name, one
// string argument = the object.
//
// Lives on the main thread; handlers run there, from the Qt event loop.
class DBusDistributedCenter : public QObject, public DistributedCenter {
    Q_OBJECT
public:
    static constexpr const char* kPath = bus::kNotificationPath;
    static constexpr const char* kInterface = bus::kNotificationInterface;

    explicit DBusDistributedCenter(QDBusConnection connection = QDBusConnection::sessionBus(), QObject* parent = nullptr);
    ~DBusDistributedCenter() override;

    bool post(const std::string& name, const std::string& object) override;
    bool observe(const std::string& name, Handler handler) override;
    void removeAllObservers() override;

    // Every notification, whatever its name (velgarctl listen).
    bool observeAll(Handler handler);

private Q_SLOTS:
    void deliver(const QDBusMessage& message);

private:
    QDBusConnection connection_;
    std::multimap<std::string, Handler> handlers_;
    std::vector<Handler> catchAll_;
    std::vector<std::string> connectedNames_;
    bool connectedAll_ = false;
};

} // namespace kv

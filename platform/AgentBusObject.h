#pragma once

#include "platform/BusContract.h"

#include <QDBusConnection>
#include <QDBusVirtualObject>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kv {

// The agent's object on the session bus, /com/korvane/KorvaneVelgar, through
// which scripts reach it: reading a property of the interface
// com.korvane.KorvaneVelgar with org.freedesktop.DBus.Properties.Get is a
// scripted read of that key. The agent decides which keys it answers; any
// other key, interface or Properties call is refused with the standard D-Bus
// error for it (UnknownProperty, UnknownInterface, PropertyReadOnly, ...).
//
// Lives on the main thread; the key functions are called there, one call at
// a time, and answer before the reply goes out.
class AgentBusObject : public QDBusVirtualObject {
    Q_OBJECT
public:
    static constexpr const char* kPath = bus::kAgentPath;
    static constexpr const char* kInterface = bus::kAgentInterface;

    struct ScriptedKeys {
        // True for the keys the agent answers itself.
        std::function<bool(const std::string& key)> handlesKey;
        // The answer to a key that handlesKey() accepted.
        std::function<std::string(const std::string& key)> valueForKey;
        // Every key the agent may answer, for introspection.
        std::vector<std::string> names;
    };

    explicit AgentBusObject(ScriptedKeys keys, QObject* parent = nullptr);
    ~AgentBusObject() override;

    // Exports the object on the connection (the one that owns the agent's
    // bus name). False when the bus is missing or the path is taken.
    bool registerOn(QDBusConnection connection);

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private:
    QDBusMessage answerProperties(const QDBusMessage& message) const;

    ScriptedKeys keys_;
    std::optional<QDBusConnection> connection_;
};

} // namespace kv

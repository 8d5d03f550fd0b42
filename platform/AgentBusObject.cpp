#include "platform/AgentBusObject.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVariant>

namespace kv {
namespace {

const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");

bool hasStringArguments(const QDBusMessage& message, int count)
{
    const QList<QVariant> arguments = message.arguments();
    if (arguments.size() < count)
        return false;
    for (int index = 0; index < count; ++index) {
        if (arguments.at(index).metaType() != QMetaType::fromType<QString>())
            return false;
    }
    return true;
}

} // namespace

AgentBusObject::AgentBusObject(ScriptedKeys keys, QObject* parent) : QDBusVirtualObject(parent), keys_(std::move(keys)) {}

AgentBusObject::~AgentBusObject()
{
    if (connection_)
        connection_->unregisterObject(kPath);
}

bool AgentBusObject::registerOn(QDBusConnection connection)
{
    if (!connection.isConnected() || !connection.registerVirtualObject(kPath, this, QDBusConnection::SingleNode))
        return false;
    connection_ = connection;
    return true;
}

QString AgentBusObject::introspect(const QString&) const
{
    QString xml = QStringLiteral("  <interface name=\"%1\">\n").arg(kInterface);
    for (const std::string& name : keys_.names) {
        xml += QStringLiteral("    <property name=\"%1\" type=\"s\" access=\"read\">\n"
                              "      <annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" "
                              "value=\"false\"/>\n"
                              "    </property>\n")
                   .arg(QString::fromStdString(name));
    }
    // Qt adds the standard interfaces, Properties among them.
    return xml + QStringLiteral("  </interface>\n");
}

bool AgentBusObject::handleMessage(const QDBusMessage& message, const QDBusConnection& connection)
{
    // Introspection and everything else that is not about properties is
    // left to Qt's own handling.
    if (message.type() != QDBusMessage::MethodCallMessage || message.interface() != kProperties)
        return false;
    const QDBusMessage reply = answerProperties(message);
    if (!message.isReplyRequired())
        return true;
    connection.send(reply);
    return true;
}

QDBusMessage AgentBusObject::answerProperties(const QDBusMessage& message) const
{
    const QString member = message.member();
    if (member != QLatin1String("Get") && member != QLatin1String("GetAll") && member != QLatin1String("Set"))
        return message.createErrorReply(QDBusError::UnknownMethod,
                                        QStringLiteral("No method %1 in %2").arg(member, kProperties));
    if (!hasStringArguments(message, member == QLatin1String("GetAll") ? 1 : 2))
        return message.createErrorReply(QDBusError::InvalidArgs, QStringLiteral("%1 takes an interface name%2")
                                                                     .arg(member, member == QLatin1String("GetAll")
                                                                                      ? QString()
                                                                                      : QStringLiteral(" and a key")));

    const QList<QVariant> arguments = message.arguments();
    const QString interface = arguments.at(0).toString();
    if (interface != QLatin1String(kInterface))
        return message.createErrorReply(QDBusError::UnknownInterface,
                                        QStringLiteral("%1 has no interface %2").arg(kPath, interface));
    // Each read is a request to the agent, so a read of every key at once
    // would make it act on all of them: keys are read one by one.
    if (member == QLatin1String("GetAll"))
        return message.createErrorReply(QDBusError::NotSupported,
                                        QStringLiteral("The keys of %1 are read one at a time with Get").arg(kInterface));

    const std::string key = arguments.at(1).toString().toStdString();
    if (!keys_.handlesKey || !keys_.handlesKey(key))
        return message.createErrorReply(QDBusError::UnknownProperty, QStringLiteral("%1 has no key %2")
                                                                         .arg(kInterface, QString::fromStdString(key)));
    if (member == QLatin1String("Set"))
        return message.createErrorReply(QDBusError::PropertyReadOnly,
                                        QStringLiteral("%1 can only be read").arg(QString::fromStdString(key)));
    const std::string value = keys_.valueForKey ? keys_.valueForKey(key) : std::string();
    return message.createReply(QVariant::fromValue(QDBusVariant(QString::fromStdString(value))));
}

} // namespace kv

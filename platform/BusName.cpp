#include "platform/BusName.h"

#include <QDBusConnectionInterface>

namespace kv {

BusNameResult claimBusName(QDBusConnection connection, const std::string& name)
{
    if (!connection.isConnected() || !connection.interface())
        return BusNameResult::NoBus;
    const auto reply = connection.interface()->registerService(
        QString::fromStdString(name), QDBusConnectionInterface::DontQueueService, QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid())
        return BusNameResult::NoBus;
    return reply.value() == QDBusConnectionInterface::ServiceRegistered ? BusNameResult::Owned : BusNameResult::Taken;
}

bool busNameHasOwner(QDBusConnection connection, const std::string& name)
{
    if (!connection.isConnected() || !connection.interface())
        return false;
    return connection.interface()->isServiceRegistered(QString::fromStdString(name)).value();
}

} // namespace kv

#include "platform/FreedesktopNotifier.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QStringList>
#include <QVariantMap>

namespace kv {
namespace {
constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
} // namespace

FreedesktopNotifier::FreedesktopNotifier(QDBusConnection connection) : connection_(std::move(connection)) {}

bool FreedesktopNotifier::isRunning()
{
    if (!connection_.isConnected() || !connection_.interface())
        return false;
    return connection_.interface()->isServiceRegistered(kService).value();
}

std::string FreedesktopNotifier::escapeBody(const std::string& text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&': escaped += "&amp;"; break;
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        default: escaped += c;
        }
    }
    return escaped;
}

bool FreedesktopNotifier::notify(const DesktopNotification& notification)
{
    if (!connection_.isConnected())
        return false;
    QVariantMap hints;
    hints.insert("desktop-entry", QStringLiteral("com.korvane.KorvaneVelgar"));
    hints.insert("category", QString::fromStdString(notification.name));
    if (notification.sticky)
        hints.insert("resident", true);

    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kService, "Notify");
    call << QStringLiteral("Korvane Velgar") << 0u << QString() << QString::fromStdString(notification.title)
         << QString::fromStdString(escapeBody(notification.description)) << QStringList() << hints
         << (notification.sticky ? 0 : -1);
    return connection_.send(call);
}

} // namespace kv

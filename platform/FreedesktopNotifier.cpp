#include "platform/FreedesktopNotifier.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>

namespace kv {
namespace {
constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
} // namespace

FreedesktopNotifier::FreedesktopNotifier(QDBusConnection connection)
    : connection_(std::move(connection)), replies_(std::make_unique<QObject>())
{
}

FreedesktopNotifier::~FreedesktopNotifier() = default;

bool FreedesktopNotifier::isRunning()
{
    QDBusConnectionInterface* bus = connection_.isConnected() ? connection_.interface() : nullptr;
    if (!bus)
        return false;
    // A daemon started on demand has no owner until the first call starts it.
    return bus->isServiceRegistered(kService).value() || bus->activatableServiceNames().value().contains(kService);
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

QDBusMessage FreedesktopNotifier::notifyCall(const DesktopNotification& notification, uint32_t replacesId) const
{
    QVariantMap hints;
    hints.insert("desktop-entry", QStringLiteral("com.korvane.KorvaneVelgar"));
    hints.insert("category", QString::fromStdString(notification.name));
    if (notification.sticky)
        hints.insert("resident", true);

    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kService, "Notify");
    // The bus starts an activatable daemon that does not run yet, and hands
    // it the call.
    call.setAutoStartService(true);
    call << QStringLiteral("Korvane Velgar") << uint(replacesId) << QString()
         << QString::fromStdString(notification.title)
         << QString::fromStdString(escapeBody(notification.description)) << QStringList() << hints
         << (notification.sticky ? 0 : -1);
    return call;
}

bool FreedesktopNotifier::notify(const DesktopNotification& notification)
{
    if (!connection_.isConnected())
        return false;
    if (notification.updateKey.empty())
        return connection_.send(notifyCall(notification, 0));
    {
        std::lock_guard<std::mutex> guard(mutex_);
        Updated& updated = updated_[notification.updateKey];
        updated.latest = notification;
        if (updated.inFlight)
            return true;
        updated.inFlight = true;
    }
    return QMetaObject::invokeMethod(
        replies_.get(), [this, key = notification.updateKey] { sendLatest(key); }, Qt::QueuedConnection);
}

void FreedesktopNotifier::sendLatest(const std::string& key)
{
    DesktopNotification notification;
    uint32_t replacesId = 0;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        Updated& updated = updated_[key];
        if (!updated.latest) {
            updated.inFlight = false;
            return;
        }
        notification = std::move(*updated.latest);
        updated.latest.reset();
        replacesId = updated.id;
    }
    auto* watcher = new QDBusPendingCallWatcher(connection_.asyncCall(notifyCall(notification, replacesId)),
                                                replies_.get());
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, replies_.get(), [this, key, watcher] {
        watcher->deleteLater();
        const QDBusPendingReply<uint> reply = *watcher;
        bool more = false;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            Updated& updated = updated_[key];
            if (!reply.isError())
                updated.id = reply.value();
            more = updated.latest.has_value();
            if (!more)
                updated.inFlight = false;
        }
        // An update at most every kUpdateInterval: a flood is a count that
        // changes often, not thousands of redraws by the daemon.
        if (more)
            QTimer::singleShot(kUpdateInterval, replies_.get(), [this, key] { sendLatest(key); });
    });
}

} // namespace kv

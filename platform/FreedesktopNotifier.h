#pragma once

#include "platform/DesktopNotifier.h"

#include <QDBusConnection>

namespace kv {

// org.freedesktop.Notifications on the session bus. The service counts as
// running while its name has an owner. Notify calls are sent without waiting
// for the reply, so a worker thread never blocks on the notification daemon.
class FreedesktopNotifier : public DesktopNotifier {
public:
    explicit FreedesktopNotifier(QDBusConnection connection = QDBusConnection::sessionBus());

    bool isRunning() override;
    bool notify(const DesktopNotification& notification) override;

    // The body text with &, < and > escaped, as the notification markup wants.
    static std::string escapeBody(const std::string& text);

private:
    QDBusConnection connection_;
};

} // namespace kv

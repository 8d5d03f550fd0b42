#pragma once

#include "platform/DesktopNotifier.h"

#include <QDBusConnection>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

class QDBusMessage;
class QObject;

namespace kv {

// org.freedesktop.Notifications on the session bus. The service counts as
// running while its name has an owner or the bus can start it (D-Bus
// activation: the name is activatable); Notify calls ask the bus to start
// it. Notify calls are sent without waiting for the reply, so a worker
// thread never blocks on the notification daemon.
//
// A notification with an update key replaces the one the daemon shows for
// that key (Notify's replaces_id, from the daemon's reply to the previous
// one). Those calls are made from the thread that made the notifier (the
// main thread, whose event loop receives the replies), one at a time per
// key: updates that come while one is on its way, or within
// kUpdateInterval of it, are folded into the newest, which follows then.
class FreedesktopNotifier : public DesktopNotifier {
public:
    static constexpr std::chrono::milliseconds kUpdateInterval{500};

    explicit FreedesktopNotifier(QDBusConnection connection = QDBusConnection::sessionBus());
    ~FreedesktopNotifier() override;

    bool isRunning() override;
    bool notify(const DesktopNotification& notification) override;

    // The body text with &, < and > escaped, as the notification markup wants.
    static std::string escapeBody(const std::string& text);

private:
    struct Updated {
        uint32_t id = 0;                           // the daemon's, once it answered
        bool inFlight = false;                     // a Notify for the key awaits its reply
        std::optional<DesktopNotification> latest; // not sent yet
    };

    QDBusMessage notifyCall(const DesktopNotification& notification, uint32_t replacesId) const;
    void sendLatest(const std::string& key);  // the notifier's thread

    QDBusConnection connection_;
    std::unique_ptr<QObject> replies_;  // receives the replies, in the notifier's thread
    std::mutex mutex_;
    std::map<std::string, Updated> updated_;  // guarded by mutex_
};

} // namespace kv

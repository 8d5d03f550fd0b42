#pragma once

#include "platform/SleepEvents.h"
#include "platform/UniqueFd.h"

#include <QDBusConnection>
#include <QObject>

namespace kv {

// Sleep and wake from systemd-logind on the system bus: the Manager's signal
// PrepareForSleep(true) before the machine sleeps and PrepareForSleep(false)
// after it has woken. The sleep delay is a "delay" inhibitor lock taken with
// Manager.Inhibit: logind then waits, up to its InhibitDelayMaxSec, until the
// lock's file descriptor is closed before it lets the machine sleep.
//
// Lives on the main thread; every call, reply and handler runs there. Owns
// the inhibitor's file descriptor. Inhibit is called without waiting, so a
// slow logind never blocks the event loop.
class SleepWatcher : public QObject, public SleepEvents {
    Q_OBJECT
public:
    static constexpr const char* kService = "org.freedesktop.login1";
    static constexpr const char* kPath = "/org/freedesktop/login1";
    static constexpr const char* kManager = "org.freedesktop.login1.Manager";

    explicit SleepWatcher(QDBusConnection systemBus = QDBusConnection::systemBus(), QObject* parent = nullptr);
    ~SleepWatcher() override;

    bool observe(Handler willSleep, Handler didWake) override;
    void holdSleepDelay() override;
    void releaseSleepDelay() override;

private Q_SLOTS:
    void prepareForSleep(bool start);

private:
    void requestInhibitor();

    QDBusConnection bus_;
    Handler willSleep_;
    Handler didWake_;
    bool observing_ = false;
    bool wanted_ = false;          // between holdSleepDelay() and releaseSleepDelay()
    bool requestPending_ = false;  // an Inhibit call awaits its reply
    UniqueFd inhibitor_;
};

} // namespace kv

#include "platform/SleepWatcher.h"

#include "platform/Log.h"

#include <fcntl.h>

#include <QDBusConnectionInterface>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>

namespace kv {

SleepWatcher::SleepWatcher(QDBusConnection systemBus, QObject* parent) : QObject(parent), bus_(std::move(systemBus)) {}

SleepWatcher::~SleepWatcher()
{
    if (observing_)
        bus_.disconnect(kService, kPath, kManager, "PrepareForSleep", this, SLOT(prepareForSleep(bool)));
}

bool SleepWatcher::observe(Handler willSleep, Handler didWake)
{
    if (!bus_.isConnected() || !bus_.interface()) {
        nsLog("No D-Bus system bus: watching goes on unchanged when the machine sleeps");
        return false;
    }
    // logind may be started on demand; either way it is there to ask.
    QDBusConnectionInterface* busDaemon = bus_.interface();
    if (!busDaemon->isServiceRegistered(kService).value() &&
        !busDaemon->activatableServiceNames().value().contains(kService)) {
        nsLog("No logind on the D-Bus system bus: watching goes on unchanged when the machine sleeps");
        return false;
    }
    if (!bus_.connect(kService, kPath, kManager, "PrepareForSleep", this, SLOT(prepareForSleep(bool)))) {
        nsLogf("The agent cannot listen for logind's sleep signal: %s",
               bus_.lastError().message().toStdString().c_str());
        return false;
    }
    willSleep_ = std::move(willSleep);
    didWake_ = std::move(didWake);
    observing_ = true;
    requestInhibitor();
    return true;
}

void SleepWatcher::holdSleepDelay()
{
    wanted_ = true;
    requestInhibitor();
}

void SleepWatcher::releaseSleepDelay()
{
    wanted_ = false;
    // Closing the last descriptor of the lock is what lets logind go on.
    inhibitor_.reset();
}

void SleepWatcher::requestInhibitor()
{
    if (!observing_ || !wanted_ || inhibitor_ || requestPending_)
        return;
    QDBusMessage inhibit = QDBusMessage::createMethodCall(kService, kPath, kManager, "Inhibit");
    inhibit << QStringLiteral("sleep") << QStringLiteral("Korvane Velgar")
            << QStringLiteral("Stops watching folders before the machine sleeps") << QStringLiteral("delay");
    requestPending_ = true;
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(inhibit), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* call) {
        call->deleteLater();
        requestPending_ = false;
        const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *call;
        if (reply.isError()) {
            nsLogf("logind refused the agent's sleep delay: %s", reply.error().message().toStdString().c_str());
            return;
        }
        // Released while the call was under way: the lock came too late,
        // and the reply's own copy of it closes with the reply.
        if (!wanted_ || inhibitor_)
            return;
        const int fd = reply.value().fileDescriptor();
        if (fd >= 0)
            inhibitor_.reset(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    });
}

void SleepWatcher::prepareForSleep(bool start)
{
    const Handler& handler = start ? willSleep_ : didWake_;
    if (handler)
        handler();
}

} // namespace kv

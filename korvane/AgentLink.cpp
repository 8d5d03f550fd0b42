#include "korvane/AgentLink.h"

#include "platform/BusContract.h"
#include "platform/BusName.h"
#include "platform/DBusDistributedCenter.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QFileInfo>
#include <QProcess>
#include <QTimer>

namespace kv {

AgentLink::AgentLink(QDBusConnection connection, std::string agentProgram, QObject* parent)
    : QObject(parent), connection_(std::move(connection)),
      agentProgram_(agentProgram.empty() ? defaultAgentProgram() : std::move(agentProgram)),
      center_(new DBusDistributedCenter(connection_, this)),
      watcher_(new QDBusServiceWatcher(bus::kAgentName, connection_,
                                       QDBusServiceWatcher::WatchForRegistration |
                                           QDBusServiceWatcher::WatchForUnregistration,
                                       this)),
      restartTimer_(new QTimer(this))
{
    restartTimer_->setSingleShot(true);
    restartTimer_->setInterval(400);
    connect(restartTimer_, &QTimer::timeout, this, [this] { restartWatching(); });
    connect(watcher_, &QDBusServiceWatcher::serviceRegistered, this, [this] { setRunning(true); });
    connect(watcher_, &QDBusServiceWatcher::serviceUnregistered, this, [this] { setRunning(false); });
    center_->observe(bus::kStatus, [this](const std::string&, const std::string& object) {
        status_ = QString::fromStdString(object);
        Q_EMIT stateChanged();
    });
    center_->observe(bus::kHasQuit, [this](const std::string&, const std::string&) { setRunning(false); });
    center_->observe(bus::kShouldOpenPrefs, [this](const std::string&, const std::string&) {
        Q_EMIT pageRequested(QStringLiteral("folders"));
    });
    center_->observe(bus::kShouldOpenPage, [this](const std::string&, const std::string& object) {
        Q_EMIT pageRequested(QString::fromStdString(object));
    });
    // Asked after the watcher exists, so a start cannot fall between.
    if (connection_.isConnected() && busNameHasOwner(connection_, bus::kAgentName))
        setRunning(true);
}

AgentLink::~AgentLink() { center_->removeAllObservers(); }

std::string AgentLink::defaultAgentProgram()
{
    return (QCoreApplication::applicationDirPath() + QStringLiteral("/korvane-velgar")).toStdString();
}

void AgentLink::setRunning(bool running)
{
    if (running_ == running && (running || status_.isEmpty()))
        return;
    running_ = running;
    status_.clear();
    Q_EMIT stateChanged();
    if (running)
        askStatus();
}

void AgentLink::askStatus()
{
    QDBusMessage get = QDBusMessage::createMethodCall(bus::kAgentName, bus::kAgentPath,
                                                      QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get << QString::fromLatin1(bus::kAgentInterface) << QString::fromLatin1(bus::kStatusKey);
    auto* call = new QDBusPendingCallWatcher(connection_.asyncCall(get), this);
    connect(call, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* finished) {
        finished->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *finished;
        // A notification that came meanwhile is newer than this answer.
        if (reply.isValid() && running_ && status_.isEmpty()) {
            status_ = reply.value().variant().toString();
            Q_EMIT stateChanged();
        }
    });
}

void AgentLink::askPrevention(QObject* context, std::function<void(const QString&)> done)
{
    if (!running_) {
        done({});
        return;
    }
    QDBusMessage get = QDBusMessage::createMethodCall(bus::kAgentName, bus::kAgentPath,
                                                      QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get << QString::fromLatin1(bus::kAgentInterface) << QString::fromLatin1(bus::kPreventionKey);
    auto* call = new QDBusPendingCallWatcher(connection_.asyncCall(get), context);
    connect(call, &QDBusPendingCallWatcher::finished, context, [done = std::move(done)](QDBusPendingCallWatcher* finished) {
        finished->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *finished;
        done(reply.isValid() ? reply.value().variant().toString() : QString());
    });
}

bool AgentLink::restartWatching() { return running_ && center_->post(bus::kShouldRestart, bus::kAgentObject); }

void AgentLink::restartWatchingSoon() { restartTimer_->start(); }

bool AgentLink::quit() { return running_ && center_->post(bus::kShouldQuit, bus::kAgentObject); }

bool AgentLink::start(QString* error)
{
    const QString program = QString::fromStdString(agentProgram_);
    if (!QFileInfo(program).isExecutable()) {
        *error = tr("The agent %1 is not there or cannot be run.").arg(program);
        return false;
    }
    if (!QProcess::startDetached(program, {})) {
        *error = tr("The agent %1 could not be started.").arg(program);
        return false;
    }
    return true;
}

} // namespace kv

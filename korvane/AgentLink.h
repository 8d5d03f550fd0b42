#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>

#include <functional>
#include <string>

class QDBusServiceWatcher;
class QTimer;

namespace kv {

class DBusDistributedCenter;

// What the Korvane application knows of the running agent, and the requests
// it makes to it, all over the session bus: whether the agent runs (its bus
// name has an owner), its state (the "KorvaneVelgarStatus" notifications and
// the "agentStatus" scripted read), and restart, quit and start.
//
// Also receives the requests to the application itself: "KorvaneShouldOpenPrefs"
// and "KorvaneShouldOpenPage". Main thread only.
class AgentLink : public QObject {
    Q_OBJECT
public:
    // agentProgram: the agent to start; the korvane-velgar beside this
    // program when empty.
    explicit AgentLink(QDBusConnection connection = QDBusConnection::sessionBus(), std::string agentProgram = {},
                       QObject* parent = nullptr);
    ~AgentLink() override;

    bool running() const { return running_; }
    // One of the bus::kStatus* words, or "" when the agent does not run or
    // has not said yet.
    const QString& status() const { return status_; }

    // Asks the running agent to stop and start watching again, reading the
    // preferences afresh. False when no agent runs to ask.
    bool restartWatching();
    // The same, once, a moment after the last of several quick calls: a
    // user ticking three boxes restarts the agent once.
    void restartWatchingSoon();
    // Asks the running agent to quit.
    bool quit();
    // Starts the agent as a program of its own, detached from this one.
    // False, with *error, when it could not be started.
    bool start(QString* error);

    const std::string& agentProgram() const { return agentProgram_; }

    // Asks the running agent whether opens wait for their verdict (the
    // "preventionStatus" scripted read); done gets its answer ("off", or
    // "on HELD BLOCKED"), "" when it could not be had.
    void askPrevention(QObject* context, std::function<void(const QString&)> done);
    static std::string defaultAgentProgram();

Q_SIGNALS:
    void stateChanged();
    // The agent or another program asks for a page (see Pages.h).
    void pageRequested(const QString& name);

private:
    void setRunning(bool running);
    void askStatus();

    QDBusConnection connection_;
    std::string agentProgram_;
    DBusDistributedCenter* center_;
    QDBusServiceWatcher* watcher_;
    QTimer* restartTimer_;
    bool running_ = false;
    QString status_;
};

} // namespace kv

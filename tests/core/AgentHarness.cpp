#include "tests/core/AgentHarness.h"

#include <signal.h>
#include <sys/stat.h>

#include <QCoreApplication>

#include <stdexcept>

namespace kvtest {

PrivateBus::PrivateBus(Kind kind)
{
    const std::string config = folder_ / "bus.conf";
    writeFile(config, "<busconfig>\n  <type>" + std::string(kind == Kind::System ? "system" : "session") +
                          "</type>\n  <listen>unix:path=" + (folder_ / "socket") +
                          "</listen>\n  <auth>EXTERNAL</auth>\n  <policy context=\"default\">\n"
                          "    <allow user=\"*\"/><allow own=\"*\"/>\n"
                          "    <allow send_destination=\"*\"/><allow receive_sender=\"*\"/>\n"
                          "  </policy>\n</busconfig>\n");
    daemon_ = kv::ChildProcess::spawn({"dbus-daemon", "--config-file=" + config, "--nofork", "--print-address"},
                                      kv::ChildProcess::Output::StdoutPipe);
    // The daemon prints its address, one line, once it listens.
    std::string printed;
    while (daemon_ && printed.find('\n') == std::string::npos) {
        if (daemon_->readChunk(&printed) != kv::ChildProcess::ReadStatus::Data)
            throw std::runtime_error("dbus-daemon printed no address");
    }
    if (!daemon_)
        throw std::runtime_error("dbus-daemon cannot be started");
    address_ = printed.substr(0, printed.find('\n'));
}

PrivateBus::~PrivateBus()
{
    for (const QString& name : connections_)
        QDBusConnection::disconnectFromBus(name);
    ::kill(daemon_->pid(), SIGTERM);
}

QDBusConnection PrivateBus::connect()
{
    static int made = 0;
    connections_.push_back(QStringLiteral("kvtest-%1").arg(++made));
    return QDBusConnection::connectToBus(QString::fromStdString(address_), connections_.back());
}

bool processEventsUntil(const std::function<bool()>& predicate, int timeoutMs)
{
    static int argc = 1;
    static char name[] = "kvcore_tests";
    static char* argv[] = {name, nullptr};
    if (!QCoreApplication::instance())
        new QCoreApplication(argc, argv);
    return waitFor(
        [&] {
            QCoreApplication::processEvents();
            return predicate();
        },
        timeoutMs);
}

EnginePrefix* AgentTest::engine_ = nullptr;

void AgentTest::SetUpTestSuite()
{
    engine_ = new EnginePrefix;
    ASSERT_TRUE(engine_->startDaemon());
    processEventsUntil([] { return true; });
}

void AgentTest::TearDownTestSuite()
{
    delete engine_;
    engine_ = nullptr;
}

void AgentTest::SetUp()
{
    ::chmod(home_.path().c_str(), 0700);
    preferences_.suite["PathToClamav"] = QString::fromStdString(engine_->path());
    preferences_.suite["PathToUpdateLog"] = QString::fromStdString(home_ / "update.log");
}

kv::KorvaneVelgar& AgentTest::makeController(const std::function<void(kv::ControllerParts&)>& adjust)
{
    kv::ControllerParts parts;
    parts.velgarPrefs = &preferences_;
    parts.notifier = &notifier_;
    parts.panels = &panels_;
    parts.homeDirectory = home_.path();
    parts.redirectToScanLog = false;
    parts.dispatcherPause = [] {};
    parts.exitProcess = [](int) {};
    if (adjust)
        adjust(parts);
    controller_ = std::make_unique<kv::KorvaneVelgar>(parts);
    controller_->prepareNotifications();
    return *controller_;
}

} // namespace kvtest

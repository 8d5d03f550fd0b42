#pragma once

// What every test suite shares, on the platform layer: temporary folders,
// files, environment overrides, log capture, the recording fakes that stand
// behind the platform interfaces, engine prefixes with a real clamd and
// private D-Bus daemons. The layers above add their own (ScanSupport.h,
// AgentSupport.h).

#include "platform/ChildProcess.h"
#include "platform/DesktopNotifier.h"
#include "platform/DistributedCenter.h"
#include "platform/Log.h"
#include "platform/Panels.h"
#include "platform/Preferences.h"

#include <QDBusConnection>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kvtest {

// The file every test process and test script locks while it runs.
inline constexpr const char* machineTestLockPath = "/tmp/korvane-velgar-tests.lock";
void holdMachineTestLock();

// A fresh folder of mode 0700 under PARENT, its name NAME and six random
// characters, removed with everything in it on destruction. Tests that need
// a folder only root controls make it under "/".
class TempDir {
public:
    explicit TempDir(const std::string& parent = "/tmp", const std::string& name = "kvtest.");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void writeFile(const std::string& path, const std::string& contents, unsigned mode = 0644);
std::string readFile(const std::string& path);
bool exists(const std::string& path);
// Every regular file below FOLDER, by its path relative to it, with its bytes.
std::map<std::string, std::string> snapshotFiles(const std::string& folder);

// The start of a command line that runs a program as the user NAME, with
// that user's ids and no supplementary groups. setpriv execs the program
// itself, so the child's process id is the program's.
std::vector<std::string> asUser(const std::string& name);

// Sets an environment variable for the life of the object.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::optional<std::string>& value);
    ~ScopedEnv();

private:
    std::string name_;
    std::optional<std::string> previous_;
};

// Collects every line passed to the agent's log call.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;
    bool contains(const std::string& text) const;
    size_t count(const std::string& text) const;

private:
    static void collect(const std::string& line, void* context);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// Runs a function with file descriptors 1 and 2 sent to one file, and
// returns what was written there.
template <typename Function>
std::string captureStandardStreams(Function&& function);
std::string captureStandardStreamsImpl(void (*call)(void*), void* context);

template <typename Function>
std::string captureStandardStreams(Function&& function)
{
    return captureStandardStreamsImpl([](void* f) { (*static_cast<Function*>(f))(); }, &function);
}

// In-memory preferences: the agent's own domain and one suite.
class FakePreferences : public kv::Preferences {
public:
    QJsonObject own;
    QJsonObject suite;
    int synchronizations = 0;

    void addSuite(const std::string& domain) override { suites.push_back(domain); }
    void synchronize() override { ++synchronizations; }
    std::optional<QJsonValue> object(const std::string& key) const override;
    std::vector<std::string> suites;
};

class RecordingNotifier : public kv::DesktopNotifier {
public:
    bool running = true;
    bool isRunning() override { return running; }
    bool notify(const kv::DesktopNotification& notification) override;
    std::vector<kv::DesktopNotification> sent() const;
    // How many of those sent had this description.
    size_t saying(const std::string& description) const;

private:
    mutable std::mutex mutex_;
    std::vector<kv::DesktopNotification> sent_;
};

class RecordingPanels : public kv::Panels {
public:
    void displayDialog(kv::Panel panel) override;
    void setUpdateWindowText(const std::string& text) override;
    int transformToForegroundApplication() override { return 0; }
    std::vector<kv::Panel> shown() const;
    std::string updateText;

private:
    mutable std::mutex mutex_;
    std::vector<kv::Panel> shown_;
};

class RecordingCenter : public kv::DistributedCenter {
public:
    bool post(const std::string& name, const std::string& object) override;
    bool observe(const std::string& name, Handler handler) override;
    void removeAllObservers() override { handlers.clear(); }
    // Delivers a notification to the observers, as the bus would.
    void deliver(const std::string& name, const std::string& object);
    std::vector<std::pair<std::string, std::string>> posted;
    std::multimap<std::string, Handler> handlers;
};

// The 68-byte EICAR test string.
std::string eicar();

// Puts the tests' signature database into PREFIX/db.
void installTestDefinitions(const std::string& prefix);

// How an EnginePrefix's daemon runs.
struct EngineOptions {
    // Listen on 127.0.0.1 at this port instead of the socket, as a scanning
    // server on another machine would.
    std::optional<uint16_t> tcpPort;
    // The daemon's "User": started as root it runs as this account, as the
    // system's service runs as clamav. Its folders are made reachable for it.
    std::optional<std::string> user;
};

// An engine prefix laid out as the agent expects it (bin/clamdscan,
// sbin/clamd, etc/clamd.conf, a database with the EICAR signature) whose
// daemon listens on a socket inside the prefix (or on TCP). The daemon is
// stopped when the object goes away if it still runs.
class EnginePrefix {
public:
    explicit EnginePrefix(EngineOptions options = {});
    ~EnginePrefix();
    const std::string& path() const { return dir_.path(); }
    std::string socket() const { return dir_.path() + "/run/clamd.ctl"; }
    std::string config() const { return dir_.path() + "/etc/clamd.conf"; }
    std::string pidFile() const { return dir_.path() + "/run/clamd.pid"; }
    // Starts the daemon directly (not through the agent) and waits until its
    // socket answers.
    bool startDaemon();
    bool daemonRunning() const;
    void stopDaemon();
    // The daemon's pid from its pid file, or -1.
    int daemonPid() const;
    // Whether the daemon accepts connections, on its socket or its port.
    bool accepts() const;

private:
    TempDir dir_;
    EngineOptions options_;
};

// Tests on one clamd from Debian for the whole suite: it is started once,
// as it is the slowest part, and stopped with the suite.
class EngineSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    static EnginePrefix* engine_;
};

// A TCP port on 127.0.0.1 that nothing listened on a moment ago.
uint16_t freeTcpPort();

// The start of a command line that runs a program in a mount namespace of
// its own where /etc/clamav/clamd.conf, the configuration the system's clamd
// service is known by, is CONFIG: a test's stand-in service is then the
// system's service for that program, and for nothing else on the machine.
std::vector<std::string> besideServiceConfiguredBy(const std::string& config);

// True when no process (not even a zombie) has the pid.
bool processGone(int pid);

// True when something accepts connections on the UNIX socket.
bool socketAccepts(const std::string& path);

// A dbus-daemon of the test's own, ended with the object. A System bus lets
// anyone own any name, as logind's stand-in must. Qt keeps its first
// connection to each bus type for the whole process, so tests connect by
// address.
class PrivateBus {
public:
    enum class Kind { System, Session };
    // SERVICES, when given, is a folder of .service files: the bus starts
    // the program of a name that is called but has no owner (D-Bus
    // activation).
    explicit PrivateBus(Kind kind = Kind::Session, const std::string& services = {});
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    const std::string& address() const { return address_; }
    // A new connection, closed when the bus object goes away.
    QDBusConnection connect();

private:
    TempDir folder_;
    std::optional<kv::ChildProcess> daemon_;
    std::string address_;
    std::vector<QString> connections_;
};

// Waits up to timeoutMs for the predicate, checking every few milliseconds.
bool waitFor(const std::function<bool()>& predicate, int timeoutMs);
// The same, running the Qt event loop meanwhile (the application is made
// once, for the whole run).
bool processEventsUntil(const std::function<bool()>& predicate, int timeoutMs = 10000);

} // namespace kvtest

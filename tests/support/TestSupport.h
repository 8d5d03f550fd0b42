#pragma once

// What the test suites share: temporary folders, files, environment
// overrides, log capture, the recording fakes that stand behind the platform
// interfaces, engine prefixes with a real clamd, private D-Bus daemons, and
// the fixture of the controller tests.

#include "app/KorvaneVelgar.h"
#include "app/StatusMenu.h"
#include "platform/ChildProcess.h"
#include "platform/DesktopNotifier.h"
#include "platform/DistributedCenter.h"
#include "platform/Log.h"
#include "platform/Panels.h"
#include "platform/Preferences.h"
#include "scan/ScanAlerts.h"

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

// Why a sanitizer runtime could not start in a program run as the user NAME:
// a suppressions file named in this process's ASAN_OPTIONS, TSAN_OPTIONS,
// UBSAN_OPTIONS or LSAN_OPTIONS that the user cannot read, or a report
// folder (log_path) the user cannot write to. The runtime stops such a
// program before main with an exit status of its own, which would read as
// the program's. Empty when nothing stands in the way, as in a build
// without sanitizers.
std::string sanitizerObstacleFor(const std::string& name);

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

private:
    mutable std::mutex mutex_;
    std::vector<kv::DesktopNotification> sent_;
};

class RecordingPanels : public kv::Panels {
public:
    void displayDialog(kv::Panel panel) override;
    void setUpdateWindowText(const std::string& text) override;
    int transformToForegroundApplication() override;
    std::vector<kv::Panel> shown() const;
    int foregroundRequests = 0;
    std::string updateText;

private:
    mutable std::mutex mutex_;
    std::vector<kv::Panel> shown_;
};

class RecordingStatusMenu : public kv::StatusMenu {
public:
    void enableMenuItems(int state) override { states.push_back(state); }
    void clearMenu() override { ++clears; entries.clear(); }
    void setNumItemsToWatch(int count) override { expected = count; }
    void addToMenu(const std::string& title, const std::string&) override { entries.push_back(title); }
    void setReady() override { ++readyCalls; }
    std::vector<int> states;
    std::vector<std::string> entries;
    int clears = 0;
    int expected = -1;
    int readyCalls = 0;
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

class RecordingAlerts : public kv::ScanAlerts {
public:
    struct Shown {
        std::string dialog;  // "Quarantined", "Warning" or "EngineUnreachable"
        std::string owner;
        std::string text;    // quarantine folder, output line or message
        std::string quitTitle;
        std::string path;    // the found file's real name, for a warning
    };
    bool loads = true;  // false: the interface files cannot be loaded
    bool showQuarantinedDialog(const std::string& owner, const std::string& folder) override;
    bool showWarningDialog(const std::string& owner, const std::string& line, const std::string& path) override;
    bool showEngineUnreachableDialog(const std::string& owner, const std::string& message,
                                     const std::string& quitTitle) override;
    std::vector<Shown> shown() const;

private:
    bool record(Shown shown);
    mutable std::mutex mutex_;
    std::vector<Shown> shown_;
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

// What a controller test stands on: a private home with its XDG folders,
// preferences naming the engine prefix, and the recording fakes behind every
// platform interface. parts() hands them to a controller that keeps its
// output on the test's streams and records its exit status instead of ending.
struct RecordingAgent {
    explicit RecordingAgent(const std::string& enginePrefix);
    kv::ControllerParts parts();

    TempDir home;
    ScopedEnv runtime{"XDG_RUNTIME_DIR", home.path()};
    ScopedEnv homeEnv{"HOME", home.path()};
    ScopedEnv data{"XDG_DATA_HOME", home / "data"};
    // The build tree's staged resources, where the agent finds gfslogger.
    ScopedEnv resources;
    FakePreferences preferences;
    RecordingCenter center;
    RecordingNotifier notifier;
    RecordingPanels panels;
    RecordingStatusMenu menu;
    RecordingAlerts alerts;
    std::optional<int> exitStatus;
};

// Queues the paths, runs the controller's dispatcher once by hand and lets
// its first scanner take and scan one batch; returns what the scan wrote to
// the scan log.
std::string scanOneBatch(kv::KorvaneVelgar& controller, const std::vector<std::string>& paths);

// The controller tests: one clamd from Debian for the whole suite (started
// once, it is the slowest part), and a RecordingAgent on it for each test.
class AgentTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();

    // A new controller on the engine with its notifications prepared and a
    // queue that never pauses; adjust() changes its parts first.
    kv::KorvaneVelgar& makeController(const std::function<void(kv::ControllerParts&)>& adjust = {});
    // A controller with these preferences of its own, watching without its
    // permanent threads: the test drives the queue and the scanners.
    kv::KorvaneVelgar& startWatching(const QJsonObject& preferences = {});
    std::string scan(const std::vector<std::string>& paths) { return scanOneBatch(*controller_, paths); }

    static EnginePrefix* engine_;
    RecordingAgent agent_{engine_->path()};
    TempDir& home_ = agent_.home;
    FakePreferences& preferences_ = agent_.preferences;
    RecordingNotifier& notifier_ = agent_.notifier;
    RecordingPanels& panels_ = agent_.panels;
    RecordingAlerts& alerts_ = agent_.alerts;
    LogCapture log_;
    std::unique_ptr<kv::KorvaneVelgar> controller_;
};

} // namespace kvtest

#include "tests/support/TestSupport.h"

#include "platform/FileWriting.h"
#include "platform/UniqueFd.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kvtest {

namespace {

// Tests start clamd and read the machine's process list for it, so two test
// runs on one machine (two build trees, a benchmark beside a test run) would
// see each other's daemons. Every test process holds this lock for its life;
// the shell tests and benchmarks take the same file with flock(1). Listing a
// suite's tests at build time needs no lock.
class MachineTestLock {
public:
    MachineTestLock()
    {
        std::ifstream commandLine("/proc/self/cmdline");
        std::string argument;
        while (std::getline(commandLine, argument, '\0'))
            if (argument.starts_with("--gtest_list_tests"))
                return;
        fd_.reset(::open(machineTestLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
        if (fd_ && ::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
            std::fprintf(stderr, "waiting for another test run to release %s\n", machineTestLockPath);
            ::flock(fd_.get(), LOCK_EX);
        }
    }

private:
    kv::UniqueFd fd_;
};

const MachineTestLock machineTestLock;

} // namespace

void holdMachineTestLock()
{
    // The lock is taken while the program starts; this only makes sure a
    // suite that uses nothing else from here links it in.
    (void)machineTestLock;
}

TempDir::TempDir(const std::string& parent, const std::string& name)
{
    // No "-" before the random part: an engine prefix in here would put a
    // "-c" into clamd's path one time in 62, and the agent, reading the
    // process list as it always has, would take the path apart there.
    std::string pattern = (parent == "/" ? "" : parent) + "/" + name + "XXXXXX";
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("cannot make a folder " + pattern + ": " + std::strerror(errno));
    path_ = pattern;
}

// rm walks down by descriptors, through folders deeper than a path reaches.
TempDir::~TempDir() { kv::runAndWait({"/bin/rm", "-rf", path_}); }

std::vector<std::string> asUser(const std::string& name)
{
    const passwd* user = ::getpwnam(name.c_str());
    if (!user)
        throw std::runtime_error("no user " + name);
    return {"setpriv", "--reuid=" + std::to_string(user->pw_uid), "--regid=" + std::to_string(user->pw_gid),
            "--clear-groups", "--"};
}

void writeFile(const std::string& path, const std::string& contents, unsigned mode)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    // Close-on-exec, so a program another thread starts meanwhile does not
    // keep the file open for writing (a script so held cannot run: ETXTBSY).
    kv::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file || !kv::writeAll(file.get(), contents))
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    ::fchmod(file.get(), mode);
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

bool exists(const std::string& path)
{
    struct stat info{};
    return ::lstat(path.c_str(), &info) == 0;
}

std::map<std::string, std::string> snapshotFiles(const std::string& folder)
{
    std::map<std::string, std::string> files;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, ignored)) {
        if (entry.is_regular_file())
            files[entry.path().string().substr(folder.size())] = readFile(entry.path());
    }
    return files;
}

ScopedEnv::ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name)
{
    if (const char* old = std::getenv(name))
        previous_ = old;
    if (value)
        ::setenv(name, value->c_str(), 1);
    else
        ::unsetenv(name);
}

ScopedEnv::~ScopedEnv()
{
    if (previous_)
        ::setenv(name_.c_str(), previous_->c_str(), 1);
    else
        ::unsetenv(name_.c_str());
}

LogCapture::LogCapture() { kv::setLogObserver(&LogCapture::collect, this); }
LogCapture::~LogCapture() { kv::setLogObserver(nullptr, nullptr); }

void LogCapture::collect(const std::string& line, void* context)
{
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> guard(self->mutex_);
    self->lines_.push_back(line);
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

bool LogCapture::contains(const std::string& text) const { return count(text) > 0; }

size_t LogCapture::count(const std::string& text) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    size_t found = 0;
    for (const std::string& line : lines_) {
        if (line.find(text) != std::string::npos)
            ++found;
    }
    return found;
}

std::string captureStandardStreamsImpl(void (*call)(void*), void* context)
{
    std::fflush(stdout);
    std::fflush(stderr);
    char pattern[] = "/tmp/kvtest-streams-XXXXXX";
    const int target = ::mkstemp(pattern);
    const int savedOut = ::dup(STDOUT_FILENO);
    const int savedErr = ::dup(STDERR_FILENO);
    ::dup2(target, STDOUT_FILENO);
    ::dup2(target, STDERR_FILENO);
    call(context);
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(savedOut, STDOUT_FILENO);
    ::dup2(savedErr, STDERR_FILENO);
    ::close(savedOut);
    ::close(savedErr);
    ::close(target);
    const std::string written = readFile(pattern);
    ::unlink(pattern);
    return written;
}

std::optional<QJsonValue> FakePreferences::object(const std::string& key) const
{
    const QString qkey = QString::fromStdString(key);
    for (const QJsonObject* domain : {&own, &suite}) {
        if (domain->contains(qkey) && !domain->value(qkey).isNull())
            return domain->value(qkey);
    }
    return std::nullopt;
}

bool RecordingNotifier::notify(const kv::DesktopNotification& notification)
{
    std::lock_guard<std::mutex> guard(mutex_);
    sent_.push_back(notification);
    return true;
}

std::vector<kv::DesktopNotification> RecordingNotifier::sent() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return sent_;
}

size_t RecordingNotifier::saying(const std::string& description) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return std::count_if(sent_.begin(), sent_.end(), [&](const auto& n) { return n.description == description; });
}

void RecordingPanels::displayDialog(kv::Panel panel)
{
    std::lock_guard<std::mutex> guard(mutex_);
    shown_.push_back(panel);
}

void RecordingPanels::setUpdateWindowText(const std::string& text)
{
    std::lock_guard<std::mutex> guard(mutex_);
    updateText = text;
}

std::vector<kv::Panel> RecordingPanels::shown() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return shown_;
}

bool RecordingCenter::post(const std::string& name, const std::string& object)
{
    posted.emplace_back(name, object);
    return true;
}

bool RecordingCenter::observe(const std::string& name, Handler handler)
{
    handlers.emplace(name, std::move(handler));
    return true;
}

void RecordingCenter::deliver(const std::string& name, const std::string& object)
{
    std::vector<Handler> toCall;
    auto [first, last] = handlers.equal_range(name);
    for (auto it = first; it != last; ++it)
        toCall.push_back(it->second);
    for (const Handler& handler : toCall)
        handler(name, object);
}

std::string eicar() { return R"(X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*)"; }

namespace {
std::string sourceRoot()
{
#ifdef KV_SOURCE_DIR
    return KV_SOURCE_DIR;
#else
    return ".";
#endif
}
} // namespace

void installTestDefinitions(const std::string& prefix)
{
    const std::string definitions = readFile(sourceRoot() + "/resources/clamav/korvane-test.ndb");
    if (definitions.empty())
        throw std::runtime_error("the test signatures cannot be read from " + sourceRoot());
    writeFile(prefix + "/db/korvane-test.ndb", definitions);
}

EnginePrefix::EnginePrefix(EngineOptions options) : options_(std::move(options))
{
    const std::string root = dir_.path();
    std::filesystem::create_directories(root + "/bin");
    std::filesystem::create_directories(root + "/sbin");
    std::filesystem::create_directories(root + "/run");
    std::filesystem::create_symlink("/usr/sbin/clamd", root + "/sbin/clamd");
    installTestDefinitions(root);
    std::string listen = "LocalSocket " + socket() + "\n";
    if (options_.tcpPort)
        listen = "TCPSocket " + std::to_string(*options_.tcpPort) + "\nTCPAddr 127.0.0.1\n";
    std::string logFile = root + "/clamd.log";
    if (options_.user) {
        // The daemon drops to the user before it binds its socket and opens
        // its log: both live in run/, the user's; the database is readable.
        const passwd* account = ::getpwnam(options_.user->c_str());
        if (!account)
            throw std::runtime_error("no user " + *options_.user);
        ::chmod(root.c_str(), 0755);
        if (::chown((root + "/run").c_str(), account->pw_uid, account->pw_gid) != 0)
            throw std::runtime_error("cannot give " + root + "/run to " + *options_.user);
        listen += "LocalSocketMode 666\nUser " + *options_.user + "\n";
        logFile = root + "/run/clamd.log";
    }
    writeFile(config(), listen + "DatabaseDirectory " + root + "/db\nPidFile " + pidFile() +
                            "\nForeground no\nLogFile " + logFile + "\nTemporaryDirectory /tmp\n");
    writeFile(root + "/bin/clamdscan",
              "#!/bin/sh\nexec /usr/bin/clamdscan --config-file=" + config() + " \"$@\"\n", 0755);
}

EnginePrefix::~EnginePrefix()
{
    stopDaemon();
    // A daemon the agent relaunched from this prefix must not outlive it:
    // the next test would find it in the process list.
    const std::string command = "pkill -KILL -f '^" + path() + "/sbin/clamd ' >/dev/null 2>&1";
    if (std::system(command.c_str()) == 0)
        waitFor([&] { return std::system(("pgrep -f '^" + path() + "/sbin/clamd ' >/dev/null").c_str()) != 0; }, 10000);
}

bool EnginePrefix::startDaemon()
{
    // What the daemon said, and its log, go into the failure when it does
    // not start: a test that cannot have its engine must say why.
    // (To a file, not a pipe: the daemon it leaves behind could keep a
    // pipe open.)
    const std::string output = dir_.path() + "/clamd.out";
    const int status = std::system((path() + "/sbin/clamd -c " + config() + " >" + output + " 2>&1").c_str());
    const std::string said = readFile(output);
    if (status == 0 && waitFor([this] { return daemonRunning() && accepts(); }, 30000))
        return true;
    std::fprintf(stderr, "clamd -c %s did not start (status %d): %s\nits log: %s\n", config().c_str(), status,
                 said.c_str(), readFile(dir_.path() + "/clamd.log").c_str());
    return false;
}

bool EnginePrefix::accepts() const
{
    if (!options_.tcpPort)
        return socketAccepts(socket());
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(*options_.tcpPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool accepted = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return accepted;
}

EnginePrefix* EngineSuite::engine_ = nullptr;

void EngineSuite::SetUpTestSuite()
{
    engine_ = new EnginePrefix;
    // Not ASSERT: a fatal failure here would skip every test of the suite,
    // and a skipped test says nothing. Each test fails without its engine.
    EXPECT_TRUE(engine_->startDaemon()) << "clamd from Debian must start with the test database";
}

void EngineSuite::TearDownTestSuite()
{
    delete engine_;
    engine_ = nullptr;
}

uint16_t freeTcpPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        ::close(fd);
        throw std::runtime_error("no free TCP port");
    }
    ::close(fd);
    return ntohs(address.sin_port);
}

std::vector<std::string> besideServiceConfiguredBy(const std::string& config)
{
    return {"unshare", "--mount", "sh", "-c", "mount --bind \"$0\" /etc/clamav/clamd.conf && exec \"$@\"", config};
}

bool socketAccepts(const std::string& path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const bool accepted = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return accepted;
}

int EnginePrefix::daemonPid() const
{
    const std::string text = readFile(pidFile());
    return text.empty() ? -1 : std::atoi(text.c_str());
}

bool processGone(int pid) { return pid <= 0 || ::kill(pid, 0) != 0; }

bool EnginePrefix::daemonRunning() const
{
    const int pid = daemonPid();
    if (pid <= 0 || ::kill(pid, 0) != 0)
        return false;
    // A zombie left for an absent init still answers kill(0): look at its state.
    const std::string status = readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = status.rfind(')');
    return close != std::string::npos && close + 2 < status.size() && status[close + 2] != 'Z';
}

void EnginePrefix::stopDaemon()
{
    const int pid = daemonPid();
    if (pid > 0 && daemonRunning()) {
        ::kill(pid, SIGTERM);
        // Wait until the process is gone altogether: a zombie still shows in
        // the process list, where the next test would take it for a daemon.
        waitFor([pid] { return ::kill(pid, 0) != 0; }, 15000);
    }
}

PrivateBus::PrivateBus(Kind kind, const std::string& services)
{
    const std::string config = folder_ / "bus.conf";
    const std::string serviceDir = services.empty() ? "" : "  <servicedir>" + services + "</servicedir>\n";
    writeFile(config, "<busconfig>\n  <type>" + std::string(kind == Kind::System ? "system" : "session") +
                          "</type>\n" + serviceDir + "  <listen>unix:path=" + (folder_ / "socket") +
                          "</listen>\n  <auth>EXTERNAL</auth>\n  <policy context=\"default\">\n"
                          "    <allow user=\"*\"/><allow own=\"*\"/>\n"
                          "    <allow send_destination=\"*\"/><allow receive_sender=\"*\"/>\n"
                          "  </policy>\n</busconfig>\n");
    daemon_ = kv::ChildProcess::spawn({"dbus-daemon", "--config-file=" + config, "--nofork", "--print-address"},
                                      kv::ChildProcess::Output::StdoutPipe);
    if (!daemon_)
        throw std::runtime_error("dbus-daemon cannot be started (scripts/deps.sh installs it)");
    // The daemon prints its address, one line, once it listens.
    std::string printed;
    while (printed.find('\n') == std::string::npos) {
        if (daemon_->readChunk(&printed) != kv::ChildProcess::ReadStatus::Data)
            throw std::runtime_error("dbus-daemon printed no address");
    }
    address_ = printed.substr(0, printed.find('\n'));
}

PrivateBus::~PrivateBus()
{
    for (const QString& name : connections_)
        QDBusConnection::disconnectFromBus(name);
    ::kill(daemon_->pid(), SIGTERM);
    daemon_->wait();
}

QDBusConnection PrivateBus::connect()
{
    static int made = 0;
    connections_.push_back(QStringLiteral("kvtest-%1").arg(++made));
    return QDBusConnection::connectToBus(QString::fromStdString(address_), connections_.back());
}

bool waitFor(const std::function<bool()>& predicate, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool processEventsUntil(const std::function<bool()>& predicate, int timeoutMs)
{
    static int argc = 1;
    static char name[] = "kvtest";
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

} // namespace kvtest

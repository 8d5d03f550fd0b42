#include "tools/EngineSetup.h"

#include "platform/ChildProcess.h"
#include "platform/FolderWalk.h"
#include "platform/Paths.h"
#include "platform/UniqueFd.h"

#include <QSaveFile>

#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <vector>

namespace kv {
namespace {

const char* const kDebianClamd = "/usr/sbin/clamd";
const char* const kDebianClamdscan = "/usr/bin/clamdscan";
const char* const kDebianFreshclam = "/usr/bin/freshclam";
// The first line of every configuration setup writes; a file without it is
// someone else's and is never replaced.
const char* const kConfigMarker = "# Korvane Velgar engine configuration, written by velgarctl setup.";

// Extensions of the files clamd loads signatures from. Whitelists, ignore
// lists and database metadata alone do not make a usable database.
const char* const kSignatureExtensions[] = {"cvd", "cld", "cud", "hdb", "hsb", "hdu", "hsu", "mdb", "msb",
                                            "mdu", "msu", "ndb", "ndu", "ldb", "ldu", "cdb", "idb", "pdb",
                                            "gdb", "wdb", "cbc", "ftm", "yar", "yara", "imp", "db"};

std::optional<std::string> readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return std::nullopt;
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

// Replaces the file atomically unless it already holds these bytes, so a
// second setup leaves everything (times included) as it was.
bool writeFileIfChanged(const std::string& path, const std::string& contents, mode_t mode, std::string* error)
{
    if (readFile(path) != contents) {
        QSaveFile file(QString::fromStdString(path));
        if (!file.open(QIODevice::WriteOnly) ||
            file.write(contents.data(), static_cast<qint64>(contents.size())) != static_cast<qint64>(contents.size()) ||
            !file.commit()) {
            *error = "cannot write " + path + ": " + file.errorString().toStdString();
            return false;
        }
    }
    if (::chmod(path.c_str(), mode) != 0) {
        *error = "cannot set the mode of " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

std::string shellQuoted(const std::string& text)
{
    const bool plain = text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+:@%,=") ==
                       std::string::npos;
    if (plain)
        return text;
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

std::string wrapperText(const char* program, const std::string& configFile, const char* options = "")
{
    return std::string("#!/bin/sh\nexec ") + program + " --config-file=" + shellQuoted(configFile) + options +
           " \"$@\"\n";
}

bool isOurWrapper(const std::string& path, const char* program)
{
    const std::optional<std::string> contents = readFile(path);
    return contents && contents->rfind(std::string("#!/bin/sh\nexec ") + program + " --config-file=", 0) == 0;
}

bool isOurConfig(const std::string& path)
{
    const std::optional<std::string> contents = readFile(path);
    return contents && contents->rfind(std::string(kConfigMarker) + "\n", 0) == 0;
}

std::string linkTarget(const std::string& path)
{
    char target[4096];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

bool existsWithoutFollowing(const std::string& path)
{
    struct stat info{};
    return ::lstat(path.c_str(), &info) == 0;
}

std::string currentUserName()
{
    if (const passwd* entry = ::getpwuid(::geteuid()); entry && entry->pw_name)
        return entry->pw_name;
    if (const char* name = std::getenv("USER"); name && *name)
        return name;
    return std::to_string(::geteuid());
}

std::string privateTemporarySocketFolder() { return "/tmp/korvane-velgar-" + std::to_string(::getuid()); }

// The fallback socket folder sits in world-writable /tmp: it must be a real
// folder of ours, never a link someone planted.
bool preparePrivateFolder(const std::string& folder, std::string* error)
{
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        *error = "cannot create " + folder + ": " + std::strerror(errno);
        return false;
    }
    struct stat info{};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::getuid()) {
        *error = folder + " is not a folder of this user; refusing to put the clamd socket there";
        return false;
    }
    return true;
}

bool isSignatureFile(const std::string& name)
{
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0)
        return false;
    const std::string extension = name.substr(dot + 1);
    for (const char* known : kSignatureExtensions) {
        if (extension == known)
            return true;
    }
    return false;
}

std::vector<std::string> signatureFiles(const std::string& folder)
{
    std::vector<std::string> names;
    walkFiles(
        {folder}, true, [](const std::string&) { return false; },
        [&names](std::string&& file) {
            const std::string name = file.substr(file.rfind('/') + 1);
            if (isSignatureFile(name))
                names.push_back(name);
            return true;
        });
    return names;
}

std::string lastLineOf(const std::string& output)
{
    size_t end = output.find_last_not_of("\r\n");
    if (end == std::string::npos)
        return {};
    const size_t start = output.rfind('\n', end);
    return output.substr(start == std::string::npos ? 0 : start + 1, end - (start == std::string::npos ? 0 : start + 1) + 1);
}

} // namespace

EngineSetup::EngineSetup(std::string prefix) : prefix_(std::move(prefix)) {}

std::string EngineSetup::path(const std::string& relative) const { return joinPath(prefix_, relative); }

std::string EngineSetup::foreignFile() const
{
    const EngineSetup standIn(standInPrefix());
    for (const EngineSetup* engine : {this, &standIn}) {
        const std::string clamd = engine->path("sbin/clamd");
        if (existsWithoutFollowing(clamd) && linkTarget(clamd) != kDebianClamd)
            return clamd;
        if (pathExists(engine->path("bin/clamdscan")) && !isOurWrapper(engine->path("bin/clamdscan"), kDebianClamdscan))
            return engine->path("bin/clamdscan");
        if (pathExists(engine->path("etc/clamd.conf")) && !isOurConfig(engine->path("etc/clamd.conf")))
            return engine->path("etc/clamd.conf");
    }
    if (pathExists(path("bin/freshclam")) && !isOurWrapper(path("bin/freshclam"), kDebianFreshclam))
        return path("bin/freshclam");
    if (pathExists(path("etc/freshclam.conf")) && !isOurConfig(path("etc/freshclam.conf")))
        return path("etc/freshclam.conf");
    return {};
}

std::string EngineSetup::ownSocketPath(const std::string& name) const
{
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
        const std::string socket = joinPath(runtime, "korvane-" + name + ".ctl");
        if (socket.size() <= kMaxSocketPathBytes)
            return socket;
    }
    const std::string socket = path("run/clamd.ctl");
    if (socket.size() <= kMaxSocketPathBytes)
        return socket;
    return joinPath(privateTemporarySocketFolder(), name + ".ctl");
}

bool EngineSetup::install(const Target& target, std::string* error) const
{
    if (!makeDirectories(path("db"), 0755)) {
        *error = "cannot create " + path("db") + ": " + std::strerror(errno);
        return false;
    }
    // A daemon of another user (the system's service) cannot open the
    // user's private folders: clamdscan opens each file and hands the daemon
    // the open descriptor instead. A daemon on another machine cannot open
    // them at all: clamdscan sends it the contents.
    const bool remote = target.daemon == Daemon::Remote;
    const char* clamdscanOptions = remote ? " --stream" : target.daemon == Daemon::SystemService ? " --fdpass" : "";
    const std::string clamdConfig = remote ? remoteConfigText(target.remote) : clamdConfigText(target.socket);
    // freshclam tells the daemon of clamd.conf to reload its definitions,
    // but never a server that other machines share.
    if (!installDaemon(clamdConfig, clamdscanOptions, error) ||
        !writeFileIfChanged(path("bin/freshclam"), wrapperText(kDebianFreshclam, path("etc/freshclam.conf")), 0755, error) ||
        !writeFileIfChanged(path("etc/freshclam.conf"), freshclamConfigText(!remote), 0644, error))
        return false;

    const EngineSetup standIn(standInPrefix());
    if (target.daemon != Daemon::SystemService) {
        removeStandIn();
        return true;
    }
    const std::string socket = standIn.ownSocketPath("clamd-standin");
    return standIn.installDaemon(standIn.clamdConfigText(socket, target.standInDatabase), "", error);
}

bool EngineSetup::installDaemon(const std::string& clamdConfig, const char* clamdscanOptions, std::string* error) const
{
    for (const char* folder : {"bin", "sbin", "etc", "run", "log"}) {
        if (!makeDirectories(path(folder), 0755)) {
            *error = "cannot create " + path(folder) + ": " + std::strerror(errno);
            return false;
        }
    }
    // clamd unpacks archives it scans here: other users have no business in it.
    if (!makeDirectories(path("tmp"), 0700)) {
        *error = "cannot create " + path("tmp") + ": " + std::strerror(errno);
        return false;
    }
    const std::vector<std::string> sockets = clamdOptionValues(clamdConfig, "LocalSocket");
    if (!sockets.empty() && sockets.back().rfind(privateTemporarySocketFolder() + "/", 0) == 0 &&
        !preparePrivateFolder(privateTemporarySocketFolder(), error))
        return false;

    const std::string clamd = path("sbin/clamd");
    if (!existsWithoutFollowing(clamd) && ::symlink(kDebianClamd, clamd.c_str()) != 0) {
        *error = "cannot link " + clamd + " to " + kDebianClamd + ": " + std::strerror(errno);
        return false;
    }
    return writeFileIfChanged(path("bin/clamdscan"), wrapperText(kDebianClamdscan, path("etc/clamd.conf"), clamdscanOptions),
                              0755, error) &&
           writeFileIfChanged(path("etc/clamd.conf"), clamdConfig, 0644, error);
}

void EngineSetup::removeStandIn() const
{
    // Only what an earlier setup wrote: foreignFile() has refused anything else.
    const EngineSetup standIn(standInPrefix());
    if (!isOurConfig(standIn.path("etc/clamd.conf")))
        return;
    ::unlink(standIn.path("etc/clamd.conf").c_str());
    if (isOurWrapper(standIn.path("bin/clamdscan"), kDebianClamdscan))
        ::unlink(standIn.path("bin/clamdscan").c_str());
    if (linkTarget(standIn.path("sbin/clamd")) == kDebianClamd)
        ::unlink(standIn.path("sbin/clamd").c_str());
    // Folders still holding something (a daemon's files) stay.
    for (const char* folder : {"bin", "sbin", "etc", "run", "log", "tmp", ""})
        ::rmdir(standIn.path(folder).c_str());
}

std::optional<TcpEngine> EngineSetup::configuredRemote() const
{
    if (!isOurConfig(path("etc/clamd.conf")))
        return std::nullopt;
    return tcpEngineOf(readFile(path("etc/clamd.conf")).value_or(std::string()));
}

std::string EngineSetup::remoteConfigText(const TcpEngine& remote) const
{
    std::string text;
    text += std::string(kConfigMarker) + "\n";
    text += "# Running setup again rewrites it.\n";
    text += "# The engine is the clamd at " + remote.describe() + ", on another machine: clamdscan sends it\n";
    text += "# each file's contents.\n";
    text += "TCPSocket " + std::to_string(remote.port) + "\n";
    for (const std::string& host : remote.hosts)
        text += "TCPAddr " + host + "\n";
    return text;
}

std::string EngineSetup::clamdConfigText(const std::string& socket, const std::string& databaseFolder) const
{
    // The agent takes its socket from the last line that mentions the
    // socket option, so the option appears on exactly one line.
    std::string text;
    text += std::string(kConfigMarker) + "\n";
    text += "# Running setup again rewrites it.\n";
    text += "LocalSocket " + socket + "\n";
    text += "LocalSocketMode 600\n";
    text += "FixStaleSocket yes\n";
    text += "DatabaseDirectory " + (databaseFolder.empty() ? path("db") : databaseFolder) + "\n";
    text += "Foreground no\n";
    text += "PidFile " + path("run/clamd.pid") + "\n";
    text += "TemporaryDirectory " + path("tmp") + "\n";
    text += "LogFile " + path("log/clamd.log") + "\n";
    text += "LogTime yes\n";
    return text;
}

std::string EngineSetup::freshclamConfigText(bool notifyClamd) const
{
    std::string text;
    text += std::string(kConfigMarker) + "\n";
    text += "# Running setup again rewrites it.\n";
    text += "DatabaseDirectory " + path("db") + "\n";
    text += "DatabaseOwner " + currentUserName() + "\n";
    text += "DatabaseMirror database.clamav.net\n";
    text += "UpdateLogFile " + path("log/freshclam.log") + "\n";
    if (notifyClamd)
        text += "NotifyClamd " + path("etc/clamd.conf") + "\n";
    return text;
}

bool EngineSetup::hasDefinitions() const { return !signatureFiles(path("db")).empty(); }

bool EngineSetup::holdsDefinitions(const std::string& folder)
{
    const std::vector<std::string> names = signatureFiles(folder);
    return !names.empty() && std::all_of(names.begin(), names.end(), [&folder](const std::string& name) {
        return ::access(joinPath(folder, name).c_str(), R_OK) == 0;
    });
}

bool EngineSetup::hasOnlyTestDefinitions() const
{
    const std::vector<std::string> names = signatureFiles(path("db"));
    return names.size() == 1 && names[0] == kTestDefinitionsName;
}

EngineSetup::FreshclamRun EngineSetup::runFreshclam(std::chrono::seconds limit) const
{
    FreshclamRun run;
    std::optional<ChildProcess> freshclam = ChildProcess::spawn({path("bin/freshclam")}, ChildProcess::Output::Pipe);
    if (!freshclam)
        return run;

    // A timer as the stop descriptor bounds the wait without polling.
    UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    itimerspec deadline{};
    deadline.it_value.tv_sec = static_cast<time_t>(limit.count());
    if (timer)
        ::timerfd_settime(timer.get(), 0, &deadline, nullptr);

    const auto end = std::chrono::steady_clock::now() + limit;
    std::string output;
    ChildProcess::ReadStatus status;
    do {
        status = freshclam->readChunk(&output, timer.get());
        // Only the end of the output is ever shown.
        if (output.size() > 16384)
            output.erase(0, output.size() - 4096);
        // A child that never stops talking never lets the timer win.
        if (status == ChildProcess::ReadStatus::Data && std::chrono::steady_clock::now() >= end)
            status = ChildProcess::ReadStatus::Stopped;
    } while (status == ChildProcess::ReadStatus::Data);

    if (status == ChildProcess::ReadStatus::Stopped) {
        ::kill(freshclam->pid(), SIGKILL);
        run.timedOut = true;
    }
    run.status = freshclam->wait();
    run.lastLine = lastLineOf(output);
    return run;
}

bool EngineSetup::installTestDefinitions(std::string* error) const
{
    const std::string source = joinPath(resourcesDirectory(), std::string("clamav/") + kTestDefinitionsName);
    const std::optional<std::string> contents = readFile(source);
    if (!contents) {
        *error = "the bundled test definitions " + source + " cannot be read";
        return false;
    }
    return writeFileIfChanged(path(std::string("db/") + kTestDefinitionsName), *contents, 0644, error);
}

} // namespace kv

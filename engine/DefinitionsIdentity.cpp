#include "engine/DefinitionsIdentity.h"

#include "engine/ClamdConfig.h"
#include "engine/ClamdCtrl.h"
#include "engine/ClamdSupervisor.h"

#include <QCryptographicHash>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <memory>

namespace kv {
namespace {

// Where clamd looks when its configuration names no folder (Debian's build).
constexpr const char* kDefaultDatabaseFolder = "/var/lib/clamav";

// freshclam rewrites its own state at every run, whether or not the
// definitions change; the daemon never loads it.
bool isUpdaterState(std::string_view name) { return name == "freshclam.dat" || name == "mirrors.dat"; }

} // namespace

std::string DefinitionsIdentity::describe(std::string_view version, const std::string& databaseFolder)
{
    std::string text(version);
    text += '\n';
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(databaseFolder.empty() ? nullptr : ::opendir(databaseFolder.c_str()),
                                                      ::closedir);
    if (!listing)
        return text;
    std::map<std::string, std::string> files;
    while (const dirent* entry = ::readdir(listing.get())) {
        const std::string_view name = entry->d_name;
        struct stat info{};
        if (name.starts_with('.') || isUpdaterState(name) ||
            ::fstatat(::dirfd(listing.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode))
            continue;
        files[std::string(name)] = std::to_string(info.st_size) + " " +
                                   std::to_string(static_cast<long long>(info.st_mtim.tv_sec) * 1000000000 +
                                                  info.st_mtim.tv_nsec);
    }
    for (const auto& [name, facts] : files)
        text += name + " " + facts + "\n";
    return text;
}

std::optional<std::string> DefinitionsIdentity::current()
{
    std::lock_guard<std::mutex> guard(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (asked_ && now - askedAt_ < kRefresh)
        return identity_;
    std::optional<std::string> version;
    std::string problem;
    if (const std::optional<TcpEngine> remote = clamd_.remoteEngine())
        version = ClamdCtrl::askVersion(*remote, &problem);
    else if (const std::optional<std::string> socket = clamd_.clamdSocket())
        version = ClamdCtrl::askVersion(*socket, &problem);
    std::string folder;
    if (const std::optional<std::string> config = clamd_.daemonConfigFile()) {
        const std::vector<std::string> folders = clamdOptionValues(readClamdConfig(*config).text, "DatabaseDirectory");
        folder = folders.empty() ? kDefaultDatabaseFolder : folders.back();
    }
    identity_.reset();
    if (version) {
        const QByteArray text = QByteArray::fromStdString(describe(*version, folder));
        identity_ = QCryptographicHash::hash(text, QCryptographicHash::Sha256).toHex().left(32).toStdString();
    }
    // Asked from the end of the question: a silent engine that took the
    // whole time limit is not asked again at once.
    askedAt_ = std::chrono::steady_clock::now();
    asked_ = true;
    return identity_;
}

void DefinitionsIdentity::forget()
{
    std::lock_guard<std::mutex> guard(mutex_);
    asked_ = false;
}

} // namespace kv

#include "platform/ScanLogFile.h"

#include "platform/FileWriting.h"
#include "platform/Paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

namespace kv {

ScanLogFile::ScanLogFile(std::string path) : path_(std::move(path))
{
    const size_t slash = path_.rfind('/');
    if (slash != std::string::npos && slash > 0)
        makeDirectories(path_.substr(0, slash), 0755);
    // Never through a link, never a FIFO or device, never another
    // account's file: a scan run by root with the user's HOME must not
    // append where the user points it.
    UniqueFd log(::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0640));
    struct stat status {};
    if (log && ::fstat(log.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid()) {
        ::fcntl(log.get(), F_SETFL, O_APPEND);
        log_ = std::move(log);
    }
}

std::string ScanLogFile::defaultPath() { return joinPath(homeDirectory(), "Library/Logs/KorvaneVelgar-scan.log"); }

bool ScanLogFile::append(std::string_view text) const
{
    if (!log_)
        return false;
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char stamp[32];
    const size_t length = ::localtime_r(&now, &local) ? std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S ", &local) : 0;
    std::string line(stamp, length);
    line += text;
    line += '\n';
    return writeAll(log_.get(), line);
}

} // namespace kv

#include "platform/ScanLogFile.h"

#include "platform/FileWriting.h"
#include "platform/Paths.h"

#include <fcntl.h>

#include <ctime>

namespace kv {

ScanLogFile::ScanLogFile(std::string path) : path_(std::move(path))
{
    const size_t slash = path_.rfind('/');
    if (slash != std::string::npos && slash > 0)
        makeDirectories(path_.substr(0, slash), 0755);
    log_.reset(::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0640));
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

#include "scan/ScanResults.h"

#include "platform/LongPath.h"
#include "platform/Utf8.h"

namespace kv {

bool listFileCanCarry(std::string_view path)
{
    return path.size() < kLongestListedPath && path.find_first_of("\n\r") == std::string_view::npos &&
           isValidUtf8(path);
}

std::optional<std::string> pathOfFinding(std::string_view line)
{
    static constexpr std::string_view kFound = " FOUND";
    if (!line.ends_with(kFound))
        return std::nullopt;
    line.remove_suffix(kFound.size());
    const size_t colon = line.rfind(": ");
    if (colon == std::string_view::npos || colon == 0 || colon + 2 == line.size())
        return std::nullopt;
    return std::string(line.substr(0, colon));
}

bool FindingMemory::isNews(const struct stat& info)
{
    const Identity identity{info.st_dev,          info.st_ino,          info.st_size,         info.st_mtim.tv_sec,
                            info.st_mtim.tv_nsec, info.st_ctim.tv_sec, info.st_ctim.tv_nsec};
    std::lock_guard<std::mutex> held(mutex_);
    if (!known_.insert(identity).second)
        return false;
    arrivals_.push_back(identity);
    if (arrivals_.size() > kCapacity) {
        known_.erase(arrivals_.front());
        arrivals_.pop_front();
    }
    return true;
}

bool FindingMemory::isNews(const std::string& path)
{
    struct stat info{};
    return !statPath(path, &info) || isNews(info);
}

} // namespace kv

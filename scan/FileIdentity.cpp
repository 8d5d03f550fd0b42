#include "scan/FileIdentity.h"

#include "platform/LongPath.h"

namespace kv {

FileIdentity FileIdentity::of(const struct stat& info)
{
    return FileIdentity{info.st_dev,          info.st_ino,          info.st_size,        info.st_mtim.tv_sec,
                        info.st_mtim.tv_nsec, info.st_ctim.tv_sec, info.st_ctim.tv_nsec};
}

std::optional<FileIdentity> FileIdentity::ofRegularFile(const std::string& path)
{
    struct stat info{};
    if (!statPath(path, &info, false) || !S_ISREG(info.st_mode))
        return std::nullopt;
    return of(info);
}

bool FileMemory::remember(const FileIdentity& identity)
{
    std::lock_guard<std::mutex> held(mutex_);
    if (!known_.insert(identity).second)
        return false;
    arrivals_.push_back(identity);
    while (arrivals_.size() > capacity_) {
        known_.erase(arrivals_.front());
        arrivals_.pop_front();
    }
    return true;
}

bool FileMemory::contains(const FileIdentity& identity) const
{
    std::lock_guard<std::mutex> held(mutex_);
    return known_.contains(identity);
}

void FileMemory::forget(const FileIdentity& identity)
{
    std::lock_guard<std::mutex> held(mutex_);
    known_.erase(identity);
}

void FileMemory::clear()
{
    std::lock_guard<std::mutex> held(mutex_);
    known_.clear();
    arrivals_.clear();
}

} // namespace kv

#include "platform/FileIdentity.h"

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

} // namespace kv

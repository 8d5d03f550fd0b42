#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kv {

// What makes a file the same file with the same contents: device, inode,
// size, time of the last change to the contents, and time of the last change
// to the inode (which, unlike the other, no one can set back). Any write,
// truncation, rename over it or change of mode gives a new identity.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modifiedSeconds = 0;
    long modifiedNanoseconds = 0;
    std::int64_t changedSeconds = 0;
    long changedNanoseconds = 0;

    static FileIdentity of(const struct stat& info);
    // Of the regular file at the path, not following a last link; nothing
    // for anything else or what cannot be examined.
    static std::optional<FileIdentity> ofRegularFile(const std::string& path);

    auto operator<=>(const FileIdentity&) const = default;
};

} // namespace kv

#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>

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

// A bounded set of identities shared by the scanners: the files already
// reported as infected (one finding, one warning) or found clean (not sent
// to the engine again while unchanged). The oldest entries make room past
// the capacity. Any thread.
class FileMemory {
public:
    explicit FileMemory(std::size_t capacity) : capacity_(capacity) {}

    // True when the identity was not remembered yet; it is from now on.
    bool remember(const FileIdentity& identity);
    bool contains(const FileIdentity& identity) const;
    void forget(const FileIdentity& identity);
    void clear();

private:
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::set<FileIdentity> known_;       // guarded by mutex_
    std::deque<FileIdentity> arrivals_;  // guarded by mutex_: oldest first, may hold forgotten ones
};

} // namespace kv

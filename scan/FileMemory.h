#pragma once

#include "platform/FileIdentity.h"

#include <cstddef>
#include <deque>
#include <mutex>
#include <set>

namespace kv {

// A bounded set of identities shared by the scanners: the files already
// reported as infected, so that one finding gives one warning. The oldest
// entries make room past the capacity. Any thread.
class FileMemory {
public:
    explicit FileMemory(std::size_t capacity) : capacity_(capacity) {}

    // True when the identity was not remembered yet; it is from now on.
    bool remember(const FileIdentity& identity);

private:
    const std::size_t capacity_;
    std::mutex mutex_;
    std::set<FileIdentity> known_;       // guarded by mutex_
    std::deque<FileIdentity> arrivals_;  // guarded by mutex_: oldest first, may hold forgotten ones
};

} // namespace kv

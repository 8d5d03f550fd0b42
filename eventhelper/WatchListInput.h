#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kv::gfs {

// One folder of the agent's watch list.
struct WatchedFolder {
    std::string path;
    bool subfolders = false;  // every folder below it is watched too

    bool operator==(const WatchedFolder&) const = default;
};

// The agent's watch lists, as gfslogger reads them from its standard input
// (HelperInput.h). The input is the caller's to choose and is taken as
// such: what it may cost is bounded (a record longer than a path is skipped
// whole, a list keeps its first kMostEntries entries), and records that are
// not a kind, a path after its kind, or the list's end are passed over.
//
// Single-threaded.
class WatchListInput {
public:
    static constexpr size_t kMostEntries = 1024;

    enum class Read {
        Nothing,  // no list has ended yet
        List,     // a list has ended; list() holds the last one
        Ended,    // end of input: no list will come
    };

    // Reads what waits on fd, once.
    Read read(int fd);

    const std::vector<WatchedFolder>& list() const { return list_; }
    // How long the last list holds opens (kHoldSeconds); 0 for not at all.
    unsigned holdSeconds() const { return holdSeconds_; }

private:
    bool take(std::string_view record);

    std::string partial_;
    bool skipping_ = false;  // inside a record too long to keep
    std::string kind_;       // a kind whose path comes next
    std::vector<WatchedFolder> building_;
    unsigned buildingHold_ = 0;
    std::vector<WatchedFolder> list_;
    unsigned holdSeconds_ = 0;
};

} // namespace kv::gfs

#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <vector>

namespace kv {

// Whether clamdscan's list file and its line-based output carry the path
// faithfully: no line break (it would split the entry and the result
// line), no carriage return (clamdscan strips a trailing one, and scans the
// neighbour without it), only well-formed UTF-8 (the output is decoded as
// text), and shorter than the lines its list reader takes whole. Other
// paths are scanned by descriptor.
bool listFileCanCarry(std::string_view path);

// The lines clamdscan reads its list in are about a kilobyte long; the
// rest of a longer line would be taken for a path of its own.
inline constexpr std::size_t kLongestListedPath = 1000;

// The path of a result line "PATH: SIGNATURE FOUND". A signature name never
// holds ": ", so the path is everything before the last one.
std::optional<std::string> pathOfFinding(std::string_view line);

// The files one scan run asked about. A result line acts only on a path
// asked about: any other path in the scanner's output came from a name made
// to look like a result. (Folders are never handed to the scanner whole for
// this reason: their files are queued one by one.)
using AskedPaths = std::unordered_set<std::string>;

// Files already reported as infected, by what makes them the same file:
// device, inode, size, time of last change to the contents, and time of
// last change to the inode (which, unlike the other, no one can set back). The same
// unchanged file delivered twice (closed after writing again, moved back
// and forth, in a folder scanned whole after it was scanned alone) gives one
// dialog and one notification; changed, it is news again. Shared by the
// scanners; the oldest entries make room past kCapacity.
class FindingMemory {
public:
    static constexpr std::size_t kCapacity = 4096;

    // True the first time the file is reported in its present state. A
    // file that cannot be examined is always news.
    bool isNews(const struct stat& info);
    bool isNews(const std::string& path);

private:
    using Identity = std::tuple<dev_t, ino_t, off_t, std::int64_t, long, std::int64_t, long>;
    std::mutex mutex_;
    std::set<Identity> known_;       // guarded by mutex_
    std::deque<Identity> arrivals_;  // guarded by mutex_: oldest first
};

} // namespace kv

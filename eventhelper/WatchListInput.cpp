#include "eventhelper/WatchListInput.h"

#include "eventhelper/HelperInput.h"
#include "eventhelper/HelperOutput.h"

#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kv::gfs {

WatchListInput::Read WatchListInput::read(int fd)
{
    char buffer[65536];
    ssize_t n;
    do {
        n = ::read(fd, buffer, sizeof buffer);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EAGAIN ? Read::Nothing : Read::Ended;
    if (n == 0)
        return Read::Ended;

    bool ended = false;
    for (std::string_view rest(buffer, static_cast<size_t>(n)); !rest.empty();) {
        const size_t end = rest.find(kRecordEnd);
        const std::string_view piece = rest.substr(0, end);
        if (!skipping_)
            partial_.append(piece);
        if (partial_.size() >= PATH_MAX) {
            partial_.clear();
            skipping_ = true;
        }
        if (end == std::string_view::npos)
            break;
        if (!std::exchange(skipping_, false))
            ended |= take(partial_);
        else
            kind_.clear();  // the path of a kind was too long: the entry goes
        partial_.clear();
        rest.remove_prefix(end + 1);
    }
    return ended ? Read::List : Read::Nothing;
}

bool WatchListInput::take(std::string_view record)
{
    if (kind_ == kHoldSeconds) {
        // Whole seconds, at most an hour: anything else holds nothing.
        unsigned seconds = 0;
        bool number = !record.empty() && record.size() <= 4;
        for (const char c : record) {
            number = number && c >= '0' && c <= '9';
            seconds = seconds * 10 + static_cast<unsigned>(c - '0');
        }
        buildingHold_ = number && seconds <= 3600 ? seconds : 0;
        kind_.clear();
    } else if (!kind_.empty()) {
        if (record.starts_with('/') && building_.size() < kMostEntries)
            building_.push_back({std::string(record), kind_ == kWatchTree});
        kind_.clear();
    } else if (record == kWatchFolder || record == kWatchTree || record == kHoldSeconds) {
        kind_ = record;
    } else if (record == kListEnd) {
        list_ = std::move(building_);
        building_.clear();
        holdSeconds_ = std::exchange(buildingHold_, 0);
        return true;
    }
    return false;
}

} // namespace kv::gfs

#include "intake/WalkSchedule.h"

#include <algorithm>

namespace kv {

WalkSchedule::Asked WalkSchedule::askForFolder(const std::string& folder, Clock::time_point now)
{
    if (foldedIntoAll_ || asked_.contains(folder))
        return Asked::Folded;
    forget(now);
    if (recentWalks_.size() + asked_.size() >= kMostFolderWalks) {
        asked_.clear();
        askForAll(now);
        foldedIntoAll_ = true;
        return Asked::FoldedIntoAll;
    }
    const auto last = begun_.find(folder);
    asked_[folder] = last == begun_.end() ? now : std::max(now, last->second + kFolderSpacing);
    return Asked::Folder;
}

bool WalkSchedule::askForAll(Clock::time_point now)
{
    if (allDue_)
        return false;
    allDue_ = allBegun_ ? std::max(now, *allBegun_ + kWholeSpacing) : now;
    return true;
}

std::optional<WalkSchedule::Walk> WalkSchedule::take(Clock::time_point now)
{
    forget(now);
    if (allDue_ && *allDue_ <= now) {
        // Every folder asked for so far lies in the watched folders.
        allDue_.reset();
        allBegun_ = now;
        foldedIntoAll_ = false;
        asked_.clear();
        return Walk{true, {}};
    }
    Walk walk;
    for (auto folder = asked_.begin(); folder != asked_.end();) {
        if (folder->second > now) {
            ++folder;
            continue;
        }
        begun_[folder->first] = now;
        recentWalks_.push_back(now);
        walk.folders.push_back(folder->first);
        folder = asked_.erase(folder);
    }
    if (walk.folders.empty())
        return std::nullopt;
    return walk;
}

std::optional<WalkSchedule::Clock::time_point> WalkSchedule::nextDue() const
{
    std::optional<Clock::time_point> due = allDue_;
    for (const auto& [folder, at] : asked_)
        due = due ? std::min(*due, at) : at;
    return due;
}

void WalkSchedule::forget(Clock::time_point now)
{
    while (!recentWalks_.empty() && recentWalks_.front() + kWholeSpacing <= now)
        recentWalks_.pop_front();
    std::erase_if(begun_, [&](const auto& folder) { return folder.second + kFolderSpacing <= now; });
}

} // namespace kv

#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kv {

// When the event watcher walks folders whose files raised no events of
// their own: a folder moved in, the folder above an event the helper could
// not name, and every watched folder once events were lost. Any user who may
// make folders in a shared watched folder can make them arrive as fast as
// they can rename, and any user with a watched folder in reach can overflow
// the kernel's queue, so walks are spaced and capped:
//
//  - the same folder is walked at most once per kFolderSpacing: what asks
//    for it meanwhile folds into one walk when the spacing has passed;
//  - at most kMostFolderWalks walks of single folders begin within any
//    kWholeSpacing; a folder asked for beyond that folds into one walk of
//    every watched folder;
//  - walks of every watched folder begin at least kWholeSpacing apart.
//
// Nothing asked for is lost: every folder is walked, or every watched folder
// is, once more after it was asked for.
//
// Not thread-safe: the watcher holds its lock around every call. Times are
// the caller's, so that tests may pass their own.
class WalkSchedule {
public:
    using Clock = std::chrono::steady_clock;

    // A user who moves a folder back and forth by hand sees it walked again
    // within seconds; a script that renames it in a loop costs one walk of
    // it every ten seconds.
    static constexpr std::chrono::seconds kFolderSpacing{10};
    // Walks of every watched folder, after lost events or too many folders,
    // which may take a while on a large tree: at most two a minute.
    static constexpr std::chrono::seconds kWholeSpacing{30};
    // Moving a hundred folders in at once is walked folder by folder; more
    // arrive only from a flood or a script, and cost one walk of everything.
    static constexpr size_t kMostFolderWalks = 100;

    enum class Asked {
        Folder,         // the folder will be walked
        Folded,         // it folds into a walk already asked for
        FoldedIntoAll,  // too many folders: every watched folder will be walked
    };
    Asked askForFolder(const std::string& folder, Clock::time_point now);
    // False when a walk of every watched folder was asked for already.
    bool askForAll(Clock::time_point now);

    // The walk that is due now, which counts as begun: every watched folder
    // (all), or the folders in folders.
    struct Walk {
        bool all = false;
        std::vector<std::string> folders;
    };
    std::optional<Walk> take(Clock::time_point now);

    // When the next walk asked for falls due; nothing when none is.
    std::optional<Clock::time_point> nextDue() const;

    void clear() { *this = WalkSchedule(); }

private:
    void forget(Clock::time_point now);

    std::map<std::string, Clock::time_point> asked_;  // folder, when it is due
    std::map<std::string, Clock::time_point> begun_;  // folder, when its last walk began
    std::deque<Clock::time_point> recentWalks_;       // when folder walks began, within kWholeSpacing
    std::optional<Clock::time_point> allDue_;
    std::optional<Clock::time_point> allBegun_;
    bool foldedIntoAll_ = false;  // the walk of all that allDue_ stands for takes in folders
};

} // namespace kv

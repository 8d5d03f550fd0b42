#pragma once

#include "platform/DesktopNotifier.h"

#include <chrono>
#include <mutex>
#include <string>

namespace kv {

class DesktopNotifier;
class StringTable;

// The agent's desktop notifications: the localised names of its kinds
// (NotificationKind), fetched once at launch, and the hand-over of each
// notification to the desktop's notifier.
//
// Findings (found, quarantined, removed) come one by one up to
// kFindingsOneByOne in a flood; past those, one notification counts the rest
// ("N more infected files found") and is updated in place rather than
// repeated. A flood ends after kFloodQuiet without a finding.
class Notifications {
public:
    static constexpr int kFindingsOneByOne = 3;
    static constexpr std::chrono::seconds kFloodQuiet{60};

    Notifications(DesktopNotifier* notifier, const StringTable* strings) : notifier_(notifier), strings_(strings) {}

    // Main thread, when the controller is made, before any notification.
    void prepare();

    // Any thread. False when nothing was shown: no notifier, none running,
    // or not prepared yet.
    bool display(NotificationKind kind, const std::string& description) const;

    // The localised text of a key; the key itself without a string table.
    std::string localizedString(const std::string& key) const;

    // The words of the definitions updater's outcomes.
    const std::string& updateSuccessful() const { return updateSuccessful_; }
    const std::string& alreadyUpToDate() const { return alreadyUpToDate_; }
    const std::string& unknownError() const { return unknownError_; }

private:
    DesktopNotifier* notifier_;
    const StringTable* strings_;
    // Any thread. Whether the finding is one of the first of its flood; if
    // not, *more is how many came past those, and *flood numbers the flood
    // (each flood's count is a notification of its own).
    bool oneByOne(int* more, int* flood) const;

    bool prepared_ = false;
    mutable std::mutex floodMutex_;
    mutable int floodFindings_ = 0;                              // guarded by floodMutex_
    mutable int floods_ = 0;                                     // guarded by floodMutex_
    mutable std::chrono::steady_clock::time_point lastFinding_;  // guarded by floodMutex_
    std::string found_, removed_, quarantined_, updateSuccessful_, alreadyUpToDate_, unknownError_;
};

} // namespace kv

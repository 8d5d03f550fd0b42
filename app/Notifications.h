#pragma once

#include <string>

namespace kv {

class DesktopNotifier;
class StringTable;

// The agent's desktop notifications: the localised names of its kinds
// (NotificationKind), fetched once at launch, and the hand-over of each
// notification to the desktop's notifier.
class Notifications {
public:
    Notifications(DesktopNotifier* notifier, const StringTable* strings) : notifier_(notifier), strings_(strings) {}

    // Main thread, at launch, before any notification.
    void prepare();

    // Any thread. False when nothing was shown: no notifier, none running,
    // or not prepared yet.
    bool display(int kind, const std::string& description) const;

    // The localised text of a key; the key itself without a string table.
    std::string localizedString(const std::string& key) const;

    // The words of the definitions updater's outcomes.
    const std::string& updateSuccessful() const { return updateSuccessful_; }
    const std::string& alreadyUpToDate() const { return alreadyUpToDate_; }
    const std::string& unknownError() const { return unknownError_; }

private:
    DesktopNotifier* notifier_;
    const StringTable* strings_;
    bool prepared_ = false;
    std::string found_, removed_, quarantined_, updateSuccessful_, alreadyUpToDate_, unknownError_;
};

} // namespace kv

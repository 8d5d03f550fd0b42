#include "app/Notifications.h"

#include "platform/DesktopNotifier.h"
#include "platform/StringTable.h"

namespace kv {

void Notifications::prepare()
{
    found_ = localizedString("FOUND");
    removed_ = localizedString("REMOVED");
    quarantined_ = localizedString("QUARANTINED");
    updateSuccessful_ = localizedString("SUCCESSFUL");
    alreadyUpToDate_ = localizedString("ALREADY_UP_TO_DATE");
    unknownError_ = localizedString("UNKNOWN_ERROR");
    prepared_ = true;
}

std::string Notifications::localizedString(const std::string& key) const
{
    return strings_ ? strings_->localizedString(key) : key;
}

bool Notifications::oneByOne(int* more, int* flood) const
{
    std::lock_guard<std::mutex> guard(floodMutex_);
    const auto now = std::chrono::steady_clock::now();
    if (floodFindings_ == 0 || now - lastFinding_ > kFloodQuiet) {
        floodFindings_ = 0;
        ++floods_;
    }
    lastFinding_ = now;
    ++floodFindings_;
    *more = floodFindings_ - kFindingsOneByOne;
    *flood = floods_;
    return *more <= 0;
}

bool Notifications::display(NotificationKind kind, const std::string& description) const
{
    if (!prepared_ || !notifier_ || !notifier_->isRunning())
        return false;
    DesktopNotification notification;
    notification.description = description;
    notification.sticky = true;
    int more = 0;
    int flood = 0;
    if ((kind == NotificationKind::Found || kind == NotificationKind::Quarantined || kind == NotificationKind::Removed) && !oneByOne(&more, &flood)) {
        notification.name = notification.title = found_;
        notification.description = more == 1 ? "1 more infected file found"
                                             : std::to_string(more) + " more infected files found";
        notification.updateKey = "findings-flood-" + std::to_string(flood);
        return notifier_->notify(notification);
    }
    switch (kind) {
    case NotificationKind::Found: notification.name = notification.title = found_; break;
    case NotificationKind::Quarantined: notification.name = notification.title = quarantined_; break;
    case NotificationKind::Removed: notification.name = notification.title = removed_; break;
    case NotificationKind::Updated:
        notification.name = updateSuccessful_;
        notification.title = "Korvane Velgar";
        break;
    case NotificationKind::UpToDate:
        notification.name = alreadyUpToDate_;
        notification.title = "Korvane Velgar";
        break;
    case NotificationKind::Error:
        notification.name = "Error";
        notification.title = "Korvane Velgar";
    }
    return notifier_->notify(notification);
}

} // namespace kv

#pragma once

#include <string>

namespace kv {

// The agent's notification kinds (displayGrowlDialog()).
enum class NotificationKind { Found = 1, Quarantined = 2, Removed = 3, Updated = 4, UpToDate = 5, Error = 6 };

// One desktop notification as the agent hands it over.
struct DesktopNotification {
    std::string name;        // the notification's name ("Error", the localised "FOUND", ...)
    std::string title;
    std::string description;
    bool sticky = true;      // stays until the user dismisses it
    // Empty, or a key: a later notification with the same key takes this
    // one's place where the desktop shows it, instead of adding another.
    std::string updateKey;
};

// The desktop's notification service. Callable from any thread.
class DesktopNotifier {
public:
    virtual ~DesktopNotifier() = default;
    // True when a notification service is there to take notifications.
    virtual bool isRunning() = 0;
    // Hands the notification over; true when it was sent.
    virtual bool notify(const DesktopNotification& notification) = 0;
};

} // namespace kv

#pragma once

#include "platform/DesktopNotifier.h"
#include "platform/UniqueFd.h"

#include <functional>
#include <string>

namespace kv {

// What the event watcher needs of the agent around it: the start and stop
// sequences it asks for after installing its helper, and the user's
// attention. The controller implements it; tests may too.
class WatcherHost {
public:
    virtual ~WatcherHost() = default;

    // Runs TASK later on the thread that owns the host (the main thread).
    // The watcher's thread asks for the sequences below through it.
    virtual void postToMainThread(std::function<void()> task) = 0;
    virtual void startWatcher(bool update) = 0;
    virtual void stopWatcher() = 0;
    virtual void quit() = 0;

    // Any thread: a desktop notification and a
    // localised text.
    virtual bool displayGrowlDialog(NotificationKind kind, const std::string& description) = 0;
    virtual std::string localizedString(const std::string& key) const = 0;

    // Watcher thread: a helper has started, and this is the agent's end of
    // its hold channel (eventhelper/HoldProtocol.h), the one to serve from
    // now on; the channel of an earlier helper has ended with it.
    virtual void holdChannelOpened(UniqueFd channel) {}
};

} // namespace kv

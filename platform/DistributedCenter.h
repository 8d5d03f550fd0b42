#pragma once

#include <functional>
#include <string>

namespace kv {

// Notifications shared between the agent and the main application across
// processes ("KorvaneVelgarShouldRestart", "KorvaneVelgarHasQuit", ...), each
// a name with one string object. Received from any sender.
class DistributedCenter {
public:
    using Handler = std::function<void(const std::string& name, const std::string& object)>;

    virtual ~DistributedCenter() = default;

    // True when the notification went out.
    virtual bool post(const std::string& name, const std::string& object) = 0;
    // Calls handler on the main thread for every notification of that name.
    virtual bool observe(const std::string& name, Handler handler) = 0;
    virtual void removeAllObservers() = 0;
};

} // namespace kv

#pragma once

#include "app/StatusMenu.h"
#include "platform/BusContract.h"

#include <functional>
#include <string>
#include <vector>

namespace kv {

class DistributedCenter;

// What scripts and the Korvane application read from the agent on the
// session bus: the scripted restart ("restartWatchingViaAS"), the agent's
// state ("agentStatus": changing, stopped, watching or scanning), which is
// also posted ("KorvaneVelgarStatus") whenever it changes, and whether opens
// wait for their verdict ("preventionStatus": "off", or "on HELD BLOCKED",
// the opens held and refused since watching began).
//
// Main thread. The menu and the center may be null (no desktop, no bus).
class AgentScripting {
public:
    AgentScripting(StatusMenu* menu, DistributedCenter* center, std::function<std::string()> prevention = {})
        : menu_(menu), center_(center), prevention_(std::move(prevention))
    {
    }

    // The keys a script may read, and whether one of them is KEY.
    std::vector<std::string> keys() const;
    bool applicationDelegateHandlesKey(const std::string& key) const;
    // The scripted read of a handled key. Reading "restartWatchingViaAS"
    // asks the status menu for a restart (done only while its restart item
    // is enabled) and answers "Restart Requested" either way.
    std::string valueForKey(const std::string& key);

    // The menu now shows STATE: the state word follows, and is posted when
    // it changed.
    void menuStateApplied(MenuState state);

private:
    StatusMenu* menu_;
    DistributedCenter* center_;
    std::function<std::string()> prevention_;
    const char* status_ = bus::kStatusChanging;
};

} // namespace kv

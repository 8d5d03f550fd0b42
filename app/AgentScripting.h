#pragma once

#include "app/StatusMenu.h"
#include "platform/BusContract.h"

#include <string>
#include <vector>

namespace kv {

class DistributedCenter;

// What scripts and the Korvane application read from the agent on the
// session bus: the scripted restart ("restartWatchingViaAS"), and the
// agent's state ("agentStatus": changing, stopped, watching or scanning),
// which is also posted ("KorvaneVelgarStatus") whenever it changes.
//
// Main thread. The menu and the center may be null (no desktop, no bus).
class AgentScripting {
public:
    AgentScripting(StatusMenu* menu, DistributedCenter* center) : menu_(menu), center_(center) {}

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
    const char* status_ = bus::kStatusChanging;
};

} // namespace kv

#include "app/AgentScripting.h"

#include "platform/BusContract.h"
#include "platform/DistributedCenter.h"

namespace kv {
namespace {

const char* statusWord(MenuState state)
{
    switch (state) {
    case MenuState::Stopped: return bus::kStatusStopped;
    case MenuState::Watching: return bus::kStatusWatching;
    case MenuState::Busy: return bus::kStatusScanning;
    case MenuState::Disabled: break;
    }
    return bus::kStatusChanging;
}

} // namespace

std::vector<std::string> AgentScripting::keys() const
{
    return {bus::kScriptKey, bus::kStatusKey, bus::kPreventionKey};
}

bool AgentScripting::applicationDelegateHandlesKey(const std::string& key) const
{
    return key == bus::kScriptKey || key == bus::kStatusKey || key == bus::kPreventionKey;
}

std::string AgentScripting::valueForKey(const std::string& key)
{
    if (key == bus::kStatusKey)
        return status_;
    if (key == bus::kPreventionKey)
        return prevention_ ? prevention_() : "off";
    if (menu_)
        menu_->canRestartFromAS();
    return bus::kScriptAnswer;
}

void AgentScripting::menuStateApplied(MenuState state)
{
    const char* status = statusWord(state);
    if (status == status_)
        return;
    status_ = status;
    if (center_)
        center_->post(bus::kStatus, status);
}

} // namespace kv

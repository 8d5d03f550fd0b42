#include "scan/OnDemandEngine.h"

#include "platform/Log.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/Settings.h"

namespace kv {

std::unique_ptr<OnDemandEngine> OnDemandEngine::start(Preferences& preferences, std::string* problem)
{
    preferences.addSuite(kMainAppDomain);
    preferences.synchronize();
    std::unique_ptr<OnDemandEngine> engine(new OnDemandEngine);
    engine->settings_ = Settings::load(preferences);
    for (const std::string& text : engine->settings_->problems)
        nsLog(text);
    if (!engine->settings_->clamPath) {
        *problem = "no scanning engine is set up: run velgarctl setup first";
        return nullptr;
    }
    std::string why;
    const std::optional<std::string> privateFolder = temporaryDirectory(&why);
    if (!privateFolder) {
        *problem = "the private temporary folder cannot be used: " + why;
        return nullptr;
    }
    if (!engine->clamd_.startEngine(engine->settings_->clamPath).ready) {
        *problem = "the scanning engine cannot be started; the scan log " + displayText(engine->log_.path()) +
                   " says why";
        return nullptr;
    }
    engine->clamd_.discernClamdSocketLocation(*privateFolder);
    return engine;
}

} // namespace kv

#pragma once

#include "engine/ClamdSupervisor.h"
#include "engine/DefinitionsIdentity.h"
#include "platform/ScanLogFile.h"
#include "platform/VerdictCache.h"
#include "scan/OnDemandScan.h"

#include <memory>
#include <string>

namespace kv {

class Preferences;
struct Settings;

// What scans on demand need around them, made from the user's preferences
// the way a start of watching makes it: the settings, the engine (the
// user's own clamd, launched when it does not run; the system's service; a
// TCP engine), the verdict cache, the definitions' identity and the scan
// log. For velgarctl and the Korvane application's Scan page; one object
// serves any number of OnDemandScans, one after another or at once.
//
// The diagnostics of the start go to the log call (nsLog) as the agent's
// do. Made and dropped on one thread; parts() is then used from any.
class OnDemandEngine {
public:
    // Null, with *problem saying why in a sentence for the user, when there
    // is nothing to scan with.
    static std::unique_ptr<OnDemandEngine> start(Preferences& preferences, std::string* problem);

    const std::shared_ptr<const Settings>& settings() const { return settings_; }
    OnDemandScan::Engine parts() { return {clamd_, definitions_, verdicts_, log_}; }
    const ScanLogFile& log() const { return log_; }

private:
    OnDemandEngine() = default;

    std::shared_ptr<const Settings> settings_;
    ClamdSupervisor clamd_;
    VerdictCache verdicts_;
    DefinitionsIdentity definitions_{clamd_};
    ScanLogFile log_;
};

} // namespace kv

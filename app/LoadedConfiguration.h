#pragma once

#include "intake/WatchList.h"
#include "platform/Settings.h"
#include "scan/ScanParameters.h"

#include <memory>
#include <optional>
#include <string>

namespace kv {

class ClamdSupervisor;
class Preferences;

// What one start of watching loaded and derived from the preferences: the
// settings, the engine's programs, the private folders, the watch list and
// the scanners' parameters. Made once by load() and never changed; the
// controller drops it at a stop, and the workers keep the parts they were
// handed for as long as they use them.
struct LoadedConfiguration {
    // What the user must be told about a load.
    struct Notice {
        bool engineIncomplete = false;  // no engine prefix or no update log
        bool standInTookOver = false;   // the system's service is silent
    };

    // Reads the preferences (the agent's own domain, then the main
    // application's), logs what could not be used and the choices made,
    // makes sure an engine answers (launching the user's own clamd when it
    // must), and prepares the private folders and the folder found files
    // are moved to. Null when there is nothing to scan with. Main thread.
    static std::shared_ptr<const LoadedConfiguration> load(Preferences& prefs, ClamdSupervisor& clamd,
                                                           Notice* notice);

    std::shared_ptr<const Settings> settings;
    std::string clamScanPATH;                          // <PathToClamav>/bin/clamdscan
    std::optional<std::string> freshclamPATH;          // the definitions updater
    std::optional<std::string> updateLogPath;          // freshclam's --log, when set
    std::string temporaryFolder;                       // private, ends in "/"
    std::shared_ptr<const WatchList> watchList;
    std::shared_ptr<const ScanParameters> scanParameters;
};

} // namespace kv

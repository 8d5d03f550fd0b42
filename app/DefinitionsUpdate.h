#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kv {

// One run of the virus-definitions updater: freshclam from the engine prefix,
// or the main application's RunFreshclam wrapper. Holds a copy of the
// updater settings of the controller's last preferences load, taken on the
// main thread when the update starts, so that a restart meanwhile cannot
// change them under the running update.
//
// run() blocks until the updater has ended; it is called on the update's own
// thread. The updater's standard output goes to the null device and its
// standard error stays the agent's own, the scan log.
class DefinitionsUpdate {
public:
    enum class Outcome {
        NoUpdater,        // the updater is missing or unreadable
        Updated,          // new definitions were installed
        AlreadyUpToDate,  // there was nothing to fetch
        Error,            // any other end, including an updater that cannot be run
    };

    DefinitionsUpdate(std::optional<std::string> freshclamPath, std::optional<std::string> freshclamLogLocation,
                      bool needsExit1FreshclamFlag);

    // The updater followed by its arguments: the log option, then
    // "--on-update-execute=EXIT_1" when the exit-1 flag is set.
    std::vector<std::string> commandLine() const;

    Outcome run() const;

    // With the exit-1 flag the updater exits 1 after installing definitions
    // (the command it runs on an update exits 1) and 0 when it found nothing
    // new; without it, 0 means updated and 1 up to date.
    static Outcome classify(int exitStatus, bool needsExit1FreshclamFlag);

private:
    std::optional<std::string> freshclamPath_;
    std::optional<std::string> freshclamLogLocation_;
    bool needsExit1FreshclamFlag_;
};

} // namespace kv

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

// A clamd daemon found in the process list, and what its command line tells.
struct RunningClamd {
    std::string commandLine;
    // The configuration it was started with (-c FILE, --config-file=FILE),
    // or the distribution's default when it was started without one.
    std::string configFile;
};

// The distribution's default clamd configuration.
inline constexpr const char* kDistributionClamdConfig = "/etc/clamav/clamd.conf";

// Finds, in the output of `ps -axww -o command=`, the first clamd that was
// not started from the given engine prefix (neither <prefix>/sbin/clamd nor
// -c <prefix>/etc/clamd.conf). Only lines whose program is named exactly
// "clamd" count, so clamdscan, grep and shells that mention clamd do not.
std::optional<RunningClamd> findOtherClamd(std::string_view processList, const std::string& prefix);

// Runs /bin/ps and applies findOtherClamd() to what it prints.
std::optional<RunningClamd> findRunningOtherClamd(const std::string& prefix);

// The LocalSocket a clamd configuration names, read as clamd reads it:
// blank and '#' lines skipped, the option name first on the line, the last
// occurrence winning. Nothing when the file has no LocalSocket (a daemon
// that listens on TCP only) or cannot be read.
std::optional<std::string> localSocketOfConfig(std::string_view configText);
std::optional<std::string> readLocalSocket(const std::string& configPath);

} // namespace kv

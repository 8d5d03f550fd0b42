#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

// The distribution's clamd configuration, which its clamd service reads.
inline constexpr const char* kDistributionClamdConfig = "/etc/clamav/clamd.conf";
// Where clamd loads its definitions from when its configuration names no
// DatabaseDirectory.
inline constexpr const char* kDefaultDatabaseFolder = "/var/lib/clamav";

// The LocalSocket a clamd configuration names, read as clamd reads it (see
// clamdOptionValues()), the last occurrence winning. Nothing when the file
// has no LocalSocket (a daemon that listens on TCP only) or cannot be read.
std::optional<std::string> localSocketOfConfig(std::string_view configText);
std::optional<std::string> readLocalSocket(const std::string& configPath);

// The socket of the system's clamd service, when it runs: the one the
// configuration at CONFIGPATH names, served by root or the clamav system
// user (never by another user) and answering PING.
std::optional<std::string> systemServiceSocket(const std::string& configPath = kDistributionClamdConfig);

// The folder the system's clamd service loads its definitions from.
std::string serviceDatabaseFolder(const std::string& configPath = kDistributionClamdConfig);

} // namespace kv

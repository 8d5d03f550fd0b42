#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kv {

// One process as /proc shows it: who really runs it and its argument vector,
// exactly as given to exec (no text parsing, so a path holding blanks or
// "-c" is never taken apart).
struct ProcessEntry {
    pid_t pid = 0;
    uid_t realUid = 0;
    bool zombie = false;
    std::vector<std::string> argv;
};

// Every process in PROC (a /proc mount): the real user from the "Uid:" line
// of its status, its state, and its command line split at NUL bytes.
// Processes that end while the table is read, or whose files cannot be
// read, are left out.
std::vector<ProcessEntry> readProcessTable(const std::string& proc = "/proc");

// The configuration file a clamd command line names with -c FILE, -cFILE,
// --config-file FILE or --config-file=FILE; nothing without one.
std::optional<std::string> clamdConfigArgument(const std::vector<std::string>& argv);

// Whether the process is the daemon of the user's own engine: a live
// program named "clamd", run by the real user UID, started with the engine
// prefix's configuration, PREFIX/etc/clamd.conf. Anyone may run a program
// called clamd with any arguments; only the user can run one as the user.
bool isOwnClamd(const ProcessEntry& process, uid_t uid, const std::string& prefix);

// The user's own daemon for the prefix, when one runs.
std::optional<ProcessEntry> findOwnClamd(const std::vector<ProcessEntry>& table, uid_t uid, const std::string& prefix);

} // namespace kv

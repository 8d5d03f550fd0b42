#pragma once

#include <chrono>
#include <string>

namespace kv {

// The per-user engine installation that the agent's "PathToClamav" names.
// The agent expects bin/clamdscan, sbin/clamd, bin/freshclam and
// etc/clamd.conf under one prefix; Debian installs ClamAV elsewhere, so the
// prefix holds a link to Debian's clamd, two-line wrappers that run Debian's
// clamdscan and freshclam with the prefix's own configuration, that
// configuration, and the database, run, tmp and log folders.
//
// Used by `velgarctl setup` on the main thread; nothing here is shared.
class EngineSetup {
public:
    // The longest socket path a clamd client can be given on every platform
    // the agent's socket code was written for.
    static constexpr size_t kMaxSocketPathBytes = 104;
    static constexpr const char* kTestDefinitionsName = "korvane-test.ndb";

    explicit EngineSetup(std::string prefix);

    const std::string& prefix() const { return prefix_; }
    std::string path(const std::string& relative) const;

    // The first file where setup would write that setup did not write
    // itself (a real ClamAV installation, say); empty when there is none.
    std::string foreignFile() const;

    // Where a daemon started from this prefix should listen, at most
    // kMaxSocketPathBytes long: $XDG_RUNTIME_DIR/korvane-clamd.ctl, else
    // <prefix>/run/clamd.ctl, else /tmp/korvane-velgar-<uid>/clamd.ctl.
    std::string ownSocketPath() const;

    // Creates the folders, the link, the wrappers and both configurations,
    // clamd's naming the given socket; with passDescriptors the clamdscan
    // wrapper passes open files to the daemon (for the system's service).
    // Files that already hold the right contents are not touched, so running
    // it again changes nothing.
    bool install(const std::string& socket, bool passDescriptors, std::string* error) const;

    // True when the database folder holds any signature file clamd loads.
    bool hasDefinitions() const;
    // True when the only signature file is the bundled test database.
    bool hasOnlyTestDefinitions() const;

    struct FreshclamRun {
        int status = -1;       // exit status; -1 when it could not be started
        bool timedOut = false; // killed after the time limit
        std::string lastLine;  // its last line of output, for the user
    };
    // Runs the prefix's freshclam wrapper once, killing it after limit.
    FreshclamRun runFreshclam(std::chrono::seconds limit) const;

    // Copies the bundled test database (detects the EICAR test file only)
    // from the resources folder into the database folder.
    bool installTestDefinitions(std::string* error) const;

    std::string clamdConfigText(const std::string& socket) const;
    std::string freshclamConfigText() const;

private:
    std::string prefix_;
};

} // namespace kv

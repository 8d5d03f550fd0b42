#pragma once

#include "engine/ClamdConfig.h"

#include <chrono>
#include <optional>
#include <string>

namespace kv {

// The per-user engine installation that the agent's "PathToClamav" names.
// The agent expects bin/clamdscan, sbin/clamd, bin/freshclam and
// etc/clamd.conf under one prefix; Debian installs ClamAV elsewhere, so the
// prefix holds a link to Debian's clamd, two-line wrappers that run Debian's
// clamdscan and freshclam with the prefix's own configuration, that
// configuration, and the database, run, tmp and log folders.
//
// Where the engine is the system's clamd service, the prefix also holds a
// stand-in, <prefix>/standin: the same layout for a daemon of the user's
// own (no updater; its definitions are the service's or the prefix's), which
// the agent runs while the service is silent. Where the engine is a daemon
// on another machine, the configuration names its TCP address and
// clamdscan streams each file's contents to it.
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
    // kMaxSocketPathBytes long: $XDG_RUNTIME_DIR/korvane-NAME.ctl, else
    // <prefix>/run/clamd.ctl, else /tmp/korvane-velgar-<uid>/NAME.ctl.
    std::string ownSocketPath(const std::string& name = "clamd") const;

    // The daemon the engine uses.
    enum class Daemon {
        Own,            // run from the prefix, listening on socket
        SystemService,  // the service at socket; clamdscan passes open files
        Remote,         // over TCP at remote; clamdscan streams the contents
    };
    struct Target {
        Daemon daemon = Daemon::Own;
        std::string socket;
        TcpEngine remote;
        std::string standInDatabase;  // SystemService: the stand-in's definitions
    };

    // Creates the folders, the link, the wrappers and both configurations
    // for the target, and the stand-in for the system's service (removing
    // one an earlier setup made for another target). Files that already hold
    // the right contents are not touched, so running it again changes
    // nothing.
    bool install(const Target& target, std::string* error) const;

    std::string standInPrefix() const { return path("standin"); }
    // The daemon over TCP that this prefix's configuration (written by
    // setup) names, if any.
    std::optional<TcpEngine> configuredRemote() const;

    // True when the database folder holds any signature file clamd loads.
    bool hasDefinitions() const;
    // The same for any folder, counting only files the user can read.
    static bool holdsDefinitions(const std::string& folder);
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

    std::string clamdConfigText(const std::string& socket, const std::string& databaseFolder = {}) const;
    std::string remoteConfigText(const TcpEngine& remote) const;
    std::string freshclamConfigText(bool notifyClamd = true) const;

private:
    // The folders, the clamd link, the clamdscan wrapper and clamd.conf.
    bool installDaemon(const std::string& clamdConfig, const char* clamdscanOptions, std::string* error) const;
    void removeStandIn() const;

    std::string prefix_;
};

} // namespace kv

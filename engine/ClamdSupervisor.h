#pragma once

#include "engine/ClamdCtrl.h"

#include <mutex>
#include <optional>
#include <string>

namespace kv {

// Finds, launches, probes and relaunches the user's own clamd, and works
// out the socket it listens on. Owned by the controller.
//
// On a machine shared with other users, only a daemon the user runs from
// the engine prefix is the user's: the executable and configuration it
// launches and relaunches are always <prefix>/sbin/clamd and
// <prefix>/etc/clamd.conf, never what another process's command line names.
//
// checkForClamd(), launchClamd() and discernClamdSocketLocation() run on the
// main thread during a preferences load. clamdStillAlive() and
// recoverFromCrashedClamd() run on scanner threads, possibly two at once.
// The paths below are guarded by mutex_, so a scanner never reads a half
// replaced string.
class ClamdSupervisor {
public:
    // True when the user's own clamd for the engine prefix runs: read from
    // the process table (see isOwnClamd()). PROC is where /proc is.
    bool checkForClamd(const std::string& clamPATH, const std::string& proc = "/proc");

    // Runs the executable (with "-c" and the configuration when given) and
    // waits for it. False only for exit status 1, or when it cannot be
    // started at all.
    bool launchClamd(const std::string& clamdPath, const std::optional<std::string>& configPath);

    bool clamdStillAlive();
    // Relaunches the prefix's daemon; the system's service is never
    // relaunched (its own service manager does that): it is said once that
    // it does not answer, until it answers again.
    void recoverFromCrashedClamd();

    // When the user's own daemon does not run: true, after a log line, when
    // the socket that the engine's configuration names is served by the
    // system's clamd service (see ClamdCtrl::systemServiceAnswers()), which
    // the engine then uses instead of launching a daemon of its own.
    bool useSystemService();
    bool usesSystemService() const;

    // Reads the LocalSocket directive of the engine's configuration and logs
    // the encoding. When no socket has ever been found it falls back to
    // clamd.socket in PRIVATEFOLDER (the user's private runtime folder,
    // ending in "/"), never to a folder other users can write to.
    void discernClamdSocketLocation(const std::string& privateFolder);

    // The engine of a preferences load: <clamPATH>/sbin/clamd and
    // <clamPATH>/etc/clamd.conf, or none without a prefix, so a relaunch
    // never runs what an earlier load or another process named.
    void useEnginePrefix(const std::optional<std::string>& clamPATH);

    std::optional<std::string> clamdPATH() const;
    std::optional<std::string> clamdConfPATH() const;
    std::optional<std::string> clamdSocket() const;
    bool weLaunchedClamd() const;
    void setWeLaunchedClamd(bool launched);

    ClamdCtrl& clamdController() { return clamdController_; }

private:
    ClamdCtrl clamdController_;
    mutable std::mutex mutex_;
    std::optional<std::string> clamdPATH_;     // guarded by mutex_
    std::optional<std::string> clamdConfPATH_; // guarded by mutex_
    std::optional<std::string> clamdSocket_;   // guarded by mutex_; never cleared once set
    bool weLaunchedClamd_ = false;             // guarded by mutex_
    bool usesSystemService_ = false;           // guarded by mutex_
    bool serviceSilenceLogged_ = false;        // guarded by mutex_
};

} // namespace kv

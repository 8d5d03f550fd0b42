#pragma once

#include "engine/ClamdCtrl.h"

#include <mutex>
#include <optional>
#include <string>

namespace kv {

// Finds, launches, probes and relaunches clamd, and works out the socket it
// listens on. Owned by the controller.
//
// checkForClamd(), launchClamd() and discernClamdSocketLocation() run on the
// main thread during a preferences load. clamdStillAlive() and
// recoverFromCrashedClamd() run on scanner threads, possibly two at once.
// The paths below are guarded by mutex_, so a scanner never reads a half
// replaced string.
class ClamdSupervisor {
public:
    // The process-list pipeline: the command column alone, so a terminal
    // name can never be taken for the executable's first "/".
    static constexpr const char* kProcessListCommand =
        "/bin/ps -axww -o command= | /usr/bin/grep clamd | grep -v grep";

    // True when a clamd process runs; then clamdPATH and clamdConfPATH are
    // taken from its command line. False leaves both unchanged.
    bool checkForClamd();

    // Runs the executable (with "-c" and the configuration when given) and
    // waits for it. False only for exit status 1, or when it cannot be
    // started at all.
    bool launchClamd(const std::string& clamdPath, const std::optional<std::string>& configPath);

    bool clamdStillAlive();
    void recoverFromCrashedClamd();

    // Reads the LocalSocket directive of the daemon's configuration (or of
    // <clamPATH>/etc/clamd.conf when the daemon was started without one) and
    // logs the encoding; falls back to /tmp/clamd.socket when no socket has
    // ever been found.
    void discernClamdSocketLocation(const std::optional<std::string>& clamPATH);

    // Used by the preferences load when it has to launch the daemon itself.
    void setClamdPaths(std::string clamdPath, std::optional<std::string> configPath);

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
};

} // namespace kv

#pragma once

#include "engine/ClamdConfig.h"
#include "engine/ClamdCtrl.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace kv {

// Finds, launches, probes and relaunches the user's own clamd, works out
// how the engine reaches its daemon, and decides before each scan run which
// daemon that is. Owned by the controller.
//
// The engine prefix's configuration names one of three daemons:
//  - the user's own, run from the prefix. On a machine shared with other
//    users only a daemon the user runs from the engine prefix is the
//    user's: the executable and configuration it launches and relaunches
//    are always <prefix>/sbin/clamd and <prefix>/etc/clamd.conf, never what
//    another process's command line names;
//  - the system's clamd service (a socket served by root or clamav), never
//    started, restarted or stopped from here. A prefix set up for the
//    service may hold a stand-in, <prefix>/standin: an engine prefix of the
//    user's own whose daemon scans while the service is silent and is
//    stopped once the service answers again;
//  - a daemon on another machine, reached over TCP, never started,
//    restarted or stopped from here.
// The silence of a daemon that is not the user's is told once (one log
// line; the callers add one notification), not at every scan run.
//
// checkForClamd(), launchClamd(), the use...() choices and
// discernClamdSocketLocation() run on the main thread during a preferences
// load. engineForRun(), clamdStillAlive(), recoverFromCrashedClamd() and
// the alert and change queries run on scanner threads, possibly two at
// once. decisionMutex_ makes switching between the service and its stand-in
// one step at a time; it is taken before mutex_, which guards the fields.
class ClamdSupervisor {
public:
    enum class Engine { Own, SystemService, Remote };

    // The daemon one scan run talks to, chosen at its start.
    struct RunEngine {
        std::string clamdscan;                 // the program to run
        std::optional<std::string> socket;     // its socket; none over TCP
        uint64_t generation = 0;               // changes whenever the daemon does
    };

    // What recoverFromCrashedClamd() did about a daemon that stopped answering.
    enum class Recovery {
        Relaunched,       // the user's own daemon (or the stand-in) was launched again
        StandInTookOver,  // the service is silent: the stand-in scans from now on
        SilenceTold,      // the service or remote daemon is silent, said now
        AlreadyTold,      // ... and had been said already
        EngineChanged,    // another run switched daemons since this run began
    };

    static constexpr const char* kStandInFolder = "standin";
    static constexpr std::chrono::seconds kSilenceProbeInterval{10};

    // True when the user's own clamd for the engine prefix runs: read from
    // the process table (see isOwnClamd()). PROC is where /proc is.
    bool checkForClamd(const std::string& clamPATH, const std::string& proc = "/proc");
    // The same for the daemon the agent runs now: the prefix's, or the
    // stand-in's while it stands in for the service.
    bool ownDaemonRuns(const std::string& proc = "/proc");

    // Runs the executable (with "-c" and the configuration when given) and
    // waits for it. False only for exit status 1, or when it cannot be
    // started at all.
    bool launchClamd(const std::string& clamdPath, const std::optional<std::string>& configPath);

    // PING over the daemon's socket, or over TCP for a remote daemon.
    bool clamdStillAlive();

    // After a scan run that began with GENERATION could not reach its
    // daemon: relaunches the user's own; stands in for a silent service
    // (launching the stand-in with the load's log lines); says once that a
    // service or remote daemon is silent.
    Recovery recoverFromCrashedClamd(uint64_t generation);

    // At the start of a scan run that would run CLAMDSCAN. While a service
    // or remote daemon is silent, it is asked again at most every probe
    // interval; when the service answers, scanning goes back to it and the
    // stand-in is stopped.
    RunEngine engineForRun(const std::string& clamdscan);
    uint64_t generation() const;
    bool engineChangedSince(uint64_t generation) const;
    // Whether a scan run may send its files to the run's daemon: at SOCKET
    // (ClamdCtrl::socketPeerTrusted), or over TCP when there is none.
    // False after a log line.
    bool socketTrusted(const std::optional<std::string>& socket);
    // Whether a scan run that could not reach any daemon should show the
    // unreachable-engine alert: always for the user's own daemon, once per
    // silence for the service and a remote daemon.
    bool unreachableAlertDue();

    // The engine of a start of watching, found or launched, with the
    // load's log lines. The prefix's (useEnginePrefix()), in this order: a
    // daemon on another machine; the user's own daemon when it runs; the
    // system's service; the stand-in for a silent service; the user's own
    // daemon, launched now. Not ready without a prefix, or when the daemon
    // to launch is missing or cannot be launched.
    struct EngineStart {
        bool ready = false;
        bool standInTookOver = false;  // the caller tells the user once
    };
    EngineStart startEngine(const std::optional<std::string>& clamPATH);

    // Choices of a preferences load, tried in this order (after the user's
    // own daemon was looked for). useRemoteEngine(): the prefix names a
    // daemon over TCP (see tcpEngineOf()); nothing is launched for it.
    bool useRemoteEngine();
    // When the user's own daemon does not run: true, after a log line, when
    // the socket that the engine's configuration names is served by the
    // system's clamd service (see ClamdCtrl::systemServiceAnswers()), which
    // the engine then uses instead of launching a daemon of its own. A
    // stand-in left running by an earlier agent is stopped.
    bool useSystemService();
    // When nothing answers there and the prefix has a stand-in: true, after
    // a log line; the daemon to launch (clamdPATH(), clamdConfPATH()) is
    // then the stand-in's.
    bool standInForService();

    Engine engine() const;
    // True while the engine is a daemon over TCP that is, or may be, on
    // this machine (see ClamdCtrl::mayBeOnThisMachine()): no clamdscan may
    // run against it, since clamdscan's connections come after any check
    // and could reach whoever took the port meanwhile. Scanner threads ask
    // at the start of each batch and then scan every file by descriptor
    // (ClamdCtrl::scanOpenFile()), over connections checked one by one.
    // May look up the engine's host names (within the time limit).
    bool scansOverCheckedConnectionsOnly() const;
    bool usesSystemService() const;
    bool standingIn() const;
    std::optional<TcpEngine> remoteEngine() const;

    // Reads the LocalSocket directive of the engine's configuration and logs
    // the encoding. When no socket has ever been found it falls back to
    // clamd.socket in PRIVATEFOLDER (the user's private runtime folder,
    // ending in "/"), never to a folder other users can write to. A remote
    // engine needs no socket.
    void discernClamdSocketLocation(const std::string& privateFolder);

    // The engine of a preferences load: <clamPATH>/sbin/clamd and
    // <clamPATH>/etc/clamd.conf, or none without a prefix, so a relaunch
    // never runs what an earlier load or another process named.
    void useEnginePrefix(const std::optional<std::string>& clamPATH);

    // The daemon the agent launches: the prefix's, or the stand-in's.
    std::optional<std::string> clamdPATH() const;
    std::optional<std::string> clamdConfPATH() const;
    // The socket scans and control messages go to now.
    std::optional<std::string> clamdSocket() const;
    // The configuration of the daemon that scans now, where it lies on this
    // machine: the stand-in's while it stands in, the system service's own
    // (kServiceConfig) for the service, else the prefix's. Nothing for a
    // daemon over TCP or without a prefix.
    std::optional<std::string> daemonConfigFile() const;
    static constexpr const char* kServiceConfig = "/etc/clamav/clamd.conf";
    bool weLaunchedClamd() const;
    void setWeLaunchedClamd(bool launched);

    // How long a silent daemon is left alone between two probes; tests
    // shorten it.
    void setSilenceProbeInterval(std::chrono::milliseconds interval);

    ClamdCtrl& clamdController() { return clamdController_; }

private:
    std::optional<std::string> daemonPrefixLocked() const;
    std::optional<std::string> activeSocketLocked() const;
    bool standInAvailable() const;
    void becomeStandInLocked();
    // QUITs the stand-in's daemon when it runs; true when it did.
    bool stopStandIn();
    bool silentEngineAnswers();

    ClamdCtrl clamdController_;
    std::mutex decisionMutex_;  // taken before mutex_
    mutable std::mutex mutex_;
    std::optional<std::string> prefix_;         // guarded by mutex_
    std::optional<std::string> clamdSocket_;    // guarded by mutex_; never cleared once set
    std::optional<std::string> standInSocket_;  // guarded by mutex_
    std::optional<TcpEngine> remote_;           // guarded by mutex_
    Engine engine_ = Engine::Own;               // guarded by mutex_
    bool standingIn_ = false;                   // guarded by mutex_
    bool weLaunchedClamd_ = false;              // guarded by mutex_
    bool silenceTold_ = false;                  // guarded by mutex_
    bool silenceAlerted_ = false;               // guarded by mutex_
    uint64_t generation_ = 0;                   // guarded by mutex_
    std::chrono::steady_clock::time_point lastProbe_;       // guarded by mutex_
    std::chrono::milliseconds probeInterval_ = kSilenceProbeInterval;  // guarded by mutex_
};

} // namespace kv

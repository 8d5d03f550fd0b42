#include "engine/ClamdSupervisor.h"

#include "engine/ClamdProcessList.h"
#include "engine/SupportAddress.h"
#include "platform/ChildProcess.h"
#include "platform/Log.h"
#include "platform/Paths.h"

#include <unistd.h>

#include <cstring>

namespace kv {
namespace {

// The line said once when the service stops answering and the stand-in
// takes over, at a load or during scanning alike.
constexpr const char* kStandInLine =
    "The system's clamd service does not answer at %s; your own clamd stands in until it answers again";

std::optional<std::string> socketNamedIn(const std::string& configFile)
{
    const std::vector<std::string> sockets = clamdOptionValues(readClamdConfig(configFile).text, "LocalSocket");
    return sockets.empty() ? std::nullopt : std::optional<std::string>(sockets.back());
}

} // namespace

bool ClamdSupervisor::checkForClamd(const std::string& clamPATH, const std::string& proc)
{
    return findOwnClamd(readProcessTable(proc), ::getuid(), clamPATH).has_value();
}

bool ClamdSupervisor::ownDaemonRuns(const std::string& proc)
{
    std::optional<std::string> prefix;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        prefix = daemonPrefixLocked();
    }
    return prefix && checkForClamd(*prefix, proc);
}

bool ClamdSupervisor::launchClamd(const std::string& clamdPath, const std::optional<std::string>& configPath)
{
    std::vector<std::string> argv{clamdPath};
    if (configPath) {
        argv.push_back("-c");
        argv.push_back(*configPath);
    }
    int error = 0;
    std::optional<ChildProcess> daemon = ChildProcess::spawn(argv, ChildProcess::Output::Inherit, &error);
    if (!daemon) {
        nsLogf("clamd could not be started from %s: %s", clamdPath.c_str(), std::strerror(error));
        return false;
    }
    // clamd forks into the background and its first process exits once the
    // daemon runs; status 1 means it could not start.
    return daemon->wait() != 1;
}

bool ClamdSupervisor::clamdStillAlive()
{
    std::optional<TcpEngine> remote;
    std::optional<std::string> socket;
    bool standingIn = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (engine_ == Engine::Remote)
            remote = remote_;
        socket = activeSocketLocked();
        standingIn = standingIn_;
    }
    const bool alive = remote ? clamdController_.communicateWithTcpEngine(*remote, "PING")
                              : clamdController_.communicateWithSocket(socket, "PING");
    if (alive && !standingIn) {
        std::lock_guard<std::mutex> guard(mutex_);
        silenceTold_ = false;
        silenceAlerted_ = false;
    }
    return alive;
}

ClamdSupervisor::Recovery ClamdSupervisor::recoverFromCrashedClamd(uint64_t generation)
{
    std::lock_guard<std::mutex> decision(decisionMutex_);
    Engine engine;
    bool standingIn;
    std::string where;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        // Another run found the silence first and switched daemons: this
        // run's batch is scanned again, nothing else is needed.
        if (generation != generation_)
            return Recovery::EngineChanged;
        engine = engine_;
        standingIn = standingIn_;
        where = engine_ == Engine::Remote && remote_ ? remote_->describe() : clamdSocket_.value_or("its socket");
    }

    if (engine == Engine::Remote || (engine == Engine::SystemService && !standingIn && !standInAvailable())) {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (silenceTold_)
                return Recovery::AlreadyTold;
            silenceTold_ = true;
            lastProbe_ = std::chrono::steady_clock::now();
        }
        if (engine == Engine::Remote)
            nsLogf("The clamd at %s does not answer; it runs on another machine and is left to that machine to restart",
                   where.c_str());
        else
            nsLogf("The system's clamd service does not answer at %s; it is left to the system to restart it",
                   where.c_str());
        return Recovery::SilenceTold;
    }

    if (engine == Engine::SystemService && !standingIn) {
        nsLogf(kStandInLine, where.c_str());
        {
            std::lock_guard<std::mutex> guard(mutex_);
            becomeStandInLocked();
        }
        if (!ownDaemonRuns()) {
            const std::optional<std::string> executable = clamdPATH();
            nsLog("clamd not running. Now trying to launch it...\n");
            if (executable && launchClamd(*executable, clamdConfPATH())) {
                nsLog("clamd launched successfully.  Continuing...\n");
                setWeLaunchedClamd(true);
            } else {
                nsLogf("The stand-in clamd could not be launched from %s", executable.value_or("?").c_str());
            }
        }
        return Recovery::StandInTookOver;
    }

    // The user's own daemon, or the stand-in, died: launch it again.
    const std::optional<std::string> executable = clamdPATH();
    if (executable)
        launchClamd(*executable, clamdConfPATH());
    return Recovery::Relaunched;
}

bool ClamdSupervisor::silentEngineAnswers()
{
    std::optional<TcpEngine> remote;
    std::optional<std::string> socket;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (engine_ == Engine::Remote)
            remote = remote_;
        else
            socket = clamdSocket_;
    }
    if (remote)
        return ClamdCtrl::tcpEngineAnswers(*remote);
    return socket && ClamdCtrl::systemServiceAnswers(*socket);
}

ClamdSupervisor::RunEngine ClamdSupervisor::engineForRun(const std::string& clamdscan)
{
    std::lock_guard<std::mutex> decision(decisionMutex_);
    bool probe = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        const auto now = std::chrono::steady_clock::now();
        if (silenceTold_ && engine_ != Engine::Own && now - lastProbe_ >= probeInterval_) {
            probe = true;
            lastProbe_ = now;
        }
    }
    if (probe && silentEngineAnswers()) {
        Engine engine;
        bool wasStandingIn;
        std::string where;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            engine = engine_;
            wasStandingIn = standingIn_;
            where = engine_ == Engine::Remote && remote_ ? remote_->describe() : clamdSocket_.value_or("?");
            standingIn_ = false;
            silenceTold_ = false;
            silenceAlerted_ = false;
            if (wasStandingIn)
                ++generation_;
        }
        if (engine == Engine::Remote) {
            nsLogf("The clamd at %s answers again", where.c_str());
        } else if (wasStandingIn) {
            nsLogf("The system's clamd service answers again at %s; scanning goes back to it and your own clamd is "
                   "stopped",
                   where.c_str());
            stopStandIn();
        } else {
            nsLogf("The system's clamd service answers again at %s", where.c_str());
        }
    }

    std::lock_guard<std::mutex> guard(mutex_);
    RunEngine run;
    run.clamdscan = clamdscan;
    if (standingIn_ && prefix_ && clamdscan == *prefix_ + "/bin/clamdscan")
        run.clamdscan = *prefix_ + "/" + kStandInFolder + "/bin/clamdscan";
    if (engine_ != Engine::Remote)
        run.socket = activeSocketLocked();
    run.generation = generation_;
    return run;
}

uint64_t ClamdSupervisor::generation() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return generation_;
}

bool ClamdSupervisor::engineChangedSince(uint64_t generation) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return generation != generation_;
}

bool ClamdSupervisor::unreachableAlertDue()
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (engine_ == Engine::Own || standingIn_)
        return true;
    if (silenceAlerted_)
        return false;
    silenceAlerted_ = true;
    return true;
}

bool ClamdSupervisor::useRemoteEngine()
{
    std::optional<std::string> prefix;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        prefix = prefix_;
    }
    if (!prefix)
        return false;
    const std::optional<TcpEngine> remote = tcpEngineOf(readClamdConfig(*prefix + "/etc/clamd.conf").text);
    if (!remote)
        return false;
    nsLogf("Using the clamd at %s over TCP; it runs on another machine and is never started or stopped from here",
           remote->describe().c_str());
    std::lock_guard<std::mutex> guard(mutex_);
    engine_ = Engine::Remote;
    remote_ = remote;
    return true;
}

bool ClamdSupervisor::useSystemService()
{
    std::optional<std::string> prefix;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        prefix = prefix_;
    }
    if (!prefix)
        return false;
    const std::optional<std::string> socket = lastLocalSocket(readClamdConfig(*prefix + "/etc/clamd.conf").text);
    if (!socket || !ClamdCtrl::systemServiceAnswers(*socket))
        return false;
    nsLogf("Using the system's clamd service at %s", socket->c_str());
    {
        std::lock_guard<std::mutex> guard(mutex_);
        engine_ = Engine::SystemService;
        silenceTold_ = false;
        silenceAlerted_ = false;
    }
    if (stopStandIn())
        nsLog("Your own clamd that stood in for the service is no longer needed and is stopped");
    return true;
}

bool ClamdSupervisor::standInForService()
{
    std::optional<std::string> prefix;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        prefix = prefix_;
    }
    if (!prefix || !standInAvailable())
        return false;
    const std::optional<std::string> service = lastLocalSocket(readClamdConfig(*prefix + "/etc/clamd.conf").text);
    nsLogf(kStandInLine, service.value_or("its socket").c_str());
    std::lock_guard<std::mutex> guard(mutex_);
    engine_ = Engine::SystemService;
    becomeStandInLocked();
    return true;
}

bool ClamdSupervisor::standInAvailable() const
{
    std::optional<std::string> prefix;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        prefix = prefix_;
    }
    if (!prefix)
        return false;
    const std::string standIn = *prefix + "/" + kStandInFolder;
    return pathExists(standIn + "/sbin/clamd") && socketNamedIn(standIn + "/etc/clamd.conf").has_value();
}

void ClamdSupervisor::becomeStandInLocked()
{
    standingIn_ = true;
    silenceTold_ = true;
    silenceAlerted_ = false;
    ++generation_;
    lastProbe_ = std::chrono::steady_clock::now();
    if (prefix_)
        standInSocket_ = socketNamedIn(*prefix_ + "/" + kStandInFolder + "/etc/clamd.conf");
}

bool ClamdSupervisor::stopStandIn()
{
    std::optional<std::string> prefix;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        prefix = prefix_;
    }
    if (!prefix)
        return false;
    const std::string standIn = *prefix + "/" + kStandInFolder;
    if (!checkForClamd(standIn))
        return false;
    clamdController_.communicateWithSocket(socketNamedIn(standIn + "/etc/clamd.conf"), "QUIT");
    std::lock_guard<std::mutex> guard(mutex_);
    weLaunchedClamd_ = false;
    return true;
}

ClamdSupervisor::Engine ClamdSupervisor::engine() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return engine_;
}

bool ClamdSupervisor::scansOverCheckedConnectionsOnly() const
{
    const std::optional<TcpEngine> remote = remoteEngine();
    return remote && ClamdCtrl::mayBeOnThisMachine(*remote);
}

bool ClamdSupervisor::usesSystemService() const { return engine() == Engine::SystemService; }

bool ClamdSupervisor::standingIn() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return standingIn_;
}

std::optional<TcpEngine> ClamdSupervisor::remoteEngine() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return engine_ == Engine::Remote ? remote_ : std::nullopt;
}

void ClamdSupervisor::discernClamdSocketLocation(const std::string& privateFolder)
{
    std::optional<std::string> configFile;
    bool remote = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (prefix_)
            configFile = *prefix_ + "/etc/clamd.conf";
        remote = engine_ == Engine::Remote;
    }
    int encoding = kNoEncoding;
    std::optional<std::string> found;
    if (configFile && pathExists(*configFile)) {
        const ClamdConfigText config = readClamdConfig(*configFile);
        if (config.encoding == kNoEncoding)
            nsLogf("The clamd configuration file %s could not be read: %s", configFile->c_str(), config.error.c_str());
        encoding = config.encoding;
        found = lastLocalSocket(config.text);
    }

    nsLogf("clamdconfEncoding: %d", encoding);
    // A daemon over TCP has no socket here to fall back to.
    if (remote)
        return;

    std::lock_guard<std::mutex> guard(mutex_);
    if (found)
        clamdSocket_ = std::move(found);
    if (!clamdSocket_) {
        nsLogf("Please email this line to %s >After trying again, _clamdSocket == nil, hard-coding it instead. < "
               "Please also include the file at /usr/local/korvane/etc/clamd.conf",
               kSupportAddress);
        clamdSocket_ = privateFolder + "clamd.socket";
        nsLogf("The engine's socket is taken to be %s", clamdSocket_->c_str());
    }
}

ClamdSupervisor::EngineStart ClamdSupervisor::startEngine(const std::optional<std::string>& clamPATH)
{
    // Whether we launched the daemon is decided anew at every start; the
    // engine is the prefix's own daemon, or none without a prefix, so a
    // relaunch never runs what an earlier start named.
    setWeLaunchedClamd(false);
    useEnginePrefix(clamPATH);
    EngineStart start;
    // With no installation prefix there is no clamdscan to run and no
    // daemon to launch: never guess one from an empty prefix.
    if (!clamPATH) {
        nsLog("ClamAV installation couldn't be found.  Quitting now.\n");
        return start;
    }
    bool engineRuns = useRemoteEngine() || ownDaemonRuns() || useSystemService();
    if (!engineRuns && standInForService()) {
        start.standInTookOver = true;
        engineRuns = ownDaemonRuns();
    }
    if (!engineRuns) {
        const std::string clamdPath = clamdPATH().value_or(std::string());
        nsLog("clamd not running. Now trying to launch it...\n");
        if (!pathExists(clamdPath)) {
            nsLog("ClamAV installation couldn't be found.  Quitting now.\n");
            return start;
        }
        if (!launchClamd(clamdPath, clamdConfPATH())) {
            nsLog("clamd couldn't be launched.  Quitting now.\n");
            return start;
        }
        nsLog("clamd launched successfully.  Continuing...\n");
        setWeLaunchedClamd(true);
    }
    start.ready = true;
    return start;
}

void ClamdSupervisor::useEnginePrefix(const std::optional<std::string>& clamPATH)
{
    std::lock_guard<std::mutex> guard(mutex_);
    prefix_ = clamPATH;
    engine_ = Engine::Own;
    standingIn_ = false;
    standInSocket_.reset();
    remote_.reset();
    silenceTold_ = false;
    silenceAlerted_ = false;
    ++generation_;
}

std::optional<std::string> ClamdSupervisor::daemonPrefixLocked() const
{
    if (!prefix_)
        return std::nullopt;
    return standingIn_ ? *prefix_ + "/" + kStandInFolder : *prefix_;
}

std::optional<std::string> ClamdSupervisor::activeSocketLocked() const
{
    return standingIn_ ? standInSocket_ : clamdSocket_;
}

std::optional<std::string> ClamdSupervisor::clamdPATH() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    const std::optional<std::string> prefix = daemonPrefixLocked();
    return prefix ? std::optional<std::string>(*prefix + "/sbin/clamd") : std::nullopt;
}

std::optional<std::string> ClamdSupervisor::clamdConfPATH() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    const std::optional<std::string> prefix = daemonPrefixLocked();
    return prefix ? std::optional<std::string>(*prefix + "/etc/clamd.conf") : std::nullopt;
}

std::optional<std::string> ClamdSupervisor::daemonConfigFile() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (!prefix_ || engine_ == Engine::Remote)
        return std::nullopt;
    if (engine_ == Engine::SystemService && !standingIn_)
        return std::string(kServiceConfig);
    return *daemonPrefixLocked() + "/etc/clamd.conf";
}

std::optional<std::string> ClamdSupervisor::clamdSocket() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return activeSocketLocked();
}

bool ClamdSupervisor::weLaunchedClamd() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return weLaunchedClamd_;
}

void ClamdSupervisor::setWeLaunchedClamd(bool launched)
{
    std::lock_guard<std::mutex> guard(mutex_);
    weLaunchedClamd_ = launched;
}

void ClamdSupervisor::setSilenceProbeInterval(std::chrono::milliseconds interval)
{
    std::lock_guard<std::mutex> guard(mutex_);
    probeInterval_ = interval;
}

bool ClamdSupervisor::socketTrusted(const std::optional<std::string>& socket)
{
    if (socket)
        return clamdController_.socketPeerTrusted(*socket);
    const std::optional<TcpEngine> remote = remoteEngine();
    return !remote || clamdController_.tcpEnginePeerTrusted(*remote);
}

} // namespace kv

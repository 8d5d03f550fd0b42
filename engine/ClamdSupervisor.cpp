#include "engine/ClamdSupervisor.h"

#include "engine/ClamdConfig.h"
#include "engine/ClamdProcessList.h"
#include "engine/SupportAddress.h"
#include "platform/ChildProcess.h"
#include "platform/Log.h"
#include "platform/Paths.h"

#include <unistd.h>

#include <cstring>

namespace kv {

bool ClamdSupervisor::checkForClamd(const std::string& clamPATH, const std::string& proc)
{
    return findOwnClamd(readProcessTable(proc), ::getuid(), clamPATH).has_value();
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
    const bool alive = clamdController_.communicateWithSocket(clamdSocket(), "PING");
    if (alive) {
        std::lock_guard<std::mutex> guard(mutex_);
        serviceSilenceLogged_ = false;
    }
    return alive;
}

void ClamdSupervisor::recoverFromCrashedClamd()
{
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (usesSystemService_) {
            if (!serviceSilenceLogged_)
                nsLogf("The system's clamd service does not answer at %s; it is left to the system to restart it",
                       clamdSocket_ ? clamdSocket_->c_str() : "its socket");
            serviceSilenceLogged_ = true;
            return;
        }
    }
    const std::optional<std::string> executable = clamdPATH();
    if (!executable)
        return;
    launchClamd(*executable, clamdConfPATH());
}

bool ClamdSupervisor::useSystemService()
{
    const std::optional<std::string> configFile = clamdConfPATH();
    if (!configFile)
        return false;
    const std::optional<std::string> socket = lastLocalSocket(readClamdConfig(*configFile).text);
    if (!socket || !ClamdCtrl::systemServiceAnswers(*socket))
        return false;
    nsLogf("Using the system's clamd service at %s", socket->c_str());
    std::lock_guard<std::mutex> guard(mutex_);
    usesSystemService_ = true;
    serviceSilenceLogged_ = false;
    return true;
}

bool ClamdSupervisor::usesSystemService() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return usesSystemService_;
}

void ClamdSupervisor::discernClamdSocketLocation(const std::string& privateFolder)
{
    const std::optional<std::string> configFile = clamdConfPATH();
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

void ClamdSupervisor::useEnginePrefix(const std::optional<std::string>& clamPATH)
{
    std::lock_guard<std::mutex> guard(mutex_);
    usesSystemService_ = false;
    if (clamPATH) {
        clamdPATH_ = *clamPATH + "/sbin/clamd";
        clamdConfPATH_ = *clamPATH + "/etc/clamd.conf";
    } else {
        clamdPATH_.reset();
        clamdConfPATH_.reset();
    }
}

std::optional<std::string> ClamdSupervisor::clamdPATH() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return clamdPATH_;
}

std::optional<std::string> ClamdSupervisor::clamdConfPATH() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return clamdConfPATH_;
}

std::optional<std::string> ClamdSupervisor::clamdSocket() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return clamdSocket_;
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

} // namespace kv

#include "engine/ClamdSupervisor.h"

#include "engine/ClamdConfig.h"
#include "engine/ClamdProcessList.h"
#include "engine/SupportAddress.h"
#include "platform/ChildProcess.h"
#include "platform/Log.h"
#include "platform/Paths.h"

#include <cstring>

namespace kv {

bool ClamdSupervisor::checkForClamd()
{
    std::optional<ChildProcess> pipeline =
        ChildProcess::spawn({"/bin/sh", "-c", kProcessListCommand}, ChildProcess::Output::Pipe);
    if (!pipeline) {
        nsLog("Could not run the process list to look for clamd");
        return false;
    }
    // The pipeline's output is a few lines at most: read it all before the
    // exit status, so a full pipe can never hold the child up.
    std::string output = pipeline->readAll();
    const int status = pipeline->wait();
    if (status == 1)
        return false;
    if (!output.empty()) {
        // The whole output is parsed as one text, as if it came in one chunk.
        ClamdCommandLine found = parseClamdProcessChunk(output);
        setClamdPaths(std::move(found.clamdPath), std::move(found.configPath));
    }
    return true;
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

bool ClamdSupervisor::clamdStillAlive() { return clamdController_.communicateWithSocket(clamdSocket(), "PING"); }

void ClamdSupervisor::recoverFromCrashedClamd()
{
    const std::optional<std::string> executable = clamdPATH();
    if (!executable)
        return;
    launchClamd(*executable, clamdConfPATH());
}

void ClamdSupervisor::discernClamdSocketLocation(const std::optional<std::string>& clamPATH)
{
    std::optional<std::string> configFile = clamdConfPATH();
    if (!configFile && clamPATH) {
        const std::string fallback = *clamPATH + "/etc/clamd.conf";
        if (pathExists(fallback))
            configFile = fallback;
    }

    int encoding = kNoEncoding;
    std::optional<std::string> found;
    if (configFile) {
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
        clamdSocket_ = "/tmp/clamd.socket";
    }
}

void ClamdSupervisor::setClamdPaths(std::string clamdPath, std::optional<std::string> configPath)
{
    std::lock_guard<std::mutex> guard(mutex_);
    clamdPATH_ = std::move(clamdPath);
    clamdConfPATH_ = std::move(configPath);
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

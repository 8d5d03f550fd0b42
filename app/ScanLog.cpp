#include "app/ScanLog.h"

#include "platform/ChildProcess.h"
#include "platform/Log.h"
#include "platform/Paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace kv {

ScanLog::ScanLog(std::string homeDirectory) : path_(joinPath(homeDirectory, "Library/Logs/KorvaneVelgar-scan.log")) {}

void ScanLog::logAllToScanLog()
{
    const std::string folder = path_.substr(0, path_.rfind('/'));
    makeDirectories(folder, 0755);
    // Try the file first: freopen() closes the stream when it fails, and the
    // agent would lose every later diagnostic.
    const int probe = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (probe < 0) {
        nsLogf("The scan log %s cannot be opened (%s); logging stays where it was", path_.c_str(), std::strerror(errno));
        return;
    }
    ::close(probe);
    std::fflush(stderr);
    std::fflush(stdout);
    // The probe above opened the file, so these fail only if it went away in
    // between; a stream freopen could not reopen is closed, with nowhere left
    // to say so.
    if (!std::freopen(path_.c_str(), "a", stderr))
        return;
    (void)!std::freopen(path_.c_str(), "a", stdout);
}

int ScanLog::thresholdKilobytes(const std::optional<QJsonValue>& preference)
{
    if (!preference || !preference->isDouble())
        return kDefaultThresholdKilobytes;
    const double value = std::trunc(preference->toDouble());
    if (!(value > 0) || value > 2147483647.0)
        return kDefaultThresholdKilobytes;
    return static_cast<int>(value);
}

std::string ScanLog::rotationConfigText(const std::string& logPath, unsigned uid, unsigned gid, int thresholdKilobytes)
{
    return "# logfilename [owner:group] mode count size when flags [/pid_file] [sig_num]\n" +
           stringPrintf("%s\t%u:%u\t640\t3\t%d\t*\tCJN", logPath.c_str(), uid, gid, thresholdKilobytes);
}

std::string ScanLog::logrotateConfigText(const std::string& logPath, unsigned uid, unsigned gid, int thresholdKilobytes)
{
    std::string quoted;
    for (const char c : logPath) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return stringPrintf("\"%s\" {\n"
                        "    size %dk\n"
                        "    rotate 3\n"
                        "    create 0640 %u %u\n"
                        "    compress\n"
                        "    compresscmd /usr/bin/bzip2\n"
                        "    uncompresscmd /usr/bin/bunzip2\n"
                        "    compressext .bz2\n"
                        "    missingok\n"
                        "    nomail\n"
                        "}\n",
                        quoted.c_str(), thresholdKilobytes, uid, gid);
}

void ScanLog::rotateLogFile(const std::optional<QJsonValue>& thresholdPreference, const std::string& temporaryFolder,
                            bool reopenStreams)
{
    const unsigned uid = ::getuid();
    const unsigned gid = ::getgid();
    const int threshold = thresholdKilobytes(thresholdPreference);
    const std::string configPath = joinPath(temporaryFolder, "scanlogrotate.conf");
    {
        std::ofstream config(configPath, std::ios::binary | std::ios::trunc);
        config << rotationConfigText(path_, uid, gid, threshold);
    }

    if (isRegularFile(kNewsyslog)) {
        runAndWait({kNewsyslog, "-Cr", "-f", configPath}, ChildProcess::Output::Inherit);
    } else if (isRegularFile(kLogrotate)) {
        // Debian has no newsyslog: the same entry, in logrotate's words, with
        // a state file of our own so no system state is touched.
        const std::string logrotateConfig = joinPath(temporaryFolder, "scanlogrotate.logrotate");
        const std::string stateFile = joinPath(temporaryFolder, "scanlogrotate.state");
        {
            // logrotate ignores configuration files that others can write.
            const int fd = ::open(logrotateConfig.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
            if (fd >= 0) {
                const std::string text = logrotateConfigText(path_, uid, gid, threshold);
                const ssize_t written = ::write(fd, text.data(), text.size());
                (void)written;
                ::close(fd);
            }
        }
        std::fflush(stdout);
        std::fflush(stderr);
        runAndWait({kLogrotate, "-s", stateFile, logrotateConfig}, ChildProcess::Output::Inherit);
        ::unlink(logrotateConfig.c_str());
    }

    if (pathExists(configPath))
        ::unlink(configPath.c_str());
    if (reopenStreams)
        logAllToScanLog();
}

} // namespace kv

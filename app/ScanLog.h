#pragma once

#include <QJsonValue>

#include <optional>
#include <string>

namespace kv {

// The per-user scan log, ~/Library/Logs/KorvaneVelgar-scan.log: the
// process's standard output and standard error, rotated at every start of
// watching. Called on the main thread; the scanners keep printing to the
// streams meanwhile, and each reopen replaces a stream in place.
class ScanLog {
public:
    static constexpr int kDefaultThresholdKilobytes = 5120;
    static constexpr const char* kNewsyslog = "/usr/sbin/newsyslog";
    static constexpr const char* kLogrotate = "/usr/sbin/logrotate";

    explicit ScanLog(std::string homeDirectory);

    const std::string& path() const { return path_; }

    // Reopens standard error, then standard output, on the scan log in
    // append mode, creating its folder when missing. When the log cannot be
    // opened the streams are left where they were (and that is logged), so
    // no diagnostic is lost.
    void logAllToScanLog();

    // Writes "scanlogrotate.conf" into the temporary folder, rotates with
    // newsyslog where it exists and with logrotate otherwise, deletes the
    // configuration again and reopens the streams (unless told not to, for
    // tests that keep their own output).
    void rotateLogFile(const std::optional<QJsonValue>& thresholdPreference, const std::string& temporaryFolder,
                       bool reopenStreams = true);

    // The threshold in kilobytes: the preference when it is a number whose
    // integer value is above 0, else 5120.
    static int thresholdKilobytes(const std::optional<QJsonValue>& preference);

    // The two-line newsyslog configuration, byte for byte.
    static std::string rotationConfigText(const std::string& logPath, unsigned uid, unsigned gid, int thresholdKilobytes);

    // The same entry for logrotate: size in kB, three bzip2 archives, a new
    // log created with mode 0640 for the user, no mail, a missing log ignored.
    static std::string logrotateConfigText(const std::string& logPath, unsigned uid, unsigned gid, int thresholdKilobytes);

private:
    std::string path_;
};

} // namespace kv

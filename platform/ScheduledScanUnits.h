#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

struct Settings;

// When the scheduled scan runs, and over what.
struct ScanSchedule {
    enum class Every { Day, Week };  // a week's scan runs on Mondays
    Every every = Every::Day;
    int hour = 12;
    int minute = 30;
    std::vector<std::string> folders;  // full paths, scanned with their subfolders
};

// The scheduled scan as a systemd user timer and its service, in
// $XDG_CONFIG_HOME/systemd/user/ (~/.config when unset): korvane-scan.timer
// (Persistent=true, so a run missed while the machine was off comes at the
// next start) starts korvane-scan.service, which runs `velgarctl scan
// --scheduled FOLDER...` at idle CPU and I/O priority. `velgarctl schedule`
// writes them and the Korvane application's Scan page may too; neither
// touches any other file. The user's systemd instance is asked through
// `systemctl --user` (found on PATH).
//
// Not thread-safe: one caller's main thread.
class ScheduledScanUnits {
public:
    static constexpr const char* kTimer = "korvane-scan.timer";
    static constexpr const char* kService = "korvane-scan.service";

    ScheduledScanUnits();

    const std::string& folder() const { return folder_; }
    std::string timerPath() const { return folder_ + "/" + kTimer; }
    std::string servicePath() const { return folder_ + "/" + kService; }

    static std::string timerText(const ScanSchedule& schedule);
    // The service for the velgarctl at velgarctlPath (absolute).
    static std::string serviceText(const std::string& velgarctlPath, const std::vector<std::string>& folders);
    // One argument of an Exec line, in double quotes: a backslash, a quote,
    // "%" and "$" escaped as systemd reads them, and every byte outside
    // printable ASCII as \xNN, so a name of any bytes comes out as it was.
    static std::string execArgument(std::string_view argument);

    // Writes both units atomically (an up-to-date one is left as it is),
    // creating the folder when it is missing.
    bool install(const ScanSchedule& schedule, const std::string& velgarctlPath, std::string* error) const;
    // Removes both; *removed tells whether there was any.
    bool remove(bool* removed, std::string* error) const;

    // What `velgarctl schedule` and the Scan page do: install() the units,
    // have the user's instance read them and start the timer; or stop and
    // disable the timer, remove() both and have the instance forget them.
    // False, with *error for the user, when a step failed.
    bool turnOn(const ScanSchedule& schedule, const std::string& velgarctlPath, std::string* error) const;
    bool turnOff(bool* removed, std::string* error) const;

    // The schedule of the timer written here, read back from it; nothing
    // when there is none (or it is not one of ours). Its folders are left
    // empty.
    std::optional<ScanSchedule> current() const;

    // What a schedule scans when no folder is named: the watched folders,
    // else the home folder.
    static std::vector<std::string> defaultFolders(const Settings& settings);

    // Whether a systemd instance of the user's answers `systemctl --user`.
    static bool userManagerRuns();
    // Runs `systemctl --user ARGUMENTS...`; true for exit status 0, with
    // what it printed in *output.
    static bool systemctl(const std::vector<std::string>& arguments, std::string* output);

private:
    std::string folder_;
};

} // namespace kv

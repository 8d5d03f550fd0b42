#include "platform/ScheduledScanUnits.h"

#include "platform/ChildProcess.h"
#include "platform/Paths.h"
#include "platform/Settings.h"

#include <QSaveFile>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace kv {
namespace {

std::string fileContents(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

bool writeUnit(const std::string& path, const std::string& contents, std::string* error)
{
    if (isRegularFile(path) && fileContents(path) == contents)
        return true;
    QSaveFile file(QString::fromStdString(path));
    if (file.open(QIODevice::WriteOnly) &&
        file.write(contents.data(), static_cast<qint64>(contents.size())) == static_cast<qint64>(contents.size()) &&
        file.commit())
        return true;
    *error = "cannot write " + path + ": " + file.errorString().toStdString();
    return false;
}

} // namespace

ScheduledScanUnits::ScheduledScanUnits() : folder_(joinPath(configHome(), "systemd/user")) {}

std::string ScheduledScanUnits::execArgument(std::string_view argument)
{
    std::string quoted = "\"";
    for (const char c : argument) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\' || c == '"') {
            quoted += '\\';
            quoted += c;
        } else if (c == '%' || c == '$') {
            quoted += c;  // "%%" is a percent sign, "$$" a dollar sign
            quoted += c;
        } else if (byte < 0x20 || byte >= 0x7f) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            quoted += escaped;
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

std::string ScheduledScanUnits::timerText(const ScanSchedule& schedule)
{
    char time[8];
    std::snprintf(time, sizeof time, "%02d:%02d", schedule.hour, schedule.minute);
    const bool weekly = schedule.every == ScanSchedule::Every::Week;
    return std::string("# Written by velgarctl schedule; `velgarctl schedule off` removes it.\n"
                       "[Unit]\n"
                       "Description=Korvane Velgar virus scan, ") +
           (weekly ? "every Monday" : "every day") + " at " + time +
           "\n"
           "\n"
           "[Timer]\n"
           "OnCalendar=" +
           (weekly ? "Mon " : "") + "*-*-* " + time +
           ":00\n"
           "Persistent=true\n"
           "Unit=" +
           kService +
           "\n"
           "\n"
           "[Install]\n"
           "WantedBy=timers.target\n";
}

std::string ScheduledScanUnits::serviceText(const std::string& velgarctlPath, const std::vector<std::string>& folders)
{
    std::string command = execArgument(velgarctlPath) + " scan --scheduled --";
    for (const std::string& folder : folders)
        command += " " + execArgument(folder);
    return "# Written by velgarctl schedule; `velgarctl schedule off` removes it.\n"
           "[Unit]\n"
           "Description=Korvane Velgar scheduled virus scan\n"
           "\n"
           "[Service]\n"
           "Type=oneshot\n"
           "ExecStart=" +
           command +
           "\n"
           // Found files end the scan with status 1: the scan itself did its work.
           "SuccessExitStatus=1\n"
           "Nice=19\n"
           "CPUSchedulingPolicy=idle\n"
           "IOSchedulingClass=idle\n";
}

bool ScheduledScanUnits::install(const ScanSchedule& schedule, const std::string& velgarctlPath,
                                 std::string* error) const
{
    if (!makeDirectories(folder_, 0700)) {
        *error = "cannot create " + folder_ + ": " + std::strerror(errno);
        return false;
    }
    return writeUnit(servicePath(), serviceText(velgarctlPath, schedule.folders), error) &&
           writeUnit(timerPath(), timerText(schedule), error);
}

bool ScheduledScanUnits::remove(bool* removed, std::string* error) const
{
    *removed = false;
    for (const std::string& path : {timerPath(), servicePath()}) {
        if (::unlink(path.c_str()) == 0) {
            *removed = true;
        } else if (errno != ENOENT) {
            *error = "cannot remove " + path + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

bool ScheduledScanUnits::turnOn(const ScanSchedule& schedule, const std::string& velgarctlPath,
                                std::string* error) const
{
    if (!install(schedule, velgarctlPath, error))
        return false;
    std::string output;
    if (systemctl({"daemon-reload"}, &output) && systemctl({"enable", "--now", kTimer}, &output))
        return true;
    *error = "systemctl --user could not start " + std::string(kTimer) + ": " + output;
    return false;
}

bool ScheduledScanUnits::turnOff(bool* removed, std::string* error) const
{
    std::string output;
    systemctl({"disable", "--now", kTimer}, &output);
    if (!remove(removed, error))
        return false;
    systemctl({"daemon-reload"}, &output);
    return true;
}

std::optional<ScanSchedule> ScheduledScanUnits::current() const
{
    const std::string text = fileContents(timerPath());
    const std::string key = "\nOnCalendar=";
    const size_t at = text.find(key);
    if (at == std::string::npos)
        return std::nullopt;
    std::string calendar = text.substr(at + key.size(), text.find('\n', at + 1) - at - key.size());
    ScanSchedule schedule;
    if (calendar.starts_with("Mon ")) {
        schedule.every = ScanSchedule::Every::Week;
        calendar.erase(0, 4);
    }
    if (std::sscanf(calendar.c_str(), "*-*-* %2d:%2d:00", &schedule.hour, &schedule.minute) != 2)
        return std::nullopt;
    return schedule;
}

std::vector<std::string> ScheduledScanUnits::defaultFolders(const Settings& settings)
{
    std::vector<std::string> folders;
    for (const WatchedFolder& watched : settings.watchedFolders)
        folders.push_back(watched.path);
    if (folders.empty())
        folders.push_back(homeDirectory());
    return folders;
}

bool ScheduledScanUnits::userManagerRuns() { return runAndWait({"systemctl", "--user", "show-environment"}) == 0; }

bool ScheduledScanUnits::systemctl(const std::vector<std::string>& arguments, std::string* output)
{
    std::vector<std::string> argv{"systemctl", "--user"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::optional<ChildProcess> child = ChildProcess::spawn(argv, ChildProcess::Output::Pipe);
    if (!child) {
        *output = "systemctl cannot be run";
        return false;
    }
    *output = child->readAll();
    return child->wait() == 0;
}

} // namespace kv

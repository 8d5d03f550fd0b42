#include "tools/ScheduleCommand.h"

#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/ScheduledScanUnits.h"
#include "platform/Settings.h"
#include "tools/CommandStatus.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

namespace kv {
namespace {

constexpr const char* kUsage = "usage: velgarctl schedule (daily | weekly | off) [--at HH:MM] [--folder DIR]...";

bool parseTime(const std::string& text, ScanSchedule* schedule)
{
    int hour = -1, minute = -1, length = 0;
    if (text.size() != 5 || std::sscanf(text.c_str(), "%2d:%2d%n", &hour, &minute, &length) != 2 || length != 5)
        return false;
    schedule->hour = hour;
    schedule->minute = minute;
    return text[0] >= '0' && text[3] >= '0' && hour >= 0 && hour <= 23 && minute >= 0 && minute <= 59;
}

// The velgarctl that is running: the service runs it again.
std::string ownPath()
{
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

} // namespace

int ScheduleCommand::run(const std::vector<std::string>& arguments)
{
    if (arguments.empty() || (arguments[0] != "daily" && arguments[0] != "weekly" && arguments[0] != "off"))
        return reportBadInput(kUsage);
    const bool off = arguments[0] == "off";
    ScanSchedule schedule;
    schedule.every = arguments[0] == "weekly" ? ScanSchedule::Every::Week : ScanSchedule::Every::Day;
    for (size_t i = 1; i < arguments.size(); ++i) {
        const std::string& option = arguments[i];
        if (off || (option != "--at" && option != "--folder") || i + 1 == arguments.size())
            return reportBadInput(kUsage);
        const std::string& value = arguments[++i];
        if (option == "--at" && !parseTime(value, &schedule))
            return reportBadInput("\"" + value + "\" is not a time of day (HH:MM, 00:00 to 23:59)");
        if (option == "--folder") {
            char here[PATH_MAX];
            const std::string folder = value.starts_with('/') || !::getcwd(here, sizeof here) ? value : joinPath(here, value);
            struct stat info{};
            if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
                return reportBadInput(displayText(folder) + " is not a folder");
            schedule.folders.push_back(folder);
        }
    }
    if (!off && schedule.folders.empty()) {
        JsonPreferences preferences(kAgentDomain);
        preferences.addSuite(kMainAppDomain);
        preferences.synchronize();
        schedule.folders = ScheduledScanUnits::defaultFolders(*Settings::load(preferences));
    }

    if (!ScheduledScanUnits::userManagerRuns())
        return reportFailure("no systemd instance of yours answers here (systemctl --user), so nothing can be "
                             "scheduled; nothing was changed");
    const ScheduledScanUnits units;
    std::string error;
    if (off) {
        bool removed = false;
        if (!units.turnOff(&removed, &error))
            return reportFailure(error);
        printLine(removed ? "The scheduled scan is off." : "No scan was scheduled.");
        return kExitSuccess;
    }
    if (!units.turnOn(schedule, ownPath(), &error))
        return reportFailure(error);
    char time[8];
    std::snprintf(time, sizeof time, "%02d:%02d", schedule.hour, schedule.minute);
    std::string folders;
    for (const std::string& folder : schedule.folders)
        folders += (folders.empty() ? "" : ", ") + displayText(folder);
    printLine(std::string("Scheduled: ") + (schedule.every == ScanSchedule::Every::Week ? "every Monday" : "every day") +
              " at " + time + ", scanning " + folders + " (" + units.timerPath() + ")");
    return kExitSuccess;
}

} // namespace kv

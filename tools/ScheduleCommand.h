#pragma once

#include <string>
#include <vector>

namespace kv {

// `velgarctl schedule (daily | weekly | off) [--at HH:MM] [--folder DIR]...`:
// writes the scheduled scan's systemd user timer and service
// (ScheduledScanUnits) and enables the timer, or (off) disables and removes
// both. The folders are those given, else the watched folders
// ("VelgarFolderArray"), else the home folder; the time 12:30 unless given,
// a weekly scan on Mondays. Without a systemd instance of the user's it says
// so and changes nothing. Main thread.
class ScheduleCommand {
public:
    // arguments: everything after "schedule". Returns the exit status.
    int run(const std::vector<std::string>& arguments);
};

} // namespace kv

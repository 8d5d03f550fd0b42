#pragma once

#include <sys/types.h>

#include <mutex>
#include <set>

namespace kv {

// The clamdscan clients the agent's scanners run now, so that an abort
// kills only ours: a scan the user runs by hand goes on. Any thread; a
// client leaves before it is reaped, so a pid here is never another
// process's.
class ScanClients {
public:
    void add(pid_t pid);
    void remove(pid_t pid);
    void killAll();

private:
    std::mutex mutex_;
    std::set<pid_t> pids_;  // guarded by mutex_
};

} // namespace kv

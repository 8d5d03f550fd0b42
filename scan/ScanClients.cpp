#include "scan/ScanClients.h"

#include <signal.h>

namespace kv {

void ScanClients::add(pid_t pid)
{
    std::lock_guard<std::mutex> guard(mutex_);
    pids_.insert(pid);
}

void ScanClients::remove(pid_t pid)
{
    std::lock_guard<std::mutex> guard(mutex_);
    pids_.erase(pid);
}

void ScanClients::killAll()
{
    std::lock_guard<std::mutex> guard(mutex_);
    for (const pid_t pid : pids_)
        ::kill(pid, SIGKILL);
}

} // namespace kv

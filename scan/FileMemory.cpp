#include "scan/FileMemory.h"

namespace kv {

bool FileMemory::remember(const FileIdentity& identity)
{
    std::lock_guard<std::mutex> held(mutex_);
    if (!known_.insert(identity).second)
        return false;
    arrivals_.push_back(identity);
    while (arrivals_.size() > capacity_) {
        known_.erase(arrivals_.front());
        arrivals_.pop_front();
    }
    return true;
}

} // namespace kv

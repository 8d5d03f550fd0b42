#include "scan/ScanActivity.h"

namespace kv {

ScanActivity::Busy::Busy(ScanActivity& activity, Kind kind) : activity_(activity), kind_(kind)
{
    activity_.change(kind_, 1);
}

ScanActivity::Busy::~Busy() { activity_.change(kind_, -1); }

void ScanActivity::change(Kind kind, std::int32_t delta)
{
    throbberLock_.changeAndBroadcast([&] {
        // The update count first: the indicator, woken by the total, must
        // find an update already counted.
        if (kind == Kind::Update)
            updates_ += delta;
        scannerCount_ += delta;
    });
}

bool ScanActivity::waitUntilBusy(const std::atomic<bool>& stopRequested)
{
    throbberLock_.waitUntil([&] { return stopRequested.load() || scannerCount_.load() > 0; });
    return !stopRequested.load();
}

} // namespace kv

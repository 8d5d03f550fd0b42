#pragma once

#include <functional>
#include <string>

namespace kv {

// Volumes that are mounted while the agent watches.
//
// Main thread only; the handler runs there.
class VolumeEvents {
public:
    // The mount point of the new volume, without a trailing "/".
    using Handler = std::function<void(const std::string& mountPoint)>;

    virtual ~VolumeEvents() = default;

    // From now until removeObserver(), calls the handler once for each volume
    // mounted directly under a volume root. Mounts made before this call or
    // after removeObserver() are never reported. Replaces an earlier
    // observer. False (logged) when mounts cannot be observed.
    virtual bool observeMounts(Handler handler) = 0;
    virtual void removeObserver() = 0;
};

} // namespace kv

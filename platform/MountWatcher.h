#pragma once

#include "platform/UniqueFd.h"
#include "platform/VolumeEvents.h"

#include <QObject>

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kv {

// Volumes mounted while the agent watches, from the kernel's mount table. A
// thread of its own waits in poll() on /proc/self/mountinfo, which the kernel
// marks (POLLPRI) at every change of the table, and on an eventfd that ends
// the wait: it uses no CPU while nothing is mounted. At each change it reads
// the table again and reports every mount it has not seen before (by mount
// id, so a volume mounted again at the same place counts as new) whose mount
// point lies directly under a volume root, such as /media/<user>/STICK.
//
// Threads: observeMounts() and removeObserver() run on the main thread, and
// so does the handler (the mount thread hands each report to the Qt event
// loop). The mount thread owns the table and the ids it has read; the main
// thread owns handler_ and generation_.
class MountWatcher : public QObject, public VolumeEvents {
    Q_OBJECT
public:
    static constexpr const char* kMountTable = "/proc/self/mountinfo";

    struct Mount {
        uint64_t id = 0;
        std::string mountPoint;
    };

    explicit MountWatcher(QObject* parent = nullptr);
    ~MountWatcher() override;

    bool observeMounts(Handler handler) override;
    void removeObserver() override;

    // The mounts of mountinfo text: the id (field 1) and the mount point
    // (field 5), whose octal escapes (\040 for a blank) are decoded. Lines
    // that do not parse are skipped.
    static std::vector<Mount> parseMountTable(std::string_view text);

private:
    void watchTable(UniqueFd table, int stopFd, std::set<uint64_t> known, uint64_t generation);
    void report(const std::string& mountPoint, uint64_t generation);

    Handler handler_;
    // Counts observations; a report that reaches the main thread after its
    // observation has ended carries an old number and is dropped.
    uint64_t generation_ = 0;
    UniqueFd stop_;  // eventfd, written to end the mount thread; closed after the join
    std::thread thread_;
};

} // namespace kv

#include "platform/MountWatcher.h"

#include "platform/Log.h"
#include "platform/Paths.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

namespace kv {
namespace {

// The whole table, read from its start: the kernel builds it anew for each
// read from offset 0.
std::optional<std::string> readTable(int fd)
{
    if (::lseek(fd, 0, SEEK_SET) < 0)
        return std::nullopt;
    std::string text;
    char buffer[16384];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return text;
        text.append(buffer, static_cast<size_t>(count));
    }
}

std::string decodeOctalEscapes(std::string_view field)
{
    std::string decoded;
    decoded.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const std::string_view digits = field.substr(i + 1, 3);
            if (digits.find_first_not_of("01234567") == std::string_view::npos) {
                decoded += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + (digits[2] - '0'));
                i += 3;
                continue;
            }
        }
        decoded += field[i];
    }
    return decoded;
}

std::set<uint64_t> idsOf(const std::vector<MountWatcher::Mount>& mounts)
{
    std::set<uint64_t> ids;
    for (const MountWatcher::Mount& mount : mounts)
        ids.insert(mount.id);
    return ids;
}

} // namespace

MountWatcher::MountWatcher(QObject* parent) : QObject(parent) {}

MountWatcher::~MountWatcher() { removeObserver(); }

std::vector<MountWatcher::Mount> MountWatcher::parseMountTable(std::string_view text)
{
    std::vector<Mount> mounts;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);

        // "36 35 98:0 /root /mount/point options ..."
        std::string_view fields[5];
        size_t found = 0;
        while (found < 5 && !line.empty()) {
            const size_t blank = line.find(' ');
            fields[found++] = line.substr(0, blank);
            line = blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
        }
        Mount mount;
        if (found < 5 || fields[4].empty() ||
            std::from_chars(fields[0].data(), fields[0].data() + fields[0].size(), mount.id).ec != std::errc())
            continue;
        mount.mountPoint = decodeOctalEscapes(fields[4]);
        mounts.push_back(std::move(mount));
    }
    return mounts;
}

bool MountWatcher::observeMounts(Handler handler)
{
    removeObserver();

    // The table as it is now is the baseline, read before this returns: a
    // volume mounted a moment after the start of watching is still new.
    UniqueFd table(::open(kMountTable, O_RDONLY | O_CLOEXEC));
    const std::optional<std::string> text = table ? readTable(table.get()) : std::nullopt;
    UniqueFd stop(::eventfd(0, EFD_CLOEXEC));
    if (!text || !stop) {
        nsLogf("Mounted volumes cannot be noticed: %s cannot be read (%s)", kMountTable, std::strerror(errno));
        return false;
    }

    handler_ = std::move(handler);
    ++generation_;
    stop_ = std::move(stop);
    thread_ = std::thread(&MountWatcher::watchTable, this, std::move(table), stop_.get(), idsOf(parseMountTable(*text)),
                          generation_);
    return true;
}

void MountWatcher::removeObserver()
{
    if (thread_.joinable()) {
        const uint64_t one = 1;
        while (::write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
        }
        thread_.join();
    }
    stop_.reset();
    handler_ = {};
    ++generation_;
}

void MountWatcher::watchTable(UniqueFd table, int stopFd, std::set<uint64_t> known, uint64_t generation)
{
    for (;;) {
        pollfd waits[2] = {{table.get(), POLLPRI, 0}, {stopFd, POLLIN, 0}};
        if (::poll(waits, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            nsLogf("Watching the mount table failed: %s", std::strerror(errno));
            return;
        }
        if (waits[1].revents != 0)
            return;
        if ((waits[0].revents & (POLLPRI | POLLERR)) == 0)
            continue;

        const std::optional<std::string> text = readTable(table.get());
        if (!text) {
            nsLogf("Reading the mount table failed: %s", std::strerror(errno));
            return;
        }
        const std::vector<Mount> mounts = parseMountTable(*text);
        for (const Mount& mount : mounts) {
            if (!known.contains(mount.id) && isDirectlyUnderVolumeRoot(mount.mountPoint))
                report(mount.mountPoint, generation);
        }
        // Ids of unmounted volumes go, so the table of known ids never grows
        // beyond the mounts of the moment.
        known = idsOf(mounts);
    }
}

void MountWatcher::report(const std::string& mountPoint, uint64_t generation)
{
    QMetaObject::invokeMethod(
        this,
        [this, mountPoint, generation] {
            if (generation == generation_ && handler_)
                handler_(mountPoint);
        },
        Qt::QueuedConnection);
}

} // namespace kv

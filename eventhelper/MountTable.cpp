#include "eventhelper/MountTable.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

namespace kv::gfs {
namespace {

std::vector<std::string_view> splitFields(std::string_view line)
{
    std::vector<std::string_view> fields;
    size_t start = 0;
    while (start < line.size()) {
        const size_t end = std::min(line.find(' ', start), line.size());
        if (end > start)
            fields.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    return fields;
}

} // namespace

std::string MountTable::Entry::key() const
{
    return std::to_string(mountId) + ' ' + device + ' ' + root + ' ' + mountPoint;
}

std::string MountTable::decodeField(std::string_view field)
{
    std::string decoded;
    decoded.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        const auto isOctal = [&](size_t at) { return at < field.size() && field[at] >= '0' && field[at] <= '7'; };
        if (field[i] == '\\' && isOctal(i + 1) && isOctal(i + 2) && isOctal(i + 3)) {
            decoded += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
            i += 3;
        } else {
            decoded += field[i];
        }
    }
    return decoded;
}

std::vector<MountTable::Entry> MountTable::parse(std::string_view mountinfo)
{
    // id parent major:minor root mount-point options [optional...] - type source super-options
    std::vector<Entry> entries;
    size_t start = 0;
    while (start < mountinfo.size()) {
        const size_t end = std::min(mountinfo.find('\n', start), mountinfo.size());
        const std::vector<std::string_view> fields = splitFields(mountinfo.substr(start, end - start));
        start = end + 1;

        const auto separator = std::find(fields.begin(), fields.end(), std::string_view("-"));
        if (fields.size() < 6 || separator == fields.end() || separator - fields.begin() < 6 ||
            separator + 1 == fields.end())
            continue;
        Entry entry;
        char* idEnd = nullptr;
        const std::string id(fields[0]);
        entry.mountId = static_cast<int>(std::strtol(id.c_str(), &idEnd, 10));
        if (idEnd == id.c_str() || *idEnd != '\0')
            continue;
        entry.device = std::string(fields[2]);
        entry.root = decodeField(fields[3]);
        entry.mountPoint = decodeField(fields[4]);
        entry.fsType = decodeField(*(separator + 1));
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::optional<std::string> MountTable::read(int fd)
{
    if (::lseek(fd, 0, SEEK_SET) < 0)
        return std::nullopt;
    std::string text;
    std::array<char, 16384> buffer;
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            return text;
        text.append(buffer.data(), static_cast<size_t>(n));
    }
}

bool MountTable::holdsUserFiles(const Entry& entry)
{
    static constexpr std::string_view kKernelFileSystems[] = {
        "autofs",   "binfmt_misc", "bpf",     "cgroup",   "cgroup2", "configfs",   "debugfs",
        "devpts",   "devtmpfs",    "efivarfs", "fusectl", "hugetlbfs", "mqueue",   "nsfs",
        "proc",     "pstore",      "rpc_pipefs", "securityfs", "selinuxfs", "sysfs", "tracefs",
    };
    return std::find(std::begin(kKernelFileSystems), std::end(kKernelFileSystems), entry.fsType) ==
           std::end(kKernelFileSystems);
}

} // namespace kv::gfs

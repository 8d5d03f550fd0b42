#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::gfs {

// The mounts of our mount namespace, as /proc/self/mountinfo lists them.
class MountTable {
public:
    struct Entry {
        int mountId = -1;
        std::string device;      // "major:minor" of the file system
        std::string root;        // the folder of the file system mounted here
        std::string mountPoint;  // where it is mounted, escapes decoded
        std::string fsType;

        // Names this mount as one object: a mount id the kernel hands out
        // again later comes with another device or place.
        std::string key() const;
    };

    // Parses the text of a mountinfo file. Lines that do not parse are
    // skipped.
    static std::vector<Entry> parse(std::string_view mountinfo);

    // Reads the whole mountinfo file behind fd from its start.
    static std::optional<std::string> read(int fd);

    // Undoes the octal escapes ("\040" for a blank) of a mountinfo field.
    static std::string decodeField(std::string_view field);

    // False for the kernel's own file systems (proc, sysfs, cgroup, ...),
    // which never hold a user's files and are not worth a mark.
    static bool holdsUserFiles(const Entry& entry);
};

} // namespace kv::gfs

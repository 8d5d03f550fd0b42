#pragma once

#include "eventhelper/HelperOutput.h"
#include "eventhelper/MountTable.h"
#include "eventhelper/Privileges.h"
#include "eventhelper/RecordWriter.h"
#include "platform/UniqueFd.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace kv::gfs {

// gfslogger's window on the kernel: fanotify over every mounted file system,
// including those mounted while it runs, turned into the records of
// HelperOutput.h.
//
// Two groups. The main one marks whole file systems and names objects by
// file handles, so it sees, from every mount of the file system, files
// created, closed after writing, moved in or whose attributes changed, and
// folders moved in together with where they came from (FAN_RENAME; a kernel
// older than 5.17 says only where they went). A folder whose path is too
// long to have is reported as unresolved, with the deepest folder above it
// that has one. File systems that cannot encode file handles (some FUSE
// mounts, btrfs subvolumes) are marked mount by mount in a second group,
// which hands over an open file for each file closed after writing.
//
// Only what the real user may list is reported (Privileges).
//
// Single-threaded: main() polls the three descriptors and calls in.
class FanotifyWatch {
public:
    enum class ReadResult { Ok, OutputClosed, Unusable };

    explicit FanotifyWatch(const Privileges& privileges);
    ~FanotifyWatch();

    // Creates both groups, with the kernel's bounded queues, and opens the
    // mount table.
    bool open(std::string* message);

    // Marks every mounted file system that holds user files and is not
    // marked yet. main() calls it at start and whenever the mount table
    // changes (the table's descriptor polls POLLPRI).
    void markMounts();

    int handleGroup() const { return handleGroup_.get(); }
    int descriptorGroup() const { return descriptorGroup_.get(); }
    int mountTable() const { return mountTable_.get(); }

    // Each reads one batch of waiting events from its group and adds the
    // records of every event the real user may know of to output.
    ReadResult readHandleEvents(RecordWriter& output);
    ReadResult readDescriptorEvents(RecordWriter& output);

    // What one mount of the table became.
    struct MarkedMount {
        enum Kind { None, WholeFileSystem, MountOnly } kind = None;
        std::uint64_t fsid = 0;
        std::string mountPoint;
        bool mountsFileSystemRoot = false;
    };

private:
    MarkedMount mark(const MountTable::Entry& entry);
    void reportOnce(const std::string& mountPoint, const char* what, int error);

    const Privileges& privileges_;
    UniqueFd handleGroup_;
    UniqueFd descriptorGroup_;
    UniqueFd mountTable_;
    // Every mount of the current table that holds user files, by key.
    std::unordered_map<std::string, MarkedMount> marked_;
    // Where each file system marked whole is mounted, preferring a mount of
    // its own root, so that a folder's path comes out the way users see it.
    std::unordered_map<std::uint64_t, std::string> mountPointOfFsid_;
    std::unordered_map<std::string, int> reported_;
    // Whether the kernel reports renames with both places (FAN_RENAME, Linux
    // 5.17); false once it has refused the flag.
    bool renameEvents_ = true;
    std::unique_ptr<char[]> events_;
};

} // namespace kv::gfs

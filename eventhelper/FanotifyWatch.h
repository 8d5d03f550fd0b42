#pragma once

#include "eventhelper/FolderMarks.h"
#include "eventhelper/HelperOutput.h"
#include "eventhelper/MountTable.h"
#include "eventhelper/OpenHolder.h"
#include "eventhelper/Privileges.h"
#include "eventhelper/RecordWriter.h"
#include "eventhelper/WatchListInput.h"
#include "platform/UniqueFd.h"

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace kv::gfs {

// gfslogger's window on the kernel: fanotify marks on the folders the agent
// watches (FolderMarks decides which), turned into the records of
// HelperOutput.h.
//
// Two groups. The main one marks folders and names objects by file handles:
// it sees files created, closed after writing, moved in or whose attributes
// changed in each marked folder, and folders made or moved in, with where
// they came from when that place is watched too (FAN_RENAME; a kernel older
// than 5.17 says only where they went). A folder whose path is too long to
// have is reported as unresolved, with the deepest folder above it that has
// one. File systems that cannot encode file handles (some FUSE mounts,
// btrfs subvolumes on older kernels) are marked mount by mount in a second
// group, which hands over an open file for each file closed after writing.
//
// Only what the real user may list is marked and reported (Privileges).
// Marks are made afresh in new groups when the list changes, when the
// kernel lost events (a folder made meanwhile went unmarked), and when
// volumes are mounted or unmounted at or below watched folders; the old
// groups' last events are read before they are closed.
//
// Single-threaded: main() polls the descriptors and calls in. The group
// descriptors change when marks are made afresh: poll the current ones.
class FanotifyWatch : private FolderMarks::Target {
public:
    enum class ReadResult { Ok, OutputClosed, Unusable };

    // holder: the link to the OpenHolder, or one not connected.
    FanotifyWatch(const Privileges& privileges, OpenHolder::Link& holder);
    ~FanotifyWatch() override;

    // Creates both groups, with the kernel's bounded queues, and opens the
    // mount table.
    bool open(std::string* message);

    // The agent's list: its folders are marked from now on, and no others.
    // With holdSeconds, the user's own among them are also handed to the
    // holder, which holds opens there for at most that long.
    void setWatchList(std::vector<WatchedFolder> list, unsigned holdSeconds, RecordWriter& output);

    // main() calls it whenever the mount table changes (the table's
    // descriptor polls POLLPRI).
    void mountsChanged(RecordWriter& output);

    // Whether a watched folder is missing and looked for again; main()
    // then calls retryMissingFolders() every kMissingFolderRetryMs.
    static constexpr int kMissingFolderRetryMs = 2000;
    bool waitsForMissingFolders() const { return marks_.hasMissing(); }
    void retryMissingFolders(RecordWriter& output) { marks_.retryMissing(output); }

    int handleGroup() const { return handleGroup_.get(); }
    int descriptorGroup() const { return descriptorGroup_.get(); }
    int mountTable() const { return mountTable_.get(); }

    // Each reads one batch of waiting events from its group and adds the
    // records of every event the real user may know of to output.
    ReadResult readHandleEvents(RecordWriter& output);
    ReadResult readDescriptorEvents(RecordWriter& output);

private:
    FolderMarks::Marked mark(int folderFd, bool root, bool nameable) override;
    void unmark(int folderFd) override;

    bool openGroups(UniqueFd* handles, UniqueFd* descriptors, std::string* message);
    void markAll(RecordWriter& output);
    std::set<std::string> mountsAtOrBelowWatched() const;
    void findMountPoints();
    // Reads one batch from a group of each kind; *read says whether any
    // event was waiting.
    ReadResult readHandleEvents(int group, RecordWriter& output, bool* read);
    ReadResult readDescriptorEvents(int group, RecordWriter& output, bool* read);
    void reportOnce(int folderFd, const char* what, int error);
    // The holder's link failed: said once, and nothing is held any more.
    void holderFailed();

    const Privileges& privileges_;
    OpenHolder::Link& holder_;
    unsigned holdSeconds_ = 0;
    bool holderGone_ = false;  // said once
    FolderMarks marks_;
    std::vector<WatchedFolder> list_;
    UniqueFd handleGroup_;
    UniqueFd descriptorGroup_;
    UniqueFd mountTable_;
    // Whether the groups hold marks of an earlier list.
    bool marked_ = false;
    // The handle group lost events since its marks were made.
    bool eventsLost_ = false;
    // The mount table as last read, and the mounts in it at or below a
    // watched folder when folders were last marked, by key.
    std::vector<MountTable::Entry> mounts_;
    std::set<std::string> mountsAtOrBelowWatched_;
    // Where each file system with marked folders is mounted, so that a
    // folder's handle is opened through the mount its path goes through.
    std::unordered_map<std::uint64_t, std::string> mountPointOfFsid_;
    std::unordered_map<std::string, int> reported_;
    // Whether the kernel reports renames with both places (FAN_RENAME, Linux
    // 5.17); false once it has refused the flag.
    bool renameEvents_ = true;
    // Whether each rename event names the moved folder too (Linux 5.17);
    // false once fanotify_init has refused the flag.
    bool movedObjects_ = true;
    std::unique_ptr<char[]> events_;
};

} // namespace kv::gfs

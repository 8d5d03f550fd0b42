#pragma once

#include "eventhelper/Privileges.h"
#include "eventhelper/RecordWriter.h"
#include "eventhelper/WatchListInput.h"
#include "platform/UniqueFd.h"

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kv::gfs {

// Which folders gfslogger marks, and what it knows of its marks: each folder
// of the agent's watch list and, where the list watches a folder with its
// subfolders, every folder below it, those made or moved in later included.
// The kernel then queues the events of these folders alone: other users'
// file activity elsewhere on the machine never reaches the helper.
//
//  - Only folders the real user may list are marked (Privileges), reached
//    from a watched folder without following links; the watched folder
//    itself may be a link. A watched file stands for the folder holding it.
//  - Trees are marked nearest first, level by level, and at most
//    kMostFolders folders in all (a neighbour may ask to watch "/" with its
//    subfolders); at the bound a diagnostic says where watching stops.
//  - A volume mounted below a watched folder is marked as the walk passes
//    its mount point. For one mounted later, the owner marks everything
//    afresh (markAll), having seen it below isAtOrBelowWatched().
//  - A folder made in a watched tree is marked, then listed: whatever got
//    into it before its mark is reported as made (its paths).
//  - A folder removed is forgotten (the kernel drops its mark with it); one
//    moved out of the watched trees loses its marks, and so do the folders
//    below it. A watched folder that is missing, removed or moved away is
//    looked for again (retryMissing), and reported as arrived once a folder
//    is back at its path, since nothing watched it meanwhile.
//
// How a folder is marked, in which fanotify groups and for which events, is
// the Target's: another kind of group (one that holds opens until their
// verdict, say) joins by being marked in Target::mark too. Folders are named
// by key (folderKey): the id of their file system and their file handle, as
// fanotify names the folder of an event, so an event's folder is found
// without a path.
//
// Single-threaded, like the rest of the helper.
class FolderMarks {
public:
    // A user's documents, downloads or desktop hold a few thousand folders;
    // this many pins some tens of megabytes of kernel memory at most.
    static constexpr size_t kMostFolders = 16384;

    enum class Marked {
        Yes,         // the folder itself is marked
        WholeMount,  // its file system names nothing by handle: its whole mount
                     // is watched instead, and nothing below it needs a mark
        No,          // refused; the Target has said why
        Full,        // the kernel's own bound on marks is reached
    };

    class Target {
    public:
        virtual ~Target() = default;
        // Marks the folder open as folderFd (for reading) in every group;
        // root for a folder of the list itself. nameable is false for a
        // folder that has no key.
        virtual Marked mark(int folderFd, bool root, bool nameable) = 0;
        virtual void unmark(int folderFd) = 0;
    };

    FolderMarks(const Privileges& privileges, Target& target) : privileges_(privileges), target_(target) {}

    // Forgets every folder and marks the list's afresh. The Target's groups
    // hold no marks by then.
    void markAll(const std::vector<WatchedFolder>& list, RecordWriter& output);

    // A folder name came to be in the folder parentKey names, open as
    // parentFd: made there (created), or moved in. It is marked, with the
    // folders below it, when that folder's subfolders are watched. path is
    // its path, "" when it has none.
    void folderArrived(const std::string& parentKey, int parentFd, const char* name, const std::string& path,
                       bool created, RecordWriter& output);
    // A marked folder (key, open as folderFd) was moved. Unless its new
    // place is in a watched tree, it loses its marks with those below it.
    void folderMoved(const std::string& key, int folderFd);
    // A marked folder was removed; the kernel has dropped its mark.
    void folderRemoved(const std::string& key);

    bool isMarked(const std::string& key) const { return folders_.contains(key); }
    bool watchesBelow(const std::string& key) const;

    // Whether path is a watched folder or lies below one watched with its
    // subfolders, by the paths of the folders marked for them.
    bool isAtOrBelowWatched(const std::string& path) const;

    bool hasMissing() const;
    void retryMissing(RecordWriter& output);

    // The mount through which the folders of each file system were marked,
    // by file-system id (a key's first eight bytes), for opening handles.
    const std::unordered_map<std::uint64_t, int>& mountOfFileSystem() const { return mountOfFileSystem_; }

private:
    struct Folder {
        bool tree = false;  // the folders below it are watched too
        bool root = false;  // marked for an entry of the list
    };
    struct Root {
        WatchedFolder entry;
        std::string path;  // the folder marked for it, as the kernel names it
        std::string key;   // "" while it has none
        bool missing = false;
    };
    // One folder to mark: open already, or name in parent.
    struct Visit {
        UniqueFd folder;
        std::shared_ptr<const UniqueFd> parent;
        std::string name;
        std::string path;  // "" when unknown or too long
        bool tree = false;
        bool root = false;
        bool reportFiles = false;
    };

    bool visitRoot(Root& root, std::deque<Visit>& visits);
    void walk(std::deque<Visit> visits, RecordWriter& output);
    void listInto(const Visit& visit, std::shared_ptr<const UniqueFd> folder, std::deque<Visit>& visits,
                  RecordWriter& output);
    void unmarkTree(UniqueFd top);
    void reportFull(const std::string& where, bool byKernel);

    const Privileges& privileges_;
    Target& target_;
    std::vector<Root> roots_;
    std::unordered_map<std::string, Folder> folders_;
    std::unordered_map<std::uint64_t, int> mountOfFileSystem_;
    bool toldFull_ = false;  // since the last markAll
};

// A folder's key as fanotify names the folder of an event: the id of its
// file system, then its file handle.
std::string folderKey(const void* fsid, const file_handle* handle);

// The path of an open descriptor, as the kernel names it in our mount
// namespace; nothing for an object that has been deleted or lies outside
// our root, or whose path is too long to have, which sets *tooLong.
std::optional<std::string> pathOf(int fd, bool* tooLong = nullptr);

} // namespace kv::gfs

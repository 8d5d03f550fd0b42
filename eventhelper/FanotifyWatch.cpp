#include "eventhelper/FanotifyWatch.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kv::gfs {
namespace {

// One read takes thousands of events at once.
constexpr size_t kEventBufferSize = 256 * 1024;

// Whole-file-system marks: files created, closed after writing, moved in or
// changed in their attributes (made readable, say, after a scan that could
// not read them). FAN_ONDIR adds folders for every one of these events, as
// the kernel knows no per-event flag, but only folders moved in are
// reported: by FAN_RENAME, which names where they were too, or on a kernel
// without it by FAN_MOVED_TO. A file's FAN_RENAME goes unreported, as its
// FAN_MOVED_TO reports it already.
constexpr std::uint64_t kFileEvents = FAN_CREATE | FAN_MOVED_TO | FAN_CLOSE_WRITE | FAN_ATTRIB;
constexpr std::uint64_t kHandleMask = kFileEvents | FAN_ONDIR;
constexpr std::uint64_t kDescriptorMask = FAN_CLOSE_WRITE;

// Said of an event in a folder whose path is too long to have.
const std::string kPathTooLong = "its folder's path is " + std::to_string(PATH_MAX) + " bytes or longer";

std::uint64_t fsidKey(const __kernel_fsid_t& fsid)
{
    std::uint64_t key = 0;
    static_assert(sizeof key == sizeof fsid);
    std::memcpy(&key, &fsid, sizeof key);
    return key;
}

std::uint64_t fsidKey(const struct statfs& info)
{
    std::uint64_t key = 0;
    static_assert(sizeof key == sizeof info.f_fsid);
    std::memcpy(&key, &info.f_fsid, sizeof key);
    return key;
}

// The path of an open descriptor, as the kernel names it in our mount
// namespace; nothing for an object that has been deleted or lies outside
// our root, or whose path is too long to have, which sets *tooLong.
std::optional<std::string> pathOf(int fd, bool* tooLong = nullptr)
{
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char target[PATH_MAX];
    const ssize_t length = ::readlink(link, target, sizeof target);
    // The kernel names no path longer than a page: ENAMETOOLONG, or with
    // pages larger than PATH_MAX, a name that fills our buffer.
    if (tooLong)
        *tooLong = (length < 0 && errno == ENAMETOOLONG) || length == static_cast<ssize_t>(sizeof target);
    if (length <= 0 || length == static_cast<ssize_t>(sizeof target) || target[0] != '/')
        return std::nullopt;
    std::string path(target, static_cast<size_t>(length));
    static constexpr std::string_view kDeleted = " (deleted)";
    if (path.ends_with(kDeleted)) {
        struct stat info{};
        if (::fstat(fd, &info) != 0 || info.st_nlink == 0)
            return std::nullopt;
    }
    return path;
}

std::string parentFolder(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash);
}

// Tells the agent, which then scans its watched folders whole.
bool reportOverflow(RecordWriter& output)
{
    ::syslog(LOG_WARNING, "the kernel's event queue overflowed; file events were lost");
    return output.add(kQueueOverflowed);
}

// Folder paths resolved while one batch of events is handled. Kept for the
// batch only: a folder renamed later gets its new path in the next batch,
// and no mount stays pinned by our descriptors after it.
class Batch {
public:
    Batch(const std::unordered_map<std::uint64_t, std::string>& mountPoints, const Privileges& privileges)
        : mountPoints_(mountPoints), privileges_(privileges)
    {
    }

    // What the real user may learn of a folder that events name.
    struct Folder {
        enum Kind {
            Hidden,    // gone, outside our root, or not the real user's business
            Listable,  // path is the folder's
            TooLong,   // it has no path; path is the deepest folder above it that
                       // has one, or "" when the real user may not list that
        } kind = Hidden;
        std::string path;
        // For TooLong: whether the reader has been told in this batch.
        bool announced = false;
    };

    // The folder that a file handle names.
    Folder& folder(const __kernel_fsid_t& fsid, const file_handle* handle)
    {
        std::string key(reinterpret_cast<const char*>(&fsid), sizeof fsid);
        key.append(reinterpret_cast<const char*>(handle), sizeof *handle + handle->handle_bytes);
        auto [slot, inserted] = folders_.try_emplace(std::move(key));
        if (!inserted)
            return slot->second;
        const int mountFd = mountFdFor(fsidKey(fsid));
        if (mountFd < 0)
            return slot->second;
        const Privileges::Raised raised;
        UniqueFd folder(::open_by_handle_at(mountFd, const_cast<file_handle*>(handle), O_PATH | O_CLOEXEC));
        if (!folder)
            return slot->second;
        bool tooLong = false;
        std::optional<std::string> path = pathOf(folder.get(), &tooLong);
        if (path && privileges_.realUserCanList(*path)) {
            slot->second.kind = Folder::Listable;
            slot->second.path = std::move(*path);
        } else if (tooLong) {
            findNamedAncestor(folder.get(), slot->second);
        }
        return slot->second;
    }

private:
    // Walks up from a folder with no path to the first one above it that
    // has one, as long as the real user may reach the folder: it must be
    // able to pass through every folder on the way and to list the folder
    // itself, as for any other folder whose names we report.
    void findNamedAncestor(int folderFd, Folder& folder)
    {
        if (!privileges_.realUserCanList(folderFd))
            return;
        UniqueFd at;
        for (int below = folderFd;; below = at.get()) {
            at.reset(::openat(below, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!at)
                return;
            // Each step up shortens the path, and a folder that is its own
            // parent is a root, whose path is short: the walk ends.
            bool tooLong = false;
            std::optional<std::string> path = pathOf(at.get(), &tooLong);
            if (path) {
                if (!privileges_.realUserCanSearch(*path))
                    return;
                folder.kind = Folder::TooLong;
                if (privileges_.realUserCanList(*path))
                    folder.path = std::move(*path);
                return;
            }
            if (!tooLong || !privileges_.realUserCanSearch(at.get()))
                return;
        }
    }

    int mountFdFor(std::uint64_t fsid)
    {
        auto [slot, inserted] = mountFds_.try_emplace(fsid);
        if (!inserted)
            return slot->second.get();
        const auto mountPoint = mountPoints_.find(fsid);
        if (mountPoint == mountPoints_.end())
            return -1;
        const Privileges::Raised raised;
        UniqueFd fd(::open(mountPoint->second.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        struct statfs info{};
        // Something else may be mounted there by now; a handle must never
        // be decoded on another file system.
        if (fd && ::fstatfs(fd.get(), &info) == 0 && fsidKey(info) == fsid)
            slot->second = std::move(fd);
        return slot->second.get();
    }

    const std::unordered_map<std::uint64_t, std::string>& mountPoints_;
    const Privileges& privileges_;
    std::unordered_map<std::string, Folder> folders_;
    std::unordered_map<std::uint64_t, UniqueFd> mountFds_;
};

// The events of one read of a group that reports file handles. Their
// records (a handle and a name) have any length, so an event may start at a
// four-byte boundary only, while its metadata holds a 64-bit field: each
// one's metadata is copied out before it is read.
class HandleEvents {
public:
    HandleEvents(const char* buffer, ssize_t length) : at_(buffer), end_(buffer + length) {}

    // The next event: its metadata, and where its bytes start. False once
    // no whole event is left.
    bool next(fanotify_event_metadata& event, const char*& bytes)
    {
        if (end_ - at_ < static_cast<std::ptrdiff_t>(FAN_EVENT_METADATA_LEN))
            return false;
        std::memcpy(&event, at_, sizeof event);
        if (event.event_len < FAN_EVENT_METADATA_LEN || event.event_len > static_cast<std::size_t>(end_ - at_))
            return false;
        bytes = at_;
        at_ += event.event_len;
        return true;
    }

private:
    const char* at_;
    const char* end_;
};

// A folder and the name of an entry in it, as an event's record gives them.
struct Entry {
    const __kernel_fsid_t* fsid;
    const file_handle* folder;
    const char* name;
};

// The entry that an event's record of the given type (FAN_EVENT_INFO_TYPE_
// DFID_NAME, or for a rename OLD_DFID_NAME and NEW_DFID_NAME) names, if the
// event has one. The records need no more than four-byte alignment.
std::optional<Entry> entryOf(const char* bytes, const fanotify_event_metadata& event, std::uint8_t type)
{
    const char* record = bytes + event.metadata_len;
    const char* end = bytes + event.event_len;
    while (record + sizeof(fanotify_event_info_header) <= end) {
        const auto* header = reinterpret_cast<const fanotify_event_info_header*>(record);
        if (header->len < sizeof *header || record + header->len > end)
            return std::nullopt;
        const char* recordEnd = record + header->len;
        if (header->info_type == type && header->len >= sizeof(fanotify_event_info_fid) + sizeof(file_handle)) {
            const auto* info = reinterpret_cast<const fanotify_event_info_fid*>(record);
            const auto* handle = reinterpret_cast<const file_handle*>(info->handle);
            const char* name = reinterpret_cast<const char*>(handle->f_handle) + handle->handle_bytes;
            if (name >= recordEnd || !std::memchr(name, '\0', static_cast<size_t>(recordEnd - name)))
                return std::nullopt;
            return Entry{&info->fsid, handle, name};
        }
        record = recordEnd;
    }
    return std::nullopt;
}

std::string pathIn(const std::string& folder, const char* name)
{
    std::string path = folder;
    if (path != "/")
        path += '/';
    path += name;
    return path;
}

// Adds an event on the entry name of folder: the entry's path, or, given
// from, the arrival of a folder from there. An event in a folder with no
// path is told as unresolved instead, once per batch.
bool addEvent(RecordWriter& output, Batch::Folder& folder, const char* name, const std::string* from = nullptr)
{
    switch (folder.kind) {
    case Batch::Folder::Hidden:
        return true;
    case Batch::Folder::TooLong:
        if (std::exchange(folder.announced, true))
            return true;
        return output.add({kUnresolved, kPathTooLong, folder.path});
    case Batch::Folder::Listable:
        break;
    }
    const std::string path = pathIn(folder.path, name);
    return from ? output.add({kFolderArrived, *from, path}) : output.add(path);
}

// A folder renamed: into the place that the event's NEW record names, from
// the one its OLD record names. Where it was is "" when that folder has no
// path the real user may list.
bool reportFolderMove(Batch& batch, const char* bytes, const fanotify_event_metadata& event, RecordWriter& output)
{
    const std::optional<Entry> to = entryOf(bytes, event, FAN_EVENT_INFO_TYPE_NEW_DFID_NAME);
    if (!to)
        return true;
    Batch::Folder& folder = batch.folder(*to->fsid, to->folder);
    std::string from;
    const std::optional<Entry> old = entryOf(bytes, event, FAN_EVENT_INFO_TYPE_OLD_DFID_NAME);
    if (folder.kind == Batch::Folder::Listable && old) {
        const Batch::Folder& oldFolder = batch.folder(*old->fsid, old->folder);
        if (oldFolder.kind == Batch::Folder::Listable)
            from = pathIn(oldFolder.path, old->name);
    }
    return addEvent(output, folder, to->name, &from);
}

} // namespace

FanotifyWatch::FanotifyWatch(const Privileges& privileges)
    : privileges_(privileges), events_(new char[kEventBufferSize])
{
    ::openlog("gfslogger", LOG_PID, LOG_USER);
}

FanotifyWatch::~FanotifyWatch() = default;

bool FanotifyWatch::open(std::string* message)
{
    // The kernel's default limits hold: a queue of 16,384 events (an
    // overflow is reported, and the agent then scans its folders whole) and
    // 8,192 marks, far more than one per mount. Unlimited ones would let a
    // user who stops this process make the kernel hold memory without end.
    const unsigned common = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK;
    const Privileges::Raised raised;
    const unsigned eventFlags = O_RDONLY | O_LARGEFILE | O_CLOEXEC;
    handleGroup_.reset(::fanotify_init(common | FAN_REPORT_DFID_NAME, eventFlags));
    if (!handleGroup_) {
        *message = std::string("fanotify with file handles: ") + std::strerror(errno);
        return false;
    }
    descriptorGroup_.reset(::fanotify_init(common, eventFlags));
    if (!descriptorGroup_) {
        *message = std::string("fanotify: ") + std::strerror(errno);
        return false;
    }
    mountTable_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!mountTable_) {
        *message = std::string("/proc/self/mountinfo: ") + std::strerror(errno);
        return false;
    }
    return true;
}

void FanotifyWatch::markMounts()
{
    const Privileges::Raised raised;
    const std::optional<std::string> table = MountTable::read(mountTable_.get());
    if (!table)
        return;
    std::unordered_map<std::string, MarkedMount> current;
    for (const MountTable::Entry& entry : MountTable::parse(*table)) {
        if (!MountTable::holdsUserFiles(entry))
            continue;
        std::string key = entry.key();
        if (auto known = marked_.find(key); known != marked_.end())
            current.emplace(std::move(key), std::move(known->second));
        else
            current.emplace(std::move(key), mark(entry));
    }
    marked_ = std::move(current);

    std::unordered_map<std::uint64_t, const MarkedMount*> best;
    for (const auto& [key, mount] : marked_) {
        if (mount.kind != MarkedMount::WholeFileSystem)
            continue;
        const MarkedMount*& chosen = best[mount.fsid];
        if (!chosen || (mount.mountsFileSystemRoot && !chosen->mountsFileSystemRoot) ||
            (mount.mountsFileSystemRoot == chosen->mountsFileSystemRoot &&
             mount.mountPoint.size() < chosen->mountPoint.size()))
            chosen = &mount;
    }
    mountPointOfFsid_.clear();
    for (const auto& [fsid, mount] : best)
        mountPointOfFsid_.emplace(fsid, mount->mountPoint);
}

FanotifyWatch::MarkedMount FanotifyWatch::mark(const MountTable::Entry& entry)
{
    MarkedMount marked;
    marked.mountPoint = entry.mountPoint;
    marked.mountsFileSystemRoot = entry.root == "/";
    // A file bind-mounted over another (common in containers) is no place
    // to resolve folders from; its file system is mounted elsewhere too.
    struct stat info{};
    if (::stat(entry.mountPoint.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return marked;

    const auto markFileSystem = [&](std::uint64_t mask) {
        return ::fanotify_mark(handleGroup_.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD,
                               entry.mountPoint.c_str()) == 0;
    };
    bool markedWhole = markFileSystem(renameEvents_ ? kHandleMask | FAN_RENAME : kHandleMask);
    if (!markedWhole && errno == EINVAL && renameEvents_ && markFileSystem(kHandleMask)) {
        // A kernel older than 5.17, which refuses the flag on every file
        // system alike: folders moved in are reported without their origin.
        renameEvents_ = false;
        markedWhole = true;
    }
    if (markedWhole) {
        struct statfs fs{};
        if (::statfs(entry.mountPoint.c_str(), &fs) == 0) {
            marked.kind = MarkedMount::WholeFileSystem;
            marked.fsid = fsidKey(fs);
        }
        return marked;
    }
    const int error = errno;
    if (error != ENODEV && error != EOPNOTSUPP && error != EXDEV) {
        reportOnce(entry.mountPoint, "cannot watch", error);
        return marked;
    }
    // No file handles here: settle for files closed after writing, seen
    // through this mount.
    if (::fanotify_mark(descriptorGroup_.get(), FAN_MARK_ADD | FAN_MARK_MOUNT, kDescriptorMask, AT_FDCWD,
                        entry.mountPoint.c_str()) == 0)
        marked.kind = MarkedMount::MountOnly;
    else
        reportOnce(entry.mountPoint, "cannot watch this mount", errno);
    return marked;
}

void FanotifyWatch::reportOnce(const std::string& mountPoint, const char* what, int error)
{
    if (reported_[mountPoint]++ == 0)
        printDiagnostic(std::string(what) + " " + mountPoint + ": " + std::strerror(error));
}

FanotifyWatch::ReadResult FanotifyWatch::readHandleEvents(RecordWriter& output)
{
    ssize_t length;
    do {
        length = ::read(handleGroup_.get(), events_.get(), kEventBufferSize);
    } while (length < 0 && errno == EINTR);
    if (length <= 0)
        return ReadResult::Ok;

    Batch batch(mountPointOfFsid_, privileges_);
    fanotify_event_metadata event;
    const char* bytes;
    for (HandleEvents events(events_.get(), length); events.next(event, bytes);) {
        if (event.vers != FANOTIFY_METADATA_VERSION)
            return ReadResult::Unusable;
        if (event.fd >= 0)
            ::close(event.fd);
        if (event.mask & FAN_Q_OVERFLOW) {
            if (!reportOverflow(output))
                return ReadResult::OutputClosed;
            continue;
        }
        const bool onFolder = event.mask & FAN_ONDIR;
        bool written = true;
        if (event.mask & FAN_RENAME) {
            // Never merged with other events: the kernel keeps renames apart.
            if (onFolder)
                written = reportFolderMove(batch, bytes, event, output);
        } else if (onFolder ? (event.mask & FAN_MOVED_TO) && !renameEvents_ : (event.mask & kFileEvents) != 0) {
            const std::optional<Entry> entry = entryOf(bytes, event, FAN_EVENT_INFO_TYPE_DFID_NAME);
            // "." names the folder of an event on the folder itself.
            if (entry && std::strcmp(entry->name, ".") != 0) {
                const std::string unknownOrigin;
                written = addEvent(output, batch.folder(*entry->fsid, entry->folder), entry->name,
                                   onFolder ? &unknownOrigin : nullptr);
            }
        }
        if (!written)
            return ReadResult::OutputClosed;
    }
    return ReadResult::Ok;
}

FanotifyWatch::ReadResult FanotifyWatch::readDescriptorEvents(RecordWriter& output)
{
    ssize_t length;
    {
        // The kernel opens each event's file as we read it, with our rights
        // of the moment; the path check below decides what the user learns.
        const Privileges::Raised raised;
        do {
            length = ::read(descriptorGroup_.get(), events_.get(), kEventBufferSize);
        } while (length < 0 && errno == EINTR);
    }
    if (length <= 0)
        return ReadResult::Ok;

    for (auto* event = reinterpret_cast<const fanotify_event_metadata*>(events_.get()); FAN_EVENT_OK(event, length);
         event = FAN_EVENT_NEXT(event, length)) {
        if (event->vers != FANOTIFY_METADATA_VERSION)
            return ReadResult::Unusable;
        UniqueFd file(event->fd);
        if (event->mask & FAN_Q_OVERFLOW) {
            if (!reportOverflow(output))
                return ReadResult::OutputClosed;
            continue;
        }
        if (!file || !(event->mask & FAN_CLOSE_WRITE))
            continue;
        const std::optional<std::string> path = pathOf(file.get());
        if (path && privileges_.realUserCanList(parentFolder(*path)) && !output.add(*path))
            return ReadResult::OutputClosed;
    }
    return ReadResult::Ok;
}

} // namespace kv::gfs

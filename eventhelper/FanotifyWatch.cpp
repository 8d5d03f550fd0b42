#include "eventhelper/FanotifyWatch.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
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

// Each marked folder reports its files created, closed after writing, moved
// in or changed in their attributes (made readable, say, after a scan that
// could not read them). FAN_ONDIR adds folders for every one of these
// events, as the kernel knows no per-event flag; folders made are marked in
// turn, and only folders moved in are reported: by FAN_RENAME, which names
// where they were too, or on a kernel without it by FAN_MOVED_TO. A file's
// FAN_RENAME goes unreported, as its FAN_MOVED_TO reports it already. A
// folder's removal tells FolderMarks to forget it, and a watched folder's
// move that it is no longer at its path.
constexpr std::uint64_t kFileEvents = FAN_CREATE | FAN_MOVED_TO | FAN_CLOSE_WRITE | FAN_ATTRIB;
constexpr std::uint64_t kFolderMask = kFileEvents | FAN_ONDIR | FAN_EVENT_ON_CHILD | FAN_DELETE_SELF;
constexpr std::uint64_t kWatchedFolderMask = kFolderMask | FAN_MOVE_SELF;
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
        auto [slot, inserted] = folders_.try_emplace(folderKey(&fsid, handle));
        if (!inserted)
            return slot->second;
        UniqueFd folder = open(fsid, handle, O_PATH);
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

    // The object a file handle names, opened with root's rights through the
    // mount its file system's marked folders were reached through.
    UniqueFd open(const __kernel_fsid_t& fsid, const file_handle* handle, int flags = O_RDONLY | O_DIRECTORY)
    {
        const int mountFd = mountFdFor(fsidKey(fsid));
        if (mountFd < 0)
            return {};
        const Privileges::Raised raised;
        return UniqueFd(::open_by_handle_at(mountFd, const_cast<file_handle*>(handle), flags | O_CLOEXEC));
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

// An object an event's record names: a folder and, unless the record is a
// plain FAN_EVENT_INFO_TYPE_FID, the name of an entry in it.
struct Entry {
    const __kernel_fsid_t* fsid;
    const file_handle* folder;
    const char* name;

    std::string key() const { return folderKey(fsid, folder); }
};

// The entry that an event's record of the given type (FAN_EVENT_INFO_TYPE_
// DFID_NAME, for a rename OLD_DFID_NAME and NEW_DFID_NAME, or FID for the
// object moved) names, if the event has one. The records need no more than
// four-byte alignment.
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
            if (name > recordEnd)
                return std::nullopt;
            if (type == FAN_EVENT_INFO_TYPE_FID)
                return Entry{&info->fsid, handle, nullptr};
            if (name == recordEnd || !std::memchr(name, '\0', static_cast<size_t>(recordEnd - name)))
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

} // namespace

FanotifyWatch::FanotifyWatch(const Privileges& privileges, OpenHolder::Link& holder)
    : privileges_(privileges), holder_(holder), marks_(privileges, *this), events_(new char[kEventBufferSize])
{
    ::openlog("gfslogger", LOG_PID, LOG_USER);
}

FanotifyWatch::~FanotifyWatch() = default;

bool FanotifyWatch::openGroups(UniqueFd* handles, UniqueFd* descriptors, std::string* message)
{
    // The kernel's default limits hold: a queue of 16,384 events (an
    // overflow is reported, and the agent then scans its folders whole) and
    // its per-user bound on marks. Unlimited ones would let a user who stops
    // this process make the kernel hold memory without end.
    const unsigned common = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK;
    // O_NONBLOCK: the kernel opens each event's file with these flags while
    // the event is read, and an open of a FIFO would wait for a writer.
    const unsigned eventFlags = O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NONBLOCK;
    const Privileges::Raised raised;
    if (movedObjects_) {
        handles->reset(::fanotify_init(common | FAN_REPORT_DFID_NAME_TARGET, eventFlags));
        movedObjects_ = handles->valid() || errno != EINVAL;
    }
    if (!movedObjects_)
        handles->reset(::fanotify_init(common | FAN_REPORT_DFID_NAME, eventFlags));
    if (!*handles) {
        *message = std::string("fanotify with file handles: ") + std::strerror(errno);
        return false;
    }
    descriptors->reset(::fanotify_init(common, eventFlags));
    if (!*descriptors) {
        *message = std::string("fanotify: ") + std::strerror(errno);
        return false;
    }
    return true;
}

bool FanotifyWatch::open(std::string* message)
{
    if (!openGroups(&handleGroup_, &descriptorGroup_, message))
        return false;
    const Privileges::Raised raised;
    mountTable_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    const std::optional<std::string> table = mountTable_ ? MountTable::read(mountTable_.get()) : std::nullopt;
    if (!table) {
        *message = std::string("/proc/self/mountinfo: ") + std::strerror(errno);
        return false;
    }
    mounts_ = MountTable::parse(*table);
    return true;
}

void FanotifyWatch::setWatchList(std::vector<WatchedFolder> list, unsigned holdSeconds, RecordWriter& output)
{
    list_ = std::move(list);
    holdSeconds_ = holder_.connected() ? holdSeconds : 0;
    if (holder_.connected() && !holder_.holdFor(std::chrono::seconds(holdSeconds_)))
        holderFailed();
    markAll(output);
}

void FanotifyWatch::holderFailed()
{
    holdSeconds_ = 0;
    if (!std::exchange(holderGone_, true))
        printDiagnostic("the holder has ended: opens in the watched folders are no longer held");
}

void FanotifyWatch::markAll(RecordWriter& output)
{
    // Fresh groups take the marks, so that no folder watched before keeps
    // one; the old groups' last events are read once the new marks are in
    // place, so that none is lost in between.
    UniqueFd oldHandles;
    UniqueFd oldDescriptors;
    if (marked_) {
        UniqueFd handles;
        UniqueFd descriptors;
        std::string message;
        if (openGroups(&handles, &descriptors, &message)) {
            oldHandles = std::exchange(handleGroup_, std::move(handles));
            oldDescriptors = std::exchange(descriptorGroup_, std::move(descriptors));
        } else if (reported_[message]++ == 0) {
            printDiagnostic("cannot mark folders afresh, " + message + ": folders watched before stay marked");
        }
    }
    marked_ = true;
    eventsLost_ = false;
    if (holder_.connected() && !holderGone_ && !holder_.unmarkAll())
        holderFailed();
    marks_.markAll(list_, output);
    mountsAtOrBelowWatched_ = mountsAtOrBelowWatched();
    findMountPoints();
    bool read = true;
    while (read && oldHandles && readHandleEvents(oldHandles.get(), output, &read) == ReadResult::Ok) {
    }
    read = true;
    while (read && oldDescriptors && readDescriptorEvents(oldDescriptors.get(), output, &read) == ReadResult::Ok) {
    }
}

std::set<std::string> FanotifyWatch::mountsAtOrBelowWatched() const
{
    std::set<std::string> found;
    for (const MountTable::Entry& entry : mounts_) {
        if (MountTable::holdsUserFiles(entry) && marks_.isAtOrBelowWatched(entry.mountPoint))
            found.insert(entry.key());
    }
    return found;
}

void FanotifyWatch::findMountPoints()
{
    mountPointOfFsid_.clear();
    for (const auto& [fsid, mountId] : marks_.mountOfFileSystem()) {
        for (const MountTable::Entry& entry : mounts_) {
            if (entry.mountId == mountId)
                mountPointOfFsid_.emplace(fsid, entry.mountPoint);
        }
    }
}

void FanotifyWatch::mountsChanged(RecordWriter& output)
{
    std::optional<std::string> table;
    {
        const Privileges::Raised raised;
        table = MountTable::read(mountTable_.get());
    }
    if (!table)
        return;
    mounts_ = MountTable::parse(*table);
    // A volume mounted in a watched tree, over a watched folder, or taken
    // away from there: what the folders' paths lead to has changed.
    if (mountsAtOrBelowWatched() != mountsAtOrBelowWatched_)
        markAll(output);
    else
        findMountPoints();
}

namespace {

bool isLocalFileSystem(int fd)
{
    struct statfs system {};
    if (::fstatfs(fd, &system) != 0)
        return false;
    switch (static_cast<unsigned long>(system.f_type)) {
    case 0x6969:      // NFS
    case 0xff534d42:  // CIFS
    case 0xfe534d42:  // SMB2
    case 0x517b:      // SMB
    case 0x65735546:  // FUSE
    case 0x00c36400:  // Ceph
    case 0x01161970:  // GFS2
    case 0x6b414653:  // AFS
    case 0x5346414f:  // OpenAFS
    case 0x01021997:  // 9P
        return false;
    default:
        return true;
    }
}

} // namespace

FolderMarks::Marked FanotifyWatch::mark(int folderFd, bool root, bool nameable)
{
    // Opens are held only in the user's own folders: a user can keep
    // another user's opens waiting only on files they could as well have
    // made unreadable.
    // Nor on a network or user-space file system: the kernel opens each
    // held file for the holder as root, which a server that maps root to
    // nobody refuses, and a held open whose file cannot be opened is
    // refused, so the user could no longer open their own files there.
    struct stat folder{};
    if (holdSeconds_ > 0 && ::fstat(folderFd, &folder) == 0 && (folder.st_uid == ::getuid() || ::getuid() == 0) &&
        isLocalFileSystem(folderFd) && !holder_.mark(folderFd))
        holderFailed();
    const Privileges::Raised raised;
    if (nameable) {
        const std::uint64_t mask = root ? kWatchedFolderMask : kFolderMask;
        const auto markFolder = [&](std::uint64_t more) {
            return ::fanotify_mark(handleGroup_.get(), FAN_MARK_ADD, mask | more, folderFd, nullptr) == 0;
        };
        if (markFolder(renameEvents_ ? FAN_RENAME : 0))
            return FolderMarks::Marked::Yes;
        if (errno == EINVAL && renameEvents_ && markFolder(0)) {
            // A kernel older than 5.17, which refuses the flag on every file
            // system alike: folders moved in are reported without their origin.
            renameEvents_ = false;
            return FolderMarks::Marked::Yes;
        }
        if (errno == ENOSPC)
            return FolderMarks::Marked::Full;
        if (errno != ENODEV && errno != EOPNOTSUPP && errno != EXDEV) {
            reportOnce(folderFd, "cannot watch", errno);
            return FolderMarks::Marked::No;
        }
    }
    // No file handles here: settle for files closed after writing, seen
    // through this mount.
    if (::fanotify_mark(descriptorGroup_.get(), FAN_MARK_ADD | FAN_MARK_MOUNT, kDescriptorMask, folderFd, nullptr) == 0)
        return FolderMarks::Marked::WholeMount;
    if (errno == ENOSPC)
        return FolderMarks::Marked::Full;
    reportOnce(folderFd, "cannot watch the mount of", errno);
    return FolderMarks::Marked::No;
}

void FanotifyWatch::unmark(int folderFd)
{
    if (holdSeconds_ > 0 && !holder_.unmark(folderFd))
        holderFailed();
    const Privileges::Raised raised;
    ::fanotify_mark(handleGroup_.get(), FAN_MARK_REMOVE, kWatchedFolderMask | FAN_RENAME, folderFd, nullptr);
}

void FanotifyWatch::reportOnce(int folderFd, const char* what, int error)
{
    const std::string folder = pathOf(folderFd).value_or("a folder");
    // Folders are many: a helper that meets many refusals is heard afresh
    // rather than remembered without end.
    if (reported_.size() >= 1000)
        reported_.clear();
    if (reported_[folder]++ == 0)
        printDiagnostic(std::string(what) + " " + folder + ": " + std::strerror(error));
}

FanotifyWatch::ReadResult FanotifyWatch::readHandleEvents(RecordWriter& output)
{
    bool read = false;
    const ReadResult result = readHandleEvents(handleGroup_.get(), output, &read);
    // Folders made while events were lost have no marks yet.
    if (result == ReadResult::Ok && eventsLost_)
        markAll(output);
    if (marks_.mountOfFileSystem().size() != mountPointOfFsid_.size())
        findMountPoints();
    return result;
}

FanotifyWatch::ReadResult FanotifyWatch::readDescriptorEvents(RecordWriter& output)
{
    bool read = false;
    return readDescriptorEvents(descriptorGroup_.get(), output, &read);
}

FanotifyWatch::ReadResult FanotifyWatch::readHandleEvents(int group, RecordWriter& output, bool* read)
{
    ssize_t length;
    do {
        length = ::read(group, events_.get(), kEventBufferSize);
    } while (length < 0 && errno == EINTR);
    *read = length > 0;
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
            eventsLost_ |= group == handleGroup_.get();
            if (!reportOverflow(output))
                return ReadResult::OutputClosed;
            continue;
        }
        const bool onFolder = event.mask & FAN_ONDIR;
        const std::optional<Entry> entry = entryOf(bytes, event, FAN_EVENT_INFO_TYPE_DFID_NAME);
        bool written = true;
        if (event.mask & FAN_RENAME) {
            // Never merged with other events: the kernel keeps renames apart.
            if (!onFolder)
                continue;
            // Where the folder went, if that place is marked, where it came
            // from, if that one is, and the folder itself.
            const std::optional<Entry> to = entryOf(bytes, event, FAN_EVENT_INFO_TYPE_NEW_DFID_NAME);
            const std::optional<Entry> old = entryOf(bytes, event, FAN_EVENT_INFO_TYPE_OLD_DFID_NAME);
            const std::optional<Entry> moved = entryOf(bytes, event, FAN_EVENT_INFO_TYPE_FID);
            Batch::Folder* folder = to ? &batch.folder(*to->fsid, to->folder) : nullptr;
            if (to && marks_.watchesBelow(to->key())) {
                if (const UniqueFd parent = batch.open(*to->fsid, to->folder))
                    marks_.folderArrived(to->key(), parent.get(), to->name,
                                         folder->kind == Batch::Folder::Listable ? pathIn(folder->path, to->name) : "",
                                         false, output);
            } else if (moved && marks_.isMarked(moved->key())) {
                if (const UniqueFd left = batch.open(*moved->fsid, moved->folder))
                    marks_.folderMoved(moved->key(), left.get());
            }
            if (!folder)
                continue;
            std::string from;
            if (folder->kind == Batch::Folder::Listable && old) {
                const Batch::Folder& oldFolder = batch.folder(*old->fsid, old->folder);
                if (oldFolder.kind == Batch::Folder::Listable)
                    from = pathIn(oldFolder.path, old->name);
            }
            written = addEvent(output, *folder, to->name, &from);
        } else if (!entry) {
            continue;
        } else if (onFolder && std::strcmp(entry->name, ".") == 0) {
            // An event on a marked folder itself: removed, or (a watched
            // folder) moved away.
            if (event.mask & FAN_DELETE_SELF)
                marks_.folderRemoved(entry->key());
            else if (event.mask & FAN_MOVE_SELF)
                if (const UniqueFd moved = batch.open(*entry->fsid, entry->folder))
                    marks_.folderMoved(entry->key(), moved.get());
        } else if (onFolder) {
            const bool movedIn = (event.mask & FAN_MOVED_TO) && !renameEvents_;
            if (!(event.mask & FAN_CREATE) && !movedIn)
                continue;
            Batch::Folder& folder = batch.folder(*entry->fsid, entry->folder);
            if (folder.kind != Batch::Folder::Hidden && marks_.watchesBelow(entry->key())) {
                if (const UniqueFd parent = batch.open(*entry->fsid, entry->folder))
                    marks_.folderArrived(entry->key(), parent.get(), entry->name,
                                         folder.kind == Batch::Folder::Listable ? pathIn(folder.path, entry->name) : "",
                                         !movedIn, output);
            }
            // A folder made in a folder with no path may hold files already,
            // which the agent finds by walking the nearest folder that has one.
            const std::string unknownOrigin;
            if (movedIn)
                written = addEvent(output, folder, entry->name, &unknownOrigin);
            else if (folder.kind == Batch::Folder::TooLong)
                written = addEvent(output, folder, entry->name);
        } else if (event.mask & kFileEvents) {
            written = addEvent(output, batch.folder(*entry->fsid, entry->folder), entry->name);
        }
        if (!written)
            return ReadResult::OutputClosed;
    }
    return ReadResult::Ok;
}

FanotifyWatch::ReadResult FanotifyWatch::readDescriptorEvents(int group, RecordWriter& output, bool* read)
{
    ssize_t length;
    {
        // The kernel opens each event's file as we read it, with our rights
        // of the moment; the path check below decides what the user learns.
        const Privileges::Raised raised;
        do {
            length = ::read(group, events_.get(), kEventBufferSize);
        } while (length < 0 && errno == EINTR);
    }
    *read = length > 0;
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

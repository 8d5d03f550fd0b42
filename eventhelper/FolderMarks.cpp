#include "eventhelper/FolderMarks.h"

#include "eventhelper/HelperOutput.h"

#include <dirent.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

namespace kv::gfs {
namespace {

// What names a folder for the kernel: its key, its file system's id, and the
// mount it was reached through.
struct Identity {
    std::string key;  // "" when it has none
    std::uint64_t fsid = 0;
    int mountId = -1;
};

Identity identify(int fd)
{
    Identity id;
    struct statfs fs{};
    alignas(file_handle) char storage[sizeof(file_handle) + MAX_HANDLE_SZ];
    auto* handle = reinterpret_cast<file_handle*>(storage);
    handle->handle_bytes = MAX_HANDLE_SZ;
    if (::fstatfs(fd, &fs) != 0 || ::name_to_handle_at(fd, "", handle, &id.mountId, AT_EMPTY_PATH) != 0)
        return id;
    static_assert(sizeof id.fsid == sizeof fs.f_fsid);
    std::memcpy(&id.fsid, &fs.f_fsid, sizeof id.fsid);
    // Events on a file system without an id could come from any such one.
    if (id.fsid != 0)
        id.key = folderKey(&fs.f_fsid, handle);
    return id;
}

// The folder name in parent, never through a link.
UniqueFd openFolderIn(int parentFd, const char* name)
{
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd folder(::openat(parentFd, name, kFlags));
    if (!folder && errno == EACCES) {
        // A folder of the user's own that they may not read (mode 0300)
        // still counts as theirs to list; opening it takes root's rights.
        // Callers check that the user may list what they opened.
        const Privileges::Raised raised;
        folder.reset(::openat(parentFd, name, kFlags));
    }
    return folder;
}

// Calls take(name, isFolder) for each entry of the folder open as fd (from
// its start) but "." and "..", until take returns false.
void forEachEntry(int fd, const std::function<bool(const char*, bool)>& take)
{
    alignas(dirent64) char buffer[32768];
    for (;;) {
        const ssize_t length = ::getdents64(fd, buffer, sizeof buffer);
        if (length <= 0)
            return;
        for (ssize_t at = 0; at < length;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
            at += entry->d_reclen;
            const char* name = entry->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
                continue;
            bool isFolder = entry->d_type == DT_DIR;
            if (entry->d_type == DT_UNKNOWN) {
                struct stat info{};
                isFolder = ::fstatat(fd, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
            }
            if (!take(name, isFolder))
                return;
        }
    }
}

// path/name, or "" when path is unknown or the result would be too long to
// have.
std::string pathBelow(const std::string& path, const char* name)
{
    if (path.empty())
        return {};
    std::string below = path == "/" ? path : path + '/';
    below += name;
    return below.size() < PATH_MAX ? below : std::string();
}

std::string parentOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash);
}

} // namespace

std::string folderKey(const void* fsid, const file_handle* handle)
{
    std::string key(static_cast<const char*>(fsid), sizeof(std::uint64_t));
    key.append(reinterpret_cast<const char*>(handle), sizeof *handle + handle->handle_bytes);
    return key;
}

std::optional<std::string> pathOf(int fd, bool* tooLong)
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

void FolderMarks::markAll(const std::vector<WatchedFolder>& list, RecordWriter& output)
{
    folders_.clear();
    mountOfFileSystem_.clear();
    toldFull_ = false;
    roots_.clear();
    std::deque<Visit> visits;
    for (const WatchedFolder& entry : list) {
        roots_.push_back({entry, {}, {}, false});
        visitRoot(roots_.back(), visits);
    }
    walk(std::move(visits), output);
}

bool FolderMarks::visitRoot(Root& root, std::deque<Visit>& visits)
{
    // A watched folder may be a link, and is followed; a watched file stands
    // for the folder that holds it, watched for its own entries.
    std::string path = root.entry.path;
    bool tree = root.entry.subfolders;
    UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder && errno == ENOTDIR) {
        path = parentOf(path);
        tree = false;
        folder.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (!folder && errno == EACCES) {
        const Privileges::Raised raised;
        folder.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    root.missing = !folder && (errno == ENOENT || errno == ENOTDIR);
    // Checked by path: the user must be able to reach it too.
    if (!folder || !privileges_.realUserCanList(path))
        return false;
    root.key = identify(folder.get()).key;
    root.path = pathOf(folder.get()).value_or(std::string());
    visits.push_back({std::move(folder), nullptr, {}, root.path, tree, true, false});
    return true;
}

void FolderMarks::walk(std::deque<Visit> visits, RecordWriter& output)
{
    while (!visits.empty()) {
        Visit visit = std::move(visits.front());
        visits.pop_front();
        UniqueFd folder = visit.parent ? openFolderIn(visit.parent->get(), visit.name.c_str()) : std::move(visit.folder);
        // A root was checked by its path; below it, each folder by its own
        // mode, the way there being open to the user.
        if (!folder || (!visit.root && !privileges_.realUserCanList(folder.get())))
            continue;
        const Identity id = identify(folder.get());
        if (const auto known = folders_.find(id.key); !id.key.empty() && known != folders_.end()) {
            // Reached twice (a watched folder inside another's tree, a bind
            // mount): walked again only to take in the folders below it.
            known->second.root |= visit.root;
            if (!visit.tree || std::exchange(known->second.tree, true))
                continue;
        } else {
            if (folders_.size() >= kMostFolders) {
                reportFull(visit.path, false);
                return;
            }
            const Marked marked = target_.mark(folder.get(), visit.root, !id.key.empty());
            if (marked == Marked::Full) {
                reportFull(visit.path, true);
                return;
            }
            if (marked != Marked::Yes)
                continue;
            folders_[id.key] = {visit.tree, visit.root};
            mountOfFileSystem_.try_emplace(id.fsid, id.mountId);
        }
        if (visit.tree)
            listInto(visit, std::make_shared<const UniqueFd>(std::move(folder)), visits, output);
    }
}

void FolderMarks::listInto(const Visit& visit, std::shared_ptr<const UniqueFd> folder, std::deque<Visit>& visits,
                           RecordWriter& output)
{
    bool toldUnresolved = false;
    forEachEntry(folder->get(), [&](const char* name, bool isFolder) {
        const std::string path = pathBelow(visit.path, name);
        if (isFolder) {
            // Room is kept for every folder waiting already, so that the
            // nearest ones are the ones marked.
            if (folders_.size() + visits.size() >= kMostFolders) {
                reportFull(visit.path, false);
                return visit.reportFiles;
            }
            visits.push_back({UniqueFd(), folder, name, path, true, false, visit.reportFiles});
        } else if (visit.reportFiles && !path.empty()) {
            output.add(path);
        } else if (visit.reportFiles && !visit.path.empty() && !std::exchange(toldUnresolved, true)) {
            output.add({kUnresolved, "a new folder's path is " + std::to_string(PATH_MAX) + " bytes or longer", visit.path});
        }
        return true;
    });
}

void FolderMarks::folderArrived(const std::string& parentKey, int parentFd, const char* name, const std::string& path,
                                bool created, RecordWriter& output)
{
    if (!watchesBelow(parentKey))
        return;
    UniqueFd folder = openFolderIn(parentFd, name);
    // Moved within the watched trees: its marks went with it.
    if (!folder || isMarked(identify(folder.get()).key))
        return;
    std::deque<Visit> visits;
    visits.push_back({UniqueFd(), std::make_shared<const UniqueFd>(::dup(parentFd)), name, path, true, false, created});
    walk(std::move(visits), output);
}

void FolderMarks::folderMoved(const std::string& key, int folderFd)
{
    if (!isMarked(key))
        return;
    // A watched folder moved is no longer at its path, wherever it went.
    for (Root& root : roots_) {
        if (root.key == key) {
            root.key.clear();
            root.missing = true;
            folders_[key].root = false;
        }
    }
    UniqueFd above;
    {
        const Privileges::Raised raised;
        above.reset(::openat(folderFd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (above && watchesBelow(identify(above.get()).key))
        return;
    UniqueFd top(::dup(folderFd));
    unmarkTree(std::move(top));
}

void FolderMarks::unmarkTree(UniqueFd top)
{
    // The user may no longer reach the folders below, yet their marks must
    // go: they are opened with root's rights, and nothing is reported.
    std::deque<UniqueFd> folders;
    folders.push_back(std::move(top));
    while (!folders.empty()) {
        const UniqueFd folder = std::move(folders.front());
        folders.pop_front();
        const auto marked = folders_.find(identify(folder.get()).key);
        if (marked == folders_.end())
            continue;
        for (Root& root : roots_) {
            if (root.key == marked->first) {
                root.key.clear();
                root.missing = true;
            }
        }
        folders_.erase(marked);
        target_.unmark(folder.get());
        const Privileges::Raised raised;
        forEachEntry(folder.get(), [&](const char* name, bool isFolder) {
            if (isFolder)
                folders.emplace_back(::openat(folder.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            return true;
        });
    }
}

void FolderMarks::folderRemoved(const std::string& key)
{
    folders_.erase(key);
    for (Root& root : roots_) {
        if (root.key == key) {
            root.key.clear();
            root.missing = true;
        }
    }
}

bool FolderMarks::watchesBelow(const std::string& key) const
{
    const auto found = folders_.find(key);
    return found != folders_.end() && found->second.tree;
}

bool FolderMarks::isAtOrBelowWatched(const std::string& path) const
{
    for (const Root& root : roots_) {
        if (root.path.empty())
            continue;
        const std::string inside = root.path == "/" ? root.path : root.path + '/';
        if (path == root.path || (root.entry.subfolders && path.starts_with(inside)))
            return true;
    }
    return false;
}

bool FolderMarks::hasMissing() const
{
    for (const Root& root : roots_) {
        if (root.missing)
            return true;
    }
    return false;
}

void FolderMarks::retryMissing(RecordWriter& output)
{
    for (Root& root : roots_) {
        std::deque<Visit> visits;
        if (!root.missing || !visitRoot(root, visits))
            continue;
        walk(std::move(visits), output);
        // Nothing watched it while it was away: the agent walks it whole.
        output.add({kFolderArrived, "", root.entry.path});
    }
}

void FolderMarks::reportFull(const std::string& where, bool byKernel)
{
    if (std::exchange(toldFull_, true))
        return;
    // Nearest first: what goes unwatched is some of the folders just below
    // where the bound was met, and every folder deeper than those.
    const std::string below = where.empty() ? "the folders deepest down" : "folders below " + where + " and deeper ones";
    if (byKernel)
        printDiagnostic("the kernel allows this user no more fanotify marks (fs.fanotify.max_user_marks) after " +
                        std::to_string(folders_.size()) + " folders: " + below + " are not watched");
    else
        printDiagnostic("watches " + std::to_string(kMostFolders) + " folders, the most one helper may: " + below +
                        " are not watched");
}

} // namespace kv::gfs

#include "intake/WatchList.h"

#include "intake/FSEventWatcher.h"
#include "platform/FolderWalk.h"
#include "platform/Paths.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>

namespace kv {
namespace {

std::string_view withoutTrailingSlash(std::string_view path)
{
    if (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    return path;
}

// The path with its last component removed; a trailing "/" is not a
// component of its own.
std::string_view parentOf(std::string_view path)
{
    path = withoutTrailingSlash(path);
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos)
        return {};
    return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

} // namespace

WatchList::WatchList(const std::vector<std::string>& watchedFolderList, const std::map<std::string, bool>& checkSubDirs,
                     std::string quarantineDir)
    : quarantineDir_(std::move(quarantineDir))
{
    entries_.reserve(watchedFolderList.size());
    for (const std::string& path : watchedFolderList) {
        const auto flag = checkSubDirs.find(path);
        entries_.push_back({path, std::string(withoutTrailingSlash(path)), flag != checkSubDirs.end() && flag->second});
    }
}

std::shared_ptr<const WatchList> WatchList::ofFolders(const std::vector<WatchedFolder>& folders,
                                                     std::string quarantineDir, unsigned holdSeconds)
{
    std::vector<std::string> list;
    std::map<std::string, bool> checkSubDirs;
    for (const WatchedFolder& folder : folders) {
        struct stat info{};
        if (::stat(folder.path.c_str(), &info) != 0)
            continue;
        std::string entry = folder.path;
        if (S_ISDIR(info.st_mode)) {
            while (entry.size() > 1 && entry.back() == '/')
                entry.pop_back();
            if (entry != "/")
                entry += '/';
        }
        list.push_back(entry);
        checkSubDirs[entry] = folder.subfolders;
    }
    auto made = std::make_shared<WatchList>(list, checkSubDirs, std::move(quarantineDir));
    made->holdSeconds_ = holdSeconds;
    return made;
}

bool WatchList::watches(std::string_view path) const
{
    for (const Entry& entry : entries_) {
        if (withoutTrailingSlash(entry.path) == withoutTrailingSlash(path))
            return true;
    }
    return false;
}

bool WatchList::admits(std::string_view line) const
{
    if (line.empty())
        return false;
    if (!quarantineDir_.empty() && line.starts_with(quarantineDir_))
        return false;
    if (line.ends_with("/..namedfork/rsrc"))
        return false;
    std::optional<bool> trashed;  // asked at most once a line
    for (const Entry& entry : entries_) {
        if (!line.starts_with(entry.path))
            continue;
        if (entry.subdirs) {
            if (!trashed)
                trashed = FSEventWatcher::isTrashedFileAtPath(std::string(line));
            if (!*trashed)
                return true;
        } else if (parentOf(line) == entry.folder) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> WatchList::folders() const
{
    std::vector<std::string> folders;
    for (const Entry& entry : entries_)
        folders.push_back(entry.folder);
    return folders;
}

std::vector<std::pair<std::string, bool>> WatchList::foldersAndSubfolders() const
{
    std::vector<std::pair<std::string, bool>> folders;
    for (const Entry& entry : entries_)
        folders.emplace_back(entry.folder, entry.subdirs);
    return folders;
}

bool WatchList::mayHoldAdmitted(const std::string& folder) const
{
    const std::string inside = folder == "/" ? folder : folder + '/';
    if (!quarantineDir_.empty() && inside.starts_with(quarantineDir_))
        return false;
    for (const Entry& entry : entries_) {
        const std::string entryInside = entry.folder == "/" ? entry.folder : entry.folder + '/';
        // The folder itself, one on the way to it, or one below it that
        // its subfolders setting takes in.
        if (folder == entry.folder || entryInside.starts_with(inside) || (entry.subdirs && inside.starts_with(entryInside)))
            return true;
    }
    return false;
}

void WatchList::forEachAdmittedFileIn(const std::vector<std::string>& roots, bool followRoots, const Take& take) const
{
    constexpr size_t kGroup = 1000;
    std::vector<std::string> group;
    std::vector<std::string> walked;
    for (const std::string& root : roots) {
        if (mayHoldAdmitted(root))
            walked.push_back(root);
    }
    // A root inside another is reached by that one's walk (it descends into
    // every folder that may hold admitted files), unless one of them is a
    // link the walk does not follow. Walked twice, its files
    // would be queued twice.
    const auto inside = [](std::string_view inner, std::string_view outer) {
        inner = withoutTrailingSlash(inner);
        outer = withoutTrailingSlash(outer);
        if (outer == "/")
            return inner.size() > 1 && inner.front() == '/';
        return inner.size() > outer.size() + 1 && inner.starts_with(outer) && inner[outer.size()] == '/';
    };
    const auto isLink = [](const std::string& path) {
        struct stat status {};
        return ::lstat(path.c_str(), &status) != 0 || S_ISLNK(status.st_mode);
    };
    std::vector<std::string> outers;
    for (const std::string& root : walked)
        if (followRoots || !isLink(root))
            outers.push_back(root);
    std::erase_if(walked, [&](const std::string& root) {
        return !isLink(root) &&
               std::any_of(outers.begin(), outers.end(), [&](const std::string& outer) { return inside(root, outer); });
    });
    bool goesOn = true;
    walkFiles(
        walked, followRoots, [this](const std::string& folder) { return mayHoldAdmitted(folder); },
        [&](std::string&& path) {
            if (!admits(path))
                return true;
            group.push_back(std::move(path));
            if (group.size() < kGroup)
                return true;
            goesOn = take(group);
            group.clear();
            return goesOn;
        });
    if (goesOn && !group.empty())
        take(group);
}

} // namespace kv

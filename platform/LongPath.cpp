#include "platform/LongPath.h"

#include <fcntl.h>
#include <limits.h>

#include <algorithm>
#include <cerrno>

namespace kv {
namespace {

bool isShort(const std::string& path) { return path.size() < PATH_MAX; }

// Opens the folders of path up to (not including) the component that
// starts at end, one openat(2) at a time.
UniqueFd walkFolders(const std::string& path, size_t end)
{
    UniqueFd folder(::open(path.front() == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    size_t start = 0;
    while (folder) {
        while (start < end && path[start] == '/')
            ++start;
        if (start >= end)
            break;
        size_t slash = path.find('/', start);
        if (slash == std::string::npos || slash > end)
            slash = end;
        const std::string name = path.substr(start, slash - start);
        folder.reset(::openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        start = slash;
    }
    return folder;
}

// Where the last component starts, with trailing slashes ignored.
size_t lastComponent(const std::string& path, size_t* length)
{
    size_t end = path.size();
    while (end > 1 && path[end - 1] == '/')
        --end;
    const size_t slash = end == 0 ? std::string::npos : path.rfind('/', end - 1);
    const size_t start = slash == std::string::npos ? 0 : std::min(slash + 1, end);
    *length = end - start;
    return start;
}

} // namespace

ParentAndName openParent(const std::string& path)
{
    ParentAndName result;
    if (path.empty())
        return result;
    size_t length = 0;
    const size_t start = lastComponent(path, &length);
    // "/" (or "//"): the folder itself, named ".".
    if (length == 0 || path[start] == '/') {
        result.name.push_back('.');
        result.folder = walkFolders(path, path.size());
        return result;
    }
    result.name = path.substr(start, length);
    if (start <= PATH_MAX - 1) {
        const std::string folder = start == 0 ? "." : path.substr(0, start);
        result.folder.reset(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (result.folder || errno != ENAMETOOLONG)
            return result;
    }
    result.folder = walkFolders(path, start);
    return result;
}

ParentAndName openParentWithoutLinks(const std::string& path)
{
    ParentAndName result;
    if (path.empty() || path.front() != '/')
        return result;
    size_t length = 0;
    const size_t start = lastComponent(path, &length);
    if (length == 0 || path[start] == '/')
        return result;
    result.name = path.substr(start, length);
    result.folder = walkFolders(path, start);
    return result;
}

UniqueFd openPath(const std::string& path, int flags)
{
    if (path.empty()) {
        errno = ENOENT;
        return UniqueFd();
    }
    if (isShort(path))
        return UniqueFd(::open(path.c_str(), flags | O_CLOEXEC));
    const ParentAndName parent = openParent(path);
    if (!parent.folder)
        return UniqueFd();
    return UniqueFd(::openat(parent.folder.get(), parent.name.c_str(), flags | O_CLOEXEC));
}

bool statPath(const std::string& path, struct stat* info, bool follow)
{
    if (path.empty()) {
        errno = ENOENT;
        return false;
    }
    if (isShort(path))
        return (follow ? ::stat(path.c_str(), info) : ::lstat(path.c_str(), info)) == 0;
    const ParentAndName parent = openParent(path);
    return parent.folder &&
           ::fstatat(parent.folder.get(), parent.name.c_str(), info, follow ? 0 : AT_SYMLINK_NOFOLLOW) == 0;
}

} // namespace kv

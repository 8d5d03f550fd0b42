#include "intake/WatchList.h"

#include "intake/FSEventWatcher.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"

#include <filesystem>
#include <optional>
#include <system_error>

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

std::string WatchList::quarantineDirFrom(const Preferences& prefs)
{
    std::optional<QJsonValue> value = prefs.object("QuarantineFolder");
    if (!value)
        return {};
    if (value->isObject())
        value = value->toObject().value("path");
    if (!value->isString())
        return {};
    return expandTilde(value->toString().toStdString());
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

void WatchList::forEachAdmittedFile(const std::function<bool(std::vector<std::string>&)>& take) const
{
    namespace fs = std::filesystem;
    constexpr size_t kGroup = 1000;
    std::vector<std::string> group;
    for (const Entry& entry : entries_) {
        // Folder by folder, so that one that vanishes or cannot be read
        // costs only its own entries, never the rest of the tree.
        std::vector<std::string> folders{entry.folder};
        while (!folders.empty()) {
            const std::string folder = std::move(folders.back());
            folders.pop_back();
            std::error_code error;
            for (fs::directory_iterator walk(folder, fs::directory_options::skip_permission_denied, error);
                 !error && walk != fs::directory_iterator(); walk.increment(error)) {
                const std::string& path = walk->path().native();
                std::error_code typeError;
                const fs::file_status status = walk->symlink_status(typeError);
                if (typeError)
                    continue;
                if (fs::is_directory(status)) {
                    if (entry.subdirs && (quarantineDir_.empty() || !(path + '/').starts_with(quarantineDir_)))
                        folders.push_back(path);
                    continue;
                }
                if (!fs::is_regular_file(status) || !admits(path))
                    continue;
                group.push_back(path);
                if (group.size() == kGroup) {
                    if (!take(group))
                        return;
                    group.clear();
                }
            }
        }
    }
    if (!group.empty())
        take(group);
}

} // namespace kv

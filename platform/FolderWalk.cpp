#include "platform/FolderWalk.h"

#include "platform/LongPath.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <memory>
#include <utility>

namespace kv {

void walkFiles(const std::vector<std::string>& roots, bool followRoots,
               const std::function<bool(const std::string&)>& descend,
               const std::function<bool(std::string&&)>& take)
{
    // Each folder to walk, and whether it is a root.
    std::vector<std::pair<std::string, bool>> folders;
    for (auto root = roots.rbegin(); root != roots.rend(); ++root)
        folders.emplace_back(*root, true);
    while (!folders.empty()) {
        const auto [folder, isRoot] = std::move(folders.back());
        folders.pop_back();
        UniqueFd fd = openPath(folder, O_RDONLY | O_DIRECTORY | (isRoot && followRoots ? 0 : O_NOFOLLOW));
        const std::unique_ptr<DIR, int (*)(DIR*)> listing(fd ? ::fdopendir(fd.get()) : nullptr, ::closedir);
        if (!listing)
            continue;
        fd.release();
        const std::string prefix = folder.ends_with('/') ? folder : folder + '/';
        while (const dirent* entry = ::readdir(listing.get())) {
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..")
                continue;
            unsigned char type = entry->d_type;
            if (type == DT_UNKNOWN) {
                struct stat info{};
                if (::fstatat(::dirfd(listing.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0)
                    continue;
                type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_UNKNOWN;
            }
            std::string path = prefix;
            path += name;
            if (type == DT_DIR) {
                if (descend(path))
                    folders.emplace_back(std::move(path), false);
            } else if (type == DT_REG && !take(std::move(path))) {
                return;
            }
        }
    }
}

} // namespace kv

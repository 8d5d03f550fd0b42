#include "platform/RootControlled.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kv {
namespace {

std::string checkOwnership(const std::string& place, const struct stat& info, bool folder)
{
    if (folder ? !S_ISDIR(info.st_mode) : !S_ISREG(info.st_mode))
        return place + (S_ISLNK(info.st_mode) ? " is a symbolic link"
                        : folder              ? " is not a folder"
                                              : " is not a plain file");
    if (info.st_uid != 0)
        return place + " does not belong to root";
    if (info.st_mode & (S_IWGRP | S_IWOTH))
        return place + " may be written by users other than root";
    return {};
}

std::string cannotExamine(const std::string& place) { return place + " cannot be examined: " + std::strerror(errno); }

} // namespace

UniqueFd openRootControlled(const std::string& path, std::string* why)
{
    const auto refuse = [why](std::string reason) {
        *why = std::move(reason);
        return UniqueFd();
    };
    if (path.empty() || path.front() != '/')
        return refuse(path + " is not an absolute path");

    UniqueFd folder(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat info{};
    if (!folder || ::fstat(folder.get(), &info) != 0)
        return refuse(cannotExamine("/"));
    if (std::string reason = checkOwnership("/", info, true); !reason.empty())
        return refuse(std::move(reason));

    size_t start = 1;
    for (;;) {
        const size_t slash = path.find('/', start);
        const bool last = slash == std::string::npos;
        const std::string name = path.substr(start, last ? std::string::npos : slash - start);
        const std::string place = path.substr(0, last ? path.size() : slash);
        if (name.empty() || name == "." || name == "..")
            return refuse(path + " is not a plain path");
        UniqueFd next(::openat(folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!next || ::fstat(next.get(), &info) != 0)
            return refuse(cannotExamine(place));
        if (std::string reason = checkOwnership(place, info, !last); !reason.empty())
            return refuse(std::move(reason));
        if (!last) {
            folder = std::move(next);
            start = slash + 1;
            continue;
        }
        // The checked object is a plain file, so opening it neither blocks
        // nor touches a device; it must still be the same one.
        UniqueFd file(::openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat opened{};
        if (!file || ::fstat(file.get(), &opened) != 0)
            return refuse(cannotExamine(place));
        if (opened.st_dev != info.st_dev || opened.st_ino != info.st_ino)
            return refuse(place + " changed while it was examined");
        // A second name elsewhere, made while links to others' files were
        // allowed, would share the mode given to this one.
        if (opened.st_nlink != 1)
            return refuse(place + " has other names (hard links)");
        return file;
    }
}

std::string whyNotRootControlled(const std::string& path)
{
    std::string why;
    openRootControlled(path, &why);
    return why;
}

} // namespace kv

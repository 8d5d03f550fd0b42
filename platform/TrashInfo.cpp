#include "platform/TrashInfo.h"

#include "platform/FileWriting.h"
#include "platform/LongPath.h"
#include "platform/PathText.h"
#include "platform/Paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kv {

std::string trashFolder() { return joinPath(dataHome(), "Trash"); }

std::string trashFilesFolder() { return joinPath(trashFolder(), "files"); }

bool ensureTrashFolders()
{
    const std::string root = trashFolder();
    return makeDirectories(joinPath(root, "files"), 0700) && makeDirectories(joinPath(root, "info"), 0700);
}

OpenTrash openTrash(std::string* error)
{
    const std::string files = trashFilesFolder();
    if (!ensureTrashFolders()) {
        *error = "Can't create the Trash " + displayText(trashFolder()) + ": " + std::strerror(errno);
        return {};
    }
    const ParentAndName root = openParentWithoutLinks(files);
    OpenTrash trash;
    const auto open = [&](const char* name) {
        return UniqueFd(::openat(root.folder.get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    };
    if (root.folder) {
        trash.files = open("files");
        trash.info = open("info");
    }
    if (!trash.files || !trash.info) {
        *error = "Can't open the Trash " + displayText(trashFolder()) +
                 (errno == ELOOP || errno == ENOTDIR ? std::string(": a folder on the way is a link")
                                                     : ": " + std::string(std::strerror(errno)));
        return {};
    }
    for (const int folder : {trash.files.get(), trash.info.get()}) {
        struct stat info{};
        if (::fstat(folder, &info) != 0 || info.st_uid != ::geteuid() || (info.st_mode & (S_IWGRP | S_IWOTH))) {
            *error = "The Trash " + displayText(trashFolder()) +
                     " is not the user's alone (another user owns it or may write to it)";
            return {};
        }
    }
    return trash;
}

bool writeTrashInfo(const MovedLine& moved, std::time_t deletionTime)
{
    const std::string files = trashFilesFolder() + "/";
    if (moved.destination.compare(0, files.size(), files) != 0)
        return false;
    const std::string name = moved.destination.substr(files.size());
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..")
        return false;
    // Only a move that happened: the file is in the Trash and gone from
    // where it was.
    struct stat info{};
    if (::lstat(moved.destination.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        return false;
    if (statPath(moved.originalPath, &info, false) || errno != ENOENT)
        return false;
    const UniqueFd infoFolder(::open(joinPath(trashFolder(), "info").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return infoFolder && writeTrashInfoAt(infoFolder.get(), name, moved.originalPath, deletionTime);
}

bool writeTrashInfoAt(int infoFolder, const std::string& name, const std::string& originalPath,
                      std::time_t deletionTime)
{
    std::tm local{};
    ::localtime_r(&deletionTime, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    const std::string text = "[Trash Info]\nPath=" + percentEncodePath(originalPath) + "\nDeletionDate=" + date + "\n";

    // A new file or none: an entry the desktop already knows is never
    // rewritten, and a link planted there is never followed.
    const UniqueFd fd(::openat(infoFolder, (name + ".trashinfo").c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd)
        return false;
    return writeAll(fd.get(), text);
}

} // namespace kv

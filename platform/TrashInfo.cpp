#include "platform/TrashInfo.h"

#include "platform/FileWriting.h"
#include "platform/LongPath.h"
#include "platform/PathText.h"
#include "platform/Paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>


namespace kv {

std::string trashFolder() { return joinPath(dataHome(), "Trash"); }

std::string trashFilesFolder() { return joinPath(trashFolder(), "files"); }

bool ensureTrashFolders()
{
    const std::string root = trashFolder();
    return makeDirectories(joinPath(root, "files"), 0700) && makeDirectories(joinPath(root, "info"), 0700);
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

    std::tm local{};
    ::localtime_r(&deletionTime, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    const std::string text =
        "[Trash Info]\nPath=" + percentEncodePath(moved.originalPath) + "\nDeletionDate=" + date + "\n";

    // A new file or none: an entry the desktop already knows is never
    // rewritten, and a link planted there is never followed.
    const std::string infoPath = joinPath(trashFolder(), "info/" + name + ".trashinfo");
    const int fd = ::open(infoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    const bool written = writeAll(fd, text);
    return ::close(fd) == 0 && written;
}

} // namespace kv

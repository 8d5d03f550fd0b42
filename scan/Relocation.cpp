#include "scan/Relocation.h"

#include "platform/FileWriting.h"
#include "platform/LongPath.h"
#include "platform/QuarantineRecords.h"
#include "platform/TrashInfo.h"
#include "platform/UniqueFd.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace kv {
namespace {

// The name with the numbered ending, shortened when the whole would be
// longer than a name may be.
std::string candidate(const std::string& name, int number)
{
    if (number == 0)
        return name;
    char ending[8];
    std::snprintf(ending, sizeof ending, ".%03d", number);
    return name.substr(0, NAME_MAX - std::strlen(ending)) + ending;
}

} // namespace

std::optional<std::string> moveScannedFile(const std::string& path, int scannedFd, const std::string& folder,
                                           std::string* why)
{
    const ParentAndName source = openParent(path);
    if (!source.folder) {
        *why = std::strerror(errno);
        return std::nullopt;
    }
    return moveScannedFile(source.folder.get(), source.name, scannedFd, folder, why);
}

std::optional<std::string> moveScannedFile(int from, const std::string& entry, int scannedFd,
                                           const std::string& folder, std::string* why)
{
    struct stat scanned{};
    struct stat named{};
    if (::fstat(scannedFd, &scanned) != 0 || ::fstatat(from, entry.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
        *why = std::strerror(errno);
        return std::nullopt;
    }
    if (named.st_dev != scanned.st_dev || named.st_ino != scanned.st_ino) {
        *why = "the name no longer leads to the file that was scanned";
        return std::nullopt;
    }
    const UniqueFd target = openPath(folder, O_PATH | O_DIRECTORY);
    if (!target) {
        *why = folder + ": " + std::strerror(errno);
        return std::nullopt;
    }
    const std::string destination = folder.ends_with('/') ? folder : folder + "/";
    // Whether the name still leads to the scanned file, just before it goes.
    const auto stillScanned = [&] {
        struct stat now{};
        return ::fstatat(from, entry.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
               now.st_dev == scanned.st_dev && now.st_ino == scanned.st_ino;
    };
    for (int number = 0; number < 1000; ++number) {
        const std::string name = candidate(entry, number);
        if (::renameat2(from, entry.c_str(), target.get(), name.c_str(), RENAME_NOREPLACE) == 0)
            return destination + name;
        if (errno == EEXIST)
            continue;
        if (errno == EINVAL) {
            // No RENAME_NOREPLACE here (NFS, some FUSE file systems): a
            // hard link refuses a taken name just the same.
            if (::linkat(from, entry.c_str(), target.get(), name.c_str(), 0) == 0) {
                if (stillScanned() && ::unlinkat(from, entry.c_str(), 0) == 0)
                    return destination + name;
                *why = "the original could not be removed";
                ::unlinkat(target.get(), name.c_str(), 0);
                return std::nullopt;
            }
            if (errno == EEXIST)
                continue;
        }
        if (errno != EXDEV && errno != EINVAL && errno != EPERM) {
            *why = std::strerror(errno);
            return std::nullopt;
        }
        // Another file system: a copy of what was scanned, then the name
        // goes. The copy is made private; the original's mode says nothing
        // about who should read a quarantined file.
        UniqueFd copy(::openat(target.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!copy && errno == EEXIST)
            continue;
        if (!copy || !copyContents(scannedFd, copy.get()) || ::fsync(copy.get()) != 0) {
            *why = std::strerror(errno);
            if (copy)
                ::unlinkat(target.get(), name.c_str(), 0);
            return std::nullopt;
        }
        // The original must go, or the move did not happen: a copy alone
        // would report an infected file handled that is still in place.
        if (!stillScanned())
            *why = "the original changed while it was copied";
        else if (::unlinkat(from, entry.c_str(), 0) != 0)
            *why = std::string("the original could not be removed: ") + std::strerror(errno);
        else
            return destination + name;
        ::unlinkat(target.get(), name.c_str(), 0);
        return std::nullopt;
    }
    *why = "every name in " + folder + " is taken";
    return std::nullopt;
}

bool recordMove(const std::string& originalPath, const std::string& movedTo, const std::string& signature,
                bool toTrash, std::string* error)
{
    if (toTrash)
        writeTrashInfo(MovedLine{originalPath, movedTo}, std::time(nullptr));
    QuarantineRecord record;
    record.originalPath = originalPath;
    record.storedPath = movedTo;
    record.signature = signature;
    record.movedAt = std::time(nullptr);
    record.place = toTrash ? QuarantineRecord::Place::Trash : QuarantineRecord::Place::Quarantine;
    return QuarantineRecords().record(std::move(record), error);
}

} // namespace kv

#include "eventhelper/UserLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kv::gfs {
namespace {

std::string failure(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

// Whether an open object belongs to root and nobody else may write it.
bool isRootsAlone(int fd)
{
    struct stat info{};
    return ::fstat(fd, &info) == 0 && info.st_uid == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The folder name below at, never through a link, and only when it is
// root's alone; made (as root) when create is set and it does not exist.
UniqueFd openRootFolder(int at, const std::string& shown, const char* name, bool create, std::string* message)
{
    if (create && ::mkdirat(at, name, 0755) != 0 && errno != EEXIST) {
        *message = failure("cannot make " + shown);
        return {};
    }
    UniqueFd folder(::openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) {
        *message = failure(shown);
        return {};
    }
    if (!isRootsAlone(folder.get())) {
        *message = shown + " must belong to root and be writable by root alone";
        return {};
    }
    return folder;
}

} // namespace

UserLock::Outcome UserLock::take(uid_t realUid, UniqueFd* held, std::string* message)
{
    if (realUid == 0)
        return Outcome::Held;
    UniqueFd root(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root || !isRootsAlone(root.get())) {
        *message = "/ must belong to root and be writable by root alone";
        return Outcome::Failed;
    }
    const UniqueFd run = openRootFolder(root.get(), "/run", "run", false, message);
    if (!run)
        return Outcome::Failed;
    const UniqueFd folder = openRootFolder(run.get(), "/run/korvane-velgar", "korvane-velgar", true, message);
    if (!folder)
        return Outcome::Failed;

    const std::string name = "gfslogger-" + std::to_string(realUid) + ".lock";
    const std::string shown = "/run/korvane-velgar/" + name;
    UniqueFd lock(::openat(folder.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock) {
        *message = failure(shown);
        return Outcome::Failed;
    }
    struct stat info{};
    if (::fstat(lock.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_nlink != 1 || !isRootsAlone(lock.get())) {
        *message = shown + " must be a plain file of root's alone";
        return Outcome::Failed;
    }
    int locked;
    do {
        locked = ::flock(lock.get(), LOCK_EX | LOCK_NB);
    } while (locked != 0 && errno == EINTR);
    if (locked != 0) {
        if (errno != EWOULDBLOCK) {
            *message = failure("cannot lock " + shown);
            return Outcome::Failed;
        }
        *message = "another gfslogger already watches for this user (uid " + std::to_string(realUid) +
                   "), and only one may";
        return Outcome::HeldByAnother;
    }
    *held = std::move(lock);
    return Outcome::Held;
}

} // namespace kv::gfs

#include "platform/FileWriting.h"

#include "platform/UniqueFd.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

bool writeAll(int fd, std::string_view text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool writeFileNoFollow(const std::string& path, std::string_view text, bool* replacedLink)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno == ELOOP) {
        if (replacedLink)
            *replacedLink = true;
        ::unlink(path.c_str());
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }
    if (fd < 0)
        return false;
    const bool written = writeAll(fd, text);
    return ::close(fd) == 0 && written;
}

bool copyContents(int from, int to)
{
    char buffer[64 * 1024];
    for (off_t offset = 0;;) {
        const ssize_t length = ::pread(from, buffer, sizeof buffer, offset);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return length == 0;
        if (!writeAll(to, std::string_view(buffer, static_cast<size_t>(length))))
            return false;
        offset += length;
    }
}

std::optional<std::string> moveIntoFolder(int from, const std::string& name, int file, int into, std::string* why)
{
    struct stat held{};
    if (::fstat(file, &held) != 0) {
        *why = std::strerror(errno);
        return std::nullopt;
    }
    // Whether the name still leads to the file held, just before it goes.
    const auto stillNamed = [&] {
        struct stat now{};
        return ::fstatat(from, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_dev == held.st_dev &&
               now.st_ino == held.st_ino;
    };
    if (!stillNamed()) {
        *why = "the name no longer leads to the file that was found";
        return std::nullopt;
    }
    for (int number = 0; number < 1000; ++number) {
        const std::string target = candidate(name, number);
        if (::renameat2(from, name.c_str(), into, target.c_str(), RENAME_NOREPLACE) == 0)
            return target;
        if (errno == EEXIST)
            continue;
        if (errno == EINVAL) {
            // No RENAME_NOREPLACE here (NFS, some FUSE file systems): a
            // hard link refuses a taken name just the same.
            if (::linkat(from, name.c_str(), into, target.c_str(), 0) == 0) {
                if (stillNamed() && ::unlinkat(from, name.c_str(), 0) == 0)
                    return target;
                *why = "the original could not be removed";
                ::unlinkat(into, target.c_str(), 0);
                return std::nullopt;
            }
            if (errno == EEXIST)
                continue;
        }
        if (errno != EXDEV && errno != EINVAL && errno != EPERM) {
            *why = std::strerror(errno);
            return std::nullopt;
        }
        // Another file system: a copy of the file held, then the name goes.
        const UniqueFd copy(
            ::openat(into, target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!copy && errno == EEXIST)
            continue;
        if (!copy || !copyContents(file, copy.get()) || ::fsync(copy.get()) != 0) {
            *why = std::strerror(errno);
            if (copy)
                ::unlinkat(into, target.c_str(), 0);
            return std::nullopt;
        }
        // The original must go, or the move did not happen: a copy alone
        // would report a file moved away that is still in place.
        if (!stillNamed())
            *why = "the original changed while it was copied";
        else if (::unlinkat(from, name.c_str(), 0) != 0)
            *why = std::string("the original could not be removed: ") + std::strerror(errno);
        else
            return target;
        ::unlinkat(into, target.c_str(), 0);
        return std::nullopt;
    }
    *why = "every name in the folder is taken";
    return std::nullopt;
}

} // namespace kv

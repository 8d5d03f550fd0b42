#include "platform/FileWriting.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kv {

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

} // namespace kv

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

} // namespace kv

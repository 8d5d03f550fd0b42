#include "eventhelper/LineWriter.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kv::gfs {

bool LineWriter::add(std::string_view path)
{
    const size_t length = path.size() + 1;
    if (used_ + length > sizeof buffer_ && !flush())
        return false;
    if (length > sizeof buffer_) {
        // Longer than a pipe writes whole: on its own, in one call.
        std::string line(path);
        line += '\n';
        return writeAll(line.data(), line.size());
    }
    std::memcpy(buffer_ + used_, path.data(), path.size());
    buffer_[used_ + path.size()] = '\n';
    used_ += length;
    return true;
}

bool LineWriter::flush()
{
    if (used_ == 0)
        return true;
    const bool written = writeAll(buffer_, used_);
    used_ = 0;
    return written;
}

bool LineWriter::writeAll(const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd_, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace kv::gfs

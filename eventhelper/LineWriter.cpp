#include "eventhelper/LineWriter.h"

#include "platform/Utf8.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kv::gfs {

namespace {

// The name with every byte outside printable ASCII, and the backslash, as
// \xNN, so the system log shows exactly what the file is called.
std::string escaped(std::string_view path)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7f || byte == '\\') {
            text += "\\x";
            text += kHex[byte >> 4];
            text += kHex[byte & 0xf];
        } else {
            text += c;
        }
    }
    return text;
}

} // namespace

bool LineWriter::add(std::string_view path)
{
    if (path.find('\n') != std::string_view::npos || !isValidUtf8(path)) {
        ::syslog(LOG_WARNING, "not passed on, since its name holds a line break or bytes that are not UTF-8: %s",
                 escaped(path).c_str());
        return true;
    }
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

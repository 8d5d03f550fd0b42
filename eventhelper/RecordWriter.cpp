#include "eventhelper/RecordWriter.h"

#include "eventhelper/HelperOutput.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kv::gfs {

namespace {

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace

bool RecordWriter::add(std::initializer_list<std::string_view> records)
{
    size_t length = 0;
    for (const std::string_view record : records)
        length += record.size() + 1;
    if (used_ + length > sizeof buffer_ && !flush())
        return false;
    if (length > sizeof buffer_) {
        std::string entry;
        entry.reserve(length);
        for (const std::string_view record : records) {
            entry += record;
            entry += kRecordEnd;
        }
        return writeAll(fd_, entry.data(), entry.size());
    }
    for (const std::string_view record : records) {
        std::memcpy(buffer_ + used_, record.data(), record.size());
        used_ += record.size();
        buffer_[used_++] = kRecordEnd;
    }
    return true;
}

bool RecordWriter::flush()
{
    if (used_ == 0)
        return true;
    const bool written = writeAll(fd_, buffer_, used_);
    used_ = 0;
    return written;
}

void printDiagnostic(std::string_view message)
{
    std::string record(kDiagnosticPrefix);
    record += message;
    record += '\n';
    record += kRecordEnd;
    writeAll(STDERR_FILENO, record.data(), record.size());
}

} // namespace kv::gfs

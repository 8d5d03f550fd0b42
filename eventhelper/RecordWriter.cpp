#include "eventhelper/RecordWriter.h"

#include "eventhelper/HelperOutput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kv::gfs {

namespace {

enum class Written { All, ReaderGone, Unread };

// Writes everything, waiting at most kLongestUnreadOutput at a time for the
// reader to make room: each byte it takes starts the wait afresh.
Written writeAll(int fd, const char* data, size_t size)
{
    using Clock = std::chrono::steady_clock;
    Clock::time_point giveUp = Clock::now() + kLongestUnreadOutput;
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n > 0) {
            data += n;
            size -= static_cast<size_t>(n);
            giveUp = Clock::now() + kLongestUnreadOutput;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n >= 0 || errno != EAGAIN)
            return Written::ReaderGone;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(giveUp - Clock::now()).count();
        if (left <= 0)
            return Written::Unread;
        pollfd output{fd, POLLOUT, 0};
        if (::poll(&output, 1, static_cast<int>(left)) < 0 && errno != EINTR)
            return Written::ReaderGone;
    }
    return Written::All;
}

} // namespace

void RecordWriter::prepare(int fd)
{
    struct stat info{};
    const int flags = ::fcntl(fd, F_GETFL);
    if (::fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode) && flags >= 0)
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

bool RecordWriter::write(const char* data, size_t size)
{
    const Written written = writeAll(fd_, data, size);
    unread_ = written == Written::Unread;
    failed_ = written != Written::All;
    return !failed_;
}

bool RecordWriter::add(std::initializer_list<std::string_view> records)
{
    if (failed_)
        return false;
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
        return write(entry.data(), entry.size());
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
    if (failed_)
        return false;
    if (used_ == 0)
        return true;
    const bool written = write(buffer_, used_);
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

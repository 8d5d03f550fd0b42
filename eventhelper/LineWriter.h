#pragma once

#include <limits.h>

#include <cstddef>
#include <string_view>

namespace kv::gfs {

// gfslogger's output: one path per line. The reader handles each chunk it
// reads on its own and never joins a line split between two chunks, so a
// line is never split between two write(2) calls: lines are gathered into
// writes of at most PIPE_BUF bytes, which a pipe delivers whole.
//
// The reader takes UTF-8 lines and drops a whole read that is not UTF-8, so
// a path that holds a line break or bytes that are not UTF-8 is withheld (and
// named in the system log): it would hide the paths read with it.
//
// Single-threaded.
class LineWriter {
public:
    explicit LineWriter(int fd) : fd_(fd) {}

    // Adds path and "\n". False when the reader has gone away.
    bool add(std::string_view path);

    // Writes what has been gathered. False when the reader has gone away.
    bool flush();

private:
    bool writeAll(const char* data, size_t size);

    int fd_;
    char buffer_[PIPE_BUF];
    size_t used_ = 0;
};

} // namespace kv::gfs

#pragma once

#include <limits.h>

#include <cstddef>
#include <initializer_list>
#include <string_view>

namespace kv::gfs {

// gfslogger's output: records, each ended by kRecordEnd (HelperOutput.h).
// Records are gathered into writes of at most PIPE_BUF bytes, so a burst of
// events costs few wake-ups of the reader; a longer entry goes out in one
// call of its own.
//
// An entry (a path, or a kind and its fields) is never split between two
// write(2) calls. The reader would cope, as it carries partial records over,
// but the helper writes its diagnostics into the same pipe, and one written
// after half an entry would read as that entry's field.
//
// Single-threaded.
class RecordWriter {
public:
    explicit RecordWriter(int fd) : fd_(fd) {}

    // Adds one entry. False when the reader has gone away.
    bool add(std::string_view record) { return add({record}); }
    bool add(std::initializer_list<std::string_view> records);

    // Writes what has been gathered. False when the reader has gone away.
    bool flush();

private:
    int fd_;
    char buffer_[PIPE_BUF];
    size_t used_ = 0;
};

// Writes kDiagnosticPrefix, message, "\n" and the record end to standard
// error in one call: the agent reads standard error in the pipe it reads
// our records from, and takes each diagnostic as a record of its own.
void printDiagnostic(std::string_view message);

} // namespace kv::gfs

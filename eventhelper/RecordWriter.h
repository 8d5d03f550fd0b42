#pragma once

#include <limits.h>

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <string_view>

namespace kv::gfs {

// How long gfslogger waits for its reader to take output before it gives up
// and ends (kOutputUnread), rather than block in a write for ever: its agent
// stopped with SIGSTOP, or hung. The agent reads on a thread that does
// nothing else and the pipe holds a thousand paths or so, so a live agent,
// however busy, never comes near it; a stopped one gives the kernel back the
// helper's queue and marks within half a minute.
inline constexpr std::chrono::seconds kLongestUnreadOutput{20};

// gfslogger's output: records, each ended by kRecordEnd (HelperOutput.h).
// Records are gathered into writes of at most PIPE_BUF bytes, so a burst of
// events costs few wake-ups of the reader; a longer entry goes out at once,
// on its own.
//
// An entry (a path, or a kind and its fields) is written whole before
// anything else is written. The reader would cope, as it carries partial
// records over, but the helper writes its diagnostics into the same pipe,
// and one written after half an entry would read as that entry's field.
//
// Single-threaded.
class RecordWriter {
public:
    explicit RecordWriter(int fd) : fd_(fd) {}

    // Makes the pipe behind fd non-blocking (nothing else: a terminal or a
    // file stays as it is), so that a write can give up after
    // kLongestUnreadOutput. Called for standard output and standard error.
    static void prepare(int fd);

    // Adds one entry. False when the reader has gone away or took nothing
    // for kLongestUnreadOutput; once a write has failed, nothing more is
    // written and every call is false at once.
    bool add(std::string_view record) { return add({record}); }
    bool add(std::initializer_list<std::string_view> records);

    // Writes what has been gathered. False as for add().
    bool flush();

    // After a failure: whether the reader is still there but took nothing
    // for kLongestUnreadOutput.
    bool unread() const { return unread_; }

private:
    bool write(const char* data, size_t size);

    int fd_;
    char buffer_[PIPE_BUF];
    size_t used_ = 0;
    bool failed_ = false;
    bool unread_ = false;
};

// Writes kDiagnosticPrefix, message, "\n" and the record end to standard
// error in one call: the agent reads standard error in the pipe it reads
// our records from, and takes each diagnostic as a record of its own.
void printDiagnostic(std::string_view message);

} // namespace kv::gfs

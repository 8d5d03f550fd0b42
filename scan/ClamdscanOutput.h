#pragma once

#include "scan/ScanResult.h"

#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace kv {

// Whether clamdscan's list file and its line-based output carry the path
// faithfully: no line break (it would split the entry and the result
// line), no carriage return (clamdscan strips a trailing one, and scans the
// neighbour without it), only well-formed UTF-8 (the output is decoded as
// text), and shorter than the lines its list reader takes whole (about a
// kilobyte; the rest of a longer line would be taken for a path of its
// own). Other paths are scanned by descriptor.
bool listFileCanCarry(std::string_view path);
inline constexpr std::size_t kLongestListedPath = 1000;

// The files one scan run asked about. A result line counts only for a path
// asked about: any other path in clamdscan's output came from a name made
// to look like a result. (Folders are never handed to clamdscan whole for
// this reason: their files are queued one by one.)
using AskedPaths = std::unordered_set<std::string>;

// clamdscan's output, read while the client runs, turned into results.
// Each line is one of:
//   - "PATH: OK", "PATH: SIGNATURE FOUND", "PATH: REASON ERROR" for a path
//     the run asked about: a result;
//   - "PATH: moved to 'DESTINATION'" right after PATH was found: the move,
//     which completes that result;
//   - a sign that the daemon cannot be reached;
//   - the closing summary, which is dropped;
//   - anything else: a message, logged as it is, or, when it looks like a
//     result or a move for a path the run did not ask about (or a move of a
//     file the run did not find), unexpected output.
// A found file's result is handed over once the line after it shows whether
// it was moved; the last one at finish().
//
// Used by one run on its scanner's thread.
class ClamdscanOutput {
public:
    class Reader {
    public:
        virtual ~Reader() = default;
        virtual void result(ScanResult result) = 0;
        // A line saying the daemon cannot be reached: every old-style warning
        // and the first error of the run (the later ones are messages).
        virtual void unreachable(std::string_view line) = 0;
        virtual void message(std::string_view line) = 0;
        virtual void unexpected(std::string_view line) = 0;
    };

    ClamdscanOutput(const AskedPaths& asked, Reader& reader) : asked_(asked), reader_(reader) {}

    // A line split between chunks waits for its end; output without a line
    // break for kLongestLine is taken as a line of its own.
    void feed(std::string_view chunk);
    // The last line, when it had no line break, and the last found file.
    void finish();

    static constexpr std::size_t kLongestLine = 64 * 1024;

private:
    void line(std::string_view text);
    // The asked path that a result line ending in ENDING starts with,
    // before ": ".
    std::optional<std::string> askedPathBefore(std::string_view line, std::string_view ending,
                                               bool lastColonOnly) const;
    void handOverFound();

    const AskedPaths& asked_;
    Reader& reader_;
    std::string partial_;             // output after the last line break
    std::optional<ScanResult> found_;  // a found file whose move may follow
    bool sawUnreachable_ = false;
};

} // namespace kv

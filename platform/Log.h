#pragma once

#include <string>
#include <string_view>

namespace kv {

// The agent's diagnostic log call. Writes one line to standard error as
//   YYYY-MM-DD HH:MM:SS.mmm korvane-velgar[pid:tid] text
// (a newline is added unless the text ends with one) and the same text to the
// system log with the ident "korvane-velgar". Standard error is the scan log
// once the controller has redirected it, so these lines land there too.
//
// Thread-safe: each line goes out in one write(2).
void nsLog(std::string_view text);

// printf-style convenience over nsLog().
void nsLogf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Formats like sprintf into a std::string.
std::string stringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// For tests: when set, every line is also handed to this observer (after it
// has been written). Pass nullptr to remove it.
using LogObserver = void (*)(const std::string& line, void* context);
void setLogObserver(LogObserver observer, void* context);

} // namespace kv

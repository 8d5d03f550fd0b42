#pragma once

#include <string_view>

namespace kv::gfs {

// gfslogger's output is a stream of records, each ended by a NUL byte: the
// one byte no path can hold, so any name, whatever its bytes (line breaks,
// carriage returns, bytes that are not UTF-8), travels whole and no name can
// forge a record. A reader carries a record split between two reads over to
// the next one.
//
// A record that starts with "/" is a path: a file was created, closed after
// writing, moved in or had its attributes changed (a file made readable
// after its first scan failed), or was found in a folder just made. Every other record is one of the kinds
// below; a kind that takes fields is followed by exactly that many records.
inline constexpr char kRecordEnd = '\0';

// The kernel's event queue overflowed and events were lost, so the reader
// cannot know which files changed. No fields.
inline constexpr std::string_view kQueueOverflowed = "!queue-overflowed";

// A folder was moved in, or a watched folder that had gone is back. Two
// fields: where it was before ("" when that is unknown, such as a place the
// helper does not watch, or a place the real user may not list) and where
// it is now. Its files raised no events of their own, so the reader scans
// it whole unless they were watched where it came from.
inline constexpr std::string_view kFolderArrived = "!folder-arrived";

// An event whose object has no path the helper can give (its path is longer
// than PATH_MAX). Two fields: the reason in words, and the nearest folder
// above it that has a path, which the reader scans whole instead; "" when
// the real user may not list that folder or reach the event's folder from it.
inline constexpr std::string_view kUnresolved = "!unresolved";

// Diagnostics of the helper, which the agent reads in the same pipe as its
// output (standard error is joined to it), start with this and are records
// too: written to standard error ended by "\n" and the record end.
inline constexpr std::string_view kDiagnosticPrefix = "gfslogger: ";

} // namespace kv::gfs

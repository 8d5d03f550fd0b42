#pragma once

#include <string_view>

namespace kv::gfs {

// What the agent tells gfslogger on its standard input: the folders to
// watch. Records are ended by kRecordEnd, as in HelperOutput.h, so a path
// travels whole whatever its bytes and no name can forge a record.
//
// A list is any number of entries, each a kind below followed by exactly one
// record, a path, and ends with kListEnd. Each list replaces the one before
// it as a whole. The agent writes its list when it starts the helper and
// again whenever the list changes; until a first list has ended, the helper
// watches nothing. A path that names a file rather than a folder stands for
// the folder that holds it, watched for its own entries.

// A folder watched for its own entries. One field: its path.
inline constexpr std::string_view kWatchFolder = "!folder";

// A folder watched with every folder below it. One field: its path.
inline constexpr std::string_view kWatchTree = "!tree";

// How long the holder keeps an open of a file in the list's folders
// waiting for its verdict (OpenHolder.h). One field: whole seconds in
// decimal, 0 to hold nothing. A list without it holds nothing.
inline constexpr std::string_view kHoldSeconds = "!hold";

// Ends a list. No fields.
inline constexpr std::string_view kListEnd = "!list-end";

} // namespace kv::gfs

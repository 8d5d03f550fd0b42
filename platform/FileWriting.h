#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

// Writes all of text to fd, retrying short writes and EINTR. False on any
// other failure.
bool writeAll(int fd, std::string_view text);

// Copies everything the descriptor from holds, from its start, to the
// descriptor to, retrying EINTR. False on any read or write failure.
bool copyContents(int from, int to);

// Replaces the file at path with text, mode 0600, without ever following a
// symbolic link at that path: a link found there is removed first (and
// reported through *replacedLink), so a link planted by someone else can
// never redirect the write.
bool writeFileNoFollow(const std::string& path, std::string_view text, bool* replacedLink = nullptr);

// Moves the entry name of the folder held by from into the folder held by
// into, under the same name or, when that is taken, NAME.001, NAME.002, ...;
// nothing there is ever replaced. Both folders are descriptors, so no path
// is looked up again: a folder on the way swapped for a link since it was
// opened changes nothing. Only the file held by file (opened from that entry
// for reading) is moved: the entry must still lead to it just before it
// goes. Across file systems its contents are copied into a new file of mode
// 0600 (a moved-away file's old mode says nothing about who should read it)
// and the entry is then removed. Returns the name in into, or nothing with
// *why set.
std::optional<std::string> moveIntoFolder(int from, const std::string& name, int file, int into, std::string* why);

} // namespace kv

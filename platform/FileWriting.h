#pragma once

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

} // namespace kv

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

// A path (or a line that holds one) as the log, dialogs and notifications
// show it. A Linux name is any bytes but "/" and NUL, so a name could hold a
// line break that starts a forged log line, or bytes no text can show:
// line breaks, returns and tabs become \n, \r and \t, other control
// characters and every byte that is not part of well-formed UTF-8 become
// \xNN, characters a reader cannot see for what they are (Unicode's
// controls and format characters: zero-width spaces and joiners, text
// direction marks and overrides, the byte order mark; line and paragraph
// separators, every space but the plain one, private-use and unassigned
// code points) become \uNNNN (\UNNNNNNNN past U+FFFF), and the backslash
// itself becomes \\, so the text names exactly one path and two different
// names never look the same. Everything else, other scripts included, is
// shown as it is.
std::string displayText(std::string_view bytes);

// A path as a .trashinfo Path= key and the agent's own records keep it: every
// byte but unreserved characters and "/" becomes %XX, so the text is plain
// ASCII without line breaks whatever bytes the name holds.
std::string percentEncodePath(std::string_view path);
// The bytes back; nothing for a "%" not followed by two hex digits.
std::optional<std::string> percentDecodePath(std::string_view text);

} // namespace kv

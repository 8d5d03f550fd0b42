#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

// Identifiers of the text encodings the configuration reader can report,
// logged as "clamdconfEncoding: %d".
enum ConfigEncoding : int {
    kNoEncoding = 0,
    kAsciiEncoding = 1,
    kUtf8Encoding = 4,
};

struct ClamdConfigText {
    std::string text;
    int encoding = kNoEncoding;  // kNoEncoding when nothing could be read
    std::string error;           // why nothing was read, when so
};

// Reads a clamd configuration file as text. Plain ASCII and UTF-8 files are
// accepted; anything else (or an unreadable file) gives no text and a reason.
ClamdConfigText readClamdConfig(const std::string& path);

// Walks the text's lines (split at "\n" only, nothing trimmed) and returns the
// socket named by the last line that is at least 13 characters long and holds
// "LocalSocket " anywhere: the text after the first occurrence up to the next
// occurrence or the end of the line. Comment lines count like any other.
std::optional<std::string> lastLocalSocket(std::string_view text);

} // namespace kv

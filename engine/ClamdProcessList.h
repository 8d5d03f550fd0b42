#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

// What the process list tells about a running clamd: its executable and
// the configuration file it was started with (none without one).
struct ClamdCommandLine {
    std::string clamdPath;
    std::optional<std::string> configPath;
};

// Parses one chunk of the process-list pipeline's output as one text, even
// when it holds several lines: the text from its first "/" is split at the
// first "--config" (the option is 14 characters long with its "="), failing
// that at the first "-c" (with one blank after it), failing that it is the
// executable alone. Matches at position 0 do not count.
ClamdCommandLine parseClamdProcessChunk(std::string_view chunk);

} // namespace kv

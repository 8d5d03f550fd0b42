#pragma once

#include <string_view>

namespace kv::gfs {

// The one line of gfslogger's output that is not a path: the kernel's event
// queue overflowed and events were lost, so the reader cannot know which
// files changed. Every path starts with "/", this does not.
inline constexpr std::string_view kQueueOverflowed = "!queue-overflowed";

// Lines of the helper's standard error, which the agent reads in the same
// pipe as its output, start with this.
inline constexpr std::string_view kDiagnosticPrefix = "gfslogger: ";

} // namespace kv::gfs

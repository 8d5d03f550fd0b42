#pragma once

#include <string>

namespace kv {

// The test of one path against one exclusion (see Settings::exclusions).
// True when the extended, case-sensitive expression matches the whole path
// or its last component. An expression that does not compile never matches.
bool search(const std::string& path, const std::string& pattern);

} // namespace kv

#pragma once

namespace kv {

// Where users send the lines that ask them to report a problem.
inline constexpr const char* kSupportAddress = "support@korvane.example";

} // namespace kv

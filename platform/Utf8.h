#pragma once

#include <string_view>

namespace kv {

// True when the bytes are well-formed UTF-8 (no overlong forms, no
// surrogates, nothing above U+10FFFF). Plain ASCII is UTF-8.
bool isValidUtf8(std::string_view text);

} // namespace kv

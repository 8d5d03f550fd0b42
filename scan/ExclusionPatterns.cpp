#include "scan/ExclusionPatterns.h"

#include <regex.h>

namespace kv {

bool search(const std::string& path, const std::string& pattern)
{
    regex_t expression;
    if (::regcomp(&expression, pattern.c_str(), REG_EXTENDED) != 0)
        return false;
    regmatch_t matches[2];
    bool matched = ::regexec(&expression, path.c_str(), 2, matches, 0) == 0;
    if (!matched) {
        const size_t slash = path.rfind('/');
        const std::string lastComponent = slash == std::string::npos ? path : path.substr(slash + 1);
        matched = ::regexec(&expression, lastComponent.c_str(), 2, matches, 0) == 0;
    }
    ::regfree(&expression);
    return matched;
}

} // namespace kv

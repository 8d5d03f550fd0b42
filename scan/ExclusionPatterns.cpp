#include "scan/ExclusionPatterns.h"

#include "platform/Paths.h"
#include "platform/Preferences.h"

#include <regex.h>

#include <QJsonObject>

namespace kv {

std::string escapePlainPattern(const std::string& text)
{
    // One pass per character, backslash first, so the backslashes that later
    // passes insert are not doubled again.
    static constexpr char kSpecial[] = {'\\', '[', '^', '$', '.', '|', '?', '*', '+', '(', ')'};
    std::string escaped = text;
    for (const char special : kSpecial) {
        std::string next;
        next.reserve(escaped.size() + 8);
        for (const char c : escaped) {
            if (c == special)
                next += '\\';
            next += c;
        }
        escaped.swap(next);
    }
    return escaped;
}

std::vector<std::string> buildExcludePatterns(const QJsonArray& records)
{
    std::vector<std::string> patterns;
    for (const QJsonValue& value : records) {
        if (!value.isObject())
            continue;
        const QJsonObject record = value.toObject();
        if (!objectBoolValue(record.value("excludeEnabled")))
            continue;
        const QJsonValue pattern = record.value("excludePattern");
        if (!pattern.isString() || pattern.toString().isEmpty())
            continue;
        const std::string text = pattern.toString().toStdString();
        if (objectBoolValue(record.value("excludeRegEx")))
            patterns.push_back(text);
        else
            patterns.push_back(escapePlainPattern(expandTilde(text)));
    }
    return patterns;
}

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

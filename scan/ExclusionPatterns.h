#pragma once

#include <QJsonArray>

#include <string>
#include <vector>

namespace kv {

// The user's exclusion records ("ExcludePatterns") as extended regular
// expressions, and the test of one path against one expression.
//
// A record is used only when "excludeEnabled" is true. A regular-expression
// record ("excludeRegEx" true) is taken as it stands; a plain record has a
// leading "~" expanded and its special characters escaped, so it matches
// its text literally wherever it occurs.
std::vector<std::string> buildExcludePatterns(const QJsonArray& records);

// Escapes \ [ ^ $ . | ? * + ( ) with one backslash each, in that order of
// passes. "]" and braces are left as they are.
std::string escapePlainPattern(const std::string& text);

// True when the extended, case-sensitive expression matches the whole path
// or its last component. An expression that does not compile never matches.
bool search(const std::string& path, const std::string& pattern);

} // namespace kv

#pragma once

#include <QJsonValue>

#include <optional>
#include <string>

namespace kv {

// A preference value as typed after `velgarctl defaults write DOMAIN KEY`:
// the type option (-string, -bool, -int, -float, -json) and its text.
// Returns nothing, with the reason in *error, when the type is unknown or
// the text is not a value of that type.
//   -bool   true/false, yes/no, 1/0, in any case
//   -int    a whole decimal number that a JSON number holds exactly (|N| <= 2^53)
//   -float  a finite decimal number
//   -json   one JSON value of any kind ("text", 3, [..], {..}, true, null)
std::optional<QJsonValue> parseTypedValue(const std::string& type, const std::string& text, std::string* error);

// The JSON text of a value: objects and arrays indented over several lines,
// anything else on one line. Ends without a newline.
std::string jsonText(const QJsonValue& value);

} // namespace kv

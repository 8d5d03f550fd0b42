#include "tools/TypedValue.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <strings.h>

namespace kv {
namespace {

// JSON numbers are doubles: beyond 2^53 whole numbers stop being exact.
constexpr long long kLargestExactInteger = 1LL << 53;

std::optional<QJsonValue> parseBool(const std::string& text)
{
    for (const char* yes : {"true", "yes", "1"}) {
        if (::strcasecmp(text.c_str(), yes) == 0)
            return QJsonValue(true);
    }
    for (const char* no : {"false", "no", "0"}) {
        if (::strcasecmp(text.c_str(), no) == 0)
            return QJsonValue(false);
    }
    return std::nullopt;
}

std::optional<QJsonValue> parseInt(const std::string& text)
{
    // strtoll would skip leading blanks and accept "12abc" up to the letters.
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])))
        return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || number > kLargestExactInteger || number < -kLargestExactInteger)
        return std::nullopt;
    return QJsonValue(static_cast<qint64>(number));
}

std::optional<QJsonValue> parseFloat(const std::string& text)
{
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])))
        return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    // JSON has no NaN or infinity, and strtod would accept "nan" and "inf".
    if (errno != 0 || *end != '\0' || !std::isfinite(number))
        return std::nullopt;
    return QJsonValue(number);
}

std::optional<QJsonValue> parseJson(const std::string& text, std::string* error)
{
    // QJsonDocument only parses objects and arrays; wrapping the text in an
    // array accepts any single value and refuses "1, 2".
    QJsonParseError parseError{};
    const QByteArray wrapped = "[" + QByteArray::fromStdString(text) + "]";
    const QJsonDocument document = QJsonDocument::fromJson(wrapped, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = "not valid JSON: " + parseError.errorString().toStdString();
        return std::nullopt;
    }
    const QJsonArray values = document.array();
    if (values.size() != 1) {
        *error = "not one JSON value";
        return std::nullopt;
    }
    return values.first();
}

} // namespace

std::optional<QJsonValue> parseTypedValue(const std::string& type, const std::string& text, std::string* error)
{
    std::optional<QJsonValue> value;
    const char* expected = "";
    if (type == "-string")
        return QJsonValue(QString::fromStdString(text));
    if (type == "-json")
        return parseJson(text, error);
    if (type == "-bool") {
        value = parseBool(text);
        expected = "a boolean (true/false, yes/no, 1/0)";
    } else if (type == "-int") {
        value = parseInt(text);
        expected = "a whole number within +-2^53";
    } else if (type == "-float") {
        value = parseFloat(text);
        expected = "a finite number";
    } else {
        *error = "unknown value type \"" + type + "\" (use -string, -bool, -int, -float or -json)";
        return std::nullopt;
    }
    if (!value)
        *error = "\"" + text + "\" is not " + expected;
    return value;
}

std::string jsonText(const QJsonValue& value)
{
    if ((value.isObject() && value.toObject().isEmpty()) || (value.isArray() && value.toArray().isEmpty()))
        return value.isObject() ? "{}" : "[]";
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Indented).trimmed().toStdString();
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Indented).trimmed().toStdString();
    // A lone value: write it as a one-element array and take the brackets off.
    const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2).toStdString();
}

} // namespace kv

#include "platform/PathText.h"

#include "platform/Utf8.h"

#include <QChar>

#include <cstdio>

namespace kv {
namespace {

// The length of the well-formed UTF-8 sequence that starts the text, or 0.
size_t sequenceLength(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text.front());
    const size_t length = lead < 0xc0 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf8 ? 4 : 0;
    if (length == 0 || text.size() < length)
        return 0;
    return isValidUtf8(text.substr(0, length)) ? length : 0;
}

char32_t codePoint(std::string_view sequence)
{
    static constexpr unsigned char kLeadBits[] = {0, 0, 0x1f, 0x0f, 0x07};
    char32_t point = static_cast<unsigned char>(sequence.front()) & kLeadBits[sequence.size()];
    for (size_t i = 1; i < sequence.size(); ++i)
        point = (point << 6) | (static_cast<unsigned char>(sequence[i]) & 0x3f);
    return point;
}

// Characters a reader cannot see for what they are: controls (C1 among
// them), format characters (zero-width spaces and joiners, the marks that
// turn text direction and make "exe.pdf" of "fdp.exe", the byte order mark),
// line and paragraph separators, spaces other than the plain one, private
// use and unassigned code points. Two different names could otherwise look
// the same.
bool mayDeceive(char32_t point)
{
    switch (QChar::category(point)) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Other_PrivateUse:
    case QChar::Other_NotAssigned:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    case QChar::Separator_Space:
        return point != U' ';
    default:
        return false;
    }
}

} // namespace

std::string displayText(std::string_view bytes)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        const auto byte = static_cast<unsigned char>(bytes.front());
        if (byte >= 0x80) {
            if (const size_t length = sequenceLength(bytes)) {
                const char32_t point = codePoint(bytes.substr(0, length));
                if (mayDeceive(point)) {
                    // Four digits always, or eight past the first plane, so a
                    // hex digit that follows is never read as part of it.
                    char escape[12];
                    std::snprintf(escape, sizeof escape, point > 0xffff ? "\\U%08x" : "\\u%04x",
                                  static_cast<unsigned>(point));
                    text += escape;
                } else {
                    text.append(bytes.substr(0, length));
                }
                bytes.remove_prefix(length);
                continue;
            }
        }
        bytes.remove_prefix(1);
        switch (byte) {
        case '\n': text += "\\n"; continue;
        case '\r': text += "\\r"; continue;
        case '\t': text += "\\t"; continue;
        case '\\': text += "\\\\"; continue;
        default: break;
        }
        if (byte < 0x20 || byte >= 0x7f) {
            text += "\\x";
            text += kHex[byte >> 4];
            text += kHex[byte & 0xf];
        } else {
            text += static_cast<char>(byte);
        }
    }
    return text;
}

std::string percentEncodePath(std::string_view path)
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(path.size() * 3 / 2);
    for (const unsigned char c : path) {
        const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                                c == '-' || c == '_' || c == '.' || c == '~' || c == '/';
        if (unreserved) {
            encoded += static_cast<char>(c);
        } else {
            encoded += '%';
            encoded += kHex[c >> 4];
            encoded += kHex[c & 0xf];
        }
    }
    return encoded;
}

std::optional<std::string> percentDecodePath(std::string_view text)
{
    const auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        return -1;
    };
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        if (i + 2 >= text.size())
            return std::nullopt;
        const int high = digit(text[i + 1]);
        const int low = digit(text[i + 2]);
        if (high < 0 || low < 0)
            return std::nullopt;
        decoded += static_cast<char>(high << 4 | low);
        i += 2;
    }
    return decoded;
}

} // namespace kv

#include "engine/ClamdConfig.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace kv {
namespace {

bool isValidUtf8(std::string_view text, bool* allAscii)
{
    *allAscii = true;
    size_t i = 0;
    while (i < text.size()) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        *allAscii = false;
        size_t length;
        uint32_t codePoint;
        if ((lead & 0xe0) == 0xc0) {
            length = 2;
            codePoint = lead & 0x1f;
        } else if ((lead & 0xf0) == 0xe0) {
            length = 3;
            codePoint = lead & 0x0f;
        } else if ((lead & 0xf8) == 0xf0) {
            length = 4;
            codePoint = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size())
            return false;
        for (size_t k = 1; k < length; ++k) {
            const unsigned char next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xc0) != 0x80)
                return false;
            codePoint = (codePoint << 6) | (next & 0x3f);
        }
        const bool overlong = (length == 2 && codePoint < 0x80) || (length == 3 && codePoint < 0x800) ||
                              (length == 4 && codePoint < 0x10000);
        if (overlong || codePoint > 0x10ffff || (codePoint >= 0xd800 && codePoint <= 0xdfff))
            return false;
        i += length;
    }
    return true;
}

} // namespace

ClamdConfigText readClamdConfig(const std::string& path)
{
    ClamdConfigText result;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        result.error = std::strerror(errno);
        return result;
    }
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) {
        result.error = "read error";
        return result;
    }
    bool allAscii = true;
    if (!isValidUtf8(bytes, &allAscii)) {
        result.error = "the file is neither ASCII nor UTF-8 text";
        return result;
    }
    // Like the platform reader it stands in for, a readable file reports UTF-8.
    result.encoding = kUtf8Encoding;
    result.text = std::move(bytes);
    return result;
}

std::optional<std::string> lastLocalSocket(std::string_view text)
{
    static constexpr std::string_view kDirective = "LocalSocket ";
    std::optional<std::string> socket;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos)
            end = text.size();
        const std::string_view line = text.substr(start, end - start);
        if (line.size() >= kDirective.size() + 1) {
            const size_t first = line.find(kDirective);
            if (first != std::string_view::npos) {
                const size_t pieceStart = first + kDirective.size();
                const size_t next = line.find(kDirective, pieceStart);
                socket = std::string(line.substr(pieceStart, next == std::string_view::npos ? std::string_view::npos
                                                                                            : next - pieceStart));
            }
        }
        if (end == text.size())
            break;
        start = end + 1;
    }
    return socket;
}

} // namespace kv

#include "engine/ClamdConfig.h"

#include "platform/Utf8.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace kv {

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
    if (!isValidUtf8(bytes)) {
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

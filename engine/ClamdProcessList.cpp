#include "engine/ClamdProcessList.h"

namespace kv {
namespace {

std::string trimmed(std::string_view text)
{
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; };
    size_t first = 0;
    while (first < text.size() && isSpace(text[first]))
        ++first;
    size_t last = text.size();
    while (last > first && isSpace(text[last - 1]))
        --last;
    return std::string(text.substr(first, last - first));
}

std::string_view tailFrom(std::string_view text, size_t position)
{
    return position < text.size() ? text.substr(position) : std::string_view();
}

} // namespace

ClamdCommandLine parseClamdProcessChunk(std::string_view chunk)
{
    const size_t slash = chunk.find('/');
    const std::string_view cut = slash == std::string_view::npos ? chunk : chunk.substr(slash);

    ClamdCommandLine result;
    const size_t longOption = cut.find("--config");
    if (longOption != std::string_view::npos && longOption > 0) {
        result.clamdPath = std::string(cut.substr(0, longOption - 1));
        result.configPath = trimmed(tailFrom(cut, longOption + 14));
        return result;
    }
    const size_t shortOption = cut.find("-c");
    if (shortOption != std::string_view::npos && shortOption > 0) {
        result.clamdPath = std::string(cut.substr(0, shortOption - 1));
        result.configPath = trimmed(tailFrom(cut, shortOption + 3));
        return result;
    }
    result.clamdPath = trimmed(cut);
    return result;
}

} // namespace kv

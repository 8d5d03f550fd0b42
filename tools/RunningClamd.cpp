#include "tools/RunningClamd.h"

#include "engine/ClamdCtrl.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace kv {

std::optional<std::string> localSocketOfConfig(std::string_view configText)
{
    std::optional<std::string> socket;
    size_t position = 0;
    while (position < configText.size()) {
        size_t end = configText.find('\n', position);
        if (end == std::string_view::npos)
            end = configText.size();
        std::string_view line = configText.substr(position, end - position);
        position = end + 1;

        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        const size_t start = line.find_first_not_of(" \t");
        if (start == std::string_view::npos || line[start] == '#')
            continue;
        line.remove_prefix(start);
        const size_t gap = line.find_first_of(" \t");
        if (gap == std::string_view::npos || line.substr(0, gap) != "LocalSocket")
            continue;
        std::string_view value = line.substr(gap);
        value.remove_prefix(std::min(value.size(), value.find_first_not_of(" \t")));
        while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
            value.remove_suffix(1);
        if (!value.empty())
            socket = std::string(value);
    }
    return socket;
}

std::optional<std::string> readLocalSocket(const std::string& configPath)
{
    std::ifstream file(configPath);
    if (!file)
        return std::nullopt;
    std::ostringstream text;
    text << file.rdbuf();
    return localSocketOfConfig(text.str());
}

std::optional<std::string> systemServiceSocket(const std::string& configPath)
{
    std::optional<std::string> socket = readLocalSocket(configPath);
    if (!socket || !ClamdCtrl::systemServiceAnswers(*socket))
        return std::nullopt;
    return socket;
}

} // namespace kv

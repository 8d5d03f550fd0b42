#include "tools/RunningClamd.h"

#include "platform/ChildProcess.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <vector>

namespace kv {
namespace {

std::vector<std::string> splitWords(std::string_view line)
{
    std::vector<std::string> words;
    size_t position = 0;
    while (position < line.size()) {
        const size_t start = line.find_first_not_of(" \t", position);
        if (start == std::string_view::npos)
            break;
        size_t end = line.find_first_of(" \t", start);
        if (end == std::string_view::npos)
            end = line.size();
        words.emplace_back(line.substr(start, end - start));
        position = end;
    }
    return words;
}

std::string baseName(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string configFileOf(const std::vector<std::string>& words)
{
    static const std::string kLongOption = "--config-file";
    for (size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        if ((word == "-c" || word == kLongOption) && i + 1 < words.size())
            return words[i + 1];
        if (word.rfind(kLongOption + "=", 0) == 0)
            return word.substr(kLongOption.size() + 1);
        if (word.size() > 2 && word.rfind("-c", 0) == 0 && word[2] != '-')
            return word.substr(2);
    }
    return kDistributionClamdConfig;
}

} // namespace

std::optional<RunningClamd> findOtherClamd(std::string_view processList, const std::string& prefix)
{
    const std::string ownProgram = prefix + "/sbin/clamd";
    const std::string ownConfig = prefix + "/etc/clamd.conf";
    size_t position = 0;
    while (position < processList.size()) {
        size_t end = processList.find('\n', position);
        if (end == std::string_view::npos)
            end = processList.size();
        const std::string_view line = processList.substr(position, end - position);
        position = end + 1;

        const std::vector<std::string> words = splitWords(line);
        if (words.empty() || baseName(words[0]) != "clamd")
            continue;
        const std::string config = configFileOf(words);
        if (words[0] == ownProgram || config == ownConfig)
            continue;
        const size_t first = line.find_first_not_of(" \t");
        return RunningClamd{std::string(line.substr(first)), config};
    }
    return std::nullopt;
}

std::optional<RunningClamd> findRunningOtherClamd(const std::string& prefix)
{
    std::optional<ChildProcess> ps = ChildProcess::spawn({"/bin/ps", "-axww", "-o", "command="}, ChildProcess::Output::StdoutPipe);
    if (!ps)
        return std::nullopt;
    const std::string processList = ps->readAll();
    ps->wait();
    return findOtherClamd(processList, prefix);
}

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

} // namespace kv

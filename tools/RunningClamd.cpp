#include "tools/RunningClamd.h"

#include "engine/ClamdConfig.h"
#include "engine/ClamdCtrl.h"

#include <fstream>
#include <sstream>
#include <vector>

namespace kv {
namespace {

std::string readText(const std::string& path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

std::optional<std::string> localSocketOfConfig(std::string_view configText)
{
    const std::vector<std::string> sockets = clamdOptionValues(configText, "LocalSocket");
    return sockets.empty() ? std::nullopt : std::optional<std::string>(sockets.back());
}

std::optional<std::string> readLocalSocket(const std::string& configPath)
{
    return localSocketOfConfig(readText(configPath));
}

std::optional<std::string> systemServiceSocket(const std::string& configPath)
{
    std::optional<std::string> socket = readLocalSocket(configPath);
    if (!socket || !ClamdCtrl::systemServiceAnswers(*socket))
        return std::nullopt;
    return socket;
}

std::string serviceDatabaseFolder(const std::string& configPath)
{
    const std::vector<std::string> folders = clamdOptionValues(readText(configPath), "DatabaseDirectory");
    return folders.empty() ? kDefaultDatabaseFolder : folders.back();
}

} // namespace kv

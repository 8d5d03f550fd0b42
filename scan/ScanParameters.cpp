#include "scan/ScanParameters.h"

#include "platform/TrashInfo.h"

namespace kv {

std::shared_ptr<const ScanParameters> ScanParameters::forSettings(std::shared_ptr<const Settings> settings,
                                                                  std::string clamdscan, std::string listFolder,
                                                                  bool checkedConnectionsOnly)
{
    auto parameters = std::make_shared<ScanParameters>();
    parameters->checkedConnectionsOnly = checkedConnectionsOnly;
    parameters->clamdscan = std::move(clamdscan);
    parameters->listFolder = std::move(listFolder);
    // clamdscan given a move folder of "" would scan nothing at all.
    if (settings && settings->quarantines() && !settings->quarantineFolder.empty())
        parameters->moveFolder = settings->quarantineFolder;
    else if (settings && settings->trashes())
        parameters->moveFolder = trashFilesFolder();
    parameters->settings = std::move(settings);
    return parameters;
}

std::vector<std::string> ScanParameters::commandLine(const std::string& client, const std::string& listFile,
                                                     bool localSocket) const
{
    std::vector<std::string> arguments{client};
    if (moveFolder)
        arguments.push_back("--move=" + *moveFolder);
    if (settings && settings->multiscan)
        arguments.push_back("--multiscan");
    if (localSocket)
        arguments.push_back("--fdpass");
    arguments.push_back("--stdout");
    arguments.push_back("--file-list=" + listFile);
    return arguments;
}

} // namespace kv

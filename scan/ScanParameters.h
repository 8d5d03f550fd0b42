#pragma once

#include "platform/Settings.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kv {

// What a start of watching hands the scanners: the engine's client, the
// folder found files are moved to, the private folder their list files go
// to, and the settings of that start.
// Immutable once made; the scanners share it by pointer.
struct ScanParameters {
    std::string clamdscan;  // <PathToClamav>/bin/clamdscan
    // The quarantine folder in quarantine mode, the Trash's files folder in
    // Trash mode; nothing when found files are left where they are.
    std::optional<std::string> moveFolder;
    std::string listFolder;  // the user's private temporary folder, ending in "/"
    // Every file is scanned by the agent itself over a connection it has
    // checked, never by clamdscan, which would connect again unchecked: a
    // TCP engine on this machine (see ClamdSupervisor).
    bool checkedConnectionsOnly = false;
    std::shared_ptr<const Settings> settings;

    // For the settings of one load, the engine's client and the folder.
    static std::shared_ptr<const ScanParameters> forSettings(std::shared_ptr<const Settings> settings,
                                                             std::string clamdscan, std::string listFolder,
                                                             bool checkedConnectionsOnly = false);

    // clamdscan's command line for a run over the list file: CLIENT (a
    // stand-in daemon has its own), the move option, "--multiscan" when
    // asked for, "--fdpass" for a daemon on a local socket (it then reads
    // each file through the descriptor clamdscan opened, never by its path,
    // so it is never one of the openers gfslogger's holder keeps waiting),
    // "--stdout", "--file-list=" the list.
    std::vector<std::string> commandLine(const std::string& client, const std::string& listFile,
                                         bool localSocket) const;
};

} // namespace kv

#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace kv {

// The freedesktop Trash the agent moves infected files into:
// $XDG_DATA_HOME/Trash with its files/ and info/ folders.
std::string trashFolder();
std::string trashFilesFolder();

// Creates the Trash's files/ and info/ folders (mode 0700) when missing.
bool ensureTrashFolders();

// What a scanner's "PATH: moved to 'DESTINATION'" line says (read by the
// scanner, which knows which paths it found).
struct MovedLine {
    std::string originalPath;
    std::string destination;
};

// Writes info/<name>.trashinfo for a file that now lies at files/<name>, so
// the desktop can show where it came from and restore it. False when the
// destination is not a file inside the Trash's files folder, when the
// original path still exists (nothing was moved), or when the .trashinfo
// exists already (it is created, never overwritten, and a link planted
// there is never followed).
bool writeTrashInfo(const MovedLine& moved, std::time_t deletionTime);

} // namespace kv

#pragma once

#include "platform/UniqueFd.h"

#include <ctime>
#include <string>

namespace kv {

// The freedesktop Trash the agent moves infected files into:
// $XDG_DATA_HOME/Trash with its files/ and info/ folders.
std::string trashFolder();
std::string trashFilesFolder();

// Creates the Trash's files/ and info/ folders (mode 0700) when missing.
bool ensureTrashFolders();

// The Trash's files/ and info/ folders, held open (O_PATH): made when
// missing, reached from "/" one name at a time without following a symbolic
// link, and each the user's alone (the user's own, writable by nobody
// else), so a file moved in by descriptor lands where the desktop and the
// Korvane application look, and stays there. Both invalid, with *error,
// when the Trash is not such a place.
struct OpenTrash {
    UniqueFd files;
    UniqueFd info;
};
OpenTrash openTrash(std::string* error);

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

// The same for a file just moved to files/<name> by descriptor: creates
// <name>.trashinfo in the info folder held by infoFolder, saying the file
// came from originalPath, on the same terms (never over an existing entry,
// never through a link).
bool writeTrashInfoAt(int infoFolder, const std::string& name, const std::string& originalPath,
                      std::time_t deletionTime);

} // namespace kv

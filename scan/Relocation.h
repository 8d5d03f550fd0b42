#pragma once

#include <optional>
#include <string>

namespace kv {

// Moves an infected file that was scanned by descriptor into a folder (the
// quarantine folder or the Trash's files folder), the way clamdscan's
// --move does for the files it names: under its own name, or NAME.001,
// NAME.002, ... when that is taken; nothing is ever replaced.
//
// Only the file that was scanned is moved: the name must still lead to the
// same file (device and inode of scannedFd), or it is left where it is. A
// move across file systems copies the scanned contents, then removes the
// name. Returns the new path, or nothing with *why set.
std::optional<std::string> moveScannedFile(const std::string& path, int scannedFd, const std::string& folder,
                                           std::string* why);
// The same for the entry of a folder held open (from), for a file reached
// without following a link: no path is looked up again.
std::optional<std::string> moveScannedFile(int from, const std::string& entry, int scannedFd,
                                           const std::string& folder, std::string* why);

// After a found file was moved to movedTo: its .trashinfo when it went to
// the Trash, and its line in the quarantine index (QuarantineRecords), so
// the desktop and the Korvane application can tell where it came from.
// False, with *error, when the index could not be written; the move has
// happened all the same.
bool recordMove(const std::string& originalPath, const std::string& movedTo, const std::string& signature,
                bool toTrash, std::string* error);

} // namespace kv

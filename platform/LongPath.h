#pragma once

#include "platform/UniqueFd.h"

#include <sys/stat.h>

#include <string>

namespace kv {

// Opening and inspecting files by paths of any length. The kernel refuses
// a path of PATH_MAX bytes or more in one call (ENAMETOOLONG), yet folders
// nest deeper than that and their files must be scanned like any other.
// Shorter paths take the ordinary one-call route; longer ones are walked
// folder by folder with openat(2), never following a link on the way.

// Opens the path with the flags of open(2). For a long path every folder on
// the way is opened O_PATH | O_NOFOLLOW; the last component is opened with
// the flags as given (add O_NOFOLLOW to refuse a link there too).
UniqueFd openPath(const std::string& path, int flags);

// The folder that holds the path's last component, opened O_PATH, and that
// component's name: for the *at() calls that act on the name itself (move,
// remove, stat without following). Invalid when the folder cannot be opened.
struct ParentAndName {
    UniqueFd folder;
    std::string name;
};
ParentAndName openParent(const std::string& path);
// The same, but no folder on the way may be a symbolic link (each is opened
// O_NOFOLLOW, from "/"): for putting a file back where someone else may have
// swapped a folder for a link since. Invalid, with errno ELOOP or ENOTDIR,
// when one is.
ParentAndName openParentWithoutLinks(const std::string& path);

// stat(2) (or lstat(2) when follow is false) for a path of any length.
bool statPath(const std::string& path, struct stat* info, bool follow = true);

} // namespace kv

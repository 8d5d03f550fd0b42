#pragma once

#include "platform/UniqueFd.h"

#include <string>

namespace kv {

// A file that root alone controls: the file and every folder from "/" down
// to it belong to root, none of them may be written by anyone else, and
// none is a symbolic link. Only such a file may be made set-user-ID root:
// anyone who could change or replace it, or a folder above it, would get
// root's rights through it.
//
// The walk goes one component at a time through descriptors opened with
// O_NOFOLLOW, so a folder swapped for a link half-way is seen as a link,
// and the descriptor returned is that of the very file checked.

// The file opened for reading (without blocking, and never a FIFO or
// device), or an invalid descriptor with the reason in *why, naming the
// first place that fails ("/tmp may be written by users other than root").
UniqueFd openRootControlled(const std::string& path, std::string* why);

// The reason openRootControlled() would refuse the path, or "".
std::string whyNotRootControlled(const std::string& path);

} // namespace kv

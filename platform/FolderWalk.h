#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kv {

// Every regular file below the given folders, found folder by folder with
// descriptors (paths of any length), never following a link below a root;
// a root that is a link is followed only with followRoots. descend decides
// which folders are entered,
// take gets each file's path and returns false to end the walk. A folder
// that vanishes or cannot be read costs only its own entries.
void walkFiles(const std::vector<std::string>& roots, bool followRoots,
               const std::function<bool(const std::string&)>& descend,
               const std::function<bool(std::string&&)>& take);

} // namespace kv

#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kv {

// The user's home folder: $HOME, else the password database entry.
std::string homeDirectory();

// The agent's private temporary folder, ending in "/": $XDG_RUNTIME_DIR/ when
// set, else /tmp/korvane-velgar-<uid>/, created with mode 0700. Refused (with
// the reason in *error) when it is a symbolic link or belongs to another user.
std::optional<std::string> temporaryDirectory(std::string* error = nullptr);

// $XDG_CONFIG_HOME, else ~/.config.
std::string configHome();
// $XDG_DATA_HOME, else ~/.local/share.
std::string dataHome();

// The folders under which a mounted volume's mount point appears:
// /Volumes, /media, /media/<user>, /run/media/<user>, /mnt.
const std::vector<std::string>& volumeRoots();

// True when the path's parent (its last component removed, a trailing "/"
// not counting as a component) is exactly one of the volume roots.
bool isDirectlyUnderVolumeRoot(const std::string& path);

// The resources folder: <folder of the running executable>/../share/korvane-velgar
// (KORVANE_VELGAR_RESOURCES overrides it, for tests run from the build tree).
std::string resourcesDirectory();

// The program that makes the installed gfslogger set-user-ID root:
// <prefix>/libexec/korvane-velgar/install-gfslogger for the resources folder
// <prefix>/share/korvane-velgar. It is run as root through pkexec and its
// own polkit action, takes no arguments, and works out the helper's path
// from its own.
std::string helperInstallerPath();

// Joins two path pieces with exactly one "/" between them.
std::string joinPath(const std::string& base, const std::string& component);

// Replaces a leading "~" (alone or before "/") with the home folder.
std::string expandTilde(const std::string& path);

// Creates every missing folder of the path with the given mode.
bool makeDirectories(const std::string& path, unsigned mode = 0755);

bool pathExists(const std::string& path);

bool isRegularFile(const std::string& path);

} // namespace kv

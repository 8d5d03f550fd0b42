#include "platform/Paths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace kv {
namespace {

std::string userName()
{
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_name)
        return entry->pw_name;
    if (const char* name = std::getenv("USER"); name && *name)
        return name;
    return std::to_string(::getuid());
}

std::string environmentOr(const char* name, const std::string& fallback)
{
    const char* value = std::getenv(name);
    return value && *value ? std::string(value) : fallback;
}

} // namespace

std::string homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir)
        return entry->pw_dir;
    return "/";
}

std::optional<std::string> temporaryDirectory(std::string* error)
{
    std::string folder;
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
        folder = runtime;
    else
        folder = "/tmp/korvane-velgar-" + std::to_string(::getuid());

    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        if (error)
            *error = "cannot create " + folder + ": " + std::strerror(errno);
        return std::nullopt;
    }
    struct stat info{};
    if (::lstat(folder.c_str(), &info) != 0) {
        if (error)
            *error = "cannot examine " + folder + ": " + std::strerror(errno);
        return std::nullopt;
    }
    if (S_ISLNK(info.st_mode) || !S_ISDIR(info.st_mode)) {
        if (error)
            *error = folder + " is not a plain folder; refusing to use it";
        return std::nullopt;
    }
    if (info.st_uid != ::getuid()) {
        if (error)
            *error = folder + " belongs to another user; refusing to use it";
        return std::nullopt;
    }
    if (folder.back() != '/')
        folder += '/';
    return folder;
}

std::string configHome() { return environmentOr("XDG_CONFIG_HOME", joinPath(homeDirectory(), ".config")); }

std::string dataHome() { return environmentOr("XDG_DATA_HOME", joinPath(homeDirectory(), ".local/share")); }

const std::vector<std::string>& volumeRoots()
{
    static const std::vector<std::string> roots = [] {
        const std::string user = userName();
        return std::vector<std::string>{"/Volumes", "/media", "/media/" + user, "/run/media/" + user, "/mnt"};
    }();
    return roots;
}

bool isDirectlyUnderVolumeRoot(const std::string& path)
{
    std::string trimmed = path;
    if (trimmed.size() > 1 && trimmed.back() == '/')
        trimmed.pop_back();
    const size_t slash = trimmed.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return false;
    const std::string parent = trimmed.substr(0, slash);
    for (const std::string& root : volumeRoots()) {
        if (parent == root)
            return true;
    }
    return false;
}

std::string resourcesDirectory()
{
    // Normalised by text: the executable's path has no links left, and the
    // root-controlled check of the helper takes plain paths only.
    const auto normal = [](const std::string& path) {
        std::string plain = std::filesystem::path(path).lexically_normal().string();
        if (plain.size() > 1 && plain.back() == '/')
            plain.pop_back();
        return plain;
    };
    if (const char* overridden = std::getenv("KORVANE_VELGAR_RESOURCES"); overridden && *overridden)
        return normal(overridden);
    char executable[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", executable, sizeof executable - 1);
    if (length <= 0)
        return "/usr/local/share/korvane-velgar";
    std::string path(executable, static_cast<size_t>(length));
    path.erase(path.rfind('/'));
    return normal(path + "/../share/korvane-velgar");
}

std::string helperInstallerPath()
{
    const std::string resources = resourcesDirectory();
    const std::string prefix = resources.substr(0, resources.rfind('/', resources.rfind('/') - 1));
    return prefix + "/libexec/korvane-velgar/install-gfslogger";
}

std::string joinPath(const std::string& base, const std::string& component)
{
    if (base.empty())
        return component;
    std::string joined = base;
    while (joined.size() > 1 && joined.back() == '/')
        joined.pop_back();
    size_t start = 0;
    while (start < component.size() && component[start] == '/')
        ++start;
    if (joined != "/")
        joined += '/';
    return joined + component.substr(start);
}

std::string expandTilde(const std::string& path)
{
    if (path.empty() || path[0] != '~')
        return path;
    if (path.size() == 1 || path[1] == '/')
        return homeDirectory() + path.substr(1);
    // "~user/...": look the user up.
    const size_t slash = path.find('/');
    const std::string name = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
    if (const passwd* entry = ::getpwnam(name.c_str()); entry && entry->pw_dir)
        return std::string(entry->pw_dir) + (slash == std::string::npos ? "" : path.substr(slash));
    return path;
}

bool makeDirectories(const std::string& path, unsigned mode)
{
    if (path.empty())
        return false;
    std::string partial;
    size_t position = 0;
    while (position != std::string::npos) {
        position = path.find('/', position + 1);
        partial = path.substr(0, position);
        if (partial.empty())
            continue;
        if (::mkdir(partial.c_str(), mode) != 0 && errno != EEXIST)
            return false;
    }
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool pathExists(const std::string& path)
{
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0;
}

bool isRegularFile(const std::string& path)
{
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

} // namespace kv

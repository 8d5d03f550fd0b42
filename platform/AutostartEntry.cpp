#include "platform/AutostartEntry.h"

#include "platform/Paths.h"

#include <QSaveFile>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace kv {
namespace {

const char* const kEntryName = "com.korvane.KorvaneVelgar.desktop";

// The Exec value that runs one program. A path holding a character the
// Exec syntax reserves is double-quoted, with '"', '`', '$' and '\' escaped
// by a backslash; every backslash is then doubled once more, as in any
// string value of a desktop entry.
std::string execValue(const std::string& program)
{
    if (program.find_first_of(" \t\"'\\><~|&;$*?#()`") == std::string::npos)
        return program;
    std::string value = "\"";
    for (const char c : program) {
        if (c == '"' || c == '`' || c == '$')
            value += std::string("\\\\") + c;
        else if (c == '\\')
            value += "\\\\\\\\";
        else
            value += c;
    }
    return value + "\"";
}

// Control characters cannot stand in an Exec line. A '%' would have to be
// written "%%", which GLib's desktop entry loader (and with it GNOME's
// session) does not undo before it looks for the program, so the entry
// would be dropped without a word.
bool isRunnableFromEntry(const std::string& path)
{
    for (const char c : path) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '%')
            return false;
    }
    return true;
}

std::string fileContents(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

} // namespace

AutostartEntry::AutostartEntry() : path_(joinPath(joinPath(configHome(), "autostart"), kEntryName)) {}

std::string AutostartEntry::text(const std::string& agentPath)
{
    if (!isRunnableFromEntry(agentPath))
        return {};
    return "# Written by velgarctl setup --autostart; velgarctl setup --no-autostart removes it.\n"
           "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Korvane Velgar\n"
           "Comment=Scan new files in your chosen folders for viruses as they arrive\n"
           "Icon=com.korvane.KorvaneVelgar\n"
           "Exec=" + execValue(agentPath) + "\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

bool AutostartEntry::install(const std::string& agentPath, std::string* error) const
{
    const std::string contents = text(agentPath);
    if (contents.empty()) {
        *error = "the agent's path " + agentPath + " holds '%' or a control character; a desktop entry cannot run it";
        return false;
    }
    if (isRegularFile(path_) && fileContents(path_) == contents)
        return true;
    const std::string folder = path_.substr(0, path_.rfind('/'));
    // New configuration folders are private to their user.
    if (!makeDirectories(folder, 0700)) {
        *error = "cannot create " + folder + ": " + std::strerror(errno);
        return false;
    }
    QSaveFile file(QString::fromStdString(path_));
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(contents.data(), static_cast<qint64>(contents.size())) != static_cast<qint64>(contents.size()) ||
        !file.commit()) {
        *error = "cannot write " + path_ + ": " + file.errorString().toStdString();
        return false;
    }
    return true;
}

bool AutostartEntry::remove(bool* removed, std::string* error) const
{
    *removed = false;
    if (::unlink(path_.c_str()) == 0) {
        *removed = true;
        return true;
    }
    if (errno == ENOENT)
        return true;
    *error = "cannot remove " + path_ + ": " + std::strerror(errno);
    return false;
}

bool AutostartEntry::installed() const { return pathExists(path_); }

} // namespace kv

#include "scan/TrashInfo.h"

#include "platform/FileWriting.h"
#include "platform/Paths.h"


namespace kv {

std::string trashFolder() { return joinPath(dataHome(), "Trash"); }

std::string trashFilesFolder() { return joinPath(trashFolder(), "files"); }

bool ensureTrashFolders()
{
    const std::string root = trashFolder();
    return makeDirectories(joinPath(root, "files"), 0700) && makeDirectories(joinPath(root, "info"), 0700);
}

std::optional<MovedLine> parseMovedLine(const std::string& line)
{
    static constexpr std::string_view kMarker = ": moved to '";
    if (line.empty() || line.back() != '\'')
        return std::nullopt;
    const size_t marker = line.rfind(kMarker);
    if (marker == std::string::npos || marker == 0)
        return std::nullopt;
    MovedLine moved;
    moved.originalPath = line.substr(0, marker);
    const size_t start = marker + kMarker.size();
    moved.destination = line.substr(start, line.size() - 1 - start);
    if (moved.destination.empty())
        return std::nullopt;
    return moved;
}

std::string percentEncodePath(const std::string& path)
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(path.size() * 3 / 2);
    for (const unsigned char c : path) {
        const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                                c == '-' || c == '_' || c == '.' || c == '~' || c == '/';
        if (unreserved) {
            encoded += static_cast<char>(c);
        } else {
            encoded += '%';
            encoded += kHex[c >> 4];
            encoded += kHex[c & 0xf];
        }
    }
    return encoded;
}

bool writeTrashInfo(const MovedLine& moved, std::time_t deletionTime)
{
    const std::string files = trashFilesFolder() + "/";
    if (moved.destination.compare(0, files.size(), files) != 0)
        return false;
    const std::string name = moved.destination.substr(files.size());
    if (name.empty() || name.find('/') != std::string::npos)
        return false;

    std::tm local{};
    ::localtime_r(&deletionTime, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    const std::string text =
        "[Trash Info]\nPath=" + percentEncodePath(moved.originalPath) + "\nDeletionDate=" + date + "\n";

    const std::string infoPath = joinPath(trashFolder(), "info/" + name + ".trashinfo");
    return writeFileNoFollow(infoPath, text);
}

} // namespace kv

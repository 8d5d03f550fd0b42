#include "engine/ClamdProcessList.h"

#include "platform/UniqueFd.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace kv {
namespace {

std::string baseName(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A file of a process's /proc folder, whole; nothing once the process has
// gone, which it may do half-way through (the read then fails with ESRCH,
// which a stream would throw as an exception).
std::optional<std::string> readProcFile(const std::string& path)
{
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        return std::nullopt;
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(file.get(), buffer, sizeof buffer);
        if (got == 0)
            return text;
        if (got < 0 && errno != EINTR)
            return std::nullopt;
        if (got > 0)
            text.append(buffer, static_cast<size_t>(got));
    }
}

bool readStatus(const std::string& folder, ProcessEntry* entry)
{
    const std::optional<std::string> status = readProcFile(folder + "/status");
    if (!status)
        return false;
    bool haveUid = false;
    for (size_t start = 0; start < status->size();) {
        size_t end = status->find('\n', start);
        if (end == std::string::npos)
            end = status->size();
        const std::string line = status->substr(start, end - start);
        start = end + 1;
        if (line.starts_with("State:"))
            entry->zombie = line.find('Z', 6) != std::string::npos;
        else if (line.starts_with("Uid:")) {
            // Real, effective, saved and file-system user: the real one.
            char* parsed = nullptr;
            const unsigned long uid = std::strtoul(line.c_str() + 4, &parsed, 10);
            haveUid = parsed != line.c_str() + 4;
            entry->realUid = static_cast<uid_t>(uid);
        }
    }
    return haveUid;
}

} // namespace

std::vector<ProcessEntry> readProcessTable(const std::string& proc)
{
    std::vector<ProcessEntry> table;
    std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(proc.c_str()), ::closedir);
    if (!folder)
        return table;
    while (const dirent* item = ::readdir(folder.get())) {
        char* end = nullptr;
        const long pid = std::strtol(item->d_name, &end, 10);
        if (pid <= 0 || *end != '\0')
            continue;
        const std::string path = proc + "/" + item->d_name;
        ProcessEntry entry;
        entry.pid = static_cast<pid_t>(pid);
        if (!readStatus(path, &entry))
            continue;
        const std::optional<std::string> cmdline = readProcFile(path + "/cmdline");
        if (!cmdline)
            continue;
        const std::string& bytes = *cmdline;
        // Arguments end in NUL; the last may lack it when a process rewrote
        // its own command line.
        size_t start = 0;
        while (start < bytes.size()) {
            size_t nul = bytes.find('\0', start);
            if (nul == std::string::npos)
                nul = bytes.size();
            entry.argv.push_back(bytes.substr(start, nul - start));
            start = nul + 1;
        }
        table.push_back(std::move(entry));
    }
    return table;
}

std::optional<std::string> clamdConfigArgument(const std::vector<std::string>& argv)
{
    static const std::string kLong = "--config-file";
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& word = argv[i];
        if ((word == "-c" || word == kLong) && i + 1 < argv.size())
            return argv[i + 1];
        if (word.starts_with(kLong + "="))
            return word.substr(kLong.size() + 1);
        if (word.size() > 2 && word.starts_with("-c") && word[2] != '-')
            return word.substr(2);
    }
    return std::nullopt;
}

bool isOwnClamd(const ProcessEntry& process, uid_t uid, const std::string& prefix)
{
    if (process.zombie || process.realUid != uid || process.argv.empty() || baseName(process.argv[0]) != "clamd")
        return false;
    const std::optional<std::string> config = clamdConfigArgument(process.argv);
    return config && *config == prefix + "/etc/clamd.conf";
}

std::optional<ProcessEntry> findOwnClamd(const std::vector<ProcessEntry>& table, uid_t uid, const std::string& prefix)
{
    for (const ProcessEntry& process : table)
        if (isOwnClamd(process, uid, prefix))
            return process;
    return std::nullopt;
}

} // namespace kv

#include "engine/ClamdProcessList.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

namespace kv {
namespace {

std::string baseName(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool readStatus(const std::string& folder, ProcessEntry* entry)
{
    std::ifstream status(folder + "/status");
    bool haveUid = false;
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("State:"))
            entry->zombie = line.find('Z', 6) != std::string::npos;
        else if (line.starts_with("Uid:")) {
            // Real, effective, saved and file-system user: the real one.
            char* end = nullptr;
            const unsigned long uid = std::strtoul(line.c_str() + 4, &end, 10);
            haveUid = end != line.c_str() + 4;
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
        std::ifstream cmdline(path + "/cmdline", std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(cmdline)), std::istreambuf_iterator<char>());
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

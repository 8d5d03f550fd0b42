#include "platform/UserControlled.h"

#include "platform/UniqueFd.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <optional>
#include <vector>

namespace kv {
namespace {

// As many as the kernel follows in one path look-up.
constexpr int kMaxLinks = 40;

struct Rule {
    bool clamavTrusted = false;  // the clamav user may own what is on the way
    bool placeIsFolder = false;
    bool placeIsUsers = false;   // the place itself is the user's (root's is not enough)
};

std::string nameOfUser(uid_t uid)
{
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        return found->pw_name;
    return {};
}

std::optional<uid_t> uidOfUser(const char* name)
{
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        return found->pw_uid;
    return std::nullopt;
}

// The group Debian makes for each user: the user's primary group, of the
// user's name, with nobody else in it. A folder it may write is still the
// user's alone.
bool isUsersPrivateGroup(gid_t gid)
{
    if (gid != ::getgid())
        return false;
    const std::string user = nameOfUser(::getuid());
    std::vector<char> buffer(65536);
    group entry{};
    group* found = nullptr;
    if (user.empty() || ::getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
        user != found->gr_name)
        return false;
    for (char** member = found->gr_mem; *member; ++member) {
        if (user != *member)
            return false;
    }
    return true;
}

bool othersMayWrite(const struct stat& info)
{
    return (info.st_mode & S_IWOTH) || ((info.st_mode & S_IWGRP) && !isUsersPrivateGroup(info.st_gid));
}

std::string cannotExamine(const std::string& place) { return place + " cannot be examined: " + std::strerror(errno); }

std::string belongsToAnother(const std::string& place, uid_t owner)
{
    const std::string name = nameOfUser(owner);
    return place + " belongs to another user (" + (name.empty() ? "uid " + std::to_string(owner) : name) + ")";
}

std::deque<std::string> namesIn(const std::string& path)
{
    std::deque<std::string> names;
    for (size_t start = 0; start <= path.size();) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        if (slash > start)
            names.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return names;
}

// One folder (or, last, the place) reached by the walk.
struct Step {
    UniqueFd fd;
    std::string place;
    struct stat info {};
};

class Walk {
public:
    explicit Walk(const Rule& rule)
        : rule_(rule), user_(::getuid()), clamav_(rule.clamavTrusted ? uidOfUser("clamav") : std::nullopt)
    {
    }

    std::string check(const std::string& path)
    {
        if (path.empty() || path.front() != '/')
            return path + " is not an absolute path";
        std::deque<std::string> names = namesIn(path);
        if (std::string why = startAtRoot(); !why.empty())
            return why;
        int links = 0;
        while (!names.empty()) {
            const std::string name = std::move(names.front());
            names.pop_front();
            if (name == ".")
                continue;
            if (name == "..") {
                if (way_.size() > 1)
                    way_.pop_back();
                continue;
            }
            const Step& folder = way_.back();
            Step next{UniqueFd(::openat(folder.fd.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)),
                      (folder.place == "/" ? "" : folder.place) + "/" + name};
            if (!next.fd) {
                if (errno != ENOENT)
                    return cannotExamine(next.place);
                // The rest is made by the user later, or never: safe while
                // no one else may make it first.
                return othersMayWrite(folder.info)
                           ? next.place + " does not exist, and other users may make it in " + folder.place
                           : std::string();
            }
            if (::fstat(next.fd.get(), &next.info) != 0)
                return cannotExamine(next.place);
            if (S_ISLNK(next.info.st_mode)) {
                if (!trusted(next.info.st_uid))
                    return belongsToAnother(next.place + " (a link)", next.info.st_uid);
                if (++links > kMaxLinks)
                    return path + " leads through too many links";
                char target[PATH_MAX];
                const ssize_t length = ::readlinkat(next.fd.get(), "", target, sizeof target);
                if (length <= 0 || static_cast<size_t>(length) >= sizeof target)
                    return cannotExamine(next.place);
                const std::string text(target, static_cast<size_t>(length));
                const std::deque<std::string> targetNames = namesIn(text);
                names.insert(names.begin(), targetNames.begin(), targetNames.end());
                if (text.front() == '/') {
                    if (std::string why = startAtRoot(); !why.empty())
                        return why;
                }
                continue;
            }
            if (std::string why = onTheWay(next); !why.empty())
                return why;
            way_.push_back(std::move(next));
        }
        return asThePlace(way_.back());
    }

private:
    bool trusted(uid_t owner) const { return owner == user_ || owner == 0 || (clamav_ && owner == *clamav_); }

    std::string startAtRoot()
    {
        way_.clear();
        Step root{UniqueFd(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)), "/"};
        if (!root.fd || ::fstat(root.fd.get(), &root.info) != 0)
            return cannotExamine("/");
        if (std::string why = onTheWay(root); !why.empty())
            return why;
        way_.push_back(std::move(root));
        return {};
    }

    // Whoever owns a folder on the way, or may write to it, could swap
    // what lies below it; in a sticky folder of root's others may add
    // names but not rename or remove the user's.
    std::string onTheWay(const Step& step) const
    {
        if (!trusted(step.info.st_uid))
            return belongsToAnother(step.place, step.info.st_uid);
        const bool rootsSticky = S_ISDIR(step.info.st_mode) && (step.info.st_mode & S_ISVTX) && step.info.st_uid == 0;
        if (othersMayWrite(step.info) && !rootsSticky)
            return step.place + " may be written by other users";
        return {};
    }

    std::string asThePlace(const Step& step) const
    {
        if (rule_.placeIsFolder && !S_ISDIR(step.info.st_mode))
            return step.place + " is not a folder";
        if (rule_.placeIsUsers && step.info.st_uid != user_)
            return belongsToAnother(step.place, step.info.st_uid);
        if (othersMayWrite(step.info))
            return step.place + " may be written by other users";
        return {};
    }

    const Rule rule_;
    const uid_t user_;
    const std::optional<uid_t> clamav_;
    std::vector<Step> way_;  // from "/" down to the folder reached
};

std::string parentOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return path;
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

std::string whyEnginePrefixRefused(const std::string& prefix)
{
    // The stand-in's are checked whether it is there or not: where it is
    // missing, only the user could put it there.
    static constexpr const char* kRun[] = {"sbin/clamd",         "bin/clamdscan",         "bin/freshclam",
                                           "etc/clamd.conf",     "standin/sbin/clamd",    "standin/bin/clamdscan",
                                           "standin/etc/clamd.conf"};
    if (prefix.empty() || prefix.front() != '/')
        return "\"" + prefix + "\" is not an absolute path";
    for (const char* relative : kRun) {
        if (std::string why = Walk(Rule{}).check(prefix + "/" + relative); !why.empty())
            return why;
    }
    return {};
}

std::string whyQuarantineFolderRefused(const std::string& folder)
{
    return Walk(Rule{.placeIsFolder = true, .placeIsUsers = true}).check(folder);
}

std::string whyOthersCouldServe(const std::string& socketPath)
{
    if (socketPath.empty() || socketPath.front() != '/')
        return socketPath + " is not an absolute path";
    return Walk(Rule{.clamavTrusted = true, .placeIsFolder = true}).check(parentOf(socketPath));
}

} // namespace kv

#include "eventhelper/Privileges.h"

#include "eventhelper/RecordWriter.h"
#include "eventhelper/UserLock.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kv::gfs {
namespace {

constexpr int kKeptCapabilities[] = {CAP_SYS_ADMIN, CAP_DAC_READ_SEARCH};

bool isKept(int capability)
{
    for (int kept : kKeptCapabilities) {
        if (kept == capability)
            return true;
    }
    return false;
}

std::string failure(const char* step)
{
    return std::string(step) + ": " + std::strerror(errno);
}

// True when our own program file is owned by root and set-user-ID, so that
// running without root's rights means the kernel refused the bit (a nosuid
// mount, or a parent that forbade new privileges), not a missing install.
bool programIsSetUidRoot()
{
    struct stat info{};
    return ::stat("/proc/self/exe", &info) == 0 && info.st_uid == 0 && (info.st_mode & S_ISUID);
}

// A caller may start us with descriptors 0-2 closed, hoping that a file we
// open lands on one of them. Fill them first.
bool openStandardDescriptors()
{
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0)
            continue;
        const int opened = ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
        if (opened != fd)
            return false;
    }
    return true;
}

void resetSignals()
{
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP)
            ::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool limitCapabilitySets()
{
    // The bounding set first: dropping from it needs CAP_SETPCAP, which
    // goes with the rest below.
    for (int capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
        if (!isKept(capability) && ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0)
            return false;
    }
    ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    return true;
}

// The kept capabilities stay permitted; effective says whether they are in
// force now.
bool setKeptCapabilities(bool effective)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    for (int capability : kKeptCapabilities) {
        data[capability / 32].permitted |= 1u << (capability % 32);
        if (effective)
            data[capability / 32].effective |= 1u << (capability % 32);
    }
    return ::syscall(SYS_capset, &header, data) == 0;
}

// How many Raised scopes are open. gfslogger is single-threaded, and
// capabilities belong to the thread anyway.
int raisedScopes = 0;

} // namespace

Privileges::Outcome Privileges::establish(std::string* message, UniqueFd* userLock, OpenHolder::Link* holder)
{
    if (::geteuid() != 0) {
        if (programIsSetUidRoot()) {
            *message = "installed set-user-ID root, but started without root's rights "
                       "(is its file system mounted nosuid?)";
            return Outcome::Failed;
        }
        *message = "needs root's rights to read file-system events; install it set-user-ID root";
        return Outcome::LacksPrivileges;
    }

    // Nothing of the caller's reaches our code: we read no variable and
    // take no argument, and we start from the root folder.
    ::clearenv();
    resetSignals();
    if (!openStandardDescriptors()) {
        *message = failure("standard descriptors");
        return Outcome::Failed;
    }
    // Of what we inherit we keep the agent's hold channel alone, when it is
    // one: a packet socket at its place.
    int socketType = 0;
    socklen_t typeSize = sizeof socketType;
    struct stat channel{};
    const bool holds = ::fstat(kHoldChannelFd, &channel) == 0 && S_ISSOCK(channel.st_mode) &&
                       ::getsockopt(kHoldChannelFd, SOL_SOCKET, SO_TYPE, &socketType, &typeSize) == 0 &&
                       socketType == SOCK_SEQPACKET;
    ::close_range(holds ? kHoldChannelFd + 1 : kHoldChannelFd, ~0U, 0);
    UniqueFd holdChannel(holds ? kHoldChannelFd : -1);
    if (holdChannel)
        ::fcntl(kHoldChannelFd, F_SETFD, FD_CLOEXEC);
    if (::chdir("/") != 0) {
        *message = failure("chdir /");
        return Outcome::Failed;
    }
    ::umask(077);

    const uid_t realUid = ::getuid();
    const gid_t realGid = ::getgid();
    switch (UserLock::take(realUid, userLock, message)) {
    case UserLock::Outcome::Held:
        break;
    case UserLock::Outcome::HeldByAnother:
        return Outcome::AlreadyRunning;
    case UserLock::Outcome::Failed:
        return Outcome::Failed;
    }
    if (holdChannel) {
        std::string why;
        *holder = OpenHolder::start(std::move(holdChannel), realUid, realGid, ::getppid(), &why);
        if (!holder->connected())
            printDiagnostic("opens cannot be held: " + why);
    }
    if (!limitCapabilitySets()) {
        *message = failure("capability bounding set");
        return Outcome::Failed;
    }
    // Become the real user again, keeping the permitted capabilities across
    // the change; a "chmod +s" install also made us set-group-ID.
    if (::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0 || ::setresgid(realGid, realGid, realGid) != 0 ||
        ::setresuid(realUid, realUid, realUid) != 0) {
        *message = failure("returning to the real user");
        return Outcome::Failed;
    }
    if (!setKeptCapabilities(false)) {
        *message = failure("capabilities");
        return Outcome::Failed;
    }
    ::prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0);
    // Keeps the reduced rights from growing again through anything we run.
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    return Outcome::Ready;
}

Privileges::Raised::Raised() : raised_(raisedScopes++ == 0 && setKeptCapabilities(true)) {}

Privileges::Raised::~Raised()
{
    if (--raisedScopes == 0 && raised_)
        setKeptCapabilities(false);
}

// A folder of the user's own counts as listable even when its mode says
// otherwise (a folder of mode 0300 still takes new files): its owner may
// change the mode at any time, so its names are no secret from them.
bool Privileges::realUserCanList(const std::string& folder) const
{
    return realUserMay(AT_FDCWD, folder.c_str(), R_OK | X_OK, 0) || realUserOwns(AT_FDCWD, folder.c_str(), 0);
}

bool Privileges::realUserCanSearch(const std::string& folder) const
{
    return realUserMay(AT_FDCWD, folder.c_str(), X_OK, 0);
}

bool Privileges::realUserCanList(int folderFd) const
{
    return realUserMay(folderFd, "", R_OK | X_OK, AT_EMPTY_PATH) || realUserOwns(folderFd, "", AT_EMPTY_PATH);
}

bool Privileges::realUserOwns(int dirFd, const char* path, int flags) const
{
    // The way there must be open to the user all the same.
    struct stat info{};
    return realUserMay(dirFd, path, X_OK, flags) &&
           ::fstatat(dirFd, path, &info, flags | AT_SYMLINK_NOFOLLOW) == 0 && info.st_uid == realUid_;
}

bool Privileges::realUserCanSearch(int folderFd) const
{
    return realUserMay(folderFd, "", X_OK, AT_EMPTY_PATH);
}

bool Privileges::realUserMay(int dirFd, const char* path, int mode, int flags) const
{
    if (realUid_ == 0)
        return true;
    // access(2) without AT_EACCESS checks with the real ids and, for a
    // non-root user, without our capabilities, even inside a Raised scope.
    return ::faccessat(dirFd, path, mode, flags) == 0;
}

} // namespace kv::gfs

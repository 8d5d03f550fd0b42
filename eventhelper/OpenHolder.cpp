#include "eventhelper/OpenHolder.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>

namespace kv::gfs {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kHeldEvents = FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM;
constexpr int kHolderCapabilities[] = {CAP_SYS_ADMIN, CAP_SETUID, CAP_SETGID};
// Time-outs told to the agent that wait for it to read them; past these,
// more are dropped (the agent scans those files when they are written).
constexpr std::size_t kMostWaitingNotices = 256;
// The agent asks for at most a minute ("BlockAtMostSeconds"); an agent
// that asks for more is held to it, since others' opens of the user's
// files wait here too.
constexpr std::uint32_t kLongestHoldSeconds = 60;

// One message of the helper's link: kind, then a 4-byte argument.
struct LinkMessage {
    char kind;
    std::uint32_t argument;
};

bool sendWithDescriptor(int socket, const void* data, std::size_t size, int fd)
{
    iovec payload{const_cast<void*>(data), size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &payload;
    message.msg_iovlen = 1;
    if (fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
    }
    ssize_t sent;
    do {
        sent = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(size);
}

// One packet, and the descriptor it carried (if any). 0 at the end of the
// stream, -1 with errno (EAGAIN: nothing now).
ssize_t receive(int socket, char* buffer, std::size_t size, UniqueFd* fd)
{
    iovec payload{buffer, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &payload;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t received;
    do {
        received = ::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            int passed = -1;
            std::memcpy(&passed, CMSG_DATA(header), sizeof passed);
            if (fd)
                fd->reset(passed);
            else
                ::close(passed);
        }
    }
    return received;
}

// The holder's own identity: root's, real user id included, with no
// terminal and only the capabilities it uses (fanotify, and taking the
// user's file-system identity for a moment).
bool becomeHolder(std::string* why)
{
    // A terminal's ^Z or ^C goes to its foreground process group whoever
    // the sender is: the holder must not be in it.
    ::setsid();
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP)
            ::signal(signal, signal == SIGPIPE ? SIG_IGN : SIG_DFL);
    }
    // The user started this process: what they could make slow (its
    // niceness, scheduling class, I/O class) is set back to the default,
    // since every held open waits on it.
    ::setpriority(PRIO_PROCESS, 0, 0);
    const sched_param normal{};
    ::sched_setscheduler(0, SCHED_OTHER, &normal);
    constexpr int kIoprioWhoProcess = 1;
    ::syscall(SYS_ioprio_set, kIoprioWhoProcess, 0, 0);  // the default: from the CPU niceness
    // Each held open keeps a descriptor.
    const rlimit files{OpenHolder::kMostHeld * 2 + 64, OpenHolder::kMostHeld * 2 + 64};
    ::setrlimit(RLIMIT_NOFILE, &files);
    if (::setresgid(0, 0, 0) != 0 || ::setresuid(0, 0, 0) != 0) {
        *why = std::string("keeping root's identity: ") + std::strerror(errno);
        return false;
    }
    for (int capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
        if (std::find(std::begin(kHolderCapabilities), std::end(kHolderCapabilities), capability) ==
                std::end(kHolderCapabilities) &&
            ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0) {
            *why = std::string("capability bounding set: ") + std::strerror(errno);
            return false;
        }
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    for (int capability : kHolderCapabilities) {
        data[capability / 32].permitted |= 1u << (capability % 32);
        data[capability / 32].effective |= 1u << (capability % 32);
    }
    if (::syscall(SYS_capset, &header, data) != 0) {
        *why = std::string("capabilities: ") + std::strerror(errno);
        return false;
    }
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    return true;
}

std::string readSmallFile(const std::string& path)
{
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char buffer[512];
    const ssize_t length = file ? ::read(file.get(), buffer, sizeof buffer) : -1;
    return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

class Holder {
public:
    Holder(UniqueFd agent, UniqueFd helper, uid_t user, gid_t group, pid_t agentPid)
        : agent_(std::move(agent)), helper_(std::move(helper)), user_(user), group_(group), agentPid_(agentPid)
    {
    }

    int run()
    {
        // The kernel opens each event's descriptor with these flags before
        // the holder sees the event: without O_NONBLOCK, an open of a FIFO
        // would wait for a writer, and the only one is the opener waiting
        // on this very event, so every held open would wait for ever.
        events_.reset(::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE,
                                        O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NONBLOCK));
        if (!events_)
            return 2;
        for (;;) {
            pollfd watched[] = {
                {events_.get(), POLLIN, 0},
                {agent_.get(), static_cast<short>(POLLIN | (outbox_.empty() && notices_.empty() ? 0 : POLLOUT)), 0},
                {helper_.get(), POLLIN, 0},
            };
            if (::poll(watched, std::size(watched), timeoutMs()) < 0 && errno != EINTR)
                break;
            if (watched[0].revents & POLLIN)
                readEvents();
            if ((watched[1].revents & POLLIN) && !readVerdicts())
                break;
            if ((watched[2].revents & POLLIN) && !readHelper())
                break;
            if ((watched[1].revents | watched[2].revents) & (POLLHUP | POLLERR | POLLNVAL))
                break;
            expire();
            sendWaiting();
        }
        // Whoever it served has gone: every open still waiting goes on.
        allowAll();
        return 0;
    }

private:
    struct Held {
        UniqueFd file;
        Clock::time_point deadline;
        Opener opener;
        std::string path;
    };

    int timeoutMs() const
    {
        if (held_.empty())
            return -1;
        Clock::time_point first = Clock::time_point::max();
        for (const auto& [id, held] : held_)
            first = std::min(first, held.deadline);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now()).count();
        return static_cast<int>(std::max<long long>(left, 0));
    }

    void answer(int fd, std::uint32_t response)
    {
        const fanotify_response said{fd, response};
        ssize_t written;
        do {
            written = ::write(events_.get(), &said, sizeof said);
        } while (written < 0 && errno == EINTR);
    }

    void readEvents()
    {
        alignas(fanotify_event_metadata) char buffer[8192];
        for (;;) {
            const ssize_t length = ::read(events_.get(), buffer, sizeof buffer);
            if (length <= 0)
                return;
            auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
            for (ssize_t left = length; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
                if (event->fd < 0)
                    continue;
                UniqueFd file(event->fd);
                if (event->mask & kHeldEvents)
                    decide(std::move(file), event->pid);
            }
        }
    }

    void decide(UniqueFd file, pid_t pid)
    {
        struct stat info{};
        const bool holds = holdFor_.count() > 0 && held_.size() < OpenHolder::kMostHeld && !isAgentOrChild(pid) &&
                           ::fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0 &&
                           (info.st_uid == user_ || ownerOf(pid) == user_ || user_ == 0) && userMayRead(file.get());
        if (!holds) {
            answer(file.get(), FAN_ALLOW);
            return;
        }
        Held held;
        held.deadline = Clock::now() + holdFor_;
        held.opener.pid = pid;
        held.opener.command = readSmallFile("/proc/" + std::to_string(pid) + "/comm");
        if (!held.opener.command.empty() && held.opener.command.back() == '\n')
            held.opener.command.pop_back();
        char path[4097];
        const ssize_t length =
            ::readlink(("/proc/self/fd/" + std::to_string(file.get())).c_str(), path, sizeof path - 1);
        held.path = length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
        held.file = std::move(file);
        const std::uint64_t id = nextId_++;
        held_.emplace(id, std::move(held));
        outbox_.push_back(id);
    }

    // The agent and what it runs (clamdscan) read the files they scan:
    // holding those would wait on itself.
    bool isAgentOrChild(pid_t pid) const
    {
        for (int depth = 0; pid > 1 && depth < 32; ++depth) {
            if (pid == agentPid_)
                return true;
            const std::string stat = readSmallFile("/proc/" + std::to_string(pid) + "/stat");
            const std::size_t close = stat.rfind(')');
            if (close == std::string::npos || close + 4 >= stat.size())
                return false;
            pid = static_cast<pid_t>(std::atoi(stat.c_str() + close + 4));
        }
        return false;
    }

    uid_t ownerOf(pid_t pid) const
    {
        struct stat info{};
        return ::stat(("/proc/" + std::to_string(pid)).c_str(), &info) == 0 ? info.st_uid : static_cast<uid_t>(-1);
    }

    // Runs call with the user's file-system identity: the kernel's own
    // checks (permission bits, access lists) decide as for the user.
    // fanotify marks only what the marker may read, and the holder keeps
    // no power over files of its own.
    template <typename Call>
    auto asUser(Call call) const
    {
        ::setfsgid(group_);
        ::setfsuid(user_);
        const auto result = call();
        ::setfsuid(0);
        ::setfsgid(0);
        return result;
    }

    bool userMayRead(int fd) const
    {
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        return asUser([&] { return ::faccessat(AT_FDCWD, link.c_str(), R_OK, AT_EACCESS) == 0; });
    }

    bool readVerdicts()
    {
        char packet[kVerdictPacket + 1];
        for (;;) {
            const ssize_t length = receive(agent_.get(), packet, sizeof packet, nullptr);
            if (length == 0)
                return false;
            if (length < 0)
                return errno == EAGAIN || errno == EWOULDBLOCK;
            const auto verdict = decodeVerdict(std::string_view(packet, static_cast<std::size_t>(length)));
            const auto found = verdict ? held_.find(verdict->first) : held_.end();
            if (found == held_.end())
                continue;
            const int fd = found->second.file.get();
            if (verdict->second == HoldVerdict::Deny) {
                answer(fd, FAN_DENY);
            } else {
                // Clean: not asked about again until it is modified, when the
                // kernel drops the mark (and may evict it under pressure).
                if (verdict->second == HoldVerdict::AllowClean)
                    asUser([&] {
                        return ::fanotify_mark(events_.get(), FAN_MARK_ADD | FAN_MARK_IGNORED_MASK | FAN_MARK_EVICTABLE,
                                               kHeldEvents, fd, nullptr);
                    });
                answer(fd, FAN_ALLOW);
            }
            held_.erase(found);
        }
    }

    bool readHelper()
    {
        for (;;) {
            LinkMessage message{};
            UniqueFd folder;
            const ssize_t length = receive(helper_.get(), reinterpret_cast<char*>(&message), sizeof message, &folder);
            if (length == 0)
                return false;
            if (length < 0)
                return errno == EAGAIN || errno == EWOULDBLOCK;
            if (length != sizeof message)
                continue;
            switch (message.kind) {
            case 'M':
            case 'U':
                if (folder)
                    asUser([&] {
                        return ::fanotify_mark(events_.get(), message.kind == 'M' ? FAN_MARK_ADD : FAN_MARK_REMOVE,
                                               kHeldEvents | FAN_EVENT_ON_CHILD, folder.get(), nullptr);
                    });
                break;
            case 'F':
                ::fanotify_mark(events_.get(), FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr);
                break;
            case 'S':
                holdFor_ = std::chrono::seconds(std::min<std::uint32_t>(message.argument, kLongestHoldSeconds));
                if (holdFor_.count() == 0)
                    allowAll();
                break;
            }
        }
    }

    void expire()
    {
        const Clock::time_point now = Clock::now();
        for (auto held = held_.begin(); held != held_.end();) {
            if (held->second.deadline > now) {
                ++held;
                continue;
            }
            answer(held->second.file.get(), FAN_ALLOW);
            if (notices_.size() < kMostWaitingNotices)
                notices_.push_back(encodeNotice({HoldMessage::TimedOut, held->first, held->second.opener,
                                                 held->second.path}));
            held = held_.erase(held);
        }
    }

    void sendWaiting()
    {
        while (!outbox_.empty()) {
            const auto held = held_.find(outbox_.front());
            if (held != held_.end()) {
                const std::string packet =
                    encodeNotice({HoldMessage::Request, held->first, held->second.opener, held->second.path});
                if (!sendWithDescriptor(agent_.get(), packet.data(), packet.size(), held->second.file.get()))
                    return;
            }
            outbox_.pop_front();
        }
        while (!notices_.empty() && sendWithDescriptor(agent_.get(), notices_.front().data(), notices_.front().size(), -1))
            notices_.pop_front();
    }

    void allowAll()
    {
        for (const auto& [id, held] : held_)
            answer(held.file.get(), FAN_ALLOW);
        held_.clear();
        outbox_.clear();
    }

    UniqueFd agent_;
    UniqueFd helper_;
    UniqueFd events_;
    const uid_t user_;
    const gid_t group_;
    const pid_t agentPid_;
    std::chrono::seconds holdFor_{0};
    std::map<std::uint64_t, Held> held_;
    std::deque<std::uint64_t> outbox_;    // requests not yet sent
    std::deque<std::string> notices_;     // time-outs not yet sent
    std::uint64_t nextId_ = 1;
};

} // namespace

bool OpenHolder::Link::send(char kind, const void* data, std::size_t size, int fd)
{
    LinkMessage message{kind, 0};
    if (size == sizeof message.argument)
        std::memcpy(&message.argument, data, size);
    // The link is the holder's lifeline: the helper waits for room on it
    // rather than drop a mark (a holder that stopped reading ends soon: it
    // answers all by its deadlines and reads between them).
    for (int attempt = 0; attempt < 2000; ++attempt) {
        if (sendWithDescriptor(socket_.get(), &message, sizeof message, fd))
            return true;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return false;
        pollfd room{socket_.get(), POLLOUT, 0};
        ::poll(&room, 1, 10);
    }
    return false;
}

bool OpenHolder::Link::mark(int folderFd) { return socket_ && send('M', nullptr, 0, folderFd); }

bool OpenHolder::Link::unmark(int folderFd) { return socket_ && send('U', nullptr, 0, folderFd); }

bool OpenHolder::Link::unmarkAll() { return socket_ && send('F', nullptr, 0, -1); }

bool OpenHolder::Link::holdFor(std::chrono::seconds seconds)
{
    const std::uint32_t value = static_cast<std::uint32_t>(std::max<long long>(seconds.count(), 0));
    return socket_ && send('S', &value, sizeof value, -1);
}

OpenHolder::Link OpenHolder::start(UniqueFd agentChannel, uid_t user, gid_t group, pid_t agent, std::string* message)
{
    int pair[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        *message = std::string("holder link: ") + std::strerror(errno);
        return Link();
    }
    UniqueFd helperEnd(pair[0]);
    UniqueFd holderEnd(pair[1]);
    const pid_t child = ::fork();
    if (child < 0) {
        *message = std::string("holder: ") + std::strerror(errno);
        return Link();
    }
    if (child == 0) {
        // Nothing of the helper's but the two channels: not its lock, not
        // the agent's output pipe (which must end when the helper does).
        helperEnd.reset();
        const int agentFd = ::fcntl(agentChannel.get(), F_DUPFD_CLOEXEC, 100);
        const int holderFd = ::fcntl(holderEnd.get(), F_DUPFD_CLOEXEC, 100);
        agentChannel.release();
        holderEnd.release();
        ::close_range(3, 99, 0);
        ::close_range(std::max(agentFd, holderFd) + 1, ~0U, 0);
        const int null = ::open("/dev/null", O_RDWR);
        for (int standard = 0; standard <= 2; ++standard)
            ::dup2(null, standard);
        if (null > 2)
            ::close(null);
        std::string why;
        if (agentFd < 0 || holderFd < 0 || !becomeHolder(&why))
            ::_exit(2);
        Holder holder(UniqueFd(agentFd), UniqueFd(holderFd), user, group, agent);
        ::_exit(holder.run());
    }
    return Link(std::move(helperEnd));
}

} // namespace kv::gfs

#include "engine/ClamdCtrl.h"

#include "engine/SupportAddress.h"
#include "engine/TcpServerEnd.h"
#include "platform/Log.h"
#include "platform/UniqueFd.h"
#include "platform/UserControlled.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>

namespace kv {
namespace {

bool isAscii(const std::string& text)
{
    for (const unsigned char c : text) {
        if (c > 0x7f)
            return false;
    }
    return true;
}

// printf to standard output, then perror() on standard error. Standard output
// is flushed first so the two lines reach the scan log in order.
void reportFailure(const std::string& message, const char* call, int savedErrno)
{
    std::fputs(message.c_str(), stdout);
    std::fflush(stdout);
    errno = savedErrno;
    std::perror(call);
}

using Clock = std::chrono::steady_clock;

void limitWaits(int socketFd, std::chrono::microseconds limit)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
    const timeval value{static_cast<time_t>(seconds.count()), static_cast<suseconds_t>((limit - seconds).count())};
    ::setsockopt(socketFd, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
    ::setsockopt(socketFd, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
}

// A stream socket whose connect, sends and receives give up after the time
// limit (on Linux the send limit covers the connect too, for UNIX-domain
// and TCP sockets alike).
UniqueFd timedSocket(int family = AF_UNIX)
{
    UniqueFd socketFd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socketFd)
        limitWaits(socketFd.get(), std::chrono::seconds(ClamdCtrl::kTimeLimitSeconds));
    return socketFd;
}

void fillAddress(const std::string& path, sockaddr_un* address)
{
    address->sun_family = AF_UNIX;
    // At most 104 bytes: a path of 104 bytes or more fills them without a
    // terminator, and the rest of sun_path stays zero.
    std::strncpy(address->sun_path, path.c_str(), ClamdCtrl::kMaxPathBytes);
}

int connectTo(int socketFd, const sockaddr_un& address)
{
    int result;
    do {
        result = ::connect(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    return result;
}

} // namespace

namespace {

// The user serving a connected UNIX-domain socket; nothing when it cannot
// be told.
std::optional<uid_t> peerUser(int socketFd)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(socketFd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return std::nullopt;
    return peer.uid;
}

bool isSystemUser(uid_t uid)
{
    if (uid == 0)
        return true;
    const passwd* clamav = ::getpwnam("clamav");
    return clamav && uid == clamav->pw_uid;
}

// A connected socket to the daemon at the path; an empty descriptor when
// nothing answers.
UniqueFd connectedTo(const std::string& pathToSocket)
{
    sockaddr_un address{};
    fillAddress(pathToSocket, &address);
    UniqueFd socketFd = timedSocket();
    if (socketFd && connectTo(socketFd.get(), address) != 0)
        socketFd.reset();
    return socketFd;
}

// Sends the command's message and reads (and drops) the reply. False when
// the message could not be written.
bool sendCommand(int socketFd, const std::string& command, const char* socketKind)
{
    const std::string message = ClamdCtrl::messageFor(command);
    ssize_t written;
    do {
        written = ::send(socketFd, message.data(), message.size(), MSG_NOSIGNAL);
    } while (written < 0 && errno == EINTR);
    if (written < 0) {
        reportFailure(stringPrintf("Error, could not write to %s socket\n", socketKind), "write()", errno);
        return false;
    }

    char reply[ClamdCtrl::kReplyBytes] = {};
    ssize_t received;
    do {
        received = ::read(socketFd, reply, sizeof reply);
    } while (received < 0 && errno == EINTR);
    return true;
}

// True when the daemon on the connected socket answers PING with PONG.
bool answersPing(int socketFd)
{
    static constexpr char kPing[] = "zPING";
    if (::send(socketFd, kPing, sizeof kPing, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof kPing))
        return false;
    char reply[8] = {};
    const ssize_t received = ::recv(socketFd, reply, sizeof reply - 1, 0);
    return received >= 4 && std::string_view(reply, 4) == "PONG";
}

// The daemon's one-line answer to VERSION on the connected socket.
std::optional<std::string> versionOf(int socketFd)
{
    static constexpr char kVersion[] = "zVERSION";
    if (::send(socketFd, kVersion, sizeof kVersion, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof kVersion))
        return std::nullopt;
    // The answer ends with a NUL byte (the z form); it is short, but may come
    // in pieces.
    std::string answer;
    char chunk[256];
    while (answer.size() < 1024) {
        const ssize_t received = ::recv(socketFd, chunk, sizeof chunk, 0);
        if (received < 0 && errno == EINTR)
            continue;
        if (received <= 0)
            break;
        answer.append(chunk, static_cast<size_t>(received));
        if (answer.find('\0') != std::string::npos)
            break;
    }
    answer = answer.substr(0, answer.find('\0'));
    while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r'))
        answer.pop_back();
    if (!answer.starts_with("ClamAV "))
        return std::nullopt;
    // The answer ends up on the user's screen: only what a version and a
    // date are made of ("ClamAV 1.4.3/27463/Mon Nov 23 09:12:03 2026").
    for (char& c : answer) {
        const bool allowed = std::isalnum(static_cast<unsigned char>(c)) || c == ' ' || c == '.' || c == '/' ||
                             c == ':' || c == '+' || c == '_' || c == '-';
        if (!allowed)
            c = '?';
    }
    return answer;
}

using AddressList = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

// A host name look-up that may outlive the wait for it: the thread running
// getaddrinfo() holds one share, the caller another, and whoever lets go
// last frees the result.
struct PendingLookup {
    std::mutex mutex;
    std::condition_variable finished;  // with mutex
    bool done = false;                 // guarded by mutex
    int status = EAI_AGAIN;            // guarded by mutex
    addrinfo* list = nullptr;          // guarded by mutex
    ~PendingLookup()
    {
        if (list)
            ::freeaddrinfo(list);
    }
};

// The addresses of HOST ("any": this machine) with PORT; nothing, and
// *problem set, when they cannot be had by the deadline.
AddressList lookUp(const std::string& host, uint16_t port, Clock::time_point deadline, std::string* problem)
{
    const std::string service = std::to_string(port);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo numeric = hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    addrinfo* list = nullptr;
    const int status = ::getaddrinfo(host == "any" ? nullptr : host.c_str(), service.c_str(), &numeric, &list);
    if (status == 0)
        return AddressList(list, ::freeaddrinfo);
    if (status != EAI_NONAME) {
        *problem = host + ": " + ::gai_strerror(status);
        return AddressList(nullptr, ::freeaddrinfo);
    }

    // A host name: the name service may never answer, so the wait for it
    // ends at the deadline and a late answer is dropped when it comes.
    auto pending = std::make_shared<PendingLookup>();
    try {
        std::thread([pending, host, service, hints] {
            addrinfo* found = nullptr;
            const int result = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
            std::lock_guard<std::mutex> guard(pending->mutex);
            pending->status = result;
            pending->list = found;
            pending->done = true;
            pending->finished.notify_all();
        }).detach();
    } catch (const std::system_error& error) {
        *problem = host + ": cannot look it up (" + error.what() + ")";
        return AddressList(nullptr, ::freeaddrinfo);
    }
    std::unique_lock<std::mutex> held(pending->mutex);
    if (!pending->finished.wait_until(held, deadline, [&] { return pending->done; })) {
        *problem = host + ": no answer from the name service within " + std::to_string(ClamdCtrl::kTimeLimitSeconds) +
                   " seconds";
        return AddressList(nullptr, ::freeaddrinfo);
    }
    if (pending->status != 0) {
        *problem = host + ": " + ::gai_strerror(pending->status);
        return AddressList(nullptr, ::freeaddrinfo);
    }
    return AddressList(std::exchange(pending->list, nullptr), ::freeaddrinfo);
}

// A connection to the first of the engine's addresses that accepts one
// before the time limit; an empty descriptor, and *problem set, otherwise.
UniqueFd connectedOverTcp(const TcpEngine& engine, std::string* problem)
{
    const auto limit = std::chrono::seconds(ClamdCtrl::kTimeLimitSeconds);
    const Clock::time_point deadline = Clock::now() + limit;
    *problem = "no address to connect to";
    for (const std::string& host : engine.hosts) {
        const AddressList addresses = lookUp(host, engine.port, deadline, problem);
        for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
            const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
            const TcpEngine shown{{host}, engine.port};
            if (left.count() <= 0) {
                *problem = shown.describe() + ": no connection within " + std::to_string(limit.count()) + " seconds";
                return UniqueFd();
            }
            UniqueFd socketFd = timedSocket(address->ai_family);
            if (!socketFd) {
                *problem = shown.describe() + ": " + std::strerror(errno);
                continue;
            }
            limitWaits(socketFd.get(), left);
            if (::connect(socketFd.get(), address->ai_addr, address->ai_addrlen) == 0) {
                limitWaits(socketFd.get(), limit);
                return socketFd;
            }
            // A connect that runs out of time reports EINPROGRESS.
            *problem = shown.describe() + ": " + std::strerror(errno == EINPROGRESS ? ETIMEDOUT : errno);
        }
    }
    return UniqueFd();
}

} // namespace

std::string ClamdCtrl::untrustedLocalTcpServer(int socketFd)
{
    const TcpServerEnd end = serverEndOf(socketFd);
    if (end.where == TcpServerEnd::Where::OtherMachine)
        return {};
    if (end.where == TcpServerEnd::Where::Unknown)
        return "it is on this machine, and who serves it cannot be found (" + end.problem + ")";
    if (end.owner == ::getuid() || isSystemUser(end.owner))
        return {};
    const passwd* owner = ::getpwuid(end.owner);
    return stringPrintf("on this machine it is served by user %s (uid %u), not by you, root or clamav",
                        owner ? owner->pw_name : "?", static_cast<unsigned>(end.owner));
}

bool ClamdCtrl::mayBeOnThisMachine(const TcpEngine& engine)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(kTimeLimitSeconds);
    for (const std::string& host : engine.hosts) {
        std::string problem;
        const AddressList addresses = lookUp(host, engine.port, deadline, &problem);
        if (!addresses)
            return true;
        for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
            if (isThisMachine(address->ai_addr))
                return true;
        }
    }
    return false;
}

bool ClamdCtrl::tcpEnginePeerTrusted(const TcpEngine& engine)
{
    std::string problem;
    const UniqueFd socketFd = connectedOverTcp(engine, &problem);
    if (!socketFd)
        return true;
    const std::string refusal = untrustedLocalTcpServer(socketFd.get());
    if (refusal.empty())
        return true;
    nsLogf("Refusing the clamd at %s: %s", engine.describe().c_str(), refusal.c_str());
    return false;
}

std::string ClamdCtrl::untrustedPeer(int socketFd)
{
    const std::optional<uid_t> peer = peerUser(socketFd);
    if (!peer)
        return stringPrintf("its owner cannot be told (%s)", std::strerror(errno));
    if (*peer == ::getuid() || isSystemUser(*peer))
        return {};
    const passwd* owner = ::getpwuid(*peer);
    return stringPrintf("it is served by user %s (uid %u), not by you, root or clamav",
                        owner ? owner->pw_name : "?", static_cast<unsigned>(*peer));
}

bool ClamdCtrl::socketPeerTrusted(const std::string& pathToSocket)
{
    // clamdscan connects to the path again after this check, so whoever
    // could put a socket there by then could serve it, whether or not a
    // trusted daemon answers now. Nobody answering is the scan's to report.
    std::string refusal = whyOthersCouldServe(pathToSocket);
    if (refusal.empty()) {
        if (const UniqueFd socketFd = connectedTo(pathToSocket))
            refusal = untrustedPeer(socketFd.get());
    }
    if (refusal.empty())
        return true;
    nsLogf("Refusing the clamd socket %s: %s", pathToSocket.c_str(), refusal.c_str());
    return false;
}

bool ClamdCtrl::systemServiceAnswers(const std::string& pathToSocket)
{
    const UniqueFd socketFd = connectedTo(pathToSocket);
    if (!socketFd)
        return false;
    const std::optional<uid_t> peer = peerUser(socketFd.get());
    if (!peer || *peer == ::getuid() || !isSystemUser(*peer))
        return false;
    return answersPing(socketFd.get());
}

std::optional<std::string> ClamdCtrl::askVersion(const std::string& pathToSocket, std::string* problem)
{
    const UniqueFd socketFd = connectedTo(pathToSocket);
    std::string why;
    if (!socketFd)
        why = "nothing answers at " + pathToSocket;
    else if (why = untrustedPeer(socketFd.get()); why.empty()) {
        if (std::optional<std::string> version = versionOf(socketFd.get()))
            return version;
        why = "the daemon at " + pathToSocket + " gave no version";
    }
    if (problem)
        *problem = why;
    return std::nullopt;
}

std::optional<std::string> ClamdCtrl::askVersion(const TcpEngine& engine, std::string* problem)
{
    std::string why;
    const UniqueFd socketFd = connectedOverTcp(engine, &why);
    if (socketFd) {
        if (why = untrustedLocalTcpServer(socketFd.get()); why.empty()) {
            if (std::optional<std::string> version = versionOf(socketFd.get()))
                return version;
            why = "the daemon at " + engine.describe() + " gave no version";
        } else {
            why = engine.describe() + ": " + why;
        }
    }
    if (problem)
        *problem = why;
    return std::nullopt;
}

bool ClamdCtrl::tcpEngineAnswers(const TcpEngine& engine, std::string* problem)
{
    std::string why;
    const UniqueFd socketFd = connectedOverTcp(engine, &why);
    const std::string refusal = socketFd ? untrustedLocalTcpServer(socketFd.get()) : std::string();
    if (!refusal.empty())
        why = engine.describe() + ": " + refusal;
    else if (socketFd && !answersPing(socketFd.get()))
        why = engine.describe() + ": no PONG in answer to PING";
    else if (socketFd)
        return true;
    if (problem)
        *problem = why;
    return false;
}

bool ClamdCtrl::communicateWithTcpEngine(const TcpEngine& engine, const std::string& command)
{
    if (!isAscii(command)) {
        std::fputs(stringPrintf("Error, can't connect to clamd at %s.\n", engine.describe().c_str()).c_str(), stdout);
        std::fflush(stdout);
        std::fputs("connect(): the command has no ASCII form\n", stderr);
        std::fflush(stderr);
        return false;
    }
    std::string problem;
    const UniqueFd socketFd = connectedOverTcp(engine, &problem);
    if (!socketFd) {
        std::fputs(stringPrintf("Error, can't connect to clamd at %s.\n", engine.describe().c_str()).c_str(), stdout);
        std::fflush(stdout);
        std::fputs(("connect(): " + problem + "\n").c_str(), stderr);
        std::fflush(stderr);
        return false;
    }
    if (const std::string refusal = untrustedLocalTcpServer(socketFd.get()); !refusal.empty()) {
        nsLogf("Refusing the clamd at %s: %s", engine.describe().c_str(), refusal.c_str());
        return false;
    }
    return sendCommand(socketFd.get(), command, "TCP");
}

std::string ClamdCtrl::messageFor(const std::string& command)
{
    std::string message(kMessageBytes, '\0');
    std::memcpy(message.data(), command.data(), std::min(command.size(), kMessageBytes));
    return message;
}

bool ClamdCtrl::communicateWithSocket(const std::optional<std::string>& pathToSocket, const std::string& command)
{
    if (!pathToSocket) {
        nsLogf("Please email this line to %s >In ClamdCtrl, pathToSocket is nil, command is %s< Please also "
               "include the file at /usr/local/korvane/etc/clamd.conf",
               kSupportAddress, command.c_str());
        return true;
    }
    const std::string& path = *pathToSocket;
    if (!isAscii(path) || !isAscii(command)) {
        std::fputs(stringPrintf("Error, can't connect to clamd through %s.\n", path.c_str()).c_str(), stdout);
        std::fflush(stdout);
        std::fputs("connect(): the socket path or command has no ASCII form\n", stderr);
        std::fflush(stderr);
        return false;
    }

    sockaddr_un address{};
    fillAddress(path, &address);

    UniqueFd socketFd = timedSocket();
    if (!socketFd) {
        reportFailure(stringPrintf("Error, can't create socket endpoint for %s.\n", path.c_str()), "socket()", errno);
        return false;
    }

    if (connectTo(socketFd.get(), address) != 0) {
        const int savedErrno = errno;
        socketFd.reset();
        reportFailure(stringPrintf("Error, can't connect to clamd through %s.\n", path.c_str()), "connect()", savedErrno);
        return false;
    }
    if (const std::string refusal = untrustedPeer(socketFd.get()); !refusal.empty()) {
        nsLogf("Refusing the clamd socket %s: %s", path.c_str(), refusal.c_str());
        return false;
    }
    return sendCommand(socketFd.get(), command, "UNIX");
}

} // namespace kv

namespace kv {
namespace {

bool sendAll(int socketFd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t sent = ::send(socketFd, data, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

// True once stopFd (when given) is readable, waiting at most until the
// socket is; a socket silent past the limit is left to recv(2) to end.
bool stoppedWhileWaiting(int socketFd, int stopFd)
{
    if (stopFd < 0)
        return false;
    pollfd waits[2] = {{socketFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
    int ready;
    do {
        ready = ::poll(waits, 2, ClamdCtrl::kFileScanLimitSeconds * 1000);
    } while (ready < 0 && errno == EINTR);
    return ready > 0 && (waits[1].revents & POLLIN);
}

// The reply up to its NUL end; nothing when the daemon hangs up or stays
// silent past the limit, or once stopFd (when given) is readable.
std::optional<std::string> readReply(int socketFd, int stopFd = -1)
{
    std::string reply;
    char buffer[512];
    for (;;) {
        if (stoppedWhileWaiting(socketFd, stopFd))
            return std::nullopt;
        const ssize_t received = ::recv(socketFd, buffer, sizeof buffer, 0);
        if (received < 0 && errno == EINTR)
            continue;
        if (received <= 0)
            return reply.empty() ? std::nullopt : std::optional<std::string>(reply);
        reply.append(buffer, static_cast<size_t>(received));
        if (const size_t end = reply.find('\0'); end != std::string::npos) {
            reply.resize(end);
            return reply;
        }
        if (reply.size() > 64 * 1024)
            return reply;
    }
}

// zFILDES: the command, then one byte carrying the descriptor.
bool sendDescriptor(int socketFd, int fileFd)
{
    static constexpr char kCommand[] = "zFILDES";
    if (!sendAll(socketFd, kCommand, sizeof kCommand))
        return false;
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &fileFd, sizeof fileFd);
    ssize_t sent;
    do {
        sent = ::sendmsg(socketFd, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == 1;
}

// zINSTREAM: the contents in chunks, each after its length (four bytes,
// most significant first), then a length of zero. Read from the start with
// pread(2), so the descriptor's own offset does not matter.
bool sendContents(int socketFd, int fileFd, int stopFd)
{
    static constexpr char kCommand[] = "zINSTREAM";
    if (!sendAll(socketFd, kCommand, sizeof kCommand))
        return false;
    std::unique_ptr<char[]> chunk(new char[4 + 64 * 1024]);
    for (off_t offset = 0;;) {
        const ssize_t length = ::pread(fileFd, chunk.get() + 4, 64 * 1024, offset);
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0)
            return false;
        if (stopFd >= 0) {
            pollfd stop{stopFd, POLLIN, 0};
            if (::poll(&stop, 1, 0) > 0)
                return false;
        }
        const uint32_t size = htonl(static_cast<uint32_t>(length));
        std::memcpy(chunk.get(), &size, 4);
        // A daemon past its StreamMaxLength stops reading and says so: its
        // reply is still read below.
        if (!sendAll(socketFd, chunk.get(), 4 + static_cast<size_t>(length)))
            return length == 0 ? false : true;
        if (length == 0)
            return true;
        offset += length;
    }
}

} // namespace

ClamdCtrl::FileVerdict ClamdCtrl::parseVerdict(std::string_view reply)
{
    FileVerdict verdict;
    const size_t colon = reply.find(": ");
    const std::string_view said = colon == std::string_view::npos ? reply : reply.substr(colon + 2);
    if (said == "OK") {
        verdict.kind = FileVerdict::Clean;
    } else if (said.ends_with(" FOUND") && said.size() > 6) {
        verdict.kind = FileVerdict::Found;
        verdict.detail = said.substr(0, said.size() - 6);
    } else {
        verdict.kind = FileVerdict::Error;
        verdict.detail = said.ends_with(" ERROR") ? said.substr(0, said.size() - 6) : said;
        if (verdict.detail.empty())
            verdict.detail = "no answer";
    }
    return verdict;
}

ClamdCtrl::FileVerdict ClamdCtrl::scanOpenFile(int fileFd, const std::optional<std::string>& pathToSocket,
                                               const std::optional<TcpEngine>& tcpEngine, int stopFd)
{
    FileVerdict verdict;
    UniqueFd socketFd;
    std::string refusal;
    if (pathToSocket) {
        socketFd = connectedTo(*pathToSocket);
        if (!socketFd) {
            verdict.detail = "ERROR: Could not connect to clamd on LocalSocket " + *pathToSocket + ": " +
                             std::strerror(errno);
            return verdict;
        }
        refusal = untrustedPeer(socketFd.get());
    } else if (tcpEngine) {
        std::string problem;
        socketFd = connectedOverTcp(*tcpEngine, &problem);
        if (!socketFd) {
            verdict.detail = "ERROR: Could not connect to clamd on " + problem;
            return verdict;
        }
        refusal = untrustedLocalTcpServer(socketFd.get());
    } else {
        verdict.detail = "ERROR: Could not connect to clamd: no engine is configured";
        return verdict;
    }
    if (!refusal.empty()) {
        verdict.kind = FileVerdict::Untrusted;
        verdict.detail = refusal;
        return verdict;
    }
    const bool sent =
        pathToSocket ? sendDescriptor(socketFd.get(), fileFd) : sendContents(socketFd.get(), fileFd, stopFd);
    limitWaits(socketFd.get(), std::chrono::seconds(kFileScanLimitSeconds));
    std::optional<std::string> reply = readReply(socketFd.get(), stopFd);
    if (!reply) {
        // A daemon that ends the connection without a word has most likely
        // died under the file: reported as unreachable, so it is recovered
        // and the file scanned again.
        verdict.detail = "ERROR: Could not connect to clamd on " +
                         (pathToSocket ? "LocalSocket " + *pathToSocket : tcpEngine->describe()) + ": " +
                         (sent ? "the connection ended without an answer" : "the file could not be sent");
        return verdict;
    }
    return parseVerdict(*reply);
}

} // namespace kv

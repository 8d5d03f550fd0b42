#include "engine/ClamdCtrl.h"

#include "engine/SupportAddress.h"
#include "platform/Log.h"
#include "platform/UniqueFd.h"

#include <netdb.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
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
    const UniqueFd socketFd = connectedTo(pathToSocket);
    if (!socketFd)
        return true;
    const std::string refusal = untrustedPeer(socketFd.get());
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

bool ClamdCtrl::tcpEngineAnswers(const TcpEngine& engine, std::string* problem)
{
    std::string why;
    const UniqueFd socketFd = connectedOverTcp(engine, &why);
    if (socketFd && !answersPing(socketFd.get()))
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

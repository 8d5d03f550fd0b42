#include "engine/ClamdCtrl.h"

#include "engine/SupportAddress.h"
#include "platform/Log.h"
#include "platform/UniqueFd.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

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

// A stream socket whose connect, sends and receives give up after the time
// limit (for UNIX-domain sockets the send limit covers the connect too).
UniqueFd timedSocket()
{
    UniqueFd socketFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socketFd) {
        const timeval limit{ClamdCtrl::kTimeLimitSeconds, 0};
        ::setsockopt(socketFd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        ::setsockopt(socketFd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
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
    static constexpr char kPing[] = "zPING";
    if (::send(socketFd.get(), kPing, sizeof kPing, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof kPing))
        return false;
    char reply[8] = {};
    const ssize_t received = ::recv(socketFd.get(), reply, sizeof reply - 1, 0);
    return received >= 4 && std::string_view(reply, 4) == "PONG";
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

    const std::string message = messageFor(command);
    ssize_t written;
    do {
        written = ::send(socketFd.get(), message.data(), message.size(), MSG_NOSIGNAL);
    } while (written < 0 && errno == EINTR);
    if (written < 0) {
        reportFailure("Error, could not write to UNIX socket\n", "write()", errno);
        return false;
    }

    char reply[kReplyBytes] = {};
    ssize_t received;
    do {
        received = ::read(socketFd.get(), reply, sizeof reply);
    } while (received < 0 && errno == EINTR);
    return true;
}

} // namespace kv

#include "engine/ClamdCtrl.h"

#include "engine/SupportAddress.h"
#include "platform/Log.h"
#include "platform/UniqueFd.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

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

} // namespace

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
    address.sun_family = AF_UNIX;
    // At most 104 bytes: a path of 104 bytes or more fills them without a
    // terminator, and the rest of sun_path stays zero.
    std::strncpy(address.sun_path, path.c_str(), kMaxPathBytes);

    UniqueFd socketFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socketFd) {
        reportFailure(stringPrintf("Error, can't create socket endpoint for %s.\n", path.c_str()), "socket()", errno);
        return false;
    }

    int result;
    do {
        result = ::connect(socketFd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int savedErrno = errno;
        socketFd.reset();
        reportFailure(stringPrintf("Error, can't connect to clamd through %s.\n", path.c_str()), "connect()", savedErrno);
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

#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <string>

namespace kv {

// Who serves a TCP connection of ours, when it ends on this machine.
//
// Any user may listen on a free port of this machine, and may close the
// listening socket once a connection is accepted, so no listening socket
// says who serves a given connection. The connection itself does: the
// kernel's socket table (NETLINK_SOCK_DIAG, inet_diag) holds the server's
// end of it, the established socket whose local address is our peer and
// whose peer is our local address, with the user who made it.
struct TcpServerEnd {
    enum class Where {
        OtherMachine,  // the peer is not an address of this machine
        ThisMachine,   // owner is who made the server's end
        Unknown,       // on this machine, but the server's end was not found: problem says why
    };
    Where where = Where::Unknown;
    uid_t owner = 0;
    std::string problem;
};

// The server's end of the connected TCP socket. The server end of a
// connection still being set up is waited for, briefly: until then the
// kernel reports it without an owner. Any thread.
TcpServerEnd serverEndOf(int socketFd);

// True when the address (IPv4, IPv6, or IPv4 mapped into IPv6) is one of
// this machine's: a loopback address, the unspecified address (which
// reaches this machine), or an address of any of its network interfaces
// now.
bool isThisMachine(const sockaddr* address);

} // namespace kv

#include "engine/TcpServerEnd.h"

#include "platform/UniqueFd.h"

#include <ifaddrs.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>

namespace kv {
namespace {

// An address as the kernel's socket table keys it, an IPv4 address mapped
// into IPv6 taken as the IPv4 address it is.
struct Endpoint {
    int family = AF_UNSPEC;
    unsigned char bytes[16] = {};
    uint16_t port = 0;  // network order

    size_t size() const { return family == AF_INET ? 4 : 16; }
    bool sameAddress(const Endpoint& other) const
    {
        return family == other.family && std::memcmp(bytes, other.bytes, size()) == 0;
    }
    bool operator==(const Endpoint& other) const { return sameAddress(other) && port == other.port; }
};

Endpoint fromBytes(int family, const void* address, uint16_t port)
{
    Endpoint endpoint;
    endpoint.port = port;
    if (family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(static_cast<const in6_addr*>(address))) {
        endpoint.family = AF_INET;
        std::memcpy(endpoint.bytes, static_cast<const unsigned char*>(address) + 12, 4);
        return endpoint;
    }
    endpoint.family = family;
    std::memcpy(endpoint.bytes, address, endpoint.size());
    return endpoint;
}

std::optional<Endpoint> endpointOf(const sockaddr* address)
{
    if (address && address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        return fromBytes(AF_INET, &v4->sin_addr, v4->sin_port);
    }
    if (address && address->sa_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
        return fromBytes(AF_INET6, &v6->sin6_addr, v6->sin6_port);
    }
    return std::nullopt;
}

bool isThisMachine(const Endpoint& endpoint)
{
    static constexpr unsigned char kZero[16] = {};
    if (std::memcmp(endpoint.bytes, kZero, endpoint.size()) == 0)
        return true;
    if (endpoint.family == AF_INET ? endpoint.bytes[0] == 127
                                   : IN6_IS_ADDR_LOOPBACK(reinterpret_cast<const in6_addr*>(endpoint.bytes)))
        return true;
    ifaddrs* list = nullptr;
    // Without the list nobody can tell: counted as this machine's, so the
    // connection is checked rather than trusted.
    if (::getifaddrs(&list) != 0)
        return true;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owned(list, ::freeifaddrs);
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        const std::optional<Endpoint> own = endpointOf(entry->ifa_addr);
        if (own && own->sameAddress(endpoint))
            return true;
    }
    return false;
}

enum class Lookup { Found, Missing, Failed };

// The socket whose local address is LOCAL and whose peer is PEER, asked of
// the kernel by its exact addresses. A listening socket the kernel offers
// instead (it falls back to one for the port) is not it.
Lookup findSocket(const Endpoint& local, const Endpoint& peer, inet_diag_msg* found)
{
    UniqueFd netlink(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!netlink)
        return Lookup::Failed;
    const timeval limit{1, 0};
    ::setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);

    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST;
    message.request.sdiag_family = static_cast<uint8_t>(local.family);
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = ~0u;
    inet_diag_sockid& id = message.request.id;
    id.idiag_sport = local.port;
    id.idiag_dport = peer.port;
    std::memcpy(id.idiag_src, local.bytes, local.size());
    std::memcpy(id.idiag_dst, peer.bytes, peer.size());
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    ssize_t sent;
    do {
        sent = ::sendto(netlink.get(), &message, sizeof message, 0, reinterpret_cast<const sockaddr*>(&kernel),
                        sizeof kernel);
    } while (sent < 0 && errno == EINTR);
    if (sent != static_cast<ssize_t>(sizeof message))
        return Lookup::Failed;

    alignas(nlmsghdr) char reply[8192];
    ssize_t received;
    do {
        received = ::recv(netlink.get(), reply, sizeof reply, 0);
    } while (received < 0 && errno == EINTR);
    if (received < 0)
        return Lookup::Failed;
    int left = static_cast<int>(received);
    for (auto* header = reinterpret_cast<nlmsghdr*>(reply); NLMSG_OK(header, left); header = NLMSG_NEXT(header, left)) {
        if (header->nlmsg_type == NLMSG_ERROR) {
            const int error = -static_cast<const nlmsgerr*>(NLMSG_DATA(header))->error;
            if (error == ENOENT)
                return Lookup::Missing;
            errno = error;
            return Lookup::Failed;
        }
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY || header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg)))
            continue;
        std::memcpy(found, NLMSG_DATA(header), sizeof *found);
        const Endpoint itsLocal = fromBytes(found->idiag_family, found->id.idiag_src, found->id.idiag_sport);
        const Endpoint itsPeer = fromBytes(found->idiag_family, found->id.idiag_dst, found->id.idiag_dport);
        return itsLocal == local && itsPeer == peer ? Lookup::Found : Lookup::Missing;
    }
    errno = EPROTO;
    return Lookup::Failed;
}

} // namespace

bool isThisMachine(const sockaddr* address)
{
    const std::optional<Endpoint> endpoint = endpointOf(address);
    return endpoint && isThisMachine(*endpoint);
}

TcpServerEnd serverEndOf(int socketFd)
{
    TcpServerEnd end;
    sockaddr_storage ours{}, theirs{};
    socklen_t oursLength = sizeof ours, theirsLength = sizeof theirs;
    if (::getsockname(socketFd, reinterpret_cast<sockaddr*>(&ours), &oursLength) != 0 ||
        ::getpeername(socketFd, reinterpret_cast<sockaddr*>(&theirs), &theirsLength) != 0) {
        end.problem = std::string("the connection's addresses cannot be read: ") + std::strerror(errno);
        return end;
    }
    const std::optional<Endpoint> client = endpointOf(reinterpret_cast<const sockaddr*>(&ours));
    const std::optional<Endpoint> server = endpointOf(reinterpret_cast<const sockaddr*>(&theirs));
    if (!client || !server || client->family != server->family) {
        end.problem = "the connection is not an IP connection";
        return end;
    }

    // Until the server's end has seen the last step of the handshake it is
    // a request, which the kernel reports without its owner: a few
    // milliseconds at most on this machine.
    constexpr int kAttempts = 200;
    constexpr auto kPause = std::chrono::milliseconds(5);
    for (int attempt = 1;; ++attempt) {
        inet_diag_msg found{};
        const Lookup lookup = findSocket(*server, *client, &found);
        if (lookup == Lookup::Found && found.idiag_state == TCP_SYN_RECV && attempt < kAttempts) {
            std::this_thread::sleep_for(kPause);
            continue;
        }
        if (lookup == Lookup::Found && found.idiag_state == TCP_ESTABLISHED) {
            end.where = TcpServerEnd::Where::ThisMachine;
            end.owner = found.idiag_uid;
        } else if (lookup == Lookup::Found) {
            end.problem = "its end on this machine is not an open connection (state " +
                          std::to_string(found.idiag_state) + ")";
        } else if (!isThisMachine(*server)) {
            end.where = TcpServerEnd::Where::OtherMachine;
        } else if (lookup == Lookup::Missing) {
            end.problem = "no socket of this machine holds its end";
        } else {
            end.problem = std::string("the kernel's table of sockets cannot be read: ") + std::strerror(errno);
        }
        return end;
    }
}

} // namespace kv

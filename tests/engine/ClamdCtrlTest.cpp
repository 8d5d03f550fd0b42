// The control client against real listeners, each a child process as a
// daemon or another user's program would be.

#include "engine/ClamdCtrl.h"
#include "tests/support/TestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

namespace {

// A listener in a child process, run as USER when one is given (the tests
// run as root), on a UNIX socket at a path or on a TCP port of 127.0.0.1
// (or of every IPv4 and IPv6 address at once). It answers the first message
// of each connection with PONG, or hangs up without a word, or never
// accepts at all, or (as a neighbour posing as a stopped clamd would)
// closes its listening socket the moment it accepts, and answers "OK";
// what it was sent comes back, one datagram a message.
class Listener {
public:
    enum class Reply { Pong, HangUp, NeverAccept, CloseListenerOnAccept };
    struct Options {
        std::string socketPath;  // empty: TCP
        bool dualStack = false;
        const char* user = nullptr;
        Reply reply = Reply::Pong;
    };

    explicit Listener(const Options& options)
    {
        const passwd* account = options.user ? ::getpwnam(options.user) : ::getpwuid(::getuid());
        sockaddr_storage address{};
        auto* local = reinterpret_cast<sockaddr_un*>(&address);
        auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
        if (!options.socketPath.empty()) {
            local->sun_family = AF_UNIX;
            std::strncpy(local->sun_path, options.socketPath.c_str(), sizeof local->sun_path - 1);
        } else if (options.dualStack) {
            v6->sin6_family = AF_INET6;
        } else {
            v4->sin_family = AF_INET;
            v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        }
        int heard[2];
        if (!account || ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, heard) != 0)
            return;
        heard_.reset(heard[0]);
        const kv::UniqueFd report(heard[1]);
        pid_ = ::fork();
        if (pid_ == 0) {
            // System calls only: the test process may run threads. The first
            // datagram is the port (0 for a UNIX socket) once it listens.
            if (::setgroups(0, nullptr) != 0 || ::setgid(account->pw_gid) != 0 || ::setuid(account->pw_uid) != 0)
                ::_exit(2);
            int fd = ::socket(address.ss_family, SOCK_STREAM, 0);
            const int no = 0;
            ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
            socklen_t size = address.ss_family == AF_UNIX ? sizeof(sockaddr_un) : sizeof(sockaddr_in6);
            if (::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(fd, 4) != 0 ||
                ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
                ::_exit(3);
            // sin_port and sin6_port lie at the same place.
            const uint16_t port = address.ss_family == AF_UNIX ? 0 : ntohs(v4->sin_port);
            (void)!::write(report.get(), &port, sizeof port);
            while (options.reply != Reply::NeverAccept && fd >= 0) {
                const int client = ::accept(fd, nullptr, nullptr);
                if (options.reply == Reply::CloseListenerOnAccept)
                    ::close(std::exchange(fd, -1));
                char buffer[16];
                (void)!::write(report.get(), buffer, std::max<ssize_t>(::read(client, buffer, sizeof buffer), 0));
                const char* answer = options.reply == Reply::Pong ? "PONG\n"
                                     : options.reply == Reply::HangUp ? "" : "stream: OK";
                (void)!::send(client, answer, std::strlen(answer), MSG_NOSIGNAL);
                ::close(client);
            }
            ::pause();
        }
        // A listener that failed to start says nothing for ever: give up on it.
        const timeval limit{10, 0};
        ::setsockopt(heard_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        listening_ = pid_ > 0 && ::recv(heard_.get(), &port_, sizeof port_, 0) == sizeof port_;
    }
    ~Listener()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool listening() const { return listening_; }
    uint16_t port() const { return port_; }
    // Every message received so far. The listener writes a message down
    // before it answers or hangs up, so a client that has had its answer
    // finds it here.
    std::vector<std::string> received()
    {
        char buffer[16];
        for (ssize_t got; (got = ::recv(heard_.get(), buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;)
            received_.emplace_back(buffer, got);
        return received_;
    }

private:
    pid_t pid_ = -1;
    bool listening_ = false;
    uint16_t port_ = 0;
    kv::UniqueFd heard_;
    std::vector<std::string> received_;
};

struct UnixCase {
    const char* name;
    std::optional<Listener::Reply> listener;  // none: nothing listens
    size_t pathBytes;                         // the listener's path, padded to this length
    std::string called;                       // what follows that path in the client's call
    bool written;
    const char* says;  // in the client's output
};

TEST(ClamdCtrl, ExchangesOnAUnixSocket)
{
    const kvtest::TempDir dir;
    const std::vector<UnixCase> cases = {
        {"an answering daemon gets six bytes", Listener::Reply::Pong, 0, "", true, ""},
        {"a daemon that hangs up at once", Listener::Reply::HangUp, 0, "", true, ""},
        {"a daemon that never answers holds the caller only until the time limit", Listener::Reply::NeverAccept, 0,
         "", true, ""},
        {"nothing listens", std::nullopt, 0, "", false, "connect(): No such file or directory"},
        {"a path of exactly 104 bytes", Listener::Reply::Pong, 104, "", true, ""},
        {"a longer path is cut at 104 bytes", Listener::Reply::Pong, 104, "-longer-than-the-address-field", true, ""},
        {"a path without an ASCII form", std::nullopt, 0, "caf\xc3\xa9", false, "no ASCII form"},
    };
    for (const UnixCase& c : cases) {
        std::string path = dir / "s";
        path += std::string(c.pathBytes > path.size() ? c.pathBytes - path.size() : 0, 's');
        std::optional<Listener> listener;
        if (c.listener) {
            listener.emplace(Listener::Options{.socketPath = path, .reply = *c.listener});
            ASSERT_TRUE(listener->listening()) << c.name;
        }
        kv::ClamdCtrl client;
        bool written = !c.written;
        const std::string streams =
            kvtest::captureStandardStreams([&] { written = client.communicateWithSocket(path + c.called, "PING"); });
        EXPECT_EQ(written, c.written) << c.name << ": " << streams;
        EXPECT_NE(streams.find(c.says), std::string::npos) << c.name << ": " << streams;
        if (c.listener == Listener::Reply::Pong) {
            EXPECT_EQ(listener->received(), std::vector<std::string>{std::string("PING\0\0", 6)}) << c.name;
        }
        ::unlink(path.c_str());
    }

    kv::ClamdCtrl client;
    kvtest::LogCapture log;
    EXPECT_TRUE(client.communicateWithSocket(std::nullopt, "QUIT"));
    EXPECT_TRUE(log.contains(">In ClamdCtrl, pathToSocket is nil, command is QUIT<"));
}

// clamdscan connects to the socket's path again after the check: a path
// another user could take is refused whether nobody answers there yet or a
// trusted daemon (clamav's, as the system's service) answers there now.
// Where nobody answers in a safe folder, the daemon is down, which the scan
// reports. (A socket another user serves is e2e.neighbour's case.)
TEST(ClamdCtrl, ASocketWhosePathOthersCouldTakeIsRefusedEvenWhileADaemonAnswers)
{
    const uid_t clamav = ::getpwnam("clamav")->pw_uid;
    // The folder's mode, whether it is clamav's, whether clamav answers there, whether it is trusted.
    for (const auto& [mode, clamavs, answering, trusted] : std::vector<std::tuple<mode_t, bool, bool, bool>>{
             {0700, false, false, true}, {0755, true, true, true}, {0777, false, false, false},
             {0777, false, true, false}, {01777, false, true, false}}) {
        const kvtest::TempDir dir;
        ASSERT_EQ(::chown(dir.path().c_str(), clamavs ? clamav : 0, 0), 0);
        ::chmod(dir.path().c_str(), mode);
        std::optional<Listener> service;
        if (answering)
            service.emplace(Listener::Options{.socketPath = dir / "clamd.ctl", .user = "clamav"});
        kv::ClamdCtrl client;
        kvtest::LogCapture log;
        EXPECT_EQ(client.socketPeerTrusted(dir / "clamd.ctl"), trusted) << std::oct << mode << " " << answering;
        EXPECT_EQ(log.contains("Refusing the clamd socket " + (dir / "clamd.ctl") + ": " + dir.path() +
                               " may be written by other users"),
                  !trusted)
            << std::oct << mode << " " << answering;
    }
}

// The system's service is a daemon of root or clamav that answers, never the
// user's own (here the user is root).
TEST(ClamdCtrl, TheSystemServiceIsNeverTheUsersOwnDaemon)
{
    const kvtest::TempDir dir;
    ::chmod(dir.path().c_str(), 0777);  // where clamav may listen
    for (const char* user : {"clamav", static_cast<const char*>(nullptr)}) {
        Listener listener({.socketPath = dir / "service.sock", .user = user});
        ASSERT_TRUE(listener.listening()) << (user ? user : "the user");
        EXPECT_EQ(kv::ClamdCtrl::systemServiceAnswers(dir / "service.sock"), user != nullptr) << (user ? user : "the user");
        ::unlink((dir / "service.sock").c_str());
    }
}

struct TcpCase {
    const char* name;
    std::vector<std::string> hosts;
    bool closedPort;  // a port nothing listens on instead of the listener's
    bool written;
    bool answers;
    const char* problem;  // what follows the failing address in the failure lines
};

// The same exchange over TCP: addresses tried in order, as clamdscan does,
// and a clear failure naming the engine when none answers.
TEST(ClamdCtrl, ExchangesOverTcp)
{
    const uint16_t closed = kvtest::freeTcpPort();
    const std::vector<TcpCase> cases = {
        {"numeric address", {"127.0.0.1"}, false, true, true, ""},
        {"this machine", {"any"}, false, true, true, ""},
        {"host name", {"localhost"}, false, true, true, ""},
        {"refused", {"127.0.0.1"}, true, false, false, ": Connection refused"},
        {"unknown host", {"scanner.invalid"}, false, false, false, ": "},
        {"first unknown, second answers", {"scanner.invalid", "127.0.0.1"}, false, true, true, ""},
    };
    for (const TcpCase& c : cases) {
        Listener listener({});
        ASSERT_TRUE(listener.listening());
        const kv::TcpEngine engine{c.hosts, c.closedPort ? closed : listener.port()};
        kv::ClamdCtrl client;
        bool written = false;
        const std::string streams =
            kvtest::captureStandardStreams([&] { written = client.communicateWithTcpEngine(engine, "PING"); });
        EXPECT_EQ(written, c.written) << c.name << ": " << streams;
        std::string problem;
        EXPECT_EQ(kv::ClamdCtrl::tcpEngineAnswers(engine, &problem), c.answers) << c.name << ": " << problem;
        if (c.written) {
            EXPECT_EQ(listener.received(), (std::vector<std::string>{std::string("PING\0\0", 6), std::string("zPING\0", 6)}))
                << c.name;
        } else {
            const std::string expected = (c.closedPort ? engine.describe() : c.hosts.front()) + c.problem;
            EXPECT_NE(streams.find("Error, can't connect to clamd at " + engine.describe() + ".\n"), std::string::npos)
                << c.name << ": " << streams;
            EXPECT_NE(streams.find(expected), std::string::npos) << c.name << ": " << streams;
            EXPECT_NE(problem.find(expected), std::string::npos) << c.name << ": " << problem;
        }
    }

    // A listener that takes the message and hangs up without a word.
    Listener silent({.socketPath = "", .reply = Listener::Reply::HangUp});
    std::string problem;
    EXPECT_FALSE(kv::ClamdCtrl::tcpEngineAnswers({{"127.0.0.1"}, silent.port()}, &problem));
    EXPECT_NE(problem.find("no PONG"), std::string::npos) << problem;
}

// Any user may listen on a free port of this machine: a clamd reached over
// TCP on it counts only when the user, root or clamav listens, whether on
// an IPv4 socket or on a dual-stack IPv6 one.
TEST(ClamdCtrl, ALocalTcpServerOfAnotherUserIsRefused)
{
    for (const bool dualStack : {false, true}) {
        Listener neighbour({.socketPath = "", .dualStack = dualStack, .user = "nobody"});
        ASSERT_TRUE(neighbour.listening()) << "nobody's listener could not start, dual stack: " << dualStack;
        const kv::TcpEngine engine{{"127.0.0.1"}, neighbour.port()};
        kv::ClamdCtrl client;
        kvtest::LogCapture log;
        EXPECT_FALSE(client.communicateWithTcpEngine(engine, "PING")) << dualStack;
        EXPECT_TRUE(log.contains("Refusing the clamd at " + engine.describe() + ": on this machine it is served by user nobody"))
            << dualStack;
        EXPECT_FALSE(client.tcpEnginePeerTrusted(engine)) << dualStack;
        EXPECT_FALSE(kv::ClamdCtrl::tcpEngineAnswers(engine)) << dualStack;
        for (const std::string& message : neighbour.received())
            EXPECT_EQ(message, "") << "nothing is sent to another user's listener";
    }
}

// A neighbour may listen on the port while the clamd there is down and
// close the listening socket the moment it accepts, so that no listener is
// left to tell who serves the connection: the server's end of the very
// connection does, and not a byte of the file reaches the neighbour. The
// close races the check, so it is tried often.
TEST(ClamdCtrl, ALocalTcpServerThatClosesItsListenerOnAcceptIsRefused)
{
    const kvtest::TempDir dir;
    kvtest::writeFile(dir / "infected.com", kvtest::eicar());
    const kv::UniqueFd file(::open((dir / "infected.com").c_str(), O_RDONLY | O_CLOEXEC));
    for (int round = 0; round < 30; ++round) {
        Listener neighbour({.socketPath = "", .user = "nobody", .reply = Listener::Reply::CloseListenerOnAccept});
        ASSERT_TRUE(neighbour.listening());
        const kv::ClamdCtrl::FileVerdict verdict =
            kv::ClamdCtrl::scanOpenFile(file.get(), std::nullopt, kv::TcpEngine{{"127.0.0.1"}, neighbour.port()});
        EXPECT_EQ(verdict.kind, kv::ClamdCtrl::FileVerdict::Untrusted) << round << ": " << verdict.detail;
        EXPECT_NE(verdict.detail.find("served by user nobody"), std::string::npos) << verdict.detail;
        ASSERT_TRUE(kvtest::waitFor([&] { return !neighbour.received().empty(); }, 10000)) << round;
        EXPECT_EQ(neighbour.received(), std::vector<std::string>{""}) << round;
    }
}

// The user's own, root's and clamav's clamd on this machine scan over the
// connection checked; a clamd at any address of this machine, or at one that
// cannot be looked up, is never handed to clamdscan.
TEST(ClamdCtrl, ALocalTcpClamdOfRootOrClamavScansOverTheCheckedConnectionOnly)
{
    const kvtest::TempDir dir;
    kvtest::writeFile(dir / "infected.com", kvtest::eicar());
    const kv::UniqueFd file(::open((dir / "infected.com").c_str(), O_RDONLY | O_CLOEXEC));
    for (const auto& user : std::vector<std::optional<std::string>>{std::nullopt, "clamav"}) {
        const uint16_t port = kvtest::freeTcpPort();
        kvtest::EnginePrefix server({.tcpPort = port, .user = user});
        ASSERT_TRUE(server.startDaemon()) << user.value_or("root");
        const kv::ClamdCtrl::FileVerdict verdict =
            kv::ClamdCtrl::scanOpenFile(file.get(), std::nullopt, kv::TcpEngine{{"127.0.0.1"}, port});
        EXPECT_EQ(verdict.detail, "Eicar-Test-Signature.UNOFFICIAL") << user.value_or("root");
    }
    std::vector<std::pair<std::string, bool>> hosts = {{"localhost", true},       {"any", true},
                                                        {"::1", true},            {"::ffff:127.0.0.2", true},
                                                        {"scanner.invalid", true}, {"198.51.100.7", false}};
    ifaddrs* interfaces = nullptr;
    ASSERT_EQ(::getifaddrs(&interfaces), 0);
    for (const ifaddrs* entry = interfaces; entry; entry = entry->ifa_next) {
        char text[INET6_ADDRSTRLEN];
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
        if (v4 && v4->sin_family == AF_INET && !(entry->ifa_flags & IFF_LOOPBACK))
            hosts.emplace_back(::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text), true);
    }
    ::freeifaddrs(interfaces);
    for (const auto& [host, local] : hosts)
        EXPECT_EQ(kv::ClamdCtrl::mayBeOnThisMachine({{host}, 3310}), local) << host;
}

} // namespace

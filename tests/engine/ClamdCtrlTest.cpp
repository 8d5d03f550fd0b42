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

#include <cstring>
#include <optional>
#include <tuple>
#include <vector>

namespace {

// A listener in a child process, run as USER when one is given (the tests
// run as root), on a UNIX socket at a path or on a TCP port of 127.0.0.1
// (or of every IPv4 and IPv6 address at once). It answers the first message
// of each connection with PONG, or hangs up without a word, or never
// accepts at all, or (as a neighbour posing as a stopped clamd would)
// closes its listening socket the moment it accepts, and answers "OK";
// what it was sent comes back through a pipe.
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
        uid_t uid = ::getuid();
        gid_t gid = ::getgid();
        if (options.user) {
            const passwd* account = ::getpwnam(options.user);
            if (!account)
                return;
            uid = account->pw_uid;
            gid = account->pw_gid;
        }
        sockaddr_un local{};
        local.sun_family = AF_UNIX;
        std::memcpy(local.sun_path, options.socketPath.c_str(), std::min(options.socketPath.size(), sizeof local.sun_path - 1));
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sockaddr_in6 v6{};
        v6.sin6_family = AF_INET6;
        v6.sin6_addr = in6addr_any;
        const bool tcp = options.socketPath.empty();
        const int family = !tcp ? AF_UNIX : options.dualStack ? AF_INET6 : AF_INET;
        const sockaddr* address = !tcp ? reinterpret_cast<const sockaddr*>(&local)
                                  : options.dualStack ? reinterpret_cast<const sockaddr*>(&v6)
                                                      : reinterpret_cast<const sockaddr*>(&v4);
        const socklen_t size = !tcp ? sizeof local : options.dualStack ? sizeof v6 : sizeof v4;
        int ready[2], heard[2];
        if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(heard, O_CLOEXEC) != 0)
            return;
        pid_ = ::fork();
        if (pid_ == 0) {
            // System calls only: the test process may run threads.
            if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)
                ::_exit(2);
            const int fd = ::socket(family, SOCK_STREAM, 0);
            const int no = 0;
            ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
            sockaddr_storage bound{};
            socklen_t boundSize = sizeof bound;
            if (::bind(fd, address, size) != 0 || ::listen(fd, 4) != 0 ||
                ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &boundSize) != 0)
                ::_exit(3);
            const uint16_t port = ntohs(family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                                           : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
            if (::write(ready[1], &port, sizeof port) != sizeof port)
                ::_exit(4);
            for (;;) {
                if (options.reply == Reply::NeverAccept)
                    ::pause();
                const int client = ::accept(fd, nullptr, nullptr);
                if (options.reply == Reply::CloseListenerOnAccept)
                    ::close(fd);
                char buffer[16];
                const ssize_t got = ::read(client, buffer, sizeof buffer);
                const unsigned char length = got > 0 ? static_cast<unsigned char>(got) : 0;
                (void)!::write(heard[1], &length, 1);
                (void)!::write(heard[1], buffer, length);
                if (options.reply == Reply::Pong)
                    (void)!::send(client, "PONG\n", 5, MSG_NOSIGNAL);
                if (options.reply == Reply::CloseListenerOnAccept)
                    (void)!::send(client, "stream: OK", 11, MSG_NOSIGNAL);
                ::close(client);
                if (options.reply == Reply::CloseListenerOnAccept)
                    ::pause();
            }
        }
        ::close(ready[1]);
        ::close(heard[1]);
        heard_ = kv::UniqueFd(heard[0]);
        uint16_t port = 0;
        listening_ = ::read(ready[0], &port, sizeof port) == sizeof port;
        port_ = tcp ? port : 0;
        ::close(ready[0]);
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
        ::fcntl(heard_.get(), F_SETFL, O_NONBLOCK);
        unsigned char length = 0;
        while (::read(heard_.get(), &length, 1) == 1) {
            std::string message(length, '\0');
            if (length > 0 && ::read(heard_.get(), message.data(), length) != length)
                break;
            received_.push_back(message);
        }
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
        if (!c.written && c.listener) {
            EXPECT_NE(streams.find("Error, can't connect to clamd through " + path + ".\n"), std::string::npos) << streams;
        }
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

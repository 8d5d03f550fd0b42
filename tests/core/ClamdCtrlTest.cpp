// The control client against real UNIX-domain listeners.

#include "engine/ClamdCtrl.h"
#include "tests/support/TestSupport.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// A listener on a UNIX socket that accepts one connection, reads what the
// client sends and then either answers or hangs up without a word.
class OneShotListener {
public:
    OneShotListener(const std::string& path, bool answer) : path_(path)
    {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), std::min(path.size(), sizeof address.sun_path - 1));
        bound_ = ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && ::listen(fd_, 1) == 0;
        thread_ = std::thread([this, answer] {
            const int client = ::accept(fd_, nullptr, nullptr);
            if (client < 0)
                return;
            char buffer[16] = {};
            received_.assign(buffer, static_cast<size_t>(std::max<ssize_t>(0, ::read(client, buffer, sizeof buffer))));
            if (answer) {
                const char pong[] = "PONG\n";
                (void)!::send(client, pong, sizeof pong - 1, MSG_NOSIGNAL);
            }
            ::close(client);
        });
    }
    ~OneShotListener()
    {
        ::shutdown(fd_, SHUT_RDWR);
        thread_.join();
        ::close(fd_);
        ::unlink(path_.c_str());
    }
    bool bound() const { return bound_; }
    std::string received()
    {
        thread_.join();
        thread_ = std::thread([] {});
        return received_;
    }

private:
    std::string path_;
    int fd_ = -1;
    bool bound_ = false;
    std::string received_;
    std::thread thread_;
};

// A listener in a child process of another user (the test runs as root):
// it answers every connection with PONG until it is killed.
class ListenerOfUser {
public:
    ListenerOfUser(const std::string& path, const char* user)
    {
        const passwd* account = ::getpwnam(user);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), std::min(path.size(), sizeof address.sun_path - 1));
        if (!account)
            return;
        const uid_t uid = account->pw_uid;
        const gid_t gid = account->pw_gid;
        pid_ = ::fork();
        if (pid_ == 0) {
            // System calls only: the test process may run threads.
            if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)
                ::_exit(2);
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 4) != 0)
                ::_exit(3);
            for (;;) {
                const int client = ::accept(fd, nullptr, nullptr);
                char buffer[16];
                if (::read(client, buffer, sizeof buffer) > 0)
                    (void)!::send(client, "PONG\n", 5, MSG_NOSIGNAL);
                ::close(client);
            }
        }
        listening_ = kvtest::waitFor([&] { return kvtest::exists(path); }, 5000);
    }
    ~ListenerOfUser()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool listening() const { return listening_; }

private:
    pid_t pid_ = -1;
    bool listening_ = false;
};

TEST(ClamdCtrl, TalksOnlyToTheUserRootOrClamav)
{
    kvtest::TempDir dir;
    ::chmod(dir.path().c_str(), 0777);
    kv::ClamdCtrl client;
    kvtest::LogCapture log;
    {
        ListenerOfUser neighbour(dir / "neighbour.sock", "nobody");
        ASSERT_TRUE(neighbour.listening());
        EXPECT_FALSE(client.communicateWithSocket(dir / "neighbour.sock", "PING"));
        EXPECT_TRUE(log.contains("Refusing the clamd socket " + (dir / "neighbour.sock") + ": it is served by user nobody"));
        EXPECT_FALSE(client.socketPeerTrusted(dir / "neighbour.sock"));
        EXPECT_FALSE(kv::ClamdCtrl::systemServiceAnswers(dir / "neighbour.sock"));
        // Where nobody answers, only a path no one else could take is
        // left to clamdscan: here the neighbour could listen by then.
        EXPECT_FALSE(client.socketPeerTrusted(dir / "silent.sock"));
        EXPECT_TRUE(log.contains("Refusing the clamd socket " + (dir / "silent.sock") + ": nobody answers, and " +
                                 dir.path() + " may be written by other users"));
        kvtest::TempDir own;
        ::chmod(own.path().c_str(), 0700);
        EXPECT_TRUE(client.socketPeerTrusted(own / "silent.sock")) << "a daemon that is down is the scan's to report";
    }
    {
        // The distribution's service runs as clamav.
        ListenerOfUser service(dir / "service.sock", "clamav");
        ASSERT_TRUE(service.listening());
        EXPECT_TRUE(client.communicateWithSocket(dir / "service.sock", "PING"));
        EXPECT_TRUE(client.socketPeerTrusted(dir / "service.sock"));
        EXPECT_TRUE(kv::ClamdCtrl::systemServiceAnswers(dir / "service.sock"));
    }
    {
        // The user's own daemon is trusted, but it is not the system's service.
        OneShotListener own(dir / "own.sock", true);
        EXPECT_FALSE(kv::ClamdCtrl::systemServiceAnswers(dir / "own.sock"));
    }
}

// A listener on 127.0.0.1 that answers each connection's first message with
// PONG (or with nothing) until it goes away, and keeps what it was sent.
class TcpListener {
public:
    explicit TcpListener(bool answer)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::listen(fd_, 4);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this, answer] {
            for (;;) {
                const int client = ::accept(fd_, nullptr, nullptr);
                if (client < 0)
                    return;
                char buffer[16] = {};
                const ssize_t got = ::read(client, buffer, sizeof buffer);
                {
                    std::lock_guard<std::mutex> guard(mutex_);
                    received_.emplace_back(buffer, static_cast<size_t>(std::max<ssize_t>(0, got)));
                }
                if (answer)
                    (void)!::send(client, "PONG", 5, MSG_NOSIGNAL);
                ::close(client);
            }
        });
    }
    ~TcpListener()
    {
        ::shutdown(fd_, SHUT_RDWR);
        thread_.join();
        ::close(fd_);
    }
    uint16_t port() const { return port_; }
    std::vector<std::string> received() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return received_;
    }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::string> received_;  // guarded by mutex_
    std::thread thread_;
};

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
        TcpListener listener(true);
        const kv::TcpEngine engine{c.hosts, c.closedPort ? closed : listener.port()};
        kv::ClamdCtrl client;
        bool written = false;
        const std::string streams =
            kvtest::captureStandardStreams([&] { written = client.communicateWithTcpEngine(engine, "PING"); });
        EXPECT_EQ(written, c.written) << c.name << ": " << streams;
        std::string problem;
        EXPECT_EQ(kv::ClamdCtrl::tcpEngineAnswers(engine, &problem), c.answers) << c.name << ": " << problem;
        if (c.written) {
            ASSERT_FALSE(listener.received().empty()) << c.name;
            EXPECT_EQ(listener.received().front(), std::string("PING\0\0", 6)) << c.name;
            EXPECT_EQ(listener.received().back(), std::string("zPING\0", 6)) << c.name;
        } else {
            const std::string expected = (c.closedPort ? engine.describe() : c.hosts.front()) + c.problem;
            EXPECT_NE(streams.find("Error, can't connect to clamd at " + engine.describe() + ".\n"), std::string::npos)
                << c.name << ": " << streams;
            EXPECT_NE(streams.find(expected), std::string::npos) << c.name << ": " << streams;
            EXPECT_NE(problem.find(expected), std::string::npos) << c.name << ": " << problem;
        }
    }

    // A listener that takes the message and hangs up without a word.
    TcpListener silent(false);
    std::string problem;
    EXPECT_FALSE(kv::ClamdCtrl::tcpEngineAnswers({{"127.0.0.1"}, silent.port()}, &problem));
    EXPECT_NE(problem.find("no PONG"), std::string::npos) << problem;
}

// Any user may listen on a free port of this machine: a clamd reached over
// TCP on it counts only when the user, root or clamav listens, whether on
// an IPv4 socket or on a dual-stack IPv6 one.
TEST(ClamdCtrl, ALocalTcpServerOfAnotherUserIsRefused)
{
    const passwd* account = ::getpwnam("nobody");
    ASSERT_NE(account, nullptr);
    // Copied: the next lookup of any account overwrites the entry.
    const uid_t uid = account->pw_uid;
    const gid_t gid = account->pw_gid;
    for (const bool dualStack : {false, true}) {
        const uint16_t port = kvtest::freeTcpPort();
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t server = ::fork();
        if (server == 0) {
            // System calls only: the test process may run threads.
            if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)
                ::_exit(2);
            int fd;
            if (dualStack) {
                fd = ::socket(AF_INET6, SOCK_STREAM, 0);
                const int no = 0;
                ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
                sockaddr_in6 address{};
                address.sin6_family = AF_INET6;
                address.sin6_port = htons(port);
                address.sin6_addr = in6addr_any;
                if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                    ::_exit(3);
            } else {
                fd = ::socket(AF_INET, SOCK_STREAM, 0);
                sockaddr_in address{};
                address.sin_family = AF_INET;
                address.sin_port = htons(port);
                address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                    ::_exit(3);
            }
            if (::listen(fd, 4) != 0 || ::write(ready[1], "1", 1) != 1)
                ::_exit(4);
            for (;;) {
                const int client = ::accept(fd, nullptr, nullptr);
                char buffer[16];
                if (::read(client, buffer, sizeof buffer) > 0)
                    (void)!::send(client, "PONG\n", 5, MSG_NOSIGNAL);
                ::close(client);
            }
        }
        ::close(ready[1]);
        char byte;
        const bool listening = ::read(ready[0], &byte, 1) == 1;
        ::close(ready[0]);
        if (listening) {
            const kv::TcpEngine engine{{"127.0.0.1"}, port};
            kv::ClamdCtrl client;
            kvtest::LogCapture log;
            EXPECT_FALSE(client.communicateWithTcpEngine(engine, "PING")) << dualStack;
            EXPECT_TRUE(log.contains("Refusing the clamd at " + engine.describe() +
                                     ": on this machine it is served by user nobody"))
                << dualStack;
            EXPECT_FALSE(client.tcpEnginePeerTrusted(engine)) << dualStack;
            EXPECT_FALSE(kv::ClamdCtrl::tcpEngineAnswers(engine)) << dualStack;
        }
        ::kill(server, SIGKILL);
        ::waitpid(server, nullptr, 0);
        EXPECT_TRUE(listening) << "nobody's listener could not start, dual stack: " << dualStack;
    }
}

TEST(ClamdCtrl, ASilentServerDoesNotHoldTheCaller)
{
    kvtest::TempDir dir;
    const std::string path = dir / "silent.sock";
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(fd, 1), 0);
    // Connected through the backlog, never accepted, never answered: the
    // reply's wait ends at the time limit.
    kv::ClamdCtrl client;
    EXPECT_TRUE(client.communicateWithSocket(path, "PING"));
    ::close(fd);
}

TEST(ClamdCtrl, MessageIsSixBytesPaddedWithNul)
{
    EXPECT_EQ(kv::ClamdCtrl::messageFor("PING"), std::string("PING\0\0", 6));
    EXPECT_EQ(kv::ClamdCtrl::messageFor("QUIT"), std::string("QUIT\0\0", 6));
    EXPECT_EQ(kv::ClamdCtrl::messageFor("VERSIONS"), "VERSIO");
}

TEST(ClamdCtrl, ExchangesWithListeners)
{
    kvtest::TempDir dir;
    kv::ClamdCtrl client;

    {
        OneShotListener answering(dir / "answer.sock", true);
        ASSERT_TRUE(answering.bound());
        EXPECT_TRUE(client.communicateWithSocket(dir / "answer.sock", "PING"));
        EXPECT_EQ(answering.received(), std::string("PING\0\0", 6));
    }
    {
        OneShotListener hangingUp(dir / "close.sock", false);
        EXPECT_TRUE(client.communicateWithSocket(dir / "close.sock", "PING")) << "a listener that closes at once";
    }

    bool result = true;
    const std::string streams =
        kvtest::captureStandardStreams([&] { result = client.communicateWithSocket(dir / "nobody.sock", "PING"); });
    EXPECT_FALSE(result);
    EXPECT_NE(streams.find("Error, can't connect to clamd through " + (dir / "nobody.sock") + ".\n"), std::string::npos);
    EXPECT_NE(streams.find("connect(): No such file or directory"), std::string::npos) << streams;
}

TEST(ClamdCtrl, PathLongerThan104BytesIsCutThere)
{
    kvtest::TempDir dir;
    // A socket whose path is exactly 104 bytes; the client reaches it through
    // that path and through any longer path that begins with it.
    std::string path = dir.path() + "/";
    path += std::string(104 - path.size(), 's');
    ASSERT_EQ(path.size(), 104u);
    kv::ClamdCtrl client;
    {
        OneShotListener listener(path, true);
        ASSERT_TRUE(listener.bound());
        EXPECT_TRUE(client.communicateWithSocket(path, "PING"));
    }
    {
        OneShotListener listener(path, true);
        EXPECT_TRUE(client.communicateWithSocket(path + "-longer-than-the-address-field", "PING"));
    }
}

TEST(ClamdCtrl, MissingOrNonAsciiPath)
{
    kv::ClamdCtrl client;
    kvtest::LogCapture log;
    EXPECT_TRUE(client.communicateWithSocket(std::nullopt, "QUIT"));
    EXPECT_TRUE(log.contains(">In ClamdCtrl, pathToSocket is nil, command is QUIT<"));

    bool result = true;
    const std::string streams =
        kvtest::captureStandardStreams([&] { result = client.communicateWithSocket("/tmp/caf\xc3\xa9.sock", "PING"); });
    EXPECT_FALSE(result);
    EXPECT_NE(streams.find("no ASCII form"), std::string::npos) << streams;
}

} // namespace

// The control client against real UNIX-domain listeners.

#include "engine/ClamdCtrl.h"
#include "tests/support/TestSupport.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

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
    EXPECT_TRUE(client.socketPeerTrusted(dir / "nothing-there.sock")) << "a dead daemon is the scan's to report";
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

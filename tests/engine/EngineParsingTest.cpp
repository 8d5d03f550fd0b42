// How the agent reads what clamd's configuration and the process table say.

#include "engine/ClamdConfig.h"
#include "engine/ClamdProcessList.h"
#include "engine/ClamdSupervisor.h"
#include "tests/support/TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

struct SocketCase {
    const char* name;
    std::string text;
    std::optional<std::string> expected;
};

TEST(ClamdConfig, LocalSocketDirectiveParsing)
{
    const std::vector<SocketCase> cases = {
        {"plain", "LocalSocket /var/run/clamd.sock\n", "/var/run/clamd.sock"},
        {"commented out still counts", "#LocalSocket /tmp/x.sock\n", "/tmp/x.sock"},
        {"two blanks keep one", "LocalSocket  /a\n", " /a"},
        {"CRLF keeps the carriage return", "LocalSocket /a\r\nFoo bar\r\n", "/a\r"},
        {"13 characters", "LocalSocket x", "x"},
        {"12 characters ignored", "LocalSocket \n", std::nullopt},
        {"word without blank ignored", "LocalSocket\n", std::nullopt},
        {"two directives on one line", "LocalSocket /a LocalSocket /b\n", "/a "},
        {"later line wins", "LocalSocket /first\nLocalSocket /second\n", "/second"},
        {"mid-line directive", "  # LocalSocket /deep\n", "/deep"},
        {"no directive", "TCPSocket 3310\n", std::nullopt},
        {"trailing blanks kept", "LocalSocket /t  ", "/t  "},
    };
    for (const SocketCase& c : cases)
        EXPECT_EQ(kv::lastLocalSocket(c.text), c.expected) << c.name;
}

struct TcpEngineCase {
    const char* name;
    std::string text;
    std::optional<kv::TcpEngine> expected;
};

// What clamdscan would do with the configuration: stream to a TCP address
// only when no local socket is named.
TEST(ClamdConfig, TcpEngineIsReadAsClamdscanReadsIt)
{
    const std::vector<TcpEngineCase> cases = {
        {"port and address", "TCPSocket 3310\nTCPAddr 10.0.0.5\n", kv::TcpEngine{{"10.0.0.5"}, 3310}},
        {"addresses kept in order, last port wins",
         "TCPSocket 1\nTCPAddr a.example\nTCPAddr ::1\nTCPSocket 3310\n",
         kv::TcpEngine{{"a.example", "::1"}, 3310}},
        {"blanks, tabs and CRLF around values", "  TCPSocket\t3310 \r\nTCPAddr   scan.example  \r\n",
         kv::TcpEngine{{"scan.example"}, 3310}},
        {"a local socket wins over TCP", "TCPSocket 3310\nTCPAddr 10.0.0.5\nLocalSocket /run/c.ctl\n", std::nullopt},
        {"a commented local socket does not", "#LocalSocket /run/c.ctl\nTCPSocket 3310\nTCPAddr h\n",
         kv::TcpEngine{{"h"}, 3310}},
        {"commented port", "# TCPSocket 3310\nTCPAddr h\n", std::nullopt},
        {"no address: clamdscan would try nothing", "TCPSocket 3310\n", std::nullopt},
        {"port 0", "TCPSocket 0\nTCPAddr h\n", std::nullopt},
        {"port above 65535", "TCPSocket 65536\nTCPAddr h\n", std::nullopt},
        {"port not a number", "TCPSocket http\nTCPAddr h\n", std::nullopt},
        {"option name must match whole", "TCPSocketX 3310\nTCPAddrX h\n", std::nullopt},
        {"nothing", "", std::nullopt},
    };
    for (const TcpEngineCase& c : cases)
        EXPECT_EQ(kv::tcpEngineOf(c.text), c.expected) << c.name;
    EXPECT_EQ((kv::TcpEngine{{"::1"}, 3310}).describe(), "[::1]:3310");
    EXPECT_EQ((kv::TcpEngine{{"scan.example", "b"}, 1}).describe(), "scan.example:1");
}

struct AddressCase {
    std::string text;
    std::optional<kv::TcpEngine> expected;
    const char* errorHas;  // part of the message when refused
};

TEST(ClamdConfig, EngineAddressGivenToSetup)
{
    std::string manyLabels;  // 64 labels of three letters
    for (int i = 0; i < 64; ++i)
        manyLabels += "abc.";
    const std::vector<AddressCase> cases = {
        {"scan.example.com:3310", kv::TcpEngine{{"scan.example.com"}, 3310}, ""},
        {"scanner:1", kv::TcpEngine{{"scanner"}, 1}, ""},
        {"192.168.1.20:65535", kv::TcpEngine{{"192.168.1.20"}, 65535}, ""},
        {"[::1]:3310", kv::TcpEngine{{"::1"}, 3310}, ""},
        {"[2001:db8::7]:3310", kv::TcpEngine{{"2001:db8::7"}, 3310}, ""},
        {"a-b.c9:3310", kv::TcpEngine{{"a-b.c9"}, 3310}, ""},
        {"scanner", std::nullopt, "give HOST:PORT"},
        {":3310", std::nullopt, "no host"},
        {"scanner:", std::nullopt, "from 1 to 65535"},
        {"scanner:0", std::nullopt, "from 1 to 65535"},
        {"scanner:65536", std::nullopt, "from 1 to 65535"},
        {"scanner:+3310", std::nullopt, "from 1 to 65535"},
        {"scanner:33 10", std::nullopt, "from 1 to 65535"},
        {"::1:3310", std::nullopt, "in brackets"},
        {"[::1]", std::nullopt, "give a port"},
        {"[::1:3310", std::nullopt, "lacks its \"]\""},
        {"[10.0.0.1]:3310", std::nullopt, "not an IPv6 address"},
        {"[fe80::1%eth0]:3310", std::nullopt, "not an IPv6 address"},
        {"256.1.1.1:3310", std::nullopt, "not an IPv4 address"},
        {"10.0.1:3310", std::nullopt, "not an IPv4 address"},
        {"-scanner:3310", std::nullopt, "hyphen"},
        {"scanner-.example:3310", std::nullopt, "hyphen"},
        {"scan..example:3310", std::nullopt, "empty label"},
        {"scan.example.:3310", std::nullopt, "empty label"},
        {"scan_ner:3310", std::nullopt, "\"_\""},
        {"scan\nTCPAddr evil:3310", std::nullopt, "not a letter, digit, hyphen or dot"},
        {"scan#x:3310", std::nullopt, "not a letter, digit, hyphen or dot"},
        {std::string(64, 'a') + ".example:3310", std::nullopt, "63"},
        {manyLabels + "example:3310", std::nullopt, "253"},
    };
    for (const AddressCase& c : cases) {
        std::string error;
        EXPECT_EQ(kv::parseEngineAddress(c.text, &error), c.expected) << c.text;
        EXPECT_NE(error.find(c.errorHas), std::string::npos) << c.text << ": " << error;
    }
}

TEST(ClamdSupervisor, SocketComesFromThePrefixAndFallsBackToThePrivateFolder)
{
    kvtest::TempDir dir;
    kvtest::LogCapture log;
    kv::ClamdSupervisor supervisor;
    const std::string privateFolder = dir / "private/";

    // No prefix, or no configuration in it: the socket is in the user's
    // private folder, never in a folder other users can write to.
    supervisor.useEnginePrefix(std::nullopt);
    supervisor.discernClamdSocketLocation(privateFolder);
    EXPECT_EQ(supervisor.clamdSocket(), privateFolder + "clamd.socket");
    EXPECT_EQ(log.count("_clamdSocket == nil, hard-coding it instead."), 1u);
    EXPECT_EQ(log.count("clamdconfEncoding: 0"), 1u);
    supervisor.useEnginePrefix(dir.path());
    supervisor.discernClamdSocketLocation(privateFolder);
    EXPECT_EQ(log.count("_clamdSocket == nil"), 1u) << "a later load keeps the stored value silently";

    kvtest::writeFile(dir / "etc/clamd.conf", "# caf\xc3\xa9\nLocalSocket /from/prefix\n");
    supervisor.discernClamdSocketLocation(privateFolder);
    EXPECT_EQ(supervisor.clamdSocket(), "/from/prefix");
    EXPECT_EQ(log.count("clamdconfEncoding: 4"), 1u);
    EXPECT_EQ(supervisor.clamdPATH(), dir / "sbin/clamd");

    // A configuration without the directive leaves the earlier socket; one
    // that is not UTF-8 is not read, and says so.
    kvtest::writeFile(dir / "etc/clamd.conf", "Foreground no\n");
    supervisor.discernClamdSocketLocation(privateFolder);
    EXPECT_EQ(supervisor.clamdSocket(), "/from/prefix");
    ::chmod((dir / "etc/clamd.conf").c_str(), 0);
    kvtest::writeFile(dir / "etc/clamd.conf", "\xff\n");
    supervisor.discernClamdSocketLocation(privateFolder);
    EXPECT_TRUE(log.contains("clamd.conf could not be read"));
    EXPECT_EQ(supervisor.clamdSocket(), "/from/prefix");

    // Without a prefix nothing is left to relaunch.
    supervisor.useEnginePrefix(std::nullopt);
    EXPECT_EQ(supervisor.clamdPATH(), std::nullopt);
    EXPECT_EQ(supervisor.clamdConfPATH(), std::nullopt);
}

// A prefix naming a daemon over TCP: nothing to launch, no socket to fall
// back to, and its runs go out without a socket for the peer check.
TEST(ClamdSupervisor, RemoteEngineNeedsNoSocket)
{
    kvtest::TempDir dir;
    kvtest::LogCapture log;
    kv::ClamdSupervisor supervisor;
    supervisor.useEnginePrefix(dir.path());
    kvtest::writeFile(dir / "etc/clamd.conf", "TCPSocket 3310\nTCPAddr 10.0.0.5\n");
    ASSERT_TRUE(supervisor.useRemoteEngine());
    EXPECT_TRUE(log.contains("Using the clamd at 10.0.0.5:3310 over TCP"));
    EXPECT_EQ(supervisor.engine(), kv::ClamdSupervisor::Engine::Remote);
    supervisor.discernClamdSocketLocation(dir / "private/");
    EXPECT_FALSE(log.contains("_clamdSocket == nil"));
    EXPECT_EQ(supervisor.clamdSocket(), std::nullopt);
    const kv::ClamdSupervisor::RunEngine run = supervisor.engineForRun(dir / "bin/clamdscan");
    EXPECT_EQ(run.clamdscan, dir / "bin/clamdscan");
    EXPECT_EQ(run.socket, std::nullopt);

    // A local socket in the same file is what clamdscan would use.
    kvtest::writeFile(dir / "etc/clamd.conf", "TCPSocket 3310\nTCPAddr 10.0.0.5\nLocalSocket /run/c.ctl\n");
    supervisor.useEnginePrefix(dir.path());
    EXPECT_FALSE(supervisor.useRemoteEngine());
    EXPECT_EQ(supervisor.engine(), kv::ClamdSupervisor::Engine::Own);
}

struct OwnClamdCase {
    const char* name;
    kv::ProcessEntry process;
    bool own;
};

TEST(ClamdProcessList, OnlyTheUsersDaemonWithThePrefixConfigurationIsOwn)
{
    const uid_t me = 1000;
    const std::string prefix = "/home/a/.local/share/korvane/clamav";
    const std::string config = prefix + "/etc/clamd.conf";
    auto entry = [](uid_t uid, std::vector<std::string> argv, bool zombie = false) {
        kv::ProcessEntry process;
        process.realUid = uid;
        process.argv = std::move(argv);
        process.zombie = zombie;
        return process;
    };
    const std::vector<OwnClamdCase> cases = {
        {"the agent's launch", entry(me, {prefix + "/sbin/clamd", "-c", config}), true},
        {"long option", entry(me, {"/usr/sbin/clamd", "--config-file=" + config}), true},
        {"long option, separate value", entry(me, {"clamd", "--config-file", config}), true},
        {"joined short option", entry(me, {"clamd", "-c" + config}), true},
        {"another user's, same arguments", entry(1001, {prefix + "/sbin/clamd", "-c", config}), false},
        {"root's, same arguments", entry(0, {prefix + "/sbin/clamd", "-c", config}), false},
        {"the system's service", entry(me, {"/usr/sbin/clamd", "--foreground=true"}), false},
        {"another configuration", entry(me, {"/tmp/x/clamd", "-c", "/tmp/x/c.conf"}), false},
        {"a configuration beside the prefix's", entry(me, {"clamd", "-c", config + ".old"}), false},
        {"not named clamd", entry(me, {"/bin/sh", "-c", config}), false},
        {"clamdscan", entry(me, {"/usr/bin/clamdscan", "-c", config}), false},
        {"a zombie", entry(me, {prefix + "/sbin/clamd", "-c", config}, true), false},
        {"no arguments", entry(me, {}), false},
    };
    for (const OwnClamdCase& c : cases)
        EXPECT_EQ(kv::isOwnClamd(c.process, me, prefix), c.own) << c.name;
}

TEST(ClamdProcessList, TableReadsArgumentVectorsAndRealUsers)
{
    kvtest::TempDir proc;
    auto process = [&](const std::string& pid, const std::string& status, const std::string& cmdline) {
        kvtest::writeFile(proc / (pid + "/status"), status);
        kvtest::writeFile(proc / (pid + "/cmdline"), cmdline);
    };
    // Blanks and "-c" inside arguments stay where they are.
    process("10", "Name:\tclamd\nState:\tS (sleeping)\nUid:\t1000\t0\t0\t0\n",
            std::string("/tmp/my -c dir/clamd") + '\0' + "-c" + '\0' + "/a b/etc/clamd.conf" + '\0');
    process("11", "State:\tZ (zombie)\nUid:\t0\t0\t0\t0\n", "");
    process("12", "State:\tS\nUid:\t7\n", "rewritten title");
    process("13", "State:\tS\n", "no uid line");
    kvtest::writeFile(proc / "self/status", "Uid:\t1\n");

    std::vector<kv::ProcessEntry> table = kv::readProcessTable(proc.path());
    std::sort(table.begin(), table.end(), [](const auto& a, const auto& b) { return a.pid < b.pid; });
    ASSERT_EQ(table.size(), 3u);
    EXPECT_EQ(table[0].realUid, 1000u);
    EXPECT_EQ(table[0].argv, (std::vector<std::string>{"/tmp/my -c dir/clamd", "-c", "/a b/etc/clamd.conf"}));
    EXPECT_FALSE(table[0].zombie);
    EXPECT_TRUE(table[1].zombie);
    EXPECT_EQ(table[2].argv, std::vector<std::string>{"rewritten title"});
}

} // namespace

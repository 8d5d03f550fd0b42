// How the agent reads what clamd's configuration and the process list say.

#include "engine/ClamdConfig.h"
#include "engine/ClamdProcessList.h"
#include "engine/ClamdSupervisor.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

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

TEST(ClamdConfig, ReaderAcceptsUtf8AndRefusesOtherBytes)
{
    kvtest::TempDir dir;
    kvtest::writeFile(dir / "ascii.conf", "LocalSocket /a\n");
    kvtest::writeFile(dir / "utf8.conf", "# caf\xc3\xa9\nLocalSocket /b\n");
    kvtest::writeFile(dir / "latin1.conf", "# caf\xe9\nLocalSocket /c\n");

    EXPECT_EQ(kv::readClamdConfig(dir / "ascii.conf").encoding, kv::kUtf8Encoding);
    EXPECT_EQ(kv::readClamdConfig(dir / "utf8.conf").encoding, kv::kUtf8Encoding);
    const kv::ClamdConfigText latin1 = kv::readClamdConfig(dir / "latin1.conf");
    EXPECT_EQ(latin1.encoding, kv::kNoEncoding);
    EXPECT_TRUE(latin1.text.empty());
    EXPECT_FALSE(latin1.error.empty());
    EXPECT_EQ(kv::readClamdConfig(dir / "missing.conf").encoding, kv::kNoEncoding);
}

TEST(ClamdSupervisor, SocketFallbackIsLoggedOnlyWhenNoSocketWasEverFound)
{
    kvtest::TempDir dir;
    kvtest::LogCapture log;
    kv::ClamdSupervisor supervisor;

    // No configuration argument and no file at the prefix's default place.
    supervisor.discernClamdSocketLocation(dir.path());
    EXPECT_EQ(supervisor.clamdSocket(), "/tmp/clamd.socket");
    EXPECT_EQ(log.count("_clamdSocket == nil, hard-coding it instead."), 1u);
    EXPECT_EQ(log.count("clamdconfEncoding: 0"), 1u);

    supervisor.discernClamdSocketLocation(dir.path());
    EXPECT_EQ(log.count("_clamdSocket == nil"), 1u) << "a later load keeps the stored value silently";

    // The prefix's default file is read when the daemon named none.
    kvtest::writeFile(dir / "etc/clamd.conf", "LocalSocket /from/prefix\n");
    supervisor.discernClamdSocketLocation(dir.path());
    EXPECT_EQ(supervisor.clamdSocket(), "/from/prefix");
    EXPECT_EQ(log.count("clamdconfEncoding: 4"), 1u);

    // A configuration without the directive leaves the earlier socket.
    kvtest::writeFile(dir / "other.conf", "Foreground no\n");
    supervisor.setClamdPaths("/usr/sbin/clamd", dir / "other.conf");
    supervisor.discernClamdSocketLocation(dir.path());
    EXPECT_EQ(supervisor.clamdSocket(), "/from/prefix");

    // An unreadable configuration says so.
    supervisor.setClamdPaths("/usr/sbin/clamd", dir / "nowhere.conf");
    supervisor.discernClamdSocketLocation(dir.path());
    EXPECT_TRUE(log.contains("nowhere.conf could not be read"));
    EXPECT_EQ(supervisor.clamdSocket(), "/from/prefix");
}

TEST(ClamdSupervisor, NoPrefixMeansNoDefaultConfiguration)
{
    kv::ClamdSupervisor supervisor;
    kvtest::LogCapture log;
    supervisor.discernClamdSocketLocation(std::nullopt);
    EXPECT_EQ(supervisor.clamdSocket(), "/tmp/clamd.socket");
}

struct ProcessCase {
    const char* name;
    std::string chunk;
    std::string clamdPath;
    std::optional<std::string> configPath;
};

TEST(ClamdProcessList, CommandLineParsing)
{
    const std::vector<ProcessCase> cases = {
        {"short option", "/usr/local/korvane/sbin/clamd -c /usr/local/korvane/etc/clamd.conf\n",
         "/usr/local/korvane/sbin/clamd", "/usr/local/korvane/etc/clamd.conf"},
        {"long option", "/usr/sbin/clamd --config-file=/etc/clamd.conf\n", "/usr/sbin/clamd", "/etc/clamd.conf"},
        {"no option", "  /usr/sbin/clamd  \n", "/usr/sbin/clamd", std::nullopt},
        {"started by bare name: the option is before the first slash", "clamd -c /p/etc/clamd.conf\n",
         "/p/etc/clamd.conf", std::nullopt},
        {"several processes: first slash, first option anywhere",
         "/usr/sbin/clamd --foreground=true\n/usr/bin/clamdscan --stdout -c /x.conf\n",
         "/usr/sbin/clamd --foreground=true\n/usr/bin/clamdscan --stdout", "/x.conf"},
        {"long option on a later line wins over short on the first",
         "/a/clamd -c /a.conf\n/b/clamd --config-file=/b.conf\n", "/a/clamd -c /a.conf\n/b/clamd", "/b.conf"},
        {"no slash at all", "clamd\n", "clamd", std::nullopt},
    };
    for (const ProcessCase& c : cases) {
        const kv::ClamdCommandLine parsed = kv::parseClamdProcessChunk(c.chunk);
        EXPECT_EQ(parsed.clamdPath, c.clamdPath) << c.name;
        EXPECT_EQ(parsed.configPath, c.configPath) << c.name;
    }
}

} // namespace

// The scan log's rotation: its threshold, its entries and a real rotation
// with logrotate.

#include "app/ScanLog.h"
#include "tests/support/TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QJsonValue>

#include <gtest/gtest.h>

#include <filesystem>

namespace {

TEST(ScanLog, ThresholdFromPreference)
{
    const std::vector<std::pair<std::optional<QJsonValue>, int>> cases = {
        {std::nullopt, 5120}, {QJsonValue(0), 5120},    {QJsonValue(-4), 5120},
        {QJsonValue("100"), 5120}, {QJsonValue(100), 100}, {QJsonValue(1), 1},
        {QJsonValue(2.9), 2},  {QJsonValue(true), 5120},
    };
    for (const auto& [preference, expected] : cases)
        EXPECT_EQ(kv::ScanLog::thresholdKilobytes(preference), expected);
}

// The entry newsyslog reads, where it is installed (Debian has logrotate,
// whose run below is the real test).
TEST(ScanLog, NewsyslogEntryByteForByte)
{
    EXPECT_EQ(kv::ScanLog::rotationConfigText("/Users/u/Library/Logs/KorvaneVelgar-scan.log", 501, 20, 5120),
              "# logfilename [owner:group] mode count size when flags [/pid_file] [sig_num]\n"
              "/Users/u/Library/Logs/KorvaneVelgar-scan.log\t501:20\t640\t3\t5120\t*\tCJN");
}

TEST(ScanLog, LogrotateKeepsThreeBzip2ArchivesAndRecreatesTheLog)
{
    kvtest::TempDir home;
    kvtest::TempDir temporary;
    kv::ScanLog log(home.path() + "/");
    EXPECT_EQ(log.path(), home / "Library/Logs/KorvaneVelgar-scan.log");
    const std::string logs = home / "Library/Logs";
    const QJsonValue oneKilobyte(1);

    for (int round = 0; round < 5; ++round) {
        kvtest::writeFile(log.path(), std::string(2048, 'a' + round) + "\n", 0640);
        log.rotateLogFile(oneKilobyte, temporary.path(), false);
    }
    EXPECT_FALSE(kvtest::exists(temporary / "scanlogrotate.conf")) << "the configuration is deleted after use";

    std::vector<std::string> archives;
    for (const auto& entry : std::filesystem::directory_iterator(logs)) {
        if (entry.path().extension() == ".bz2")
            archives.push_back(entry.path().filename());
    }
    EXPECT_EQ(archives.size(), 3u);
    struct stat info{};
    ASSERT_EQ(::stat(log.path().c_str(), &info), 0) << "a new log is created";
    EXPECT_EQ(info.st_mode & 0777, 0640u);
    EXPECT_EQ(info.st_uid, ::getuid());
    EXPECT_EQ(info.st_gid, ::getgid());
    EXPECT_EQ(info.st_size, 0);

    // Below the threshold nothing moves.
    kvtest::writeFile(log.path(), "short\n", 0640);
    log.rotateLogFile(std::nullopt, temporary.path(), false);
    EXPECT_EQ(kvtest::readFile(log.path()), "short\n");
}

} // namespace

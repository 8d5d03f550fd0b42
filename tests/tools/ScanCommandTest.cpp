// velgarctl scan and schedule as users run them: the built program over
// real trees against a real clamd with the tests' signatures (logging every
// clean file, so the engine's work can be counted), and real
// systemd-analyze on the units it writes.

#include "VelgarctlHarness.h"
#include "engine/ClamdCtrl.h"
#include "platform/QuarantineRecords.h"
#include "tests/support/TestSupport.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace kvtest {
namespace {

class VelgarctlScan : public VelgarctlTest {
protected:
    static void SetUpTestSuite()
    {
        engine_ = new EnginePrefix;
        writeFile(engine_->config(), readFile(engine_->config()) + "LogClean yes\n");
        EXPECT_TRUE(engine_->startDaemon());
    }
    static void TearDownTestSuite() { delete engine_; }

    void SetUp() override
    {
        VelgarctlTest::SetUp();
        writeFile(domainFile("com.korvane.Korvane"),
                  QJsonDocument(QJsonObject{{"PathToClamav", QString::fromStdString(engine_->path())},
                                            {"VelgarQuarantineFiles", true},
                                            {"QuarantineFolder", QString::fromStdString(home() + "/Q")}})
                      .toJson()
                      .toStdString());
    }

    // velgarctl scan as root without its capabilities, so that modes count.
    static CommandResult scan(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"--bounding-set=-all", "--inh-caps=-all", VELGARCTL_PATH, "scan"});
        return runProgram("setpriv", arguments, 60000);
    }

    // The files the engine has scanned and found clean so far, less the
    // markers: one more marker is scanned and waited for in the engine's
    // log, which then holds every scan that came before it.
    size_t engineScans()
    {
        const std::string marker = home() + "/marker" + std::to_string(++markers_);
        writeFile(marker, marker);
        const kv::UniqueFd fd(::open(marker.c_str(), O_RDONLY | O_CLOEXEC));
        kv::ClamdCtrl::scanOpenFile(fd.get(), engine_->socket(), std::nullopt);
        const std::string log = engine_->path() + "/clamd.log";
        EXPECT_TRUE(waitFor([&] { return readFile(log).find(marker + ": OK") != std::string::npos; }, 10000));
        const std::string text = readFile(log);
        size_t scans = 0;
        for (size_t at = 0; (at = text.find(": OK\n", at)) != std::string::npos; ++at)
            ++scans;
        return scans - markers_;
    }

    static EnginePrefix* engine_;
    int markers_ = 0;
};

EnginePrefix* VelgarctlScan::engine_ = nullptr;

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST_F(VelgarctlScan, EveryKindOfPathIsReportedFoundFilesQuarantinedAndTheScanGoesOn)
{
    const std::string tree = home() + "/tree";
    const std::string newline = tree + "/line\nbreak.com";
    for (const std::string name : {"eicar.com", "line\nbreak.com"})
        writeFile(tree + "/" + name, eicar());
    for (const std::string name : {"a.txt", "sub/b.txt", "\xff.txt"}) {
        std::filesystem::create_directories(std::filesystem::path(tree + "/" + name).parent_path());
        writeFile(tree + "/" + name, name);
    }
    ASSERT_EQ(::mkfifo((tree + "/fifo").c_str(), 0600), 0);
    std::filesystem::create_directories(tree + "/locked");
    writeFile(tree + "/locked/x", "x");
    ::chmod((tree + "/locked").c_str(), 0);
    std::filesystem::create_directory_symlink(".", tree + "/loop");
    std::filesystem::create_symlink(home() + "/cycle-b", home() + "/cycle-a");
    std::filesystem::create_symlink(home() + "/cycle-a", home() + "/cycle-b");
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(::inotify_add_watch(watch, (tree + "/fifo").c_str(), IN_OPEN | IN_ACCESS), 0);

    const CommandResult result = scan({tree, home() + "/cycle-a", home() + "/missing"});
    ::chmod((tree + "/locked").c_str(), 0700);
    EXPECT_EQ(result.status, 1) << result.err;
    for (const std::string& line : std::vector<std::string>{
             tree + "/eicar.com: Eicar-Test-Signature.UNOFFICIAL FOUND\n",
             tree + "/eicar.com: moved to '" + home() + "/Q/eicar.com'\n",
             tree + "/line\\nbreak.com: Eicar-Test-Signature.UNOFFICIAL FOUND\n",
             tree + "/locked: Permission denied ERROR\n",
             tree + "/fifo: a FIFO, not scanned\n",
             home() + "/cycle-a: Too many levels of symbolic links ERROR\n",
             home() + "/missing: No such file or directory ERROR\n",
             "Scanned files: 5\nInfected files: 2\nUnreadable: 3\n",
         })
        EXPECT_TRUE(has(result.out, line)) << line << " in:\n" << result.out;
    char event[sizeof(inotify_event) + 256];
    EXPECT_LT(::read(watch, event, sizeof event), 0) << "the FIFO was opened";
    ::close(watch);
    EXPECT_EQ(readFile(home() + "/Q/line\nbreak.com"), eicar());
    std::string error;
    EXPECT_EQ(kv::QuarantineRecords().current(&error).size(), 2u) << error;
    const std::string log = readFile(home() + "/Library/Logs/KorvaneVelgar-scan.log");
    EXPECT_TRUE(has(log, " On-demand scan of " + tree + ", ")) << log;
    EXPECT_TRUE(has(log, " " + tree + "/\\xff.txt: OK\n")) << log;
    EXPECT_TRUE(has(log, " On-demand scan finished: 5 files scanned, 2 infected, 3 unreadable")) << log;
}

TEST_F(VelgarctlScan, AnUnchangedFileIsSentOnceUntilItOrTheDefinitionsChange)
{
    const std::string tree = home() + "/tree";
    for (const std::string name : {"a.txt", "b.txt", "c.txt"})
        writeFile(tree + "/" + name, "korvane-" + name + "\n");
    const size_t before = engineScans();
    EXPECT_TRUE(has(scan({tree}).out, "Scanned files: 3\n"));
    EXPECT_EQ(engineScans(), before + 3);

    const CommandResult again = scan({tree});
    EXPECT_EQ(again.status, 0);
    EXPECT_TRUE(has(again.out, "Scanned files: 0\nInfected files: 0\nUnreadable: 0\nSkipped as unchanged: 3\n"))
        << again.out;
    EXPECT_EQ(engineScans(), before + 3) << "an unchanged file was sent to the engine again";

    writeFile(tree + "/a.txt", "korvane-a.txt changed\n");
    EXPECT_TRUE(has(scan({tree}).out, "Scanned files: 1\n"));
    EXPECT_EQ(engineScans(), before + 4);

    // New definitions, loaded, that find one of the files.
    const std::string added = engine_->path() + "/db/added.ndb";
    writeFile(added, "Korvane.Test.Added:0:*:" + QByteArray("korvane-b.txt").toHex().toStdString() + "\n");
    kv::ClamdCtrl().communicateWithSocket(engine_->socket(), "RELOAD");
    EXPECT_TRUE(waitFor(
        [&] {
            const kv::UniqueFd fd(::open((tree + "/b.txt").c_str(), O_RDONLY | O_CLOEXEC));
            return kv::ClamdCtrl::scanOpenFile(fd.get(), engine_->socket(), std::nullopt).kind ==
                   kv::ClamdCtrl::FileVerdict::Found;
        },
        30000));
    const CommandResult renewed = scan({tree});
    EXPECT_EQ(renewed.status, 1);
    EXPECT_TRUE(has(renewed.out, "Scanned files: 3\nInfected files: 1\n")) << renewed.out;
    std::filesystem::remove(added);
    kv::ClamdCtrl().communicateWithSocket(engine_->socket(), "RELOAD");
}

TEST_F(VelgarctlScan, ADamagedCacheIsSetAsideAndMadeAnew)
{
    const std::string cache = home() + "/.local/share/korvane/verdicts.sqlite";
    std::filesystem::create_directories(home() + "/.local/share/korvane");
    ::chmod((home() + "/.local/share/korvane").c_str(), 0700);
    const std::string garbage(8192, 'k');
    writeFile(cache, garbage, 0600);
    writeFile(home() + "/tree/a.txt", "a\n");
    EXPECT_EQ(scan({home() + "/tree"}).status, 0);
    EXPECT_TRUE(has(scan({home() + "/tree"}).out, "Skipped as unchanged: 1\n"));
    std::vector<std::string> aside;
    for (const auto& entry : std::filesystem::directory_iterator(home() + "/.local/share/korvane"))
        if (entry.path().filename().string().starts_with("verdicts.sqlite.damaged-"))
            aside.push_back(entry.path());
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(readFile(aside[0]), garbage);
    const std::string log = readFile(home() + "/Library/Logs/KorvaneVelgar-scan.log");
    EXPECT_EQ(log.find("was damaged"), log.rfind("was damaged")) << log;
    EXPECT_NE(log.find("was damaged"), std::string::npos) << log;
}

class VelgarctlSchedule : public VelgarctlTest {};

TEST_F(VelgarctlSchedule, UnitsPassSystemdsCheckAndWithoutAUserInstanceNothingChanges)
{
    ScopedEnv noBus("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    // (Arguments reach velgarctl through QString: UTF-8 only.)
    const std::string odd = home() + "/odd 50% $HOME \"q\" \\ \u00e9\t\nx";
    std::filesystem::create_directories(odd);
    const CommandResult refused = runVelgarctl({"schedule", "daily", "--folder", odd});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(has(refused.err, "no systemd instance")) << refused.err;
    EXPECT_FALSE(exists(home() + "/.config/systemd"));

    // A systemctl of the test's own stands in for the user's instance.
    writeFile(home() + "/bin/systemctl", "#!/bin/sh\necho \"$@\" >>" + home() + "/calls\n", 0755);
    ScopedEnv path("PATH", home() + "/bin:" + std::getenv("PATH"));
    const CommandResult scheduled = runVelgarctl({"schedule", "weekly", "--at", "03:05", "--folder", odd});
    EXPECT_EQ(scheduled.status, 0) << scheduled.err;
    EXPECT_EQ(readFile(home() + "/calls"),
              "--user show-environment\n--user daemon-reload\n--user enable --now korvane-scan.timer\n");
    const std::string units = home() + "/.config/systemd/user/";
    EXPECT_TRUE(has(readFile(units + "korvane-scan.timer"), "OnCalendar=Mon *-*-* 03:05:00\nPersistent=true\n"));
    const CommandResult verify = runProgram("systemd-analyze", {"--user", "verify", units + "korvane-scan.timer",
                                                                units + "korvane-scan.service"});
    EXPECT_EQ(verify.status, 0);
    EXPECT_EQ(verify.out + verify.err, "");

    EXPECT_EQ(runVelgarctl({"schedule", "off"}).status, 0);
    EXPECT_FALSE(exists(units + "korvane-scan.timer"));
    EXPECT_FALSE(exists(units + "korvane-scan.service"));
}

} // namespace
} // namespace kvtest

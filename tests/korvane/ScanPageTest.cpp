// The Scan page with a real clamd and the tests' signatures: a tree holding
// the EICAR test file scanned from the page and by `korvane --scan`, the
// found files moved from their rows (and only they), Stop while the engine
// holds a file, the names of any bytes, and the schedule box.

#include "korvane/ScanPage.h"
#include "platform/ChildProcess.h"
#include "platform/QuarantineRecords.h"
#include "tests/korvane/KorvaneTestSupport.h"

#include <gtest/gtest.h>

#include <QComboBox>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QTimeEdit>
#include <QUrl>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

namespace kvtest {
namespace {

struct ScanHome : KorvaneHome {
    explicit ScanHome(const EnginePrefix& engine)
    {
        writeFile(preferencesFile, QJsonDocument(QJsonObject{{"PathToClamav", QString::fromStdString(engine.path())},
                                                             {"QuarantineFolder", QString::fromStdString(home / "Q")}})
                                       .toJson()
                                       .toStdString());
        korvane->preferences().reload();
        page = korvane->window().scan();
    }
    std::string scanLog() const { return readFile(home / "Library/Logs/KorvaneVelgar-scan.log"); }
    kv::ScanPage* page;
};

TEST(KorvaneScan, FoundFilesAreListedAndMovedFromTheirRowsAndKorvaneScanKeepsNameBytes)
{
    holdMachineTestLock();
    EnginePrefix engine;
    ASSERT_TRUE(engine.startDaemon());
    ScanHome k(engine);
    const std::string tree = k.home / "tree";
    const std::string odd = tree + "/odd \xff 'name\".com";
    for (const std::string& path : {tree + "/sub/eicar.com", odd})
        writeFile(path, eicar());
    writeFile(tree + "/clean.txt", "clean\n");
    ASSERT_EQ(::mkfifo((tree + "/fifo").c_str(), 0600), 0);
    EXPECT_NE(k.korvane->window().findChild<QLabel*>("scanHandling")->text().indexOf("warn only"), -1);

    k.page->addPaths({tree});
    ASSERT_TRUE(k.page->start());
    ASSERT_TRUE(processEventsUntil([&] { return !k.page->scanning(); }, 60000)) << k.scanLog();
    std::map<std::string, kv::OnDemandItem::Kind> rows;
    for (const kv::ScanPage::Row& row : k.page->rows())
        rows[row.item.path] = row.item.kind;
    const std::map<std::string, kv::OnDemandItem::Kind> expected{{tree + "/sub/eicar.com", kv::OnDemandItem::Kind::Infected},
                                                                 {odd, kv::OnDemandItem::Kind::Infected},
                                                                 {tree + "/fifo", kv::OnDemandItem::Kind::Skipped}};
    EXPECT_EQ(rows, expected);
    EXPECT_NE(k.korvane->window().findChild<QLabel*>("scanSummary")->text().indexOf("2 infected"), -1);

    // Warned only: moved from the rows, each to where the user said.
    for (size_t row = 0; row < k.page->rows().size(); ++row) {
        const std::string path = k.page->rows()[row].item.path;
        if (path == odd) {
            EXPECT_TRUE(k.page->trashRow(static_cast<int>(row))) << k.message();
        } else if (path.ends_with("eicar.com")) {
            // Another file under the found one's name is not the one found.
            std::filesystem::rename(path, path + ".found");
            writeFile(path, "another file\n");
            EXPECT_FALSE(k.page->quarantineRow(static_cast<int>(row)));
            EXPECT_NE(k.message().find("no longer the file the scan found"), std::string::npos) << k.message();
            EXPECT_EQ(readFile(path), "another file\n");
            EXPECT_EQ(readFile(path + ".found"), eicar());
            std::filesystem::rename(path + ".found", path);
            EXPECT_TRUE(k.page->quarantineRow(static_cast<int>(row))) << k.message();
        }
    }
    EXPECT_EQ(readFile(k.home / "Q/eicar.com"), eicar());
    EXPECT_EQ(readFile(k.home / "data/Trash/files/odd \xff 'name\".com"), eicar());
    std::string error;
    EXPECT_EQ(kv::QuarantineRecords(k.home / "data/korvane/quarantine.jsonl").current(&error).size(), 2u) << error;
    EXPECT_FALSE(k.page->trashRow(0)) << "a file moved already was moved again";

    // The program, as a file manager starts it: the odd name's bytes reach the scan.
    writeFile(odd, eicar());
    writeFile(k.home / "Library/Logs/KorvaneVelgar-scan.log", "");
    std::optional<kv::ChildProcess> korvane =
        kv::ChildProcess::spawn({KORVANE_PATH, "--scan", "--", odd}, kv::ChildProcess::Output::Null);
    ASSERT_TRUE(korvane);
    const std::string found = tree + "/odd \\xff 'name\".com: Eicar-Test-Signature.UNOFFICIAL FOUND";
    EXPECT_TRUE(waitFor([&] { return k.scanLog().find(found) != std::string::npos; }, 60000)) << k.scanLog();
    ::kill(korvane->pid(), SIGTERM);
    korvane->wait();
}

TEST(KorvaneScan, StopEndsTheScanAtOnceWhileTheEngineHoldsAFile)
{
    holdMachineTestLock();
    EnginePrefix engine;
    ASSERT_TRUE(engine.startDaemon());
    ScanHome k(engine);
    const std::string held = k.home / "held.txt";
    writeFile(held, "waits for its verdict\n");
    const int opens = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ::inotify_add_watch(opens, held.c_str(), IN_OPEN);
    ::kill(engine.daemonPid(), SIGSTOP);
    k.page->addPaths({held});
    ASSERT_TRUE(k.page->start());
    char event[sizeof(inotify_event) + 256];
    EXPECT_TRUE(processEventsUntil([&] { return ::read(opens, event, sizeof event) > 0; }, 30000));
    k.korvane->window().findChild<QPushButton*>("scanStopButton")->click();
    const bool promptly = processEventsUntil([&] { return !k.page->scanning(); }, 3000);
    ::kill(engine.daemonPid(), SIGCONT);
    ::close(opens);
    EXPECT_TRUE(promptly) << "the stop waited for the engine's verdict";
    EXPECT_NE(k.korvane->window().findChild<QLabel*>("scanSummary")->text().indexOf("Stopped"), -1);
}

TEST(KorvaneScan, PathsFromArgumentsAndDropsKeepTheirBytes)
{
    const std::string here = std::filesystem::current_path().string();
    struct Case {
        std::vector<std::string> raw;         // argv after the program's name
        std::vector<std::string> positional;  // as Qt's parser hands them on
        std::vector<std::string> paths;
    };
    const Case cases[] = {
        {{"--scan", "/tmp/a\xff" "b", "/tmp/a\xfe" "b"}, {"/tmp/a\xff" "b", "/tmp/a\xfe" "b"}, {"/tmp/a\xff" "b", "/tmp/a\xfe" "b"}},
        {{"--page", "scan", "--scan", "--", "scan", "rel name"}, {"scan", "rel name"}, {here + "/scan", here + "/rel name"}},
        {{"--scan", "file:///tmp/x%FFy%20z", "file://elsewhere/x"}, {"file:///tmp/x%FFy%20z", "file://elsewhere/x"}, {"/tmp/x\xff" "y z"}},
    };
    for (const Case& c : cases) {
        QStringList positional;
        for (const std::string& argument : c.positional)
            positional << QString::fromLocal8Bit(argument.c_str());
        EXPECT_EQ(kv::ScanPage::pathsFromArguments(positional, c.raw), c.paths) << c.raw.back();
    }
    EXPECT_EQ(kv::ScanPage::localPath(QUrl::fromEncoded("file:///home/u/%E9t%C3%A9")), "/home/u/\xe9t\xc3\xa9");
    EXPECT_EQ(kv::ScanPage::localPath(QUrl::fromEncoded("https://example.com/x")), std::nullopt);
}

TEST(KorvaneScan, TheScheduleBoxWritesTheTimerAsVelgarctlScheduleDoes)
{
    KorvaneHome k;
    const std::string calls = k.home / "calls";
    // A systemctl of the test's own stands in for the user's instance; a
    // second one has none.
    writeFile(k.home / "bin/systemctl", "#!/bin/sh\necho \"$@\" >>" + calls + "\n", 0755);
    writeFile(k.home / "none/systemctl", "#!/bin/sh\nexit 1\n", 0755);
    ScopedEnv path("PATH", k.home / "bin:" + std::getenv("PATH"));
    kv::MainWindow& window = k.korvane->window();
    window.findChild<QComboBox*>("scheduleBox")->setCurrentIndex(2);
    window.findChild<QTimeEdit*>("scheduleTime")->setTime(QTime(3, 5));
    window.findChild<QPushButton*>("scheduleButton")->click();
    const std::string units = k.home / "config/systemd/user/";
    EXPECT_NE(readFile(units + "korvane-scan.timer").find("OnCalendar=Mon *-*-* 03:05:00\n"), std::string::npos)
        << k.message();
    EXPECT_NE(readFile(units + "korvane-scan.service").find("velgarctl\" scan --scheduled -- \"" + k.home.path() + "\""),
              std::string::npos);
    EXPECT_EQ(readFile(calls), "--user show-environment\n--user daemon-reload\n--user enable --now korvane-scan.timer\n");

    ScopedEnv none("PATH", k.home / "none:" + std::getenv("PATH"));
    window.findChild<QComboBox*>("scheduleBox")->setCurrentIndex(0);
    window.findChild<QPushButton*>("scheduleButton")->click();
    EXPECT_NE(k.message().find("nothing was changed"), std::string::npos) << k.message();
    EXPECT_TRUE(exists(units + "korvane-scan.timer"));
    EXPECT_EQ(window.findChild<QComboBox*>("scheduleBox")->currentIndex(), 2) << "the box shows what is not so";
}

} // namespace
} // namespace kvtest

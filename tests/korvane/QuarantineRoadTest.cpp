// The road of a finding through the application, with the real agent: a
// folder added on the Watched Folders page is watched, a virus that arrives
// there is quarantined and listed on the Quarantine page, Restore puts it
// back (where the agent finds it again) and Delete removes it for good.

#include "korvane/HistoryPage.h"
#include "korvane/QuarantinePage.h"
#include "korvane/WhenFoundPage.h"
#include "platform/BusContract.h"
#include "platform/ChildProcess.h"
#include "tests/korvane/KorvaneTestSupport.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPushButton>
#include <QTableWidget>

#include <sys/stat.h>

#include <csignal>

namespace kvtest {
namespace {

int count(const std::string& text, const std::string& part)
{
    int found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++found;
    return found;
}

TEST(KorvaneRoad, AddedFolderIsWatchedItsVirusQuarantinedRestoredAndDeleted)
{
    holdMachineTestLock();
    EnginePrefix engine;  // its daemon is started by the agent
    KorvaneHome k;
    const std::string watched = k.home / "Downloads";
    const std::string quarantine = k.home / "Quarantine";
    const std::string scanLog = k.home / "Library/Logs/KorvaneVelgar-scan.log";
    ::mkdir(watched.c_str(), 0700);
    writeFile(k.preferencesFile, QJsonDocument(QJsonObject{{"PathToClamav", QString::fromStdString(engine.path())},
                                                           {"PathToUpdateLog", QString::fromStdString(k.home / "update.log")}})
                                     .toJson()
                                     .toStdString());
    k.korvane->preferences().reload();
    kv::MainWindow& window = k.korvane->window();
    ASSERT_TRUE(window.whenFound()->choose(kv::WhenFoundPage::Choice::Quarantine, QString::fromStdString(quarantine)))
        << k.message();

    int error = 0;
    std::optional<kv::ChildProcess> agent = kv::ChildProcess::spawn({AGENT_PATH}, kv::ChildProcess::Output::Null, &error);
    ASSERT_TRUE(agent) << "the agent did not start: " << error;
    // Whatever happens below, the agent does not outlive the test.
    const std::shared_ptr<void> killAgent(nullptr, [&](void*) {
        if (agent->running())
            ::kill(agent->pid(), SIGKILL);
    });
    // Without a folder to watch the agent waits, stopped.
    kv::AgentLink& link = k.korvane->agent();
    ASSERT_TRUE(processEventsUntil([&] { return link.status() == kv::bus::kStatusStopped; }, 60000))
        << "the application never saw the agent's state; it says \"" << link.status().toStdString() << "\"";

    // Added on the page: the agent restarts watching and now has the folder.
    k.chosenFolder = watched;
    const int startsBefore = count(readFile(scanLog), "Watching started");
    window.showPage(kv::Page::WatchedFolders);
    window.findChild<QPushButton*>("addFolderButton")->click();
    ASSERT_TRUE(processEventsUntil([&] { return count(readFile(scanLog), "Watching started") > startsBefore; }, 60000))
        << k.message();
    EXPECT_TRUE(processEventsUntil([&] { return link.status() == kv::bus::kStatusWatching; }));
    // Scripts read the same state.
    std::optional<kv::ChildProcess> script =
        kv::ChildProcess::spawn({VELGARCTL_PATH, "script", "agentStatus"}, kv::ChildProcess::Output::StdoutPipe);
    ASSERT_TRUE(processEventsUntil([&] { return !script->running(); }));
    EXPECT_EQ(script->readAll(), "watching\n");
    EXPECT_NE(readFile(scanLog).find("Watching started: 1 watched"), std::string::npos);
    // The helper's marks are in place a moment after the log line: a clean
    // probe file, written again every two seconds, is scanned once they are.
    const std::string probe = watched + "/.watching-probe";
    QElapsedTimer sinceWritten;
    ASSERT_TRUE(processEventsUntil(
        [&] {
            if (!sinceWritten.isValid() || sinceWritten.elapsed() > 2000) {
                writeFile(probe, "probe\n");
                sinceWritten.start();
            }
            return readFile(scanLog).find(probe + ": OK") != std::string::npos;
        },
        90000))
        << "the agent never scanned a file in the folder added";
    ::unlink(probe.c_str());

    const std::string arrived = watched + "/invoice.pdf.exe";
    writeFile(arrived, eicar());
    kv::QuarantinePage& page = *window.quarantine();
    auto listed = [&] {
        page.refresh();
        return page.records().size() == 1 && !exists(arrived);
    };
    ASSERT_TRUE(processEventsUntil(listed, 60000)) << readFile(scanLog);
    const kv::QuarantineRecord first = page.records()[0];
    EXPECT_EQ(first.originalPath, arrived);
    EXPECT_NE(first.signature.find("Eicar"), std::string::npos);
    EXPECT_EQ(first.storedPath.rfind(quarantine + "/", 0), 0u) << first.storedPath;

    // The History page puts the finding first.
    window.history()->refresh();
    ASSERT_GT(window.history()->rowsShown(), 1);
    EXPECT_EQ(window.history()->shownText(0, 2).toStdString(), arrived);

    // Restore: back where it came from, where the agent finds it again.
    window.showPage(kv::Page::Quarantine);
    window.findChild<QTableWidget*>("quarantineTable")->setCurrentCell(0, 0);
    window.findChild<QPushButton*>("restoreButton")->click();
    EXPECT_NE(k.message().find("is back where it came from"), std::string::npos) << k.message();
    EXPECT_TRUE(exists(arrived));
    const std::string found = arrived + ": " + first.signature + " FOUND";
    ASSERT_TRUE(processEventsUntil([&] { return listed() && count(readFile(scanLog), found) == 2; }, 60000))
        << "the restored file was not quarantined again";

    // Delete: gone for good, and off the list.
    const std::string stored = page.records()[0].storedPath;
    EXPECT_TRUE(page.deleteRow(0, false)) << k.message();
    EXPECT_FALSE(exists(stored));
    EXPECT_TRUE(page.records().empty());

    EXPECT_TRUE(link.quit());
    EXPECT_TRUE(waitFor([&] { return !agent->running(); }, 30000));
}

} // namespace
} // namespace kvtest

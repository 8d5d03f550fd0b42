// The application as the agent and other programs reach it: the pages they
// ask for, and the definitions updater it runs.

#include "korvane/DefinitionsPage.h"
#include "korvane/HistoryPage.h"
#include "platform/BusContract.h"
#include "platform/DBusDistributedCenter.h"
#include "tests/korvane/KorvaneTestSupport.h"

#include <gtest/gtest.h>

#include <QComboBox>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QSignalSpy>

namespace kvtest {
namespace {

TEST(KorvanePages, RequestsOnTheBusShowTheirPage)
{
    KorvaneHome k;
    kv::DBusDistributedCenter center;
    kv::MainWindow& window = k.korvane->window();
    struct Case {
        const char* name;
        const char* object;
        kv::Page shown;
        const char* historyShows;  // the History page's choice, where it matters
    };
    const Case cases[] = {
        {kv::bus::kShouldOpenPrefs, kv::bus::kAgentObject, kv::Page::WatchedFolders, nullptr},
        {kv::bus::kShouldOpenPage, "quarantine", kv::Page::Quarantine, nullptr},
        {kv::bus::kShouldOpenPage, "diagnostics", kv::Page::History, "Agent diagnostics"},
        {kv::bus::kShouldOpenPage, "protection", kv::Page::Protection, nullptr},
        // A page no one has changes nothing.
        {kv::bus::kShouldOpenPage, "../../etc", kv::Page::Protection, nullptr},
    };
    window.showPage(kv::Page::Advanced);
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + c.object);
        if (c.shown == kv::Page::Protection && std::string(c.object) != "protection")
            window.showPage(kv::Page::Protection);
        ASSERT_TRUE(center.post(c.name, c.object));
        EXPECT_TRUE(processEventsUntil([&] { return window.currentPage() == c.shown; }, 5000));
        if (c.historyShows) {
            EXPECT_EQ(window.findChild<QComboBox*>("historyShow")->currentText().toStdString(), c.historyShows);
        }
        window.showPage(kv::Page::Advanced);
    }
}

TEST(KorvanePages, UpdateNowTellsTheUpdatersOutcomeInWords)
{
    KorvaneHome k;
    const std::string prefix = k.home / "engine";
    writeFile(prefix + "/etc/clamd.conf", "LocalSocket " + (k.home / "nobody-listens.ctl") + "\n");
    const std::string updateLog = k.home / "freshclam.log";
    writeFile(k.preferencesFile, QJsonDocument(QJsonObject{{"PathToClamav", QString::fromStdString(prefix)},
                                                           {"PathToUpdateLog", QString::fromStdString(updateLog)}})
                                     .toJson()
                                     .toStdString());
    k.korvane->preferences().reload();
    kv::DefinitionsPage& page = *k.korvane->window().definitions();
    auto* outcome = k.korvane->window().findChild<QLabel*>("updateOutcome");

    struct Case {
        const char* what;
        const char* output;
        int status;
        unsigned mode;
        const char* said;  // part of the outcome
    };
    const Case cases[] = {
        {"already current", "daily.cvd database is up-to-date (version: 27463, sigs: 2070000)", 0, 0755,
         "The definitions were already up to date."},
        {"updated", "daily.cvd database is up-to-date (version: 27463)\ndaily.cld updated (version: 27464, sigs: 2)", 0,
         0755, "The definitions were updated."},
        {"no network", "ERROR: Can't query current.cvd.clamav.net\nERROR: Update failed.", 11, 0755,
         "the definitions server could not be reached"},
        {"another failure", "ERROR: Failed to load new database", 1, 0755,
         "The update failed (the updater ended with status 1): ERROR: Failed to load new database"},
        {"cannot run", "", 0, 0644, "There is no updater to run"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // The updater records its arguments, so the log option is seen too.
        writeFile(k.home / "output", std::string(c.output) + "\n");
        writeFile(prefix + "/bin/freshclam",
                  "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"" + (k.home / "arguments") + "\"\ncat \"" + (k.home / "output") +
                      "\"\nexit " + std::to_string(c.status) + "\n",
                  c.mode);
        QSignalSpy finished(&page, &kv::DefinitionsPage::updateFinished);
        if (page.updateNow()) {
            ASSERT_TRUE(processEventsUntil([&] { return finished.count() == 1; }, 20000));
            EXPECT_EQ(finished.at(0).at(0).toBool(), c.status == 0);
            EXPECT_EQ(readFile(k.home / "arguments"), "--log=" + updateLog + "\n");
        }
        EXPECT_NE(outcome->text().toStdString().find(c.said), std::string::npos) << outcome->text().toStdString();
    }
}

} // namespace
} // namespace kvtest

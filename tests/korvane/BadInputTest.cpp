// What the application does with input it cannot use: it says so in words
// and loses nothing.

#include "korvane/ExclusionsPage.h"
#include "korvane/ProtectionPage.h"
#include "korvane/WatchedFoldersPage.h"
#include "korvane/WhenFoundPage.h"
#include "tests/korvane/KorvaneTestSupport.h"

#include <gtest/gtest.h>

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTableWidget>

#include <sys/stat.h>

namespace kvtest {

KorvaneHome::KorvaneHome()
{
    ::mkdir((home / "run").c_str(), 0700);
    ::mkdir((home / "config").c_str(), 0700);
    kv::Korvane::Parts parts;
    parts.preferencesFolder = preferencesFolder;
    parts.homeDirectory = home.path();
    parts.quarantineIndexPath = home / "data/korvane/quarantine.jsonl";
    parts.agentProgram = AGENT_PATH;
    parts.chooseFolder = [this](const QString&, const QString&) { return QString::fromStdString(chosenFolder); };
    korvane = std::make_unique<kv::Korvane>(std::move(parts));
}

namespace {

TEST(KorvaneBadInput, EachGetsAClearMessageAndNothingIsLost)
{
    struct Case {
        const char* what;
        const char* preferences;  // the file as it is before; "" none
        std::function<void(KorvaneHome&)> act;
        const char* message;      // a part of what the message bar then says
    };
    const Case cases[] = {
        {"a folder that does not exist", R"({"VelgarFolderArray": [{"pathName": "~/gone", "WatchSubdirs": true}]})",
         [](KorvaneHome& k) {
             // The stored folder is shown as missing; adding another missing one is refused.
             auto* missing = k.korvane->window().findChild<QLabel*>("missingFolders");
             EXPECT_FALSE(missing->isHidden());
             EXPECT_NE(missing->text().toStdString().find("~/gone"), std::string::npos);
             k.korvane->window().watchedFolders()->addFolder(QString::fromStdString(k.home / "nowhere"));
         },
         "is not a folder that exists; nothing was added"},
        {"a pattern that does not compile", R"({"ExcludePatterns": []})",
         [](KorvaneHome& k) {
             k.korvane->window().exclusions()->addPattern(QStringLiteral("(unclosed"), true);
             auto* problems = k.korvane->window().findChild<QLabel*>("patternProblems");
             EXPECT_NE(problems->text().toStdString().find("does not compile"), std::string::npos);
             // Kept as typed: the user mends it rather than retyping it.
             EXPECT_TRUE(processEventsUntil([&] { return k.korvane->preferences().array("ExcludePatterns").size() == 1; }));
             EXPECT_EQ(kv::ExclusionsPage::patternProblem(QStringLiteral("\\.te?mp$"), true), std::nullopt);
             k.korvane->window().tell(QString(), false);
         },
         ""},
        {"a quarantine folder that cannot be created", R"({"VelgarTrashFiles": true})",
         [](KorvaneHome& k) {
             k.korvane->window().whenFound()->choose(kv::WhenFoundPage::Choice::Quarantine,
                                                     QStringLiteral("/proc/korvane-quarantine"));
         },
         "cannot be used"},
        {"a quarantine folder others may write to", R"({"VelgarTrashFiles": true})",
         [](KorvaneHome& k) { k.korvane->window().whenFound()->choose(kv::WhenFoundPage::Choice::Quarantine, "/tmp"); },
         "/tmp may be written by other users"},
        {"an engine and a quarantine folder others could change, set by another program",
         R"({"VelgarQuarantineFiles": true, "QuarantineFolder": "/tmp", "PathToClamav": "/tmp"})",
         [](KorvaneHome& k) {
             const QString problems = k.korvane->window().findChild<QLabel*>("preferenceProblems")->text();
             EXPECT_TRUE(problems.contains("The engine folder /tmp is refused: /tmp/sbin does not exist"));
             EXPECT_TRUE(problems.contains("The quarantine folder /tmp is refused: /tmp may be written by other"));
         },
         ""},
        {"preferences that are not valid JSON", "{\"PathToClamav\": \"/opt/clam\",",
         [](KorvaneHome& k) {
             auto* problems = k.korvane->window().findChild<QLabel*>("preferenceProblems");
             EXPECT_NE(problems->text().toStdString().find("is not valid JSON"), std::string::npos);
             k.chosenFolder = k.home.path();
             k.korvane->window().findChild<QPushButton*>("addFolderButton")->click();
         },
         "Korvane never overwrites it"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        KorvaneHome k;
        const std::string before = c.preferences;
        if (!before.empty())
            writeFile(k.preferencesFile, before);
        k.korvane->preferences().reload();
        c.act(k);
        if (*c.message) {
            EXPECT_NE(k.message().find(c.message), std::string::npos) << k.message();
            // Nothing written: the file is byte for byte what it was.
            EXPECT_EQ(readFile(k.preferencesFile), before);
        }
    }
}

} // namespace
} // namespace kvtest

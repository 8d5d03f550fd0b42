// Scan runs with a real clamd and real clamdscan (or a client of the test's
// own where the output itself is the subject): what they log, what they tell
// the user in each handling mode, what they move, and what they refuse to
// believe.

#include "platform/QuarantineRecords.h"
#include "platform/ScanLogFile.h"
#include "scan/OnDemandScan.h"
#include "scan/ExclusionPatterns.h"
#include "platform/TrashInfo.h"
#include "tests/support/ScanSupport.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <QJsonArray>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace {

class Scanning : public kvtest::ScanTest {
protected:
    // A client of the test's own in place of clamdscan: a shell script.
    void useClient(const std::string& script)
    {
        std::filesystem::create_directories(home_ / "fake/bin");
        kvtest::writeFile(home_ / "fake/bin/clamdscan", "#!/bin/sh\n" + script, 0755);
        kvtest::FakePreferences prefs;
        prefs.own = preferences_;
        scanner_.configure(kv::Settings::load(prefs), home_ / "fake", home_.path() + "/");
    }
    // The folders a start of watching makes for the moves are there.
    void configure(const QJsonObject& preferences = {})
    {
        preferences_ = preferences;
        std::string quarantine = preferences.value("QuarantineFolder").toString().toStdString();
        if (quarantine.starts_with("~/"))
            quarantine = home_ / quarantine.substr(2);
        if (!quarantine.empty())
            std::filesystem::create_directories(quarantine);
        ASSERT_TRUE(kv::ensureTrashFolders());
        ScanTest::configure(preferences);
    }
    static std::vector<kv::QuarantineRecord> records()
    {
        std::string error;
        return kv::QuarantineRecords().current(&error);
    }
    size_t told(const std::string& what) const
    {
        const std::vector<std::string> all = host_.told();
        return std::count(all.begin(), all.end(), what);
    }

    QJsonObject preferences_;
};

const QJsonObject kQuarantine{{"VelgarQuarantineFiles", true}, {"QuarantineFolder", "~/Quarantine"}};

// A prefix without its clamdscan tells the user there is no engine, and the
// busy count comes back down.
TEST_F(Scanning, AMissingClientIsNoEngine)
{
    configure();
    std::filesystem::rename(engine_->path() + "/bin/clamdscan", engine_->path() + "/bin/clamdscan.away");
    scan({file("other.txt", "y")});
    std::filesystem::rename(engine_->path() + "/bin/clamdscan.away", engine_->path() + "/bin/clamdscan");
    EXPECT_EQ(told("panic"), 1u);
    EXPECT_EQ(scanner_.activity.scannerCount(), 0);
}

TEST_F(Scanning, PlantedLinkAtTheListFileIsNeverFollowed)
{
    configure();
    const std::string victim = home_ / "victim";
    kvtest::writeFile(victim, "precious\n");
    std::filesystem::create_symlink(victim, home_ / "KorvaneVelgarScanList_firstPatientScanner.txt");
    const std::string clean = file("clean.txt", "fine\n");
    const std::string log = scan({clean});
    EXPECT_EQ(kvtest::readFile(victim), "precious\n");
    EXPECT_NE(log.find(clean + ": OK"), std::string::npos) << log;
}

TEST_F(Scanning, AbortKillsOnlyTheAgentsOwnClients)
{
    // Both scripts are written before the scanner starts programs of its
    // own: a program started while a script is open for writing holds it
    // open, and the script cannot run (ETXTBSY).
    useClient("touch " + (home_ / "started") + "\nexec sleep 60\n");
    kvtest::writeFile(home_ / "bystander.sh", "#!/bin/sh\nexec sleep 60\n", 0755);
    std::optional<kv::ChildProcess> bystander =
        kv::ChildProcess::spawn({home_ / "bystander.sh"}, kv::ChildProcess::Output::Null);
    ASSERT_TRUE(bystander);

    std::thread worker([&] { scan({file("a.txt", "a")}); });
    ASSERT_TRUE(kvtest::waitFor([&] { return kvtest::exists(home_ / "started"); }, 10000));
    scanner_.clients.killAll();
    worker.join();
    EXPECT_EQ(scanner_.activity.scannerCount(), 0);
    EXPECT_TRUE(bystander->running()) << "a scan the user runs by hand goes on";
    ::kill(bystander->pid(), SIGKILL);
}

TEST_F(Scanning, FaultInARunIsReportedAndTheCountRestored)
{
    configure();
    host_.alerts.warningThrows = "disk on fire";
    scan({file("x.com", kvtest::eicar())});
    EXPECT_TRUE(log_.contains("Scanner: Caught"));
    EXPECT_TRUE(log_.contains("disk on fire"));
    for (int v = 1; v <= 9; ++v)
        EXPECT_TRUE(log_.contains("Scanner v" + std::to_string(v) + " of 9: ")) << v;
    EXPECT_EQ(scanner_.activity.scannerCount(), 0);
}

TEST_F(Scanning, FindingsTellTheUserByModeOnceForTheSameUnchangedFile)
{
    struct ModeCase {
        const char* name;
        QJsonObject preferences;
        bool loads;
        std::vector<std::string> dialogs;
        std::vector<std::string> told;  // notification kinds: 1 found, 2 quarantined, 3 removed
    };
    const std::vector<ModeCase> cases = {
        {"quarantine", kQuarantine, true, {"Quarantined"}, {"2"}},
        {"quarantine, dialogs suppressed", {{"VelgarQuarantineFiles", true}, {"QuarantineFolder", "~/Quarantine"},
                                            {"SuppressInfoDialogs", true}}, true, {}, {"2"}},
        {"quarantine, dialog file broken", kQuarantine, false, {}, {"2"}},
        {"in place, suppression does not apply", {{"SuppressInfoDialogs", true}}, true, {"Warning"}, {"1"}},
        {"in place, dialog file broken", {}, false, {}, {}},
        {"Trash", {{"VelgarTrashFiles", true}}, true, {}, {"3"}},
    };
    int written = 0;
    for (const ModeCase& c : cases) {
        configure(c.preferences);
        host_.alerts.loads = c.loads;
        const size_t dialogsBefore = host_.alerts.shown().size();
        const size_t toldBefore = host_.told().size();
        const size_t nibErrorsBefore = log_.count("Error loading Nib for document!");
        const std::string path = file(std::to_string(++written) + ".com", kvtest::eicar());
        scan({path});
        std::vector<std::string> dialogs, told;
        for (size_t i = dialogsBefore; i < host_.alerts.shown().size(); ++i)
            dialogs.push_back(host_.alerts.shown()[i]);
        for (size_t i = toldBefore; i < host_.told().size(); ++i)
            told.push_back(host_.told()[i].substr(0, 1));
        EXPECT_EQ(dialogs, c.dialogs) << c.name;
        EXPECT_EQ(told, c.told) << c.name;
        EXPECT_EQ(log_.count("Error loading Nib for document!") - nibErrorsBefore, c.loads ? 0u : 1u) << c.name;
    }

    // Warned about once: delivered again unchanged, it is logged, not told.
    configure();
    host_.alerts.loads = true;
    const std::string twice = file("twice.com", kvtest::eicar());
    scan({twice});
    const size_t dialogs = host_.alerts.shown().size();
    EXPECT_NE(scan({twice}).find(twice + ": Eicar-Test-Signature.UNOFFICIAL FOUND"), std::string::npos);
    EXPECT_EQ(host_.alerts.shown().size(), dialogs);
}

// A name can spell clamdscan's lines (a queued file swapped for a folder
// whose files are named like results). A finding counts only when the file
// itself, where it is now, is found infected again by descriptor.
TEST_F(Scanning, ForgedFindingsAndMovesActOnNothing)
{
    const std::string quarantine = home_ / "Quarantine";
    std::filesystem::create_directories(quarantine);
    kvtest::writeFile(quarantine + "/earlier.com", kvtest::eicar());
    std::filesystem::create_directories(home_ / "aside");
    struct Case {
        const char* name;
        std::string before;  // what the client does to the file first ($P)
        std::string movedTo;
    };
    const std::vector<Case> cases = {
        {"the file is gone, moved to a neighbour's folder", "rm \"$P\"", "/home/neighbour/x.com"},
        {"a folder where the file was", "rm \"$P\" && mkdir \"$P\"", ""},
        {"moved to a quarantined file that is another one", "mv \"$P\" " + (home_ / "aside/"), quarantine + "/earlier.com"},
    };
    int written = 0;
    for (const Case& c : cases) {
        const std::string path = file("forged" + std::to_string(++written) + ".com", "harmless\n");
        std::string lines = "$P: Eicar-Test-Signature FOUND\\n";
        if (!c.movedTo.empty())
            lines += "$P: moved to '" + c.movedTo + "'\\n";
        preferences_ = kQuarantine;
        useClient("P='" + path + "'\n" + c.before + "\nprintf \"" + lines + "\"\n");
        const size_t told = host_.told().size();
        const std::string log = scan({path});
        EXPECT_EQ(host_.told().size(), told) << c.name;
        EXPECT_NE(log.find("Unexpected scanner output: " + path + ": Eicar-Test-Signature FOUND"), std::string::npos)
            << c.name << "\n" << log;
        EXPECT_TRUE(records().empty()) << c.name;
    }

    // The real thing is believed: moved, recorded and told.
    configure(kQuarantine);
    const std::string infected = file("real.com", kvtest::eicar());
    EXPECT_NE(scan({infected}).find(infected + ": moved to '" + quarantine + "/real.com'"), std::string::npos);
    EXPECT_EQ(told("2 " + infected + ": Eicar-Test-Signature.UNOFFICIAL FOUND"), 1u);
}

// The agent records each file it moves away, the ones it moves itself after
// a scan by descriptor (a name with a line break) too.
TEST_F(Scanning, EachMovedFileIsRecordedWithItsSignature)
{
    configure({{"VelgarTrashFiles", true}});
    const std::string path = file("line\nbreak.com", kvtest::eicar());
    const std::string log = scan({path});
    const std::vector<kv::QuarantineRecord> listed = records();
    ASSERT_EQ(listed.size(), 1u) << log;
    EXPECT_EQ(listed[0].originalPath, path);
    EXPECT_EQ(listed[0].storedPath, home_ / "data/Trash/files/line\nbreak.com") << log;
    EXPECT_EQ(listed[0].signature, "Eicar-Test-Signature.UNOFFICIAL");
    EXPECT_EQ(listed[0].place, kv::QuarantineRecord::Place::Trash);
    EXPECT_EQ(kvtest::readFile(listed[0].storedPath), kvtest::eicar());
}

// An index that cannot be written costs one log line a run, and no move.
TEST_F(Scanning, AnIndexThatCannotBeWrittenNeverStopsTheMove)
{
    std::filesystem::create_directories(home_ / "watched");
    std::filesystem::create_directories(home_ / "data/korvane");
    std::filesystem::create_symlink(home_ / "elsewhere", kv::QuarantineRecords::defaultIndexPath());
    configure({{"VelgarQuarantineFiles", true}, {"QuarantineFolder", QString::fromStdString(home_ / "Q")}});
    std::vector<std::string> paths;
    for (const char* name : {"a.com", "b.com"}) {
        paths.push_back(home_ / ("watched/" + std::string(name)));
        kvtest::writeFile(paths.back(), kvtest::eicar());
    }
    scan(paths);
    EXPECT_EQ(log_.count("in the quarantine index"), 1u);
    EXPECT_TRUE(log_.contains("is a symbolic link"));
    EXPECT_EQ(kvtest::readFile(home_ / "Q/a.com"), kvtest::eicar());
    EXPECT_EQ(kvtest::readFile(home_ / "Q/b.com"), kvtest::eicar());
    EXPECT_FALSE(kvtest::exists(home_ / "elsewhere"));
}

TEST_F(Scanning, UnchangedCleanFileIsNotScannedAgainUntilItChanges)
{
    configure();
    const std::string clean = file("clean.txt", "fine\n");
    const std::string ok = clean + ": OK";
    EXPECT_NE(scan({clean}).find(ok), std::string::npos);
    EXPECT_EQ(scan({clean}).find(ok), std::string::npos) << "sent to the engine again unchanged";
    kvtest::writeFile(clean, "changed\n");
    EXPECT_NE(scan({clean}).find(ok), std::string::npos) << "changed, and not scanned again";
    ::chmod(clean.c_str(), 0600);
    EXPECT_NE(scan({clean}).find(ok), std::string::npos) << "its inode changed, and not scanned again";
    EXPECT_EQ(scan({clean}).find(ok), std::string::npos) << "sent to the engine again unchanged";
    // New definitions: a signature file more in the engine's folder.
    const std::string added = engine_->path() + "/db/added.ndb";
    kvtest::writeFile(added, "Korvane.Test.Added:0:*:6b6f7276616e652d61646465640a\n");
    scanner_.definitions.forget();
    const std::string afterUpdate = scan({clean});
    std::filesystem::remove(added);
    EXPECT_NE(afterUpdate.find(ok), std::string::npos) << "new definitions, and not scanned again";
}

TEST_F(Scanning, CleanVerdictsAreSharedWithScansOnDemand)
{
    configure();
    const std::string byAgent = file("agent.txt", "found clean by the agent\n");
    EXPECT_NE(scan({byAgent}).find(byAgent + ": OK"), std::string::npos);
    const std::string byHand = file("hand.txt", "found clean on demand\n");
    const kv::ScanLogFile log(home_ / "scan.log");
    kv::OnDemandScan onDemand({host_.clamd(), scanner_.definitions, scanner_.knownClean, log});
    kv::OnDemandScan::Request request;
    request.paths = {home_ / "watched"};
    const kv::OnDemandSummary summary = onDemand.run(request);
    EXPECT_EQ(summary.unchanged, 1u);
    EXPECT_EQ(summary.scanned, 1u);
    EXPECT_EQ(scan({byHand}).find(byHand + ": OK"), std::string::npos) << "a file found clean on demand, sent again";
}

// A neighbour who can write a folder of the tree swaps it, once listed,
// for a link to a folder outside holding the EICAR test file: the scan
// goes on in the folder it listed. A file a hundred folders down is
// reached all the same.
TEST_F(Scanning, AScanOnDemandStaysInItsTreeWhenAListedFolderBecomesALink)
{
    configure();
    const std::string tree = home_ / "tree";
    kvtest::writeFile(tree + "/a/b/clean.txt", "clean\n");
    std::string deep = tree;
    for (int level = 0; level < 100; ++level)
        deep += "/d";
    kvtest::writeFile(deep + "/deep.txt", "deep\n");
    ASSERT_EQ(::mkfifo((tree + "/a/fifo").c_str(), 0600), 0);
    kvtest::writeFile(home_ / "outside/b/eicar.com", kvtest::eicar());
    const kv::ScanLogFile log(home_ / "scan.log");
    kv::OnDemandScan onDemand({host_.clamd(), scanner_.definitions, scanner_.knownClean, log});
    kv::OnDemandScan::Request request;
    request.paths = {tree};
    kv::OnDemandScan::Observer observer;
    // The FIFO is told while a is listed, before b is opened.
    observer.item = [&](const kv::OnDemandItem& item) {
        if (item.path == tree + "/a/fifo") {
            std::filesystem::rename(tree + "/a", tree + "/a.listed");
            std::filesystem::create_directory_symlink(home_ / "outside", tree + "/a");
        }
    };
    const kv::OnDemandSummary summary = onDemand.run(request, observer);
    EXPECT_EQ(summary.infected, 0u) << "the scan left its tree through the link";
    EXPECT_EQ(summary.scanned, 2u) << "the folder listed, or the deep one, was not scanned";
}

TEST_F(Scanning, AStopEndsAScanOnDemandWhileTheEngineHoldsAFile)
{
    configure();
    const std::string held = file("held.txt", "waits for its verdict\n");
    ASSERT_TRUE(scanner_.definitions.current()) << "asked while the engine answers";
    const int opens = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ::inotify_add_watch(opens, held.c_str(), IN_OPEN);
    const kv::ScanLogFile log(home_ / "scan.log");
    kv::OnDemandScan onDemand({host_.clamd(), scanner_.definitions, scanner_.knownClean, log});
    kv::OnDemandScan::Request request;
    request.paths = {held};
    ::kill(engine_->daemonPid(), SIGSTOP);
    std::atomic<bool> returned{false};
    kv::OnDemandSummary summary;
    std::thread scanning([&] {
        summary = onDemand.run(request);
        returned = true;
    });
    char event[sizeof(inotify_event) + 256];
    EXPECT_TRUE(kvtest::waitFor([&] { return ::read(opens, event, sizeof event) > 0; }, 10000));
    onDemand.stop();
    const bool promptly = kvtest::waitFor([&] { return returned.load(); }, 3000);
    ::kill(engine_->daemonPid(), SIGCONT);
    scanning.join();
    ::close(opens);
    EXPECT_TRUE(promptly) << "the stop waited for the engine's verdict";
    EXPECT_TRUE(summary.stopped);
    EXPECT_EQ(summary.scanned, 0u);
}

TEST(ScanActivity, TheIndicatorWakesForEachBusySpellAndForItsStop)
{
    kv::ScanActivity activity;
    std::atomic<bool> stop{false};
    std::atomic<int> wakes{0};
    std::thread indicator([&] {
        while (activity.waitUntilBusy(stop)) {
            ++wakes;
            while (activity.scannerCount() > 0 && !stop)
                std::this_thread::yield();
        }
    });
    {
        const kv::ScanActivity::Busy update(activity, kv::ScanActivity::Kind::Update);
        EXPECT_TRUE(activity.updating());
        ASSERT_TRUE(kvtest::waitFor([&] { return wakes == 1; }, 10000));
    }
    EXPECT_FALSE(activity.updating());
    stop = true;
    activity.wakeWaiters();
    indicator.join();
    EXPECT_EQ(activity.scannerCount(), 0);
}

TEST(ExclusionPatterns, PlainAndRegularExpressionRecords)
{
    kvtest::ScopedEnv home("HOME", std::string("/home/h"));
    const auto record = [](const char* pattern, bool regex, QJsonValue enabled = true) {
        QJsonObject r{{"excludePattern", pattern}, {"excludeRegEx", regex}};
        if (!enabled.isUndefined())
            r["excludeEnabled"] = enabled;
        return r;
    };
    struct Case {
        const char* name;
        QJsonObject record;
        const char* path;
        bool excluded;
    };
    const std::vector<Case> cases = {
        {"tilde folder", record("~/Private", false), "/home/h/Private/a/b.txt", true},
        {"tilde folder elsewhere in a path", record("~/Private", false), "/mnt/x/home/h/Private/c", true},
        {"dot is literal", record("a.b", false), "/x/aXb", false},
        {"dot matches a dot", record("a.b", false), "/x/a.b", true},
        {"star is literal", record("*.exe", false), "/x/setup.exe", false},
        {"braces reach the compiler", record("ab{2}", false), "/x/abb", true},
        {"caret anchors at the last component", record("^setup", true), "/down/loads/setup.exe", true},
        {"caret does not match mid-name", record("^setup", true), "/down/mysetup.exe", false},
        {"dollar misses a later end", record("\\.iso$", true), "/down/disk.iso.part", false},
        {"disabled record", record("Private", false, false), "/Private/x", false},
        {"record without the enabled key", record("Private", false, QJsonValue::Undefined), "/Private/x", false},
        {"case-sensitive", record("SECRET", false), "/home/h/secret/x", false},
        {"expression that does not compile", record("(", true), "/(/x", false},
    };
    for (const Case& c : cases) {
        const std::vector<std::string> patterns = kv::buildExcludePatterns(QJsonArray{c.record});
        bool excluded = false;
        for (const std::string& pattern : patterns)
            excluded = excluded || kv::search(c.path, pattern);
        EXPECT_EQ(excluded, c.excluded) << c.name;
    }
}

} // namespace

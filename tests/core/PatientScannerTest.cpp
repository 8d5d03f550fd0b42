// Scan runs with a real clamd and real clamdscan, and the handling of their
// output: log lines, alerts by handling mode, recovery of a lost daemon.

#include "app/KorvaneVelgar.h"
#include "scan/ExclusionPatterns.h"
#include "tests/support/TestSupport.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QJsonArray>

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <thread>

namespace {

class Scanning : public kvtest::AgentTest {
protected:
    void SetUp() override { std::filesystem::create_directories(home_ / "watched"); }
    void start(const QJsonObject& preferences = {}) { startWatching(preferences); }

    std::string file(const std::string& name, const std::string& contents)
    {
        const std::string path = home_ / ("watched/" + name);
        kvtest::writeFile(path, contents);
        return path;
    }
};

const std::regex kStampedLine(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d .+$)");

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        lines.push_back(text.substr(start, end - start));
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return lines;
}

TEST_F(Scanning, ExcludedBatchAndMissingProgram)
{
    start({{"ExcludePatterns",
            QJsonArray{QJsonObject{{"excludeEnabled", true}, {"excludePattern", QString::fromStdString(home_ / "watched")}}}}});
    const std::string excluded = file("skip.txt", "x");
    const std::string log = scan({excluded});
    EXPECT_TRUE(log.empty()) << log;
    EXPECT_FALSE(kvtest::exists(controller_->firstPatientScanner().listFilePath())) << "no list file is written";
    EXPECT_EQ(controller_->scannerCount(), 0);

    // A prefix without its clamdscan: the no-engine alert, and the count
    // comes back down.
    std::filesystem::rename(engine_->path() + "/bin/clamdscan", engine_->path() + "/bin/clamdscan.away");
    controller_->restartWatcher();
    const std::string other = home_ / "other.txt";
    kvtest::writeFile(other, "y");
    scan({other});
    std::filesystem::rename(engine_->path() + "/bin/clamdscan.away", engine_->path() + "/bin/clamdscan");
    EXPECT_EQ(controller_->scannerCount(), 0);
    ASSERT_FALSE(notifier_.sent().empty());
    EXPECT_EQ(notifier_.sent().back().name, "Error");
    EXPECT_FALSE(panels_.shown().empty());
}

TEST_F(Scanning, PlantedLinkAtTheListFileIsNeverFollowed)
{
    start();
    const std::string victim = home_ / "victim";
    kvtest::writeFile(victim, "precious\n");
    const std::string listPath = controller_->firstPatientScanner().listFilePath();
    std::filesystem::create_symlink(victim, listPath);
    const std::string clean = file("clean.txt", "fine\n");
    const std::string log = scan({clean});
    EXPECT_EQ(kvtest::readFile(victim), "precious\n");
    EXPECT_NE(log.find(clean + ": OK"), std::string::npos) << log;
}

TEST_F(Scanning, AbortKillsOnlyTheAgentsOwnClients)
{
    // Both scripts are written before the agent's threads start programs of
    // their own: a program started while a script is open for writing holds
    // it open, and the script cannot run (ETXTBSY).
    const std::string fake = home_ / "slowscan";
    kvtest::writeFile(fake, "#!/bin/sh\nexec sleep 60\n", 0755);
    kvtest::writeFile(home_ / "bystander.sh", "#!/bin/sh\nexec sleep 60\n", 0755);
    start();
    controller_->firstPatientScanner().setMenuAndParams(kv::ScanParameters{{fake}, controller_->settings()});
    std::optional<kv::ChildProcess> bystander =
        kv::ChildProcess::spawn({home_ / "bystander.sh"}, kv::ChildProcess::Output::Null);
    ASSERT_TRUE(bystander);

    std::thread worker([&] { scan({file("a.txt", "a")}); });
    ASSERT_TRUE(kvtest::waitFor([&] { return controller_->firstPatientScanner().runningClientPid() > 0; }, 10000));
    controller_->abortScans();
    worker.join();
    EXPECT_EQ(controller_->scannerCount(), 0);
    EXPECT_TRUE(bystander->running()) << "a scan the user runs by hand goes on";
    ::kill(bystander->pid(), SIGKILL);
}

TEST_F(Scanning, FaultInARunIsReportedAndTheCountRestored)
{
    start();
    kv::PatientScanner::faultInjectionForTesting = [] { throw std::runtime_error("disk on fire"); };
    kvtest::LogCapture capture;
    scan({file("x.txt", "x")});
    kv::PatientScanner::faultInjectionForTesting = nullptr;
    EXPECT_TRUE(capture.contains("Scanner: Caught"));
    EXPECT_TRUE(capture.contains("disk on fire"));
    for (int v = 1; v <= 9; ++v)
        EXPECT_TRUE(capture.contains("Scanner v" + std::to_string(v) + " of 9: ")) << v;
    EXPECT_EQ(controller_->scannerCount(), 0);
}

// The same unchanged file reported twice warns once; changed, it warns again.
TEST_F(Scanning, OneFindingOneWarning)
{
    start();
    const std::string path = file("twice.com", kvtest::eicar());
    scan({path});
    scan({path});
    EXPECT_EQ(alerts_.shown().size(), 1u);
    EXPECT_EQ(notifier_.sent().size(), 1u);
    kvtest::writeFile(path, kvtest::eicar() + "changed");
    scan({path});
    EXPECT_EQ(alerts_.shown().size(), 2u);
    EXPECT_EQ(notifier_.sent().size(), 2u);
}

// A silent engine is logged at every run but told (dialog and notification)
// once, until a run reaches it again; then the next silence is told again.
TEST_F(Scanning, SilentEngineIsToldOnceUntilItAnswersAgain)
{
    start();
    // The agent cannot bring its daemon back: the program is away, except
    // while the test starts it itself.
    const std::string clamd = engine_->path() + "/sbin/clamd";
    const auto daemonRuns = [&](bool runs) {
        if (!runs) {
            engine_->stopDaemon();
            return true;
        }
        std::filesystem::rename(clamd + ".away", clamd);
        const bool started = engine_->startDaemon();
        std::filesystem::rename(clamd, clamd + ".away");
        return started;
    };
    std::filesystem::rename(clamd, clamd + ".away");
    struct Step {
        bool engineRuns;
        int runs;
        size_t toldInAll;
    };
    const Step steps[] = {{false, 2, 1}, {true, 1, 1}, {false, 2, 2}};
    int written = 0;
    for (const Step& step : steps) {
        ASSERT_TRUE(daemonRuns(step.engineRuns));
        for (int run = 0; run < step.runs; ++run)
            scan({file(std::to_string(++written) + ".com", kvtest::eicar())});
        const std::vector<kvtest::RecordingAlerts::Shown> shown = alerts_.shown();
        EXPECT_EQ(std::count_if(shown.begin(), shown.end(), [](const auto& s) { return s.dialog == "EngineUnreachable"; }),
                  step.toldInAll);
        const std::vector<kv::DesktopNotification> sent = notifier_.sent();
        EXPECT_EQ(std::count_if(sent.begin(), sent.end(), [](const auto& n) { return n.description == "CLAMDSCAN_ERROR"; }),
                  step.toldInAll);
    }
    const std::vector<std::string> logged = log_.lines();
    // A batch whose daemon was relaunched is run again: two silent runs each.
    EXPECT_GE(std::count_if(logged.begin(), logged.end(),
                            [](const std::string& line) { return line.ends_with("] can't connect to clamd\n"); }),
              4)
        << "every silent run is logged";
    std::filesystem::rename(clamd + ".away", clamd);
    ASSERT_TRUE(engine_->startDaemon());
}

// Output handling, chunk by chunk, with the worker configured in each mode.
class OutputHandling : public Scanning {};

struct OutputCase {
    const char* name;
    std::vector<std::string> chunks;
    std::vector<std::string> loggedTexts;  // what follows the stamp, in order
    size_t alerts;
};

TEST_F(OutputHandling, ChunksBecomeLinesAndAlerts)
{
    start();
    kv::PatientScanner& scanner = controller_->firstPatientScanner();
    scanner.takeConfigurationForRun();
    for (const char* asked : {"/a", "/long/path", "/1", "/2", "/3", "/4: E FOUND", "/odd\xff", "/x"})
        scanner.askedPaths().insert(asked);
    const std::vector<OutputCase> cases = {
        {"one line", {"/a: OK\n"}, {"/a: OK"}, 0},
        {"a line split between reads is one line", {"/long/pa", "th: OK\n"}, {"/long/path: OK"}, 0},
        {"cut inside a multi-byte character", {"/caf\xc3", "\xa9: OK\n"}, {"/caf\xc3\xa9: OK"}, 0},
        {"a line that is not UTF-8 hides no other", {"/odd\xff: E FOUND\n/3: E FOUND\n"},
         {"/odd\\xff: E FOUND", "/3: E FOUND"}, 2},
        {"short lines", {"a\nab\nabcde\n\n-----\nTime:\n"}, {"a", "ab", "abcde", "-----", "Time:"}, 0},
        {"summary skipped",
         {"\n----------- SCAN SUMMARY -----------\nInfected files: 1\nTotal errors: 1\nTime: 0.1 sec\n"
          "Start Date: 2026:11:23 18:52:10\nEnd Date:   2026:11:23 18:52:10\n"},
         {},
         0},
        {"FOUND not at the end", {"/x: FOUND it OK\n"}, {"/x: FOUND it OK"}, 0},
        {"three findings in one chunk",
         {"/1: E.UNOFFICIAL FOUND\n/2: E.UNOFFICIAL FOUND\n/4: E FOUND: E.UNOFFICIAL FOUND\n"},
         {"/1: E.UNOFFICIAL FOUND", "/2: E.UNOFFICIAL FOUND", "/4: E FOUND: E.UNOFFICIAL FOUND"},
         3},
        {"a finding for a path not asked about only logged",
         {"/elsewhere: E.UNOFFICIAL FOUND\n/a: E FOUND: OK\n"},
         {"Unexpected scanner output: /elsewhere: E.UNOFFICIAL FOUND", "/a: E FOUND: OK"},
         0},
        {"a move of a file not found only logged", {"/a: moved to '/t/files/a'\n"},
         {"Unexpected scanner output: /a: moved to '/t/files/a'"}, 0},
        {"control characters escaped", {"/b\r\t\\: OK\n"}, {"/b\\r\\t\\\\: OK"}, 0},
        {"warning with trailing text is an ordinary line",
         {"WARNING: Can't connect to clamd. Retrying\n"},
         {"WARNING: Can't connect to clamd. Retrying"},
         0},
    };
    for (const OutputCase& c : cases) {
        const size_t alertsBefore = alerts_.shown().size();
        const std::string log = kvtest::captureStandardStreams([&] {
            for (const std::string& chunk : c.chunks)
                scanner.dealWithOutput(chunk);
            scanner.finishOutput();
        });
        std::vector<std::string> texts;
        for (const std::string& line : linesOf(log)) {
            ASSERT_TRUE(std::regex_match(line, kStampedLine)) << c.name << ": " << line;
            texts.push_back(line.substr(20));
        }
        EXPECT_EQ(texts, c.loggedTexts) << c.name;
        EXPECT_EQ(alerts_.shown().size() - alertsBefore, c.alerts) << c.name;
    }
}

TEST_F(OutputHandling, LostDaemonLinesStartOneRecoveryPerRun)
{
    start();
    kv::PatientScanner& scanner = controller_->firstPatientScanner();
    scanner.takeConfigurationForRun();
    const std::string log = kvtest::captureStandardStreams([&] {
        scanner.dealWithOutput("WARNING: Can't connect to clamd.\n");
        scanner.dealWithOutput("ERROR: Could not connect to clamd on LocalSocket /s: No such file\n"
                               "ERROR: Could not connect to clamd on LocalSocket /s: No such file\n");
    });
    // The relaunched daemon's own complaints (one already runs) land in the
    // log as well; the agent's lines are the stamped ones.
    std::vector<std::string> lines;
    for (const std::string& line : linesOf(log)) {
        if (std::regex_match(line, kStampedLine))
            lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 3u) << log;
    EXPECT_NE(lines[0].find(" clamd appears to have died - attempting restart..."), std::string::npos);
    EXPECT_NE(lines[1].find(" clamd appears to have died - attempting restart..."), std::string::npos);
    EXPECT_NE(lines[2].find(" ERROR: Could not connect to clamd on LocalSocket /s"), std::string::npos);
}

TEST_F(OutputHandling, DialogsByModeAndSwitch)
{
    const std::string line = "/q/e.com: Eicar-Test-Signature.UNOFFICIAL FOUND";
    struct ModeCase {
        const char* name;
        QJsonObject preferences;
        bool loads;
        std::vector<std::string> dialogs;
        std::vector<std::string> notifications;
    };
    const std::vector<ModeCase> cases = {
        {"quarantine", {{"VelgarQuarantineFiles", true}}, true, {"Quarantined"}, {"QUARANTINED"}},
        {"quarantine, dialogs suppressed", {{"VelgarQuarantineFiles", true}, {"SuppressInfoDialogs", true}}, true, {},
         {"QUARANTINED"}},
        {"quarantine, dialog file broken", {{"VelgarQuarantineFiles", true}}, false, {}, {"QUARANTINED"}},
        {"in place, suppression does not apply", {{"SuppressInfoDialogs", true}}, true, {"Warning"}, {"FOUND"}},
        {"in place, dialog file broken", {}, false, {}, {}},
    };
    for (const ModeCase& c : cases) {
        alerts_.loads = c.loads;
        start(c.preferences);
        const size_t dialogsBefore = alerts_.shown().size();
        const size_t notificationsBefore = notifier_.sent().size();
        kvtest::LogCapture capture;
        controller_->firstPatientScanner().takeConfigurationForRun();
        controller_->firstPatientScanner().askedPaths().insert("/q/e.com");
        kvtest::captureStandardStreams([&] { controller_->firstPatientScanner().dealWithOutput(line + "\n"); });
        std::vector<std::string> dialogs, notifications;
        for (size_t i = dialogsBefore; i < alerts_.shown().size(); ++i)
            dialogs.push_back(alerts_.shown()[i].dialog);
        for (size_t i = notificationsBefore; i < notifier_.sent().size(); ++i)
            notifications.push_back(notifier_.sent()[i].name);
        EXPECT_EQ(dialogs, c.dialogs) << c.name;
        EXPECT_EQ(notifications, c.notifications) << c.name;
        EXPECT_EQ(capture.contains("Error loading Nib for document!"), !c.loads) << c.name;
    }
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
        {"question mark is literal", record("file?.txt", false), "/x/file1.txt", false},
        {"braces reach the compiler", record("ab{2}", false), "/x/abb", true},
        {"closing bracket unescaped", record("x]", false), "/x]/y", true},
        {"caret anchors at the last component", record("^setup", true), "/down/loads/setup.exe", true},
        {"caret does not match mid-name", record("^setup", true), "/down/mysetup.exe", false},
        {"dollar anchors the end", record("\\.iso$", true), "/down/disk.iso", true},
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
    EXPECT_EQ(kv::escapePlainPattern("\\[^$.|?*+()]{}"), "\\\\\\[\\^\\$\\.\\|\\?\\*\\+\\(\\)]{}");
}

} // namespace

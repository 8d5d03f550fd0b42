#include "VelgarctlHarness.h"
#include "engine/ClamdConfig.h"
#include "engine/ClamdCtrl.h"
#include "platform/ChildProcess.h"
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <sstream>

namespace kvtest {
namespace {


// The value the clamd configuration file at PATH gives OPTION, as clamd
// reads it.
std::string configValue(const std::string& path, const std::string& option)
{
    const std::vector<std::string> values = kv::clamdOptionValues(readFile(path), option);
    return values.empty() ? "" : values.back();
}

// The socket of the system's clamd service when it runs and answers, as
// velgarctl setup would find it.
std::optional<std::string> systemService()
{
    const std::optional<std::string> socket = kv::lastLocalSocket(kv::readClamdConfig("/etc/clamav/clamd.conf").text);
    return socket && kv::ClamdCtrl::systemServiceAnswers(*socket) ? socket : std::nullopt;
}

class VelgarctlSetup : public VelgarctlTest {
protected:
    QJsonObject suitePreferences() const
    {
        return QJsonDocument::fromJson(QByteArray::fromStdString(readFile(domainFile("com.korvane.Korvane")))).object();
    }
    void writeSuitePreferences(const QJsonObject& preferences) const
    {
        writeFile(domainFile("com.korvane.Korvane"), QJsonDocument(preferences).toJson().toStdString());
    }
    // velgarctl setup where the system's clamd service is known by CONFIG.
    CommandResult setupBesideService(const std::string& config, const std::vector<std::string>& arguments) const
    {
        std::vector<std::string> argv = besideServiceConfiguredBy(config);
        argv.insert(argv.end(), {VELGARCTL_PATH, "setup"});
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return runProgram(argv[0], std::vector<std::string>(argv.begin() + 1, argv.end()));
    }
    // A prefix whose database already has definitions: setup skips freshclam.
    std::string prefixWithDefinitions(const std::string& name = "engine") const
    {
        const std::string prefix = home() + "/" + name;
        installTestDefinitions(prefix);
        return prefix;
    }
};

TEST_F(VelgarctlSetup, OfflineSetupBuildsPrefixWithTestDefinitionsAndRunsAgainQuietly)
{
    // Downloads fail the same way on machines that do have a network.
    ::setenv("http_proxy", "http://127.0.0.1:9", 1);
    ::setenv("https_proxy", "http://127.0.0.1:9", 1);
    writeSuitePreferences({{"SomeOtherKey", 5}, {"PathToUpdateLog", "/elsewhere/update.log"}});

    // A daemon of the user's own, whether or not the system's service runs.
    const CommandResult first = runVelgarctl({"setup", "--own-engine"}, 90000);
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_NE(first.out.find("will only detect the EICAR test file until real definitions are downloaded"),
              std::string::npos) << first.out;

    const std::string prefix = home() + "/.local/share/korvane/clamav";
    EXPECT_EQ(QFile::symLinkTarget(QString::fromStdString(prefix + "/sbin/clamd")), "/usr/sbin/clamd");
    for (const std::string program : {"clamdscan", "freshclam"}) {
        const std::string config = prefix + "/etc/" + (program == "clamdscan" ? "clamd" : program) + ".conf";
        EXPECT_EQ(readFile(prefix + "/bin/" + program), "#!/bin/sh\nexec /usr/bin/" + program + " --config-file=" + config + " \"$@\"\n");
        EXPECT_EQ(QFile::permissions(QString::fromStdString(prefix + "/bin/" + program)) & 0x0777, 0x0755);
    }
    const std::string clamdConfig = prefix + "/etc/clamd.conf";
    EXPECT_LE(configValue(clamdConfig, "LocalSocket").size(), 104u);
    EXPECT_FALSE(configValue(clamdConfig, "LocalSocket").empty());
    EXPECT_EQ(configValue(clamdConfig, "DatabaseDirectory"), prefix + "/db");
    EXPECT_EQ(configValue(clamdConfig, "User"), "");
    EXPECT_FALSE(readFile(prefix + "/db/korvane-test.ndb").empty());

    const QJsonObject preferences = suitePreferences();
    EXPECT_EQ(preferences.value("PathToClamav").toString().toStdString(), prefix);
    EXPECT_EQ(preferences.value("PathToUpdateLog").toString(), "/elsewhere/update.log");
    EXPECT_EQ(preferences.value("SomeOtherKey").toInt(), 5);
    const QJsonArray downloads{QJsonObject{{"pathName", QString::fromStdString(home() + "/Downloads")}, {"WatchSubdirs", true}}};
    EXPECT_EQ(preferences.value("VelgarFolderArray").toArray(), downloads);
    EXPECT_TRUE(QDir(QString::fromStdString(home() + "/Downloads")).exists());

    const auto before = snapshotFiles(home());
    const auto start = std::chrono::steady_clock::now();
    const CommandResult second = runVelgarctl({"setup", "--own-engine"});
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(snapshotFiles(home()), before);
}

TEST_F(VelgarctlSetup, OptionsReplaceTheirKeysAndKeepTheRest)
{
    writeSuitePreferences({{"PathToClamav", "/old/prefix"},
                           {"PathToUpdateLog", "/elsewhere/update.log"},
                           {"VelgarFolderArray", QJsonArray{QJsonObject{{"pathName", "/old"}, {"WatchSubdirs", true}}}}});
    const std::string prefix = prefixWithDefinitions();
    std::filesystem::create_directories(home() + "/a");
    std::filesystem::create_directories(home() + "/b");

    const CommandResult result =
        runVelgarctl({"setup", "--prefix", prefix, "--watch", home() + "/a", "--watch=" + home() + "/b", "--no-subdirs"});
    ASSERT_EQ(result.status, 0) << result.err;

    const QJsonObject preferences = suitePreferences();
    EXPECT_EQ(preferences.value("PathToClamav").toString().toStdString(), prefix);
    EXPECT_EQ(preferences.value("PathToUpdateLog").toString(), "/elsewhere/update.log");
    const QJsonArray expected{QJsonObject{{"pathName", QString::fromStdString(home() + "/a")}, {"WatchSubdirs", false}},
                              QJsonObject{{"pathName", QString::fromStdString(home() + "/b")}, {"WatchSubdirs", false}}};
    EXPECT_EQ(preferences.value("VelgarFolderArray").toArray(), expected);

    // A prefix holding an engine setup did not build is refused untouched.
    const std::string foreign = home() + "/foreign";
    writeFile(foreign + "/bin/clamdscan", "#!/bin/sh\necho a real installation\n");
    const CommandResult refused = runVelgarctl({"setup", "--prefix", foreign});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(snapshotFiles(foreign), (std::map<std::string, std::string>{{"/bin/clamdscan", "#!/bin/sh\necho a real installation\n"}}));
    EXPECT_EQ(suitePreferences(), preferences);
}

TEST_F(VelgarctlSetup, ClamdFromThePrefixFindsTheEicarFileAndASecondPrefixKeepsItsOwn)
{
    const std::string prefix = prefixWithDefinitions();
    ASSERT_EQ(runVelgarctl({"setup", "--prefix", prefix, "--own-engine"}).status, 0);
    const std::string socket = configValue(prefix + "/etc/clamd.conf", "LocalSocket");
    // The project's own child process, not QProcess, which can fail to
    // start a program under the thread sanitizer.
    ASSERT_EQ(kv::runAndWait({prefix + "/sbin/clamd", "-c", prefix + "/etc/clamd.conf"}), 0);
    // Stopped however the test ends, and gone (its socket too) before the
    // next test looks for a daemon.
    const std::shared_ptr<void> stopDaemon(nullptr, [&](void*) {
        const int pid = std::atoi(readFile(prefix + "/run/clamd.pid").c_str());
        if (pid > 0 && ::kill(pid, SIGTERM) == 0)
            waitFor([&] { return !exists(socket); }, 5000);
    });

    // Only the system's service is shared, its files passed open: a daemon
    // that is not (this one runs as the user, from another prefix) never is.
    const std::string second = prefixWithDefinitions("second");
    ::unsetenv("XDG_RUNTIME_DIR");
    ASSERT_EQ(runVelgarctl({"setup", "--prefix", second}).status, 0);
    const std::string secondSocket = configValue(second + "/etc/clamd.conf", "LocalSocket");
    EXPECT_NE(secondSocket, socket);
    const std::optional<std::string> service = systemService();
    if (service) {
        EXPECT_EQ(secondSocket, *service);
    }
    EXPECT_EQ(readFile(second + "/bin/clamdscan").find("--fdpass") != std::string::npos, service.has_value());

    writeFile(home() + "/eicar.com", eicar());
    writeFile(home() + "/clean.txt", "nothing to see\n");
    writeFile(home() + "/list", home() + "/eicar.com\n" + home() + "/clean.txt\n");
    QProcess scan;
    scan.start(QString::fromStdString(prefix + "/bin/clamdscan"), {"--stdout", QString::fromStdString("--file-list=" + home() + "/list")});
    ASSERT_TRUE(scan.waitForFinished(30000));
    const std::string output = scan.readAllStandardOutput().toStdString();
    EXPECT_EQ(scan.exitCode(), 1) << output;
    EXPECT_NE(output.find(home() + "/eicar.com: Eicar-Test-Signature.UNOFFICIAL FOUND\n"), std::string::npos) << output;
    EXPECT_NE(output.find(home() + "/clean.txt: OK\n"), std::string::npos) << output;
}

// A scanning server of another machine, down today: still the one to use.
// (That the agent streams to it and finds what it finds, with a server
// running, is SharedEngine's test.)
TEST_F(VelgarctlSetup, RemoteEngineIsWrittenDownAndKeptByLaterSetups)
{
    const uint16_t port = kvtest::freeTcpPort();
    const std::string address = "127.0.0.1:" + std::to_string(port);
    const std::string prefix = prefixWithDefinitions();

    const CommandResult result = runVelgarctl({"setup", "--prefix", prefix, "--engine", address});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("the clamd at " + address + ", over TCP"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("freshclam"), std::string::npos) << "the server's definitions are its own";
    EXPECT_NE(result.out.find("the clamd at " + address + ", on this machine, over a connection it has checked"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.err.find("velgarctl: warning: the clamd at " + address + " does not answer (" + address +
                              ": Connection refused)"),
              std::string::npos)
        << result.err;
    const std::string config = readFile(prefix + "/etc/clamd.conf");
    EXPECT_EQ(kv::tcpEngineOf(config), (kv::TcpEngine{{"127.0.0.1"}, port})) << config;
    EXPECT_EQ(readFile(prefix + "/bin/clamdscan"),
              "#!/bin/sh\nexec /usr/bin/clamdscan --config-file=" + prefix + "/etc/clamd.conf --stream \"$@\"\n");
    EXPECT_EQ(readFile(prefix + "/etc/freshclam.conf").find("NotifyClamd"), std::string::npos)
        << "an update here never makes the shared server reload";

    // A later setup keeps the server; --own-engine leaves it.
    const auto before = snapshotFiles(home());
    const CommandResult again = runVelgarctl({"setup"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(again.out.find("Keeping the clamd at " + address), std::string::npos) << again.out;
    EXPECT_EQ(snapshotFiles(home()), before);

    ASSERT_EQ(runVelgarctl({"setup", "--own-engine"}).status, 0);
    EXPECT_EQ(kv::tcpEngineOf(readFile(prefix + "/etc/clamd.conf")), std::nullopt);
    EXPECT_EQ(readFile(prefix + "/bin/clamdscan").find("--stream"), std::string::npos);
}

TEST_F(VelgarctlSetup, SystemServiceGetsAStandInThatOwnEngineRemoves)
{
    kvtest::EnginePrefix service({.tcpPort = std::nullopt, .user = "clamav"});
    ASSERT_TRUE(service.startDaemon());
    const std::string prefix = prefixWithDefinitions();
    const CommandResult result = setupBesideService(service.config(), {"--prefix", prefix});
    ASSERT_EQ(result.status, 0) << result.err;
    const std::string standIn = prefix + "/standin";
    EXPECT_NE(result.out.find("The system's clamd service answers at " + service.socket()), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("runs a clamd of your own from " + standIn + " (definitions from " + service.path() + "/db)"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(configValue(prefix + "/etc/clamd.conf", "LocalSocket"), service.socket());
    EXPECT_NE(readFile(prefix + "/bin/clamdscan").find(" --fdpass "), std::string::npos);
    const std::string standInConfig = standIn + "/etc/clamd.conf";
    const std::string standInSocket = home() + "/run/korvane-clamd-standin.ctl";
    EXPECT_EQ(configValue(standInConfig, "LocalSocket"), standInSocket);
    EXPECT_EQ(configValue(standInConfig, "DatabaseDirectory"), service.path() + "/db");
    EXPECT_EQ(QFile::symLinkTarget(QString::fromStdString(standIn + "/sbin/clamd")), "/usr/sbin/clamd");

    // (The agent's tests scan with the stand-in: SharedEngine.) Setup again
    // changes nothing; a service whose definitions the user
    // cannot use leaves the stand-in the prefix's own.
    const auto before = snapshotFiles(prefix);
    EXPECT_EQ(setupBesideService(service.config(), {}).status, 0);
    EXPECT_EQ(snapshotFiles(prefix), before);
    const std::string emptyDatabase = home() + "/service-db";
    std::filesystem::create_directories(emptyDatabase);
    writeFile(home() + "/service.conf", "LocalSocket " + service.socket() + "\nDatabaseDirectory " + emptyDatabase + "\n");
    const std::string second = prefixWithDefinitions("second");
    ASSERT_EQ(setupBesideService(home() + "/service.conf", {"--prefix", second}).status, 0);
    EXPECT_EQ(configValue(second + "/standin/etc/clamd.conf", "DatabaseDirectory"), second + "/db");

    // A daemon of the user's own has nothing to stand in for; the stand-in's
    // log is kept.
    writeFile(standIn + "/log/clamd.log", "what the stand-in said\n");
    ASSERT_EQ(runVelgarctl({"setup", "--prefix", prefix, "--own-engine"}).status, 0);
    for (const char* gone : {"/etc/clamd.conf", "/bin/clamdscan", "/sbin/clamd", "/etc", "/bin"})
        EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(standIn + gone))) << gone;
    EXPECT_TRUE(QFileInfo::exists(QString::fromStdString(standIn + "/log/clamd.log")));
    EXPECT_EQ(configValue(prefix + "/etc/clamd.conf", "LocalSocket"), home() + "/run/korvane-clamd.ctl");
}

// Setup never has the agent run what another user could change, nor reach
// the system's service by a socket path another user could take: such a
// prefix is refused before anything is written, and such a service is not
// used.
TEST_F(VelgarctlSetup, PlacesOtherUsersCouldChangeAreNotUsed)
{
    const std::string shared = home() + "/shared";
    std::filesystem::create_directories(shared);
    ::chmod(shared.c_str(), 0777);
    const CommandResult refused = runVelgarctl({"setup", "--prefix", shared + "/engine"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("the engine folder " + shared + "/engine is refused: " + shared +
                               " may be written by other users"),
              std::string::npos)
        << refused.err;
    EXPECT_FALSE(exists(domainFile("com.korvane.Korvane"))) << "nothing is written";

    kvtest::EnginePrefix service({.tcpPort = std::nullopt, .user = "clamav"});
    ASSERT_TRUE(service.startDaemon());
    ::chmod((service.path() + "/run").c_str(), 0777);
    const std::string prefix = prefixWithDefinitions();
    const CommandResult result = setupBesideService(service.config(), {"--prefix", prefix});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find("the system's clamd service at " + service.socket() + " is not used: " + service.path() +
                              "/run may be written by other users"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(configValue(prefix + "/etc/clamd.conf", "LocalSocket"), home() + "/run/korvane-clamd.ctl");
}

using VelgarctlAutostart = VelgarctlTest;

TEST_F(VelgarctlAutostart, EntryRunsTheAgentBesideVelgarctlAndIsTheOnlyFileChanged)
{
    // velgarctl copied into a folder whose name must be quoted in a desktop
    // entry's Exec line; without the agent beside it nothing is written.
    const TempDir install;
    const std::string bin = install.path() + "/Korvane \"Velgar\" $HOME `id` \\ bin";
    const std::string velgarctl = bin + "/velgarctl", agent = bin + "/korvane-velgar", mark = install / "agent-ran";
    const std::string entry = home() + "/.config/autostart/com.korvane.KorvaneVelgar.desktop";
    std::filesystem::create_directories(bin);
    std::filesystem::copy_file(VELGARCTL_PATH, velgarctl);
    const CommandResult alone = runProgram(velgarctl, {"setup", "--autostart"});
    EXPECT_EQ(alone.status, 1);
    EXPECT_NE(alone.err.find(agent), std::string::npos) << alone.err;
    EXPECT_TRUE(snapshotFiles(home()).empty());

    // A stand-in agent; preferences a full setup would complete, and no
    // engine prefix.
    writeFile(agent, "#!/bin/sh\nprintf '%s\\n' \"$0\" > '" + mark + "'\n", 0700);
    writeFile(domainFile("com.korvane.Korvane"), "{\"SomeKey\": 1}\n");
    const auto before = snapshotFiles(home());

    const CommandResult start = runProgram(velgarctl, {"setup", "--autostart"});
    ASSERT_EQ(start.status, 0) << start.err;
    auto after = snapshotFiles(home());
    const std::string text = after["/.config/autostart/com.korvane.KorvaneVelgar.desktop"];
    after.erase("/.config/autostart/com.korvane.KorvaneVelgar.desktop");
    EXPECT_EQ(after, before);
    EXPECT_NE(text.find("\nX-GNOME-Autostart-enabled=true\n"), std::string::npos) << text;

    // Read the way a desktop session reads it.
    EXPECT_EQ(QProcess::execute("desktop-file-validate", {QString::fromStdString(entry)}), 0) << text;
    EXPECT_EQ(QProcess::execute("gio", {"launch", QString::fromStdString(entry)}), 0) << text;
    waitFor([&] { return !readFile(mark).empty(); }, 10000);
    EXPECT_EQ(readFile(mark), agent + "\n") << text;

    EXPECT_EQ(runProgram(velgarctl, {"setup", "--autostart"}).status, 0);
    EXPECT_EQ(readFile(entry), text);

    const CommandResult stop = runProgram(velgarctl, {"setup", "--no-autostart"});
    ASSERT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(snapshotFiles(home()), before);
    const CommandResult again = runProgram(velgarctl, {"setup", "--no-autostart"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(again.out.find("nothing to remove"), std::string::npos) << again.out;
}

} // namespace
} // namespace kvtest

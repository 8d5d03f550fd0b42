// Engines the agent does not own, each a real clamd: a scanning server
// reached over TCP, and the system's clamd service (a daemon run as clamav)
// with the user's own stand-in for when it is silent. The engine prefix is
// built by velgarctl setup, as users build it, and files are scanned
// through the agent's scan path.

#include "platform/ChildProcess.h"
#include "tests/support/AgentSupport.h"

#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>

namespace {

class SharedEngine : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(home_ / "watched");
        // Definitions already there: setup never tries to download any.
        kvtest::installTestDefinitions(prefix());
    }

    void TearDown() override
    {
        agent_.scanner.reset();
        agent_.controller.reset();
        // A stand-in the agent launched must not outlive the test.
        const int pid = std::atoi(kvtest::readFile(standIn() + "/run/clamd.pid").c_str());
        if (pid > 0 && ::kill(pid, SIGTERM) == 0)
            kvtest::waitFor([pid] { return kvtest::processGone(pid); }, 15000);
    }

    std::string prefix() const { return prefixFolder_ / "engine"; }
    std::string standIn() const { return prefix() + "/standin"; }

    // Runs velgarctl setup, after the command-line start BESIDE, and
    // returns its status; *output gets what it printed.
    int setup(const std::vector<std::string>& beside, const std::vector<std::string>& arguments, std::string* output)
    {
        std::vector<std::string> argv = beside;
        argv.push_back(KV_TEST_VELGARCTL);
        argv.push_back("setup");
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::optional<kv::ChildProcess> velgarctl = kv::ChildProcess::spawn(argv, kv::ChildProcess::Output::Pipe);
        if (!velgarctl)
            return -1;
        *output = velgarctl->readAll();
        return velgarctl->wait();
    }

    // The controller watching with the test's own scanner.
    void start() { ASSERT_TRUE(agent_.startWatching(prefix()).isWatching()); }
    kv::KorvaneVelgar& controller() { return *agent_.controller; }
    std::string scan(const std::vector<std::string>& paths) { return agent_.scan(paths); }

    // An EICAR file in the user's home (mode 0700), which only the user can
    // read: a daemon of another user sees it only through what clamdscan
    // hands over.
    std::string infectedFile(const std::string& name)
    {
        const std::string path = home_ / ("watched/" + name);
        kvtest::writeFile(path, kvtest::eicar());
        return path;
    }

    static bool found(const std::string& scanLog, const std::string& path)
    {
        return scanLog.find(path + ": Eicar-Test-Signature.UNOFFICIAL FOUND") != std::string::npos;
    }

    kvtest::TempDir prefixFolder_;
    kvtest::RecordingAgent agent_{prefixFolder_ / "engine"};
    kvtest::TempDir& home_ = agent_.home;
    kvtest::ScopedEnv configHome_{"XDG_CONFIG_HOME", agent_.home / ".config"};
    kvtest::LogCapture log_;
};

constexpr const char* kRestartLine = "clamd appears to have died - attempting restart...";

TEST_F(SharedEngine, ScanningServerOverTcpIsStreamedToToldOnceWhenSilentAndNeverStartedOrStopped)
{
    // The server runs as clamav, so it can read nothing in the user's home:
    // what it finds, it found in the contents the agent streamed over a
    // connection it checked. clamdscan, which would connect again unchecked,
    // never runs for a TCP engine on this machine.
    const uint16_t port = kvtest::freeTcpPort();
    kvtest::EnginePrefix server({.tcpPort = port, .user = "clamav"});
    ASSERT_TRUE(server.startDaemon());
    const std::string address = "127.0.0.1:" + std::to_string(port);

    std::string output;
    ASSERT_EQ(setup({}, {"--prefix", prefix(), "--engine", address}, &output), 0) << output;
    EXPECT_NE(output.find("The clamd at " + address + " answers."), std::string::npos) << output;
    const std::string client = prefix() + "/bin/clamdscan";
    std::filesystem::rename(client, client + ".real");
    kvtest::writeFile(client, "#!/bin/sh\ntouch " + (home_ / "client-ran") + "\nexec " + client + ".real \"$@\"\n", 0755);
    start();
    EXPECT_TRUE(log_.contains("Using the clamd at " + address + " over TCP"));
    EXPECT_FALSE(log_.contains("clamd not running")) << "nothing is launched for a daemon on another machine";

    const std::string first = infectedFile("first.com");
    const std::string clean = home_ / "watched/clean.txt";
    kvtest::writeFile(clean, "fine\n");
    std::string scanLog = scan({first, clean});
    EXPECT_TRUE(found(scanLog, first)) << scanLog;
    EXPECT_NE(scanLog.find(clean + ": OK"), std::string::npos) << scanLog;
    EXPECT_TRUE(controller().clamdStillAlive()) << "PING over TCP";

    // Silent: said once, alerted once, never restarted from here.
    server.stopDaemon();
    const std::string second = infectedFile("second.com");
    scanLog = scan({second}) + scan({infectedFile("third.com")});
    EXPECT_EQ(log_.count("The clamd at " + address + " does not answer"), 1u);
    EXPECT_EQ(agent_.alerts.count("EngineUnreachable"), 1u);
    EXPECT_EQ(agent_.notifier.saying("CLAMDSCAN_ERROR"), 1u);
    EXPECT_EQ(scanLog.find(kRestartLine), std::string::npos) << scanLog;
    EXPECT_FALSE(log_.contains("clamd not running"));

    // Back: the next run after the probe interval says so and scans there.
    ASSERT_TRUE(server.startDaemon());
    controller().clamd().setSilenceProbeInterval(std::chrono::milliseconds(0));
    scanLog = scan({second});
    EXPECT_EQ(log_.count("The clamd at " + address + " answers again"), 1u);
    EXPECT_TRUE(found(scanLog, second)) << scanLog;
    EXPECT_FALSE(kvtest::exists(home_ / "client-ran")) << "clamdscan ran against a TCP engine on this machine";

    // Quitting leaves the server running.
    controller().quit();
    EXPECT_EQ(agent_.exitStatus, 0);
    EXPECT_FALSE(log_.contains("trying to quit clamd"));
    EXPECT_TRUE(server.daemonRunning());
    EXPECT_TRUE(server.accepts());
}

// The engine prefix holds what the agent runs as the user: one another user
// could change is refused at every start of watching, and nothing in it runs.
TEST_F(SharedEngine, AnEnginePrefixOthersMayWriteIsNeverRun)
{
    std::string output;
    ASSERT_EQ(setup({}, {"--prefix", prefix(), "--own-engine"}, &output), 0) << output;
    ::chmod((prefix() + "/sbin").c_str(), 0777);
    agent_.makeController().startWatcher(false);
    EXPECT_FALSE(controller().isWatching());
    EXPECT_EQ(log_.count("The engine folder " + prefix() + " is refused: " + prefix() +
                         "/sbin may be written by other users; nothing is run from it"),
              1u);
    EXPECT_FALSE(controller().clamd().checkForClamd(prefix())) << "nothing launched from it";
    EXPECT_EQ(agent_.panels.shown().back(), kv::Panel::NoEngine);
}

class SystemServiceEngine : public SharedEngine {
protected:
    void SetUp() override
    {
        SharedEngine::SetUp();
        ASSERT_TRUE(service_.startDaemon());
        std::string output;
        ASSERT_EQ(setup(kvtest::besideServiceConfiguredBy(service_.config()), {"--prefix", prefix()}, &output), 0)
            << output;
        ASSERT_NE(output.find("The system's clamd service answers at " + service_.socket()), std::string::npos)
            << output;
    }

    int standInPid() const { return std::atoi(kvtest::readFile(standIn() + "/run/clamd.pid").c_str()); }

    // The system's service: clamd run as clamav, as Debian runs it.
    kvtest::EnginePrefix service_{{.tcpPort = std::nullopt, .user = "clamav"}};
    const std::string standInLine_ = "The system's clamd service does not answer at " + service_.socket() +
                                     "; your own clamd stands in until it answers again";
};

TEST_F(SystemServiceEngine, SilentAtStartTheStandInIsLaunchedAndQuitWithTheAgent)
{
    service_.stopDaemon();
    start();
    EXPECT_EQ(log_.count(standInLine_), 1u);
    EXPECT_TRUE(log_.contains("clamd launched successfully.  Continuing..."));
    EXPECT_TRUE(controller().clamd().weLaunchedClamd());
    EXPECT_EQ(agent_.notifier.saying("SERVICE_STANDIN"), 1u);
    const std::string infected = infectedFile("infected.com");
    EXPECT_TRUE(found(scan({infected}), infected));

    const int standIn = standInPid();
    controller().quit();
    EXPECT_EQ(agent_.exitStatus, 0);
    EXPECT_TRUE(kvtest::waitFor([&] { return kvtest::processGone(standIn); }, 15000));
}

TEST_F(SystemServiceEngine, WithoutAStandInASilentServiceIsToldOnce)
{
    std::filesystem::remove(standIn() + "/etc/clamd.conf");
    start();
    service_.stopDaemon();
    const std::string infected = infectedFile("infected.com");
    const std::string scanLog = scan({infected}) + scan({infectedFile("other.com")});
    EXPECT_EQ(log_.count("The system's clamd service does not answer at " + service_.socket() +
                         "; it is left to the system to restart it"),
              1u);
    EXPECT_EQ(agent_.alerts.count("EngineUnreachable"), 1u);
    EXPECT_EQ(agent_.notifier.saying("CLAMDSCAN_ERROR"), 1u);
    EXPECT_EQ(scanLog.find(kRestartLine), std::string::npos) << scanLog;
    EXPECT_FALSE(log_.contains("clamd not running")) << "the service is never launched from here";

    ASSERT_TRUE(service_.startDaemon());
    controller().clamd().setSilenceProbeInterval(std::chrono::milliseconds(0));
    EXPECT_TRUE(found(scan({infected}), infected));
    EXPECT_EQ(log_.count("The system's clamd service answers again at " + service_.socket()), 1u);
}

} // namespace

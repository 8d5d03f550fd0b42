// The event intake: which helper lines reach the scan queue, the Trash
// test, and the watcher with the real gfslogger, driven by the controller
// (with a real clamd, since every start of watching loads the engine).

#include "app/KorvaneVelgar.h"
#include "intake/FSEventWatcher.h"
#include "queue/Dispatcher.h"
#include "tests/support/TestSupport.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QJsonArray>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>

namespace {

namespace fs = std::filesystem;

// "@" in a case stands for the test's folder, wherever it appears.
std::string at(std::string text, const std::string& folder)
{
    for (size_t found = text.find('@'); found != std::string::npos; found = text.find('@', found + folder.size()))
        text.replace(found, 1, folder);
    return text;
}

struct FilterCase {
    const char* name;
    std::vector<std::pair<std::string, bool>> watched;  // path and subdirectory flag
    std::string quarantine;
    std::string chunk;
    std::vector<std::string> queued;
};

TEST(EventFilter, HandsTheQueueEachWatchedLineOnce)
{
    const std::vector<FilterCase> cases = {
        {"flag false: only the folder's own objects", {{"@/W/", false}}, "", "@/W/a.txt\n@/W/sub/a.txt\n", {"@/W/a.txt"}},
        {"flag true: the whole tree", {{"@/W/", true}}, "", "@/W/a.txt\n@/W/sub/a.txt\n", {"@/W/a.txt", "@/W/sub/a.txt"}},
        {"nothing from a Trash", {{"@/", true}}, "", "@/data/Trash/files/a.txt\n@/home/.Trash/b.txt\n@/home/c.txt\n",
         {"@/home/c.txt"}},
        {"quarantine is a text prefix", {{"@/", true}}, "@/Q", "@/Q/a.txt\n@/Q2/a.txt\n@/R/a.txt\n", {"@/R/a.txt"}},
        {"no resource forks", {{"@/W/", true}}, "", "@/W/a.txt/..namedfork/rsrc\n", {}},
        {"first taker wins, once", {{"@/W/", false}, {"@/W/sub/", true}, {"@/W/", true}}, "",
         "@/W/a.txt\n@/W/sub/a.txt\n", {"@/W/a.txt", "@/W/sub/a.txt"}},
        {"/Wx is not in /W/", {{"@/W/", true}}, "", "@/Wx/a.txt\n", {}},
        {"invalid UTF-8 drops the chunk", {{"@/W/", true}}, "", "@/W/a.txt\n@/W/\xff.txt\n", {}},
        {"blank lines, last line unended", {{"@/W/", false}}, "", "\n@/W/a.txt\n\n@/W/b.txt", {"@/W/a.txt", "@/W/b.txt"}},
    };
    kvtest::TempDir folder;
    kvtest::ScopedEnv home("HOME", folder / "home");
    kvtest::ScopedEnv data("XDG_DATA_HOME", folder / "data");

    for (const FilterCase& c : cases) {
        std::vector<std::string> watched;
        std::map<std::string, bool> checkSubDirs;
        for (const auto& [path, flag] : c.watched) {
            watched.push_back(at(path, folder.path()));
            checkSubDirs[at(path, folder.path())] = flag;
        }
        const std::string quarantine = c.quarantine.empty() ? "" : at(c.quarantine, folder.path());
        std::set<std::string> queued;
        for (const std::string& line : c.queued) {
            queued.insert(at(line, folder.path()));
            kvtest::writeFile(at(line, folder.path()), "x");
        }
        kv::Dispatcher queue{[] {}};
        kv::FSEventWatcher watcher(queue);
        watcher.setWatchList(std::make_shared<const kv::WatchList>(watched, checkSubDirs, quarantine));

        watcher.taskDataAvailable(at(c.chunk, folder.path()));

        EXPECT_EQ(queue.lengthOfBothItemLists(), static_cast<int32_t>(queued.size())) << c.name;
        queue.runOneCycle();
        EXPECT_EQ(queue.snapshotOfScannableList(), queued) << c.name;
    }
}

TEST(EventFilter, TrashTestKnowsEveryTrashOfTheUser)
{
    kvtest::TempDir folder;
    kvtest::ScopedEnv home("HOME", folder / "home");
    kvtest::ScopedEnv data("XDG_DATA_HOME", folder / "data");
    const std::string uid = std::to_string(::getuid());
    const std::string other = std::to_string(::getuid() + 1);
    // /dev/shm is a mount point of its own on every Linux desktop.
    const std::vector<std::pair<std::string, bool>> cases = {
        {"@/data/Trash/files/a", true},
        {"@/data/Trash", false},
        {"@/home/.local/share/Trash/files/a", false},
        {"@/home/.Trash/a", true},
        {"/dev/shm/.Trash-" + uid + "/files/a", true},
        {"/dev/shm/.Trash/" + uid + "/files/a", true},
        {"/dev/shm/.Trash-" + other + "/files/a", false},
        {"/dev/shm/.Trash-" + uid, false},
        {"@/.Trash-" + uid + "/files/a", false},
    };
    for (const auto& [path, trashed] : cases)
        EXPECT_EQ(kv::FSEventWatcher::isTrashedFileAtPath(at(path, folder.path())), trashed) << path;
}

// The watcher as the agent runs it: started and stopped by the controller,
// running the real gfslogger as root.
class Intake : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        engine_ = new kvtest::EnginePrefix;
        ASSERT_TRUE(engine_->startDaemon());
        // The installation step asks the main thread for its stop and start.
        if (!QCoreApplication::instance())
            application_ = new QCoreApplication(argc_, argv_);
    }
    static void TearDownTestSuite()
    {
        delete application_;
        application_ = nullptr;
        delete engine_;
        engine_ = nullptr;
    }

    void SetUp() override
    {
        ::chmod(home_.path().c_str(), 0700);
        fs::create_directories(watched());
        preferences_.suite["PathToClamav"] = QString::fromStdString(engine_->path());
        preferences_.suite["PathToUpdateLog"] = QString::fromStdString(home_ / "update.log");
        preferences_.own["VelgarFolderArray"] =
            QJsonArray{QJsonObject{{"pathName", QString::fromStdString(watched())}, {"WatchSubdirs", true}}};
    }

    std::string watched() const { return home_ / "watched"; }

    kv::KorvaneVelgar& controller(bool permanentThreads = false)
    {
        kv::ControllerParts parts;
        parts.velgarPrefs = &preferences_;
        parts.notifier = &notifier_;
        parts.scanAlerts = &alerts_;
        parts.homeDirectory = home_.path();
        parts.redirectToScanLog = false;
        parts.dispatcherPause = [] {};
        parts.exitProcess = [this](int status) { exitStatus_ = status; };
        controller_ = std::make_unique<kv::KorvaneVelgar>(parts);
        if (permanentThreads)
            controller_->applicationDidFinishLaunching();
        else
            controller_->prepareNotifications();
        return *controller_;
    }

    // Writes the file until the watcher has put it in the queue: the helper
    // may still be marking file systems when watching starts.
    bool reachesQueue(const std::string& path)
    {
        kv::Dispatcher& queue = controller_->theDispatcher();
        return kvtest::waitFor(
            [&] {
                kvtest::writeFile(path, "x");
                queue.runOneCycle();
                return queue.snapshotOfScannableList().contains(path);
            },
            10000);
    }

    bool untilWithEvents(const std::function<bool()>& condition)
    {
        return kvtest::waitFor(
            [&] {
                QCoreApplication::processEvents();
                return condition();
            },
            10000);
    }

    // The helper in a resources folder of its own, set-user-ID to nobody, so
    // that it runs without root's rights and reports it; and a stand-in
    // pkexec first on PATH that records its arguments.
    std::string prepareInstallation(bool administratorAgrees)
    {
        fs::create_directories(home_ / "resources");
        fs::create_directories(home_ / "bin");
        const std::string helper = home_ / "resources/gfslogger";
        fs::copy_file(KV_TEST_RESOURCES_DIR "/gfslogger", helper);
        ::chown(helper.c_str(), 65534, static_cast<gid_t>(-1));
        ::chmod(helper.c_str(), 04755);
        kvtest::writeFile(home_ / "bin/pkexec",
                          "#!/bin/sh\nprintf '%s\\n' \"$@\" > " + (home_ / "pkexec.args") + "\n" +
                              (administratorAgrees ? "exec \"$@\"\n" : "exit 126\n"),
                          0755);
        resources_.emplace("KORVANE_VELGAR_RESOURCES", home_ / "resources");
        path_.emplace("PATH", home_ / "bin:" + std::string(std::getenv("PATH")));
        return helper;
    }

    static kvtest::EnginePrefix* engine_;
    static QCoreApplication* application_;
    static inline int argc_ = 1;
    static inline char applicationName_[] = "kvcore_tests";
    static inline char* argv_[] = {applicationName_, nullptr};

    kvtest::TempDir home_;
    kvtest::ScopedEnv runtime_{"XDG_RUNTIME_DIR", home_.path()};
    kvtest::ScopedEnv homeEnv_{"HOME", home_.path()};
    kvtest::ScopedEnv helperFolder_{"KORVANE_VELGAR_RESOURCES", KV_TEST_RESOURCES_DIR};
    std::optional<kvtest::ScopedEnv> resources_;
    std::optional<kvtest::ScopedEnv> path_;
    kvtest::FakePreferences preferences_;
    kvtest::RecordingNotifier notifier_;
    kvtest::RecordingAlerts alerts_;
    kvtest::LogCapture log_;
    std::optional<int> exitStatus_;
    std::unique_ptr<kv::KorvaneVelgar> controller_;
};

kvtest::EnginePrefix* Intake::engine_ = nullptr;
QCoreApplication* Intake::application_ = nullptr;

TEST_F(Intake, HelperWithoutRootRightsIsInstalledSetUserIdRootAndStartedAgain)
{
    const std::string helper = prepareInstallation(true);
    kv::KorvaneVelgar& agent = controller();
    agent.startWatcher();

    const auto installed = [&] {
        struct stat info{};
        return ::stat(helper.c_str(), &info) == 0 && info.st_uid == 0 && (info.st_mode & S_ISUID);
    };
    ASSERT_TRUE(untilWithEvents([&] { return installed() && agent.isWatching() && agent.gfsLogger().helperPid() > 0; }));
    EXPECT_TRUE(reachesQueue(watched() + "/after-install"));

    EXPECT_TRUE(log_.contains("termination status = 1"));
    EXPECT_EQ(kvtest::readFile(home_ / "pkexec.args"),
              "/bin/sh\n-c\nchown root \"" + helper + "\"; chmod +s \"" + helper + "\"\n");
    const std::vector<kv::DesktopNotification> sent = notifier_.sent();
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent.front().name, "Error");
    EXPECT_EQ(sent.front().description, "FSEVENT_NOT_SETUID");
}

TEST_F(Intake, RefusedInstallationStopsWatchingAndQuits)
{
    const std::string helper = prepareInstallation(false);
    kv::KorvaneVelgar& agent = controller();
    agent.startWatcher();

    ASSERT_TRUE(untilWithEvents([&] { return exitStatus_.has_value(); }));
    EXPECT_EQ(*exitStatus_, 0);
    EXPECT_TRUE(log_.contains("Authentication failed. Sorry!"));
    EXPECT_FALSE(agent.isWatching());
    EXPECT_TRUE(agent.getWatchedFolderList().empty());
    struct stat info{};
    ASSERT_EQ(::stat(helper.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 65534u);
}

} // namespace

// The event intake: which helper lines reach the scan queue, the Trash
// test, and the watcher with the real gfslogger, started and stopped by a
// host as the controller does.

#include "intake/FSEventWatcher.h"
#include "intake/WalkSchedule.h"
#include "intake/WatcherHost.h"
#include "platform/ChildProcess.h"
#include "platform/Paths.h"
#include "platform/RootControlled.h"
#include "queue/Dispatcher.h"
#include "tests/support/TestSupport.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QJsonArray>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
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

// The helper's records, each ended by a NUL byte.
std::string records(std::initializer_list<std::string> items)
{
    std::string text;
    for (const std::string& item : items)
        text += item + '\0';
    return text;
}

// What reaches the scan queue from the helper's records, watching W with its
// subfolders, V alone and V/sub with its subfolders (any entry that admits a
// path takes it), quarantining into W/Q: each watched path once,
// none from a Trash or the quarantine folder, records whole however the
// reads cut them, the helper's own messages logged once however often it
// repeats them. Files that raised no events of their own are found by
// walking: every watched folder after the kernel lost events, a folder moved
// in from where its files were not watched. (The folder above a file the
// helper could not name, deeper than PATH_MAX, is e2e.arrivals' case.)
TEST(EventFilter, HandsTheQueueEachWatchedPathOnce)
{
    struct Case {
        const char* name;
        std::vector<std::string> files;   // made first, under the test's folder
        std::vector<std::string> chunks;  // the helper's output, one read each; "@" is the test's folder
        std::set<std::string> queued;
    };
    const std::vector<Case> cases = {
        {"nothing from a Trash", {"W/data/Trash/files/a", "W/home/.Trash/b", "W/c"},
         {records({"@/W/data/Trash/files/a", "@/W/home/.Trash/b", "@/W/c"})}, {"W/c"}},
        {"nothing from the quarantine folder, a text prefix", {"W/Q/a", "W/Q2/a"}, {records({"@/W/Q/a", "@/W/Q2/a"})}, {}},
        {"no resource forks", {}, {records({"@/W/a.txt/..namedfork/rsrc"})}, {}},
        {"V alone, V/sub whole", {"V/a", "V/sub/deep/a", "V/x/a"}, {records({"@/V/a", "@/V/sub/deep/a", "@/V/x/a"})},
         {"V/a", "V/sub/deep/a"}},
        {"a record split between reads waits for its end", {"V/a.txt", "V/b.txt", "V/c.txt"},
         {"@/V/a.t", records({"xt", "@/V/b.txt"}) + "@/V/c", records({".txt"})}, {"V/a.txt", "V/b.txt", "V/c.txt"}},
        {"lost events: every admitted file",
         {"W/a", "W/sub/deep/b", "W/Q/quarantined", "W/data/Trash/files/c", "V/d", "V/sub/e", "outside"},
         {records({"gfslogger: cannot watch /x: Operation not permitted\n", "!queue-overflowed",
                   "gfslogger: cannot watch /x: Operation not permitted\n"})},
         {"W/a", "W/sub/deep/b", "V/d", "V/sub/e"}},
        {"a folder moved in from outside", {"W/in/f", "W/in/sub/g", "V/in/h"},
         {records({"!folder-arrived", "@/elsewhere/in", "@/W/in", "!folder-arrived", "", "@/V/in"})},
         {"W/in/f", "W/in/sub/g"}},
        {"a folder moved within the watched tree, walked all the same", {"W/moved/f"},
         {records({"!folder-arrived", "@/W/before", "@/W/moved"})}, {"W/moved/f"}},
        {"a folder moved out of the quarantine folder", {"W/out/f"}, {records({"!folder-arrived", "@/W/Q/out", "@/W/out"})},
         {"W/out/f"}},
    };
    kvtest::TempDir folder;
    kvtest::ScopedEnv home("HOME", folder / "W/home");
    kvtest::ScopedEnv data("XDG_DATA_HOME", folder / "W/data");
    const std::vector<std::string> watched = {folder / "W/", folder / "V/", folder / "V/sub/"};
    const std::map<std::string, bool> checkSubDirs = {{watched[0], true}, {watched[1], false}, {watched[2], true}};
    for (const Case& c : cases) {
        kvtest::LogCapture log;
        std::set<std::string> queued;
        for (const std::string& file : c.files)
            kvtest::writeFile(folder / file, "x");
        for (const std::string& file : c.queued)
            queued.insert(folder / file);
        kv::Dispatcher queue{[] {}};
        kv::FSEventWatcher watcher(queue);
        watcher.setWatchList(std::make_shared<const kv::WatchList>(watched, checkSubDirs, folder / "W/Q"));
        for (const std::string& chunk : c.chunks)
            watcher.taskDataAvailable(at(chunk, folder.path()));
        ASSERT_TRUE(kvtest::waitFor([&] { return !watcher.isWalkingFolders(); }, 10000)) << c.name;
        EXPECT_EQ(queue.lengthOfBothItemLists(), static_cast<int32_t>(queued.size())) << c.name;
        queue.runOneCycle();
        EXPECT_EQ(queue.snapshotOfScannableList(), queued) << c.name;
        EXPECT_LE(log.count("gfslogger: cannot watch /x"), 1u) << c.name;
        for (const std::string& file : c.files)
            fs::remove(folder / file);
    }
}

// Walks asked for at instants of a clock the test keeps, taken as the
// walking thread takes them: whenever the schedule says one is due. "*"
// asks for every watched folder; a count above one asks for that many
// folders, the name numbered. Each walk that begins is shown with its
// second: "all", a folder, or how many folders began together.
TEST(WalkSchedule, SpacesWalksOfEachFolderAndCapsThemAll)
{
    struct Ask {
        int second;
        std::string folder;
        int count = 1;
    };
    struct Case {
        const char* name;
        std::vector<Ask> asks;
        std::vector<std::string> walks;
    };
    std::vector<Ask> everySecond;
    for (int second = 0; second <= 25; ++second)
        everySecond.push_back({second, "A"});
    const std::vector<Case> cases = {
        {"a folder arriving every second: once per spacing, the last arrival too", everySecond,
         {"0 A", "10 A", "20 A", "30 A"}},
        {"another folder is not held up", {{0, "A"}, {1, "A"}, {2, "B"}}, {"0 A", "2 B", "10 A"}},
        {"events lost twice: the second walk of all after the spacing, folders meanwhile at once",
         {{0, "*"}, {5, "*"}, {6, "A"}}, {"0 all", "6 A", "30 all"}},
        {"beyond the cap, folders fold into walks of all, spaced, until the cap has room again",
         {{0, "f", 100}, {1, "g"}, {2, "h"}, {3, "i"}, {32, "j"}}, {"0 100 folders", "1 all", "31 all", "32 j"}},
    };
    for (const Case& c : cases) {
        kv::WalkSchedule schedule;
        std::vector<std::string> walks;
        for (int second = 0; second <= 60; ++second) {
            const kv::WalkSchedule::Clock::time_point now{std::chrono::seconds(second)};
            for (const Ask& ask : c.asks) {
                for (int i = 0; ask.second == second && i < ask.count; ++i) {
                    if (ask.folder == "*")
                        schedule.askForAll(now);
                    else
                        schedule.askForFolder(ask.count > 1 ? ask.folder + std::to_string(i) : ask.folder, now);
                }
            }
            while (schedule.nextDue() && *schedule.nextDue() <= now) {
                const std::optional<kv::WalkSchedule::Walk> walk = schedule.take(now);
                ASSERT_TRUE(walk) << c.name << ": due, yet nothing to take at " << second;
                const size_t folders = walk->folders.size();
                walks.push_back(std::to_string(second) + " " +
                                (walk->all ? "all" : folders > 1 ? std::to_string(folders) + " folders" : walk->folders[0]));
            }
        }
        EXPECT_EQ(walks, c.walks) << c.name;
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

// The watcher as the agent runs it, running the real gfslogger as root, on
// a host that starts, stops and quits as the controller does.
class Intake : public ::testing::Test, public kv::WatcherHost {
protected:
    void SetUp() override
    {
        kvtest::processEventsUntil([] { return true; });
        fs::create_directories(watched());
    }
    void TearDown() override { watcher_.stopWatching(); }

    // WatcherHost
    void postToMainThread(std::function<void()> task) override
    {
        QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(task), Qt::QueuedConnection);
    }
    void startWatcher(bool) override
    {
        watcher_.setWatchList(std::make_shared<const kv::WatchList>(std::vector<std::string>{watched() + "/"},
                                                                    std::map<std::string, bool>{{watched() + "/", true}},
                                                                    std::string()));
        watcher_.start(*this);
    }
    void stopWatcher() override { watcher_.stopWatching(); }
    void quit() override
    {
        stopWatcher();
        exitStatus_ = 0;
    }
    bool displayGrowlDialog(kv::NotificationKind, const std::string& description) override
    {
        told_.push_back(description);
        return true;
    }
    std::string localizedString(const std::string& key) const override { return key; }

    std::string watched() const { return home_ / "watched"; }

    // Writes the file until the watcher has put it in the queue: the helper
    // may still be marking its folders when watching starts.
    bool reachesQueue(const std::string& path)
    {
        kv::Dispatcher& queue = queue_;
        return kvtest::waitFor(
            [&] {
                kvtest::writeFile(path, "x");
                queue.runOneCycle();
                return queue.snapshotOfScannableList().contains(path);
            },
            10000);
    }

    // An installation that root alone controls (under "/", not /tmp), with
    // the real installer, and a helper that runs the real one only once it
    // is set-user-ID: before that it exits 1, as a helper without root's
    // rights does. And a stand-in pkexec first on PATH that records its
    // arguments and runs them or refuses.
    std::string prepareInstallation(bool administratorAgrees)
    {
        installRoot_.emplace("/", "kv-intake-test.");
        ::chmod(installRoot_->path().c_str(), 0755);
        const std::string helper = *installRoot_ / "share/korvane-velgar/gfslogger";
        kvtest::writeFile(helper, "#!/bin/sh\n[ -u \"$0\" ] || exit 1\nexec " KV_TEST_RESOURCES_DIR "/gfslogger \"$@\"\n",
                          0755);
        fs::create_directories(*installRoot_ / "libexec/korvane-velgar");
        fs::copy_file(KV_TEST_INSTALLER, *installRoot_ / "libexec/korvane-velgar/install-gfslogger");
        prepareStandInPkexec(administratorAgrees);
        resources_.emplace("KORVANE_VELGAR_RESOURCES", *installRoot_ / "share/korvane-velgar");
        return helper;
    }

    void prepareStandInPkexec(bool administratorAgrees)
    {
        kvtest::writeFile(home_ / "bin/pkexec",
                          "#!/bin/sh\nprintf '%s\\n' \"$@\" > " + (home_ / "pkexec.args") + "\n" +
                              (administratorAgrees ? "exec \"$@\"\n" : "exit 126\n"),
                          0755);
        path_.emplace("PATH", home_ / "bin:" + std::string(std::getenv("PATH")));
    }

    kvtest::TempDir home_;
    kvtest::ScopedEnv homeEnv_{"HOME", home_.path()};
    kvtest::ScopedEnv stagedResources_{"KORVANE_VELGAR_RESOURCES", KV_TEST_RESOURCES_DIR};
    std::optional<kvtest::TempDir> installRoot_;
    std::optional<kvtest::ScopedEnv> resources_;
    std::optional<kvtest::ScopedEnv> path_;
    std::optional<int> exitStatus_;
    std::vector<std::string> told_;
    kvtest::LogCapture log_;
    kv::Dispatcher queue_{[] {}};
    kv::FSEventWatcher watcher_{queue_};
};

TEST_F(Intake, HelperWithoutRootRightsIsInstalledSetUserIdRootAndStartedAgain)
{
    const std::string helper = prepareInstallation(true);
    startWatcher(true);

    const auto installed = [&] {
        struct stat info{};
        return ::stat(helper.c_str(), &info) == 0 && (info.st_mode & 07777) == 04755;
    };
    ASSERT_TRUE(kvtest::processEventsUntil([&] { return installed() && watcher_.isWatching() && watcher_.helperPid() > 0; }));
    EXPECT_TRUE(reachesQueue(watched() + "/after-install"));

    EXPECT_TRUE(log_.contains("termination status = 1"));
    EXPECT_EQ(kvtest::readFile(home_ / "pkexec.args"), *installRoot_ / "libexec/korvane-velgar/install-gfslogger\n");
    ASSERT_FALSE(told_.empty());
    EXPECT_EQ(told_.front(), "FSEVENT_NOT_SETUID");
}

// A list handed over while watching reaches the running helper: a folder
// added to it is watched at once, by the same helper.
TEST_F(Intake, TheHelperWatchesTheListOfTheMoment)
{
    startWatcher(true);
    ASSERT_TRUE(reachesQueue(watched() + "/first"));
    const pid_t helper = watcher_.helperPid();
    const std::string added = home_ / "added/";
    fs::create_directories(added);
    watcher_.setWatchList(std::make_shared<const kv::WatchList>(
        std::vector<std::string>{watched() + "/", added}, std::map<std::string, bool>{{added, false}}, ""));
    EXPECT_TRUE(reachesQueue(added + "file"));
    EXPECT_EQ(watcher_.helperPid(), helper);
}

TEST_F(Intake, RefusedInstallationStopsWatchingAndQuits)
{
    const std::string helper = prepareInstallation(false);
    startWatcher(true);

    ASSERT_TRUE(kvtest::processEventsUntil([&] { return exitStatus_.has_value(); }));
    EXPECT_EQ(*exitStatus_, 0);
    EXPECT_TRUE(log_.contains("Authentication failed. Sorry!"));
    EXPECT_FALSE(watcher_.isWatching());
    struct stat info{};
    ASSERT_EQ(::stat(helper.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
}

// A helper that others could change or replace (a build tree, a per-user
// install, anything under /tmp) is never offered for set-user-ID root: the
// user is told how to install instead, and the agent stays, not watching.
TEST_F(Intake, HelperOthersCouldChangeIsNeverMadeSetUserId)
{
    fs::create_directories(home_ / "resources");
    const std::string helper = home_ / "resources/gfslogger";
    kvtest::writeFile(helper, "#!/bin/sh\nexit 1\n", 0755);
    prepareStandInPkexec(true);
    resources_.emplace("KORVANE_VELGAR_RESOURCES", home_ / "resources");
    startWatcher(true);

    ASSERT_TRUE(kvtest::processEventsUntil([&] { return log_.contains("sudo cmake --install build"); }));
    EXPECT_TRUE(log_.contains("/tmp may be written by users other than root"));
    ASSERT_TRUE(kvtest::processEventsUntil([&] { return !watcher_.isWatching(); }));
    EXPECT_FALSE(kvtest::exists(home_ / "pkexec.args"));
    EXPECT_FALSE(exitStatus_.has_value());
    ASSERT_FALSE(told_.empty());
    EXPECT_EQ(told_.front(), "FSEVENT_NOT_INSTALLED");
}

// A helper that cannot watch (no fanotify here, a nosuid mount) keeps
// being asked, less and less often; its reason and its status are logged
// once, not at every start.
TEST_F(Intake, HelperThatCannotWatchIsHeardOnce)
{
    const std::string helper = home_ / "resources/gfslogger";
    kvtest::writeFile(helper,
                      "#!/bin/sh\necho run >> " + (home_ / "runs") +
                          "\nprintf 'gfslogger: fanotify: Function not implemented\\n\\0' >&2\nexit 2\n",
                      0755);
    resources_.emplace("KORVANE_VELGAR_RESOURCES", home_ / "resources");
    startWatcher(true);

    const auto runs = [&] {
        const std::string text = kvtest::readFile(home_ / "runs");
        return std::count(text.begin(), text.end(), '\n');
    };
    ASSERT_TRUE(kvtest::processEventsUntil([&] { return runs() >= 3; }));
    stopWatcher();
    EXPECT_EQ(log_.count("gfslogger: fanotify: Function not implemented"), 1u);
    EXPECT_EQ(log_.count("termination status = 2"), 1u);
    EXPECT_FALSE(exitStatus_.has_value());
}

// Only a file root alone controls may be made set-user-ID root: root's, in
// folders of root's from "/" down, none writable by others nor a link, with
// one name. The real installer, run as pkexec runs it on an installation of
// its own, makes its installation's helper so when it is such a file, and
// nothing else ever.
TEST(HelperInstaller, MakesOnlyItsOwnRootControlledHelperSetUserIdRoot)
{
    const std::string helper = "/share/korvane-velgar/gfslogger";
    using Change = std::function<void(const std::string& root)>;
    const auto chmodAt = [](std::string path, mode_t mode) -> Change {
        return [=](const std::string& root) { ::chmod((root + path).c_str(), mode); };
    };
    const auto chownAt = [](std::string path) -> Change {
        return [=](const std::string& root) { (void)!::chown((root + path).c_str(), 65534, 0); };
    };
    const auto linkAt = [](std::string path) -> Change {
        return [=](const std::string& root) {
            fs::rename(root + path, root + "/real");
            fs::create_symlink(root + "/real", root + path);
        };
    };
    struct Case {
        const char* name;
        Change change;                 // spoils the installation
        std::string reason;            // the start of the refusal, after the root folder
        std::vector<std::string> run;  // how the installer ("@") is run
        int status;
    };
    const std::vector<Case> cases = {
        {"as installed", {}, "", {"@"}, 0},
        {"folder others may write", chmodAt("/share/korvane-velgar", 0777),
         "/share/korvane-velgar may be written by users other than root", {"@"}, 1},
        {"folder of another user", chownAt("/share"), "/share does not belong to root", {"@"}, 1},
        {"helper the group may write", chmodAt(helper, 0775), helper + " may be written by users other than root", {"@"}, 1},
        {"helper of another user", chownAt(helper), helper + " does not belong to root", {"@"}, 1},
        {"helper is a link", linkAt(helper), helper + " is a symbolic link", {"@"}, 1},
        {"folder is a link", linkAt("/share"), "/share is a symbolic link", {"@"}, 1},
        {"helper with a second name",
         [&](const std::string& root) { EXPECT_EQ(::link((root + helper).c_str(), (root + "/second").c_str()), 0); },
         helper + " has other names", {"@"}, 1},
        {"a path given", {}, "", {"@", "/etc/shadow"}, 2},
        {"run by an ordinary user", {}, "", {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "@"}, 2},
    };
    for (const Case& c : cases) {
        const kvtest::TempDir folder("/", "kv-installer-test.");
        const std::string& root = folder.path();
        ::chmod(root.c_str(), 0755);
        kvtest::writeFile(root + helper, "#!/bin/sh\n", 0755);
        ::chmod((root + "/share").c_str(), 0755);
        ::chmod((root + "/share/korvane-velgar").c_str(), 0755);
        fs::create_directories(root + "/libexec/korvane-velgar");
        const std::string installer = root + "/libexec/korvane-velgar/install-gfslogger";
        fs::copy_file(KV_TEST_INSTALLER, installer);
        if (c.change)
            c.change(root);

        const std::string why = kv::whyNotRootControlled(root + helper);
        EXPECT_TRUE(c.reason.empty() ? why.empty() : why.starts_with(root + c.reason)) << c.name << ": " << why;
        std::vector<std::string> argv = c.run;
        std::replace(argv.begin(), argv.end(), std::string("@"), installer);
        EXPECT_EQ(kv::runAndWait(argv), c.status) << c.name;
        std::vector<std::string> setUserId;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
            struct stat info{};
            if (::lstat(entry.path().c_str(), &info) == 0 && (info.st_mode & S_ISUID))
                setUserId.push_back(entry.path().string().substr(root.size()) + (info.st_uid == 0 ? "" : " (not root's)"));
        }
        EXPECT_EQ(setUserId, c.status == 0 ? std::vector<std::string>{helper} : std::vector<std::string>{}) << c.name;
    }
    EXPECT_EQ(kv::whyNotRootControlled("/tmp"), "/tmp is not a plain file") << "folders from / down are checked first";
    EXPECT_TRUE(kv::whyNotRootControlled("/tmp/x").starts_with("/tmp may be written"));
    EXPECT_EQ(kv::whyNotRootControlled("/usr/../tmp/x"), "/usr/../tmp/x is not a plain path");
    EXPECT_EQ(kv::whyNotRootControlled("/dev/null"), "/dev/null is not a plain file") << "never opened";
}

} // namespace

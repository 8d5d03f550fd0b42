// gfslogger as the agent runs it: the real program, watching real folders,
// as root, as an ordinary user without the set-user-ID bit, and installed
// set-user-ID root for an ordinary user; and the reading of its input.

#include "eventhelper/ExitStatus.h"
#include "eventhelper/FolderMarks.h"
#include "eventhelper/HelperInput.h"
#include "eventhelper/HelperOutput.h"
#include "eventhelper/RecordWriter.h"
#include "eventhelper/WatchListInput.h"
#include "platform/ChildProcess.h"
#include "tests/support/TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const std::string kHelper = GFSLOGGER_PATH;
const std::string kArrived(kv::gfs::kFolderArrived);
const std::string kUnresolved(kv::gfs::kUnresolved);

// A folder every user may reach into.
struct TempFolder : kvtest::TempDir {
    TempFolder() { ::chmod(path().c_str(), 0755); }
};

void writeFile(const std::string& path, const std::string& text = "x") { std::ofstream(path) << text; }

// Runs a shell command as the user nobody; its exit status.
int asNobody(const std::string& command)
{
    std::vector<std::string> argv = kvtest::asUser("nobody");
    argv.insert(argv.end(), {"/bin/sh", "-c", command});
    return kv::runAndWait(argv);
}

// One helper run and what it has reported so far, as events: a path, or a
// kind and its fields.
class HelperRun {
public:
    using Event = std::vector<std::string>;
    using List = std::vector<std::pair<std::string, bool>>;  // folder, and whether with subfolders

    // Starts the helper and hands it the folders to watch.
    HelperRun(const std::vector<std::string>& argv, const List& list)
        : child_(kv::ChildProcess::spawn(argv, kv::ChildProcess::Output::Pipe, nullptr, kv::ChildProcess::Input::Pipe))
    {
        // A helper that ends at once closes its input: a write fails, no more.
        std::signal(SIGPIPE, SIG_IGN);
        watch(list);
    }
    void watch(const List& list)
    {
        std::string records;
        for (const auto& [folder, subfolders] : list)
            records += std::string(subfolders ? kv::gfs::kWatchTree : kv::gfs::kWatchFolder) + '\0' + folder + '\0';
        records += std::string(kv::gfs::kListEnd) + '\0';
        [[maybe_unused]] const ssize_t written = ::write(child_->inputFd(), records.data(), records.size());
    }
    ~HelperRun()
    {
        if (child_->running())
            ::kill(child_->pid(), SIGKILL);
    }

    // Reads output until the event has arrived; false after timeoutMs.
    bool waitFor(const Event& event, int timeoutMs = 5000)
    {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::count(events_.begin(), events_.end(), event) == 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            pollfd output{child_->outputFd(), POLLIN, 0};
            std::string chunk;
            if (left <= 0 || ::poll(&output, 1, static_cast<int>(left)) <= 0 ||
                child_->readChunk(&chunk) != kv::ChildProcess::ReadStatus::Data)
                return false;
            for (char c : chunk) {
                if (c == kv::gfs::kRecordEnd)
                    take(std::exchange(partial_, {}));
                else
                    partial_ += c;
            }
        }
        return true;
    }

    // Rewrites a probe file until the helper reports it: from then on every
    // event in that file system reaches us.
    bool waitUntilWatching(const std::string& probe)
    {
        for (int attempt = 0; attempt < 100; ++attempt) {
            writeFile(probe);
            if (waitFor({probe}, 50))
                return true;
        }
        return false;
    }

    // The events one of whose records starts with prefix, such as a folder
    // or a kind.
    std::vector<Event> eventsWith(const std::string& prefix) const
    {
        std::vector<Event> found;
        std::copy_if(events_.begin(), events_.end(), std::back_inserter(found), [&](const Event& event) {
            return std::any_of(event.begin(), event.end(), [&](const std::string& r) { return r.starts_with(prefix); });
        });
        return found;
    }

    // The exit status once the helper has ended, or -1 after timeoutMs.
    int exitStatusWithin(int timeoutMs)
    {
        return kvtest::waitFor([this] { return !child_->running(); }, timeoutMs) ? child_->wait() : -1;
    }

    kv::ChildProcess& child() { return *child_; }

private:
    void take(std::string record)
    {
        if (fieldsLeft_ == 0) {
            events_.emplace_back();
            fieldsLeft_ = record == kArrived || record == kUnresolved ? 2 : 0;
        } else {
            --fieldsLeft_;
        }
        events_.back().push_back(std::move(record));
    }

    std::optional<kv::ChildProcess> child_;
    std::vector<Event> events_;
    int fieldsLeft_ = 0;
    std::string partial_;
};

// A chain of folders under base that reaches deeper than a path can name,
// made one level at a time (mkdir refuses paths that long).
struct DeepFolder {
    explicit DeepFolder(const std::string& base)
    {
        const std::string name(100, 'd');
        fs::create_directories(base);
        kv::UniqueFd at(::open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        for (std::string path = base; path.size() < PATH_MAX + 400; path += "/" + name) {
            if (path.size() < PATH_MAX) {
                named.reset(::dup(at.get()));
                namedPath = path;
            }
            ::mkdirat(at.get(), name.c_str(), 0755);
            at.reset(::openat(at.get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        }
        deepest = std::move(at);
    }

    kv::UniqueFd named;  // the deepest folder with a path
    std::string namedPath;
    kv::UniqueFd deepest;  // a few levels below it
};

// Mounts a file system for the life of the object.
class Mount {
public:
    Mount(const std::string& type, const std::string& at, unsigned long flags = 0) : at_(at)
    {
        fs::create_directories(at);
        mounted_ = ::mount(type.c_str(), at.c_str(), type.c_str(), flags, nullptr) == 0;
    }
    ~Mount()
    {
        if (mounted_)
            ::umount2(at_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }
    // A file system watched for closed-after-writing files is busy while an
    // event for one of its files still holds that file open: the helper
    // closes it as soon as it has read the event, so an unmount succeeds
    // within moments, as a user's second try would.
    bool unmount()
    {
        mounted_ = !kvtest::waitFor([this] { return ::umount(at_.c_str()) == 0; }, 2000);
        return !mounted_;
    }

private:
    std::string at_;
    bool mounted_ = false;
};

// A field of /proc/PID/status, such as "CapEff".
std::string statusField(pid_t pid, const std::string& name)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name + ":"))
            return line.substr(line.find_first_not_of(" \t", name.size() + 1));
    return {};
}

// The fanotify groups the process holds: the "fanotify flags:" value of
// each, and how many inode marks they hold in all.
struct FanotifyGroups {
    std::vector<unsigned> flags;
    size_t inodeMarks = 0;
};
FanotifyGroups fanotifyGroups(pid_t pid)
{
    FanotifyGroups groups;
    const std::string proc = "/proc/" + std::to_string(pid);
    for (const fs::directory_entry& fd : fs::directory_iterator(proc + "/fd")) {
        std::ifstream info(proc + "/fdinfo/" + fd.path().filename().string());
        for (std::string line; std::getline(info, line);) {
            groups.inodeMarks += line.starts_with("fanotify ino:");
            if (line.starts_with("fanotify flags:"))
                groups.flags.push_back(std::stoul(line.substr(15), nullptr, 16));
        }
    }
    return groups;
}

// What is watched: the listed folders and every folder below those listed
// with their subfolders, made or moved in later too; not what lies below a
// folder listed alone, outside, or moved out, nor what the list no longer
// holds. A folder moved in, and a listed folder removed and made again, are
// said to have arrived (the agent walks them, as nothing watched them), and
// watched from then on. Files written into folders just made are reported,
// however soon after the folder.
TEST(Gfslogger, WatchesTheListedFoldersAndTheirTreesOnly)
{
    TempFolder folder;
    for (const char* made : {"tree/old/deep", "alone/sub", "outside/in/deep"})
        fs::create_directories(folder / made);
    HelperRun helper({kHelper}, {{folder / "tree", true}, {folder / "alone", false}});
    ASSERT_TRUE(helper.waitUntilWatching(folder / "alone/probe"));
    const auto move = [&](const char* from, const char* to) { return [=, &folder] { fs::rename(folder / from, folder / to); }; };
    struct Step {
        const char* name;
        std::function<void()> change;
        const char* file;          // written once after the change
        HelperRun::Event reported; // what must be reported; {} for nothing
    };
    const std::vector<Step> steps = {
        {"deep in the tree", {}, "tree/old/deep/a", {folder / "tree/old/deep/a"}},
        {"in the folder listed alone", {}, "alone/a", {folder / "alone/a"}},
        {"below the folder listed alone", {}, "alone/sub/a", {}},
        {"outside", {}, "outside/a", {}},
        {"in folders just made in the tree", [&] { fs::create_directories(folder / "tree/new/deeper"); },
         "tree/new/deeper/a", {folder / "tree/new/deeper/a"}},
        // Its files are the agent's to find: it walks a folder that arrived.
        {"a folder moved into the tree", move("outside/in", "tree/in"), "tree/in/deep/a", {kArrived, "", folder / "tree/in"}},
        {"in the folder moved in, then", {}, "tree/in/deep/b", {folder / "tree/in/deep/b"}},
        {"in a folder moved out of the tree", move("tree/old", "outside/old"), "outside/old/deep/a", {}},
        {"in the folder listed alone, made again",
         [&] {
             fs::remove_all(folder / "alone");
             fs::create_directory(folder / "alone");
         },
         "alone/b", {kArrived, "", folder / "alone"}},
        {"in the tree, once the list no longer holds it", [&] { helper.watch({{folder / "alone", false}}); }, "tree/b", {}},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        if (step.change)
            step.change();
        writeFile(folder / step.file);
        if (!step.reported.empty()) {
            EXPECT_TRUE(helper.waitFor(step.reported));
            continue;
        }
        ASSERT_TRUE(helper.waitUntilWatching(folder / "alone/probe"));
        EXPECT_TRUE(helper.eventsWith(folder / step.file).empty());
    }
}

// A tree larger than one helper may mark: the folders nearest its top are
// watched, up to the bound, and a diagnostic says where watching stops.
TEST(Gfslogger, MarksNoMoreFoldersThanItsBound)
{
    TempFolder folder;
    for (size_t i = 0; i < kv::gfs::FolderMarks::kMostFolders; ++i)
        fs::create_directory(folder / ("d" + std::to_string(i)));
    HelperRun helper({kHelper}, {{folder.path(), true}});
    EXPECT_TRUE(helper.waitFor({std::string(kv::gfs::kDiagnosticPrefix) + "watches " +
                                std::to_string(kv::gfs::FolderMarks::kMostFolders) +
                                " folders, the most one helper may: folders below " + folder.path() +
                                " and deeper ones are not watched\n"},
                               20000));
    EXPECT_TRUE(helper.waitUntilWatching(folder / "probe"));
    EXPECT_EQ(fanotifyGroups(helper.child().pid()).inodeMarks, kv::gfs::FolderMarks::kMostFolders);
}

// A helper that does not read (stopped here, as any user may stop their own
// process) costs the kernel at most its queue; the events it lost are
// reported as such, and the helper goes on. Files made outside the watched
// folders never reach its queue, however many.
TEST(Gfslogger, AFullQueueIsReportedAsAnOverflow)
{
    for (const bool watched : {true, false}) {
        SCOPED_TRACE(watched ? "in the watched folder" : "outside");
        TempFolder folder;
        fs::create_directories(folder / "watched");
        fs::create_directories(folder / "outside");
        HelperRun helper({kHelper}, {{folder / "watched", true}});
        ASSERT_TRUE(helper.waitUntilWatching(folder / "watched/probe"));
        ASSERT_EQ(::kill(helper.child().pid(), SIGSTOP), 0);
        // The default queue holds 16,384 events; each new file is one.
        const std::string made = folder / (watched ? "watched/" : "outside/");
        for (int i = 0; i < 17000; ++i)
            ASSERT_EQ(::mknod((made + std::to_string(i)).c_str(), S_IFREG | 0644, 0), 0);
        ASSERT_EQ(::kill(helper.child().pid(), SIGCONT), 0);
        EXPECT_TRUE(helper.waitUntilWatching(folder / "watched/after"));
        EXPECT_EQ(helper.waitFor({std::string(kv::gfs::kQueueOverflowed)}, watched ? 30000 : 0), watched);
    }
}

// A helper whose reader takes nothing (its agent stopped with SIGSTOP, or
// hung) ends by itself once its output has waited kLongestUnreadOutput,
// rather than block in a write for ever.
TEST(Gfslogger, EndsWhenNobodyReadsItsOutput)
{
    TempFolder folder;
    HelperRun helper({kHelper}, {{folder.path(), true}});
    ASSERT_TRUE(helper.waitUntilWatching(folder / "probe"));
    // Far more than the pipe holds.
    const std::string name(200, 'n');
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(::mknod((folder / name + std::to_string(i)).c_str(), S_IFREG | 0644, 0), 0);
    const int waitMs = std::chrono::milliseconds(kv::gfs::kLongestUnreadOutput).count() + 10000;
    EXPECT_EQ(helper.exitStatusWithin(waitMs), kv::gfs::kOutputUnread);
}

// Who runs the helper, how it is installed, and whether one watches for the
// same user already: one helper per ordinary user, as many as root likes.
// Where it watches, it holds
// its two capabilities (fanotify, and resolving file handles) without using
// them between the calls that need them, its event queues are the kernel's
// bounded ones, and it ends at once when its reader goes away. Where it
// cannot, it ends at once with the status the agent acts on and its
// diagnostic as a record of its own: only status 1 makes the agent install
// it set-user-ID root, which is no help on a nosuid mount.
TEST(Gfslogger, RightsDecideWhetherItWatchesAndHowItEnds)
{
    constexpr int kWatches = -1;
    struct Case {
        const char* name;
        bool asNobody;
        bool setUidRoot;
        bool onNosuidMount;
        bool second;  // started while a first one watches, run the same way
        int exitStatus;
    };
    const Case cases[] = {
        {"root", false, false, false, false, kWatches},
        {"a second one for root", false, false, false, true, kWatches},
        {"an ordinary user", true, false, false, false, kv::gfs::kLacksPrivileges},
    // A sanitizer's runtime reads its options from the environment and
    // writes reports where they say: such a build is never made
    // set-user-ID root.
#ifndef KV_SANITIZER_BUILD
        {"set-user-ID root, for an ordinary user", true, true, false, false, kWatches},
        {"a second one set-user-ID root, for the same user", true, true, false, true, kv::gfs::kAlreadyRunning},
        {"set-user-ID root on a nosuid mount", true, true, true, false, kv::gfs::kCannotWatch},
#endif
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempFolder folder;
        // Copied where the user can reach it, wherever the build tree is.
        std::optional<Mount> nosuid;
        if (c.onNosuidMount) {
            nosuid.emplace("tmpfs", folder / "nosuid", MS_NOSUID);
            ASSERT_TRUE(nosuid->mounted());
        }
        const std::string installed = folder / (c.onNosuidMount ? "nosuid/gfslogger" : "gfslogger");
        fs::copy_file(kHelper, installed);
        if (c.setUidRoot) {
            ASSERT_EQ(::chown(installed.c_str(), 0, 0), 0);
            ASSERT_EQ(::chmod(installed.c_str(), 04755), 0);
        }
        std::vector<std::string> argv = c.asNobody ? kvtest::asUser("nobody") : std::vector<std::string>{};
        argv.push_back(installed);
        std::optional<HelperRun> first;
        if (c.second) {
            first.emplace(argv, HelperRun::List{{folder.path(), true}});
            ASSERT_TRUE(first->waitUntilWatching(folder / "first-probe"));
        }
        HelperRun helper(argv, {{folder.path(), true}});

        if (c.exitStatus != kWatches) {
            EXPECT_EQ(helper.exitStatusWithin(2000), c.exitStatus);
            const std::string output = helper.child().readAll();
            EXPECT_TRUE(output.starts_with(kv::gfs::kDiagnosticPrefix) && output.ends_with(std::string("\n") + '\0') &&
                        std::count(output.begin(), output.end(), '\0') == 1)
                << output;
            continue;
        }
        ASSERT_TRUE(helper.waitUntilWatching(folder / "probe"));
        const pid_t pid = helper.child().pid();
        EXPECT_EQ(statusField(pid, "CapEff"), "0000000000000000");
        EXPECT_EQ(statusField(pid, "CapPrm"), "0000000000200004");
        const std::vector<unsigned> flags = fanotifyGroups(pid).flags;
        EXPECT_EQ(flags.size(), 2u);
        for (unsigned flag : flags)
            EXPECT_EQ(flag & 0x30u, 0u) << "unlimited queue or marks: " << std::hex << flag;
        helper.child().closeOutput();
        EXPECT_EQ(helper.exitStatusWithin(2000), kv::gfs::kOutputClosed);
    }
}

#ifndef KV_SANITIZER_BUILD
TEST(Gfslogger, SetUserIdRootTellsAnOrdinaryUserOnlyWhatTheyCanReach)
{
    TempFolder folder;
    const std::string installed = folder / "gfslogger";
    fs::copy_file(kHelper, installed);
    ASSERT_EQ(::chown(installed.c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(installed.c_str(), 04755), 0);
    fs::create_directories(folder / "shared");
    ::chmod((folder / "shared").c_str(), 0777);
    fs::create_directories(folder / "private/moved");
    ::chmod((folder / "private").c_str(), 0700);
    const DeepFolder hidden(folder / "private/deep");
    const DeepFolder reachable(folder / "shared/deep");

    std::vector<std::string> argv = kvtest::asUser("nobody");
    argv.push_back(installed);
    HelperRun helper(argv, {{folder.path(), true}});
    ASSERT_TRUE(helper.waitUntilWatching(folder / "shared/probe"));

    writeFile(folder / "private/secret");
    ASSERT_EQ(asNobody("echo mine > " + (folder / "shared/mine")), 0);
    EXPECT_TRUE(helper.waitFor({folder / "shared/mine"}));
    // A folder of the user's own that they may not read still takes files,
    // and may be read whenever they like: its files are no secret.
    const std::string unreadable = folder / "shared/unreadable";
    ASSERT_EQ(asNobody("mkdir -m 0300 " + unreadable + " && echo mine > " + unreadable + "/file"), 0);
    EXPECT_TRUE(helper.waitFor({unreadable + "/file"}));
    // Where a folder came from is told only if the user may list it.
    fs::rename(folder / "private/moved", folder / "shared/moved");
    EXPECT_TRUE(helper.waitFor({kArrived, "", folder / "shared/moved"}));
    for (const DeepFolder* deep : {&hidden, &reachable})
        ASSERT_EQ(::mknodat(deep->deepest.get(), "file", S_IFREG | 0644, 0), 0);
    writeFile(folder / "shared/end");
    ASSERT_TRUE(helper.waitFor({folder / "shared/end"}));
    EXPECT_TRUE(helper.eventsWith(folder / "private").empty());
    const std::vector<HelperRun::Event> unresolved = helper.eventsWith(kUnresolved);
    ASSERT_EQ(unresolved.size(), 1u);
    EXPECT_EQ(unresolved[0].back(), reachable.namedPath);
}
#endif

TEST(Gfslogger, WatchesFileSystemsMountedLaterWithOrWithoutFileHandles)
{
    TempFolder folder;
    HelperRun helper({kHelper}, {{folder.path(), true}});
    ASSERT_TRUE(helper.waitUntilWatching(folder / "probe"));

    // tmpfs names files by handles; ramfs cannot, and is watched mount by
    // mount for files closed after writing. The tmpfs is where the mount
    // table escapes a blank, and shared, so that its line there carries
    // optional fields, as most mounts of a desktop do.
    Mount tmpfs("tmpfs", folder / "tmp fs");
    Mount ramfs("ramfs", folder / "ramfs");
    ASSERT_TRUE(tmpfs.mounted() && ramfs.mounted());
    ASSERT_EQ(::mount(nullptr, (folder / "tmp fs").c_str(), nullptr, MS_SHARED, nullptr), 0);
    EXPECT_TRUE(helper.waitUntilWatching(folder / "tmp fs/file"));
    EXPECT_TRUE(helper.waitUntilWatching(folder / "ramfs/file"));
    // Watching never keeps a volume from being unmounted.
    EXPECT_TRUE(tmpfs.unmount());
    EXPECT_TRUE(ramfs.unmount());
}

// The agent's lists as the helper reads them, in whatever pieces the pipe
// delivers; what makes no entry (an unknown record, a path that is not
// absolute or too long to be one) is passed over, and the last whole list
// is the one that counts.
TEST(WatchListInput, TakesWholeListsFromAnyPieces)
{
    using namespace std::string_literals;
    using Folders = std::vector<kv::gfs::WatchedFolder>;
    struct Case {
        const char* name;
        std::vector<std::string> pieces;  // one read each
        Folders list;
    };
    const std::string tooLong = "/" + std::string(PATH_MAX, 'x');
    const std::vector<Case> cases = {
        {"split anywhere", {"!tr", "ee\0/a"s, "\0!folder\0/b\0!list-"s, "end\0"s}, {{"/a", true}, {"/b", false}}},
        {"the last whole list", {"!tree\0/a\0!list-end\0!folder\0/b\0!list-end\0!tree\0/c\0"s}, {{"/b", false}}},
        {"no entries from what is none",
         {"?\0!tree\0relative\0!folder\0"s + tooLong.substr(0, 3000), tooLong.substr(3000) + "\0!tree\0/c\0!list-end\0"s},
         {{"/c", true}}},
    };
    for (const Case& c : cases) {
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        const kv::UniqueFd reading(fds[0]);
        const kv::UniqueFd writing(fds[1]);
        kv::gfs::WatchListInput input;
        for (const std::string& piece : c.pieces) {
            ASSERT_EQ(::write(writing.get(), piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
            input.read(reading.get());
        }
        EXPECT_EQ(input.list(), c.list) << c.name;
    }
}

} // namespace

// File-event intake benchmark: creates files across a watched tree as fast
// as this machine allows and counts what reaches the scan queue through the
// real gfslogger and the event watcher's filter, then runs fatrace (Debian)
// on the same load for comparison.
//
// Usage (as root): intake_bench [files] [runs]   (default 100000 files, 3 runs)
// The tree lies under $TMPDIR (else /tmp) and is removed again.
//
// Two loads: "live" creates the files while the watcher runs; "backlog"
// stops the helper (SIGSTOP) while the files are created and times how fast
// the queued kernel events are drained once it continues: the throughput
// the intake can sustain, not the rate at which one thread creates files.

#include "intake/FSEventWatcher.h"
#include "intake/WatcherHost.h"
#include "platform/ChildProcess.h"
#include "platform/Preferences.h"
#include "queue/Dispatcher.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kFolders = 100;
// Quiet for this long after the last delivery: the load is done.
constexpr auto kQuiet = std::chrono::milliseconds(700);

double secondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

// Processor seconds (user + system) of a process so far, from /proc.
double processCpu(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos)
        return 0;
    std::vector<std::string> fields;
    std::string field;
    for (char c : text.substr(close + 2)) {
        if (c == ' ') {
            fields.push_back(field);
            field.clear();
        } else {
            field += c;
        }
    }
    // After the command: state is field 3 of stat(5); utime and stime are 14 and 15.
    return fields.size() > 12 ? (std::stod(fields[11]) + std::stod(fields[12])) / ::sysconf(_SC_CLK_TCK) : 0;
}

double rusageCpu(int who)
{
    rusage usage{};
    ::getrusage(who, &usage);
    return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
}

// The watched tree: kFolders folders, filled by create().
class Tree {
public:
    Tree()
    {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kv-intake-bench-XXXXXX";
        path_ = ::mkdtemp(pattern.data());
        for (int i = 0; i < kFolders; ++i)
            std::filesystem::create_directory(folder(i));
    }
    ~Tree() { std::filesystem::remove_all(path_); }
    const std::string& path() const { return path_; }
    std::string folder(int i) const { return path_ + "/d" + std::to_string(i); }
    std::string file(size_t i) const { return folder(static_cast<int>(i % kFolders)) + "/f" + std::to_string(i); }

    void create(size_t count) const
    {
        for (size_t i = 0; i < count; ++i) {
            const int fd = ::open(file(i).c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
            if (fd < 0 || ::write(fd, "x", 1) != 1)
                std::perror("create");
            ::close(fd);
        }
    }

private:
    std::string path_;
};

struct Result {
    size_t deliveries = 0;    // lines that reached the queue (or fatrace's lines about the tree)
    size_t filesSeen = 0;     // distinct created files among them
    double seconds = 0;       // live: first create to last delivery; backlog: continue to last delivery
    double createSeconds = 0;
    double helperCpu = 0;     // gfslogger or fatrace
    double filterCpu = 0;     // the watcher thread and the queue's intake (ours only)
};

// Calls count() until it has stopped growing for kQuiet after reaching at
// least `expected` (or for 10 s below it); returns when it last grew.
Clock::time_point waitUntilQuiet(const std::function<size_t()>& count, size_t expected)
{
    size_t last = count();
    Clock::time_point changed = Clock::now();
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const size_t now = count();
        if (now != last) {
            last = now;
            changed = Clock::now();
        } else if (Clock::now() - changed > (now >= expected ? kQuiet : std::chrono::seconds(10))) {
            return changed;
        }
    }
}

// The watcher's host: the helper runs as root here, so nothing is ever asked
// of it.
class QuietHost : public kv::WatcherHost {
public:
    void postToMainThread(std::function<void()>) override {}
    void startWatcher(bool) override {}
    void stopWatcher() override {}
    void quit() override {}
    bool displayGrowlDialog(kv::NotificationKind, const std::string&) override { return false; }
    std::string localizedString(const std::string& key) const override { return key; }
};

Result runIntake(size_t files, bool backlog)
{
    Tree tree;
    kv::Dispatcher queue([] {});
    kv::FSEventWatcher watcher(queue);
    QuietHost host;
    const std::string watched = tree.path() + "/";
    watcher.setWatchList(std::make_shared<const kv::WatchList>(std::vector<std::string>{watched},
                                                               std::map<std::string, bool>{{watched, true}}, ""));
    watcher.start(host);
    // Ready once a probe gets through: every file system is marked.
    while (queue.lengthOfBothItemLists() == 0) {
        std::ofstream(tree.path() + "/probe") << "x";
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const size_t before = static_cast<size_t>(queue.lengthOfBothItemLists());
    const pid_t helper = watcher.helperPid();

    Result result;
    const double helperBefore = processCpu(helper);
    const double selfBefore = rusageCpu(RUSAGE_SELF);
    const double mainBefore = rusageCpu(RUSAGE_THREAD);
    if (backlog)
        ::kill(helper, SIGSTOP);
    const Clock::time_point began = Clock::now();
    tree.create(files);
    const Clock::time_point created = Clock::now();
    if (backlog)
        ::kill(helper, SIGCONT);
    const auto delivered = [&] { return static_cast<size_t>(queue.lengthOfBothItemLists()) - before; };
    const Clock::time_point last = waitUntilQuiet(delivered, files);
    result.helperCpu = processCpu(helper) - helperBefore;
    result.filterCpu = (rusageCpu(RUSAGE_SELF) - selfBefore) - (rusageCpu(RUSAGE_THREAD) - mainBefore);
    result.deliveries = delivered();
    result.createSeconds = secondsBetween(began, created);
    result.seconds = secondsBetween(backlog ? created : began, last);
    watcher.stopWatching();

    // Which files made it: one queue cycle takes every delivery in, and a
    // one-byte file is ready after its two measurements.
    queue.runOneCycle();
    for (const std::string& path : queue.snapshotOfScannableList())
        result.filesSeen += path.find("/f") != std::string::npos;
    return result;
}

Result runFatrace(size_t files, bool backlog)
{
    Tree tree;
    const std::string output = tree.path() + ".fatrace";
    std::optional<kv::ChildProcess> fatrace =
        kv::ChildProcess::spawn({"fatrace", "-f", "C+<", "-o", output}, kv::ChildProcess::Output::Null);
    Result result;
    if (!fatrace)
        return result;

    // Reads what fatrace has written since the last call.
    std::ifstream reader;
    std::string partial;
    std::unordered_set<std::string> seen;
    size_t lines = 0;
    const auto readMore = [&] {
        if (!reader.is_open())
            reader.open(output);
        reader.clear();
        std::string line;
        while (std::getline(reader, line)) {
            if (reader.eof()) {
                partial += line;
                break;
            }
            line = partial + line;
            partial.clear();
            const size_t at = line.find(tree.path());
            if (at == std::string::npos)
                continue;
            ++lines;
            if (line.find("/f", at + tree.path().size()) != std::string::npos)
                seen.insert(line.substr(at));
        }
        return lines;
    };
    while (readMore() == 0) {
        std::ofstream(tree.path() + "/probe") << "x";
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const size_t before = readMore();
    seen.clear();

    const double helperBefore = processCpu(fatrace->pid());
    if (backlog)
        ::kill(fatrace->pid(), SIGSTOP);
    const Clock::time_point began = Clock::now();
    tree.create(files);
    const Clock::time_point created = Clock::now();
    if (backlog)
        ::kill(fatrace->pid(), SIGCONT);
    const Clock::time_point last = waitUntilQuiet([&] { readMore(); return seen.size(); }, files);
    result.helperCpu = processCpu(fatrace->pid()) - helperBefore;
    result.deliveries = readMore() - before;
    result.filesSeen = seen.size();
    result.createSeconds = secondsBetween(began, created);
    result.seconds = secondsBetween(backlog ? created : began, last);
    ::kill(fatrace->pid(), SIGINT);
    fatrace->wait();
    std::filesystem::remove(output);
    return result;
}

void print(const char* tool, const char* load, size_t files, const Result& r)
{
    const double cpu = r.helperCpu + r.filterCpu;
    std::printf("| %s | %s | %zu | %.2f | %zu | %zu | %.2f | %.0f | %.2f | %.2f | %.2f |\n", tool, load, files,
                r.createSeconds, r.deliveries, r.filesSeen, r.seconds, r.deliveries / std::max(r.seconds, 1e-9),
                r.helperCpu, r.filterCpu, r.deliveries ? cpu * 1e5 / r.deliveries : 0.0);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    if (::geteuid() != 0) {
        std::fprintf(stderr, "intake_bench: run as root; gfslogger and fatrace need root's rights\n");
        return 2;
    }
    const size_t files = argc > 1 ? std::stoul(argv[1]) : 100000;
    const int runs = argc > 2 ? std::stoi(argv[2]) : 3;
    std::printf("| tool | load | files | create (s) | deliveries | files delivered | time (s) | deliveries/s | "
                "helper CPU (s) | filter CPU (s) | CPU s per 100k deliveries |\n");
    std::printf("|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (int run = 0; run < runs; ++run) {
        for (const bool backlog : {false, true}) {
            const char* load = backlog ? "backlog" : "live";
            print("gfslogger + filter", load, files, runIntake(files, backlog));
            print("fatrace", load, files, runFatrace(files, backlog));
        }
    }
    return 0;
}

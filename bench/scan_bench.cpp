// Scan throughput: files pushed through the queue and both scanners against
// a real clamd, beside one direct `clamdscan --file-list` run over the same
// files against the same daemon.
//
//   scan_bench [small-file count ...]    (default: 1000 10000, then 100 x 10 MB)

#include "platform/ChildProcess.h"
#include "platform/Settings.h"
#include "scan/Scanners.h"
#include "tests/support/ScanSupport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> makeFiles(const std::string& folder, int count, size_t size)
{
    std::filesystem::create_directories(folder);
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) {
        // Every file differs, so clamd's cache of clean files never helps.
        paths.push_back(folder + "/file" + std::to_string(i));
        std::string contents = paths.back() + "\n";
        contents.resize(std::max(size, contents.size()), 'k');
        kvtest::writeFile(paths.back(), contents);
    }
    return paths;
}

// Counts occurrences of needle in the file, reading only what was added
// since the last call (the agent's log only grows).
class LineCounter {
public:
    LineCounter(std::string path, std::string needle) : path_(std::move(path)), needle_(std::move(needle)) {}
    size_t count()
    {
        std::FILE* file = std::fopen(path_.c_str(), "rb");
        if (!file)
            return count_;
        std::fseek(file, static_cast<long>(offset_), SEEK_SET);
        char buffer[1 << 16];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
            pending_.append(buffer, n);
            offset_ += n;
        }
        std::fclose(file);
        size_t lineEnd;
        while ((lineEnd = pending_.find('\n')) != std::string::npos) {
            if (pending_.substr(0, lineEnd).find(needle_) != std::string::npos)
                ++count_;
            pending_.erase(0, lineEnd + 1);
        }
        return count_;
    }

private:
    std::string path_, needle_, pending_;
    size_t offset_ = 0, count_ = 0;
};

double directRun(const kvtest::EnginePrefix& engine, const std::vector<std::string>& paths, const std::string& scratch)
{
    std::string list;
    for (const std::string& path : paths)
        list += path + "\n";
    kvtest::writeFile(scratch + "/direct.list", list);
    const auto start = Clock::now();
    kv::runAndWait({engine.path() + "/bin/clamdscan", "--stdout", "--file-list=" + scratch + "/direct.list"});
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double agentRun(kv::Dispatcher& queue, std::vector<std::string> paths, LineCounter& results)
{
    const size_t expected = paths.size();
    const size_t before = results.count();
    const auto start = Clock::now();
    queue.addToItemList(paths);
    while (results.count() - before < expected)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::pair<int, size_t>> loads;
    for (int i = 1; i < argc; ++i)
        loads.emplace_back(std::atoi(argv[i]), 64);
    if (loads.empty())
        loads = {{1000, 64}, {10000, 64}, {100, 10 * 1024 * 1024}};

    kvtest::TempDir home;
    ::setenv("HOME", home.path().c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", home.path().c_str(), 1);
    ::chmod(home.path().c_str(), 0700);
    kvtest::EnginePrefix engine;
    if (!engine.startDaemon()) {
        std::fprintf(stderr, "clamd did not start\n");
        return 1;
    }

    // The agent's scan log is its standard output: send it to a file we count in.
    const std::string logPath = home / "scan.log";
    const int savedOut = ::dup(STDOUT_FILENO);
    const int logFd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);

    kvtest::FakePreferences preferences;
    preferences.suite["PathToClamav"] = QString::fromStdString(engine.path());
    preferences.suite["PathToUpdateLog"] = QString::fromStdString(home / "update.log");
    // The agent's queue (with its one-second pause) and its two scanners,
    // on a host around the engine as a start of watching finds it.
    kvtest::RecordingScannerHost host(engine.path(), home.path() + "/");
    kv::Dispatcher queue;
    kv::ScanActivity activity;
    kv::Scanners scanners(host, queue, activity);
    scanners.configure(kv::ScanParameters::forSettings(kv::Settings::load(preferences), engine.path() + "/bin/clamdscan",
                                                       home.path() + "/"));
    std::thread queueThread([&queue] { queue.mainLoop(); });
    scanners.start();
    LineCounter results(logPath, ": OK");

    std::printf("| files | size | agent (s) | agent minus 1 s wait (s) | direct clamdscan (s) | ratio |\n");
    std::printf("|---:|---:|---:|---:|---:|---:|\n");
    std::fflush(stdout);
    int round = 0;
    for (const auto& [count, size] : loads) {
        const std::string set = home / ("set" + std::to_string(round++));
        const std::vector<std::string> paths = makeFiles(set + "/agent", count, size);
        const double direct = directRun(engine, makeFiles(set + "/direct", count, size), home.path());
        std::fflush(stdout);
        ::dup2(logFd, STDOUT_FILENO);
        const double agent = agentRun(queue, paths, results);
        std::fflush(stdout);
        ::dup2(savedOut, STDOUT_FILENO);
        const double adjusted = agent - 1.0;
        std::printf("| %d | %s | %.2f | %.2f | %.2f | %.2f |\n", count, size >= 1024 * 1024 ? "10 MB" : "64 B", agent,
                    adjusted, direct, adjusted / direct);
        std::fflush(stdout);
        std::filesystem::remove_all(set);
    }
    std::fflush(stdout);
    // The agent's threads never end, so leave without running destructors,
    // but not without the daemon this run started.
    engine.stopDaemon();
    ::_exit(0);
}

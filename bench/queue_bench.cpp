// Scan queue benchmark: how long one measurement pass holds the list lock,
// what a pending path costs in memory, and how fast producers can queue
// paths with and without a pass in the way.
//
// Usage: queue_bench [pending-count...]   (default: 1000 10000 100000)
// Creates the pending files under $TMPDIR (or /tmp) and removes them again.

#include "queue/Dispatcher.h"

#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A folder of `count` one-byte files, removed when the object goes.
class PendingFiles {
public:
    explicit PendingFiles(size_t count)
    {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kv-queue-bench-XXXXXX";
        if (!::mkdtemp(pattern.data())) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        folder_ = pattern;
        paths_.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "/file-%07zu", i);
            std::string path = folder_ + name;
            const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            if (fd < 0 || ::write(fd, "x", 1) != 1) {
                std::perror(path.c_str());
                std::exit(1);
            }
            ::close(fd);
            paths_.push_back(std::move(path));
        }
    }
    ~PendingFiles() { std::filesystem::remove_all(folder_); }

    const std::vector<std::string>& paths() const { return paths_; }

private:
    std::string folder_;
    std::vector<std::string> paths_;
};

size_t heapInUse() { return mallinfo2().uordblks; }

// Paths for producers to queue, built before the clock starts so that only
// the queue's own cost is timed.
std::vector<std::vector<std::string>> intakePaths(int producers, size_t perProducer)
{
    std::vector<std::vector<std::string>> all(producers);
    for (int p = 0; p < producers; ++p) {
        all[p].reserve(perProducer);
        for (size_t i = 0; i < perProducer; ++i)
            all[p].push_back("/home/user/Downloads/p" + std::to_string(p) + "-" + std::to_string(i));
    }
    return all;
}

struct Intake {
    double pathsPerSecond = 0;
    double longestAddMs = 0; // the longest any one addStringToItemList() took
};

// How fast `producers` threads queue ready-made paths when nothing else takes
// the lock: each queues `perProducer` paths.
Intake intakeOnce(int producers, size_t perProducer)
{
    kv::Dispatcher queue([] {});
    auto work = intakePaths(producers, perProducer);
    std::atomic<int> ready = 0;
    std::atomic<bool> go = false;
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            ++ready;
            while (!go)
                std::this_thread::yield();
            for (std::string& path : work[p])
                queue.addStringToItemList(std::move(path));
        });
    }
    while (ready < producers)
        std::this_thread::yield();
    const Clock::time_point start = Clock::now();
    go = true;
    for (std::thread& thread : threads)
        thread.join();
    const double seconds = millisecondsSince(start) / 1000.0;
    return {static_cast<double>(producers) * static_cast<double>(perProducer) / seconds, 0};
}

// The median of three runs: the machine is shared, and one run can lose its
// processor for a while.
Intake intakeRate(int producers, size_t perProducer)
{
    std::vector<Intake> runs;
    for (int i = 0; i < 3; ++i)
        runs.push_back(intakeOnce(producers, perProducer));
    std::sort(runs.begin(), runs.end(), [](const Intake& a, const Intake& b) { return a.pathsPerSecond < b.pathsPerSecond; });
    return runs[1];
}

// What producers get done while one measurement pass over `pending` holds the
// lock: the paths per second queued between the start and the end of the pass,
// and the longest single add. The producers run before, during and after the
// pass, building each path as the event watcher does.
Intake intakeDuringPass(int producers, const std::vector<std::string>& pending)
{
    kv::Dispatcher queue([] {});
    {
        std::vector<std::string> in = pending;
        queue.copyItemsToMyItemListFrom(in);
        queue.getItemSizesInMyItemList();
    }
    std::atomic<bool> producing = true;
    std::atomic<size_t> added = 0;
    std::vector<Clock::duration> longest(producers, Clock::duration::zero());
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            const std::string prefix = "/home/user/Downloads/p" + std::to_string(p) + "-";
            for (size_t i = 0; producing; ++i) {
                std::string path = prefix + std::to_string(i);
                const Clock::time_point before = Clock::now();
                queue.addStringToItemList(std::move(path));
                longest[p] = std::max(longest[p], Clock::now() - before);
                ++added;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const size_t addedBefore = added;
    const Clock::time_point start = Clock::now();
    queue.getItemSizesInMyItemList();
    const double seconds = millisecondsSince(start) / 1000.0;
    const size_t addedDuring = added - addedBefore;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    producing = false;
    for (std::thread& thread : threads)
        thread.join();
    const Clock::duration worst = *std::max_element(longest.begin(), longest.end());
    return {static_cast<double>(addedDuring) / seconds, std::chrono::duration<double, std::milli>(worst).count()};
}

struct Row {
    size_t count = 0;
    double firstPassMs = 0;
    double laterPassMs = 0;
    double bytesPerPath = 0;
    Intake oneProducer;
    Intake fourProducers;
};

Row measure(size_t count)
{
    Row row;
    row.count = count;
    PendingFiles files(count);

    kv::Dispatcher queue([] {});
    // The heap in use before and after the paths enter the pending map: the
    // strings themselves, the map's nodes and its buckets.
    const size_t heapBefore = heapInUse();
    {
        std::vector<std::string> in = files.paths();
        queue.copyItemsToMyItemListFrom(in);
    }
    row.bytesPerPath = static_cast<double>(heapInUse() - heapBefore) / static_cast<double>(count);

    Clock::time_point start = Clock::now();
    queue.getItemSizesInMyItemList();
    row.firstPassMs = millisecondsSince(start);

    std::vector<double> passes;
    for (int i = 0; i < 5; ++i) {
        start = Clock::now();
        queue.getItemSizesInMyItemList();
        passes.push_back(millisecondsSince(start));
    }
    std::sort(passes.begin(), passes.end());
    row.laterPassMs = passes[passes.size() / 2];

    row.oneProducer = intakeDuringPass(1, files.paths());
    row.fourProducers = intakeDuringPass(4, files.paths());
    return row;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<size_t> counts;
    for (int i = 1; i < argc; ++i)
        counts.push_back(std::stoul(argv[i]));
    if (counts.empty())
        counts = {1000, 10000, 100000};

    std::printf("| pending files | first pass (ms) | later pass, median of 5 (ms) | heap per pending path (bytes) "
                "| intake during the pass, 1 producer (paths/s) "
                "| intake during the pass, 4 producers (paths/s) | longest single add, 1 / 4 producers (ms) |\n");
    std::printf("|---:|---:|---:|---:|---:|---:|---:|\n");
    for (size_t count : counts) {
        const Row row = measure(count);
        std::printf("| %zu | %.1f | %.1f | %.0f | %.0f | %.0f | %.1f / %.1f |\n", row.count, row.firstPassMs, row.laterPassMs,
                    row.bytesPerPath, row.oneProducer.pathsPerSecond, row.fourProducers.pathsPerSecond,
                    row.oneProducer.longestAddMs, row.fourProducers.longestAddMs);
        std::fflush(stdout);
    }

    const Intake one = intakeRate(1, 1000000);
    const Intake four = intakeRate(4, 250000);
    std::printf("\nintake with no pass holding the lock: 1 producer %.0f paths/s, 4 producers %.0f paths/s\n",
                one.pathsPerSecond, four.pathsPerSecond);
    return 0;
}

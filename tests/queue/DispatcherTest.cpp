#include "queue/Dispatcher.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

namespace {

using Batch = std::vector<std::string>;

// A file of SIZE bytes in the folder.
std::string file(const kvtest::TempDir& folder, const std::string& name, size_t size)
{
    kvtest::writeFile(folder / name, std::string(size, 'x'));
    return folder / name;
}

void append(const std::string& path, size_t bytes) { std::ofstream(path, std::ios::app) << std::string(bytes, 'y'); }

class DispatcherFixture : public ::testing::Test {
protected:
    // Each cycle's pause runs the step the test put here for that cycle.
    std::vector<std::function<void(const std::string&)>> pauses;
    std::string subject;
    size_t cycle = 0;
    kv::Dispatcher queue{[this] {
        if (cycle < pauses.size() && pauses[cycle])
            pauses[cycle](subject);
    }};
    kvtest::TempDir folder;

    void runCycles(size_t count)
    {
        for (size_t i = 0; i < count; ++i, ++cycle)
            queue.runOneCycle();
    }
    // Where a path stands: its pending value, "ready", or "gone".
    std::string stateOf(const std::string& path) const
    {
        const auto pending = queue.snapshotOfMyItemList();
        if (auto found = pending.find(path); found != pending.end())
            return kv::toString(found->second);
        return queue.snapshotOfScannableList().contains(path) ? "ready" : "gone";
    }
    std::vector<std::string> makeReady(size_t count)
    {
        Batch paths;
        for (size_t i = 0; i < count; ++i)
            paths.push_back(file(folder, "r" + std::to_string(i), 3));
        Batch intake = paths;
        queue.addToItemList(intake);
        runCycles(1);
        return paths;
    }
};

// --- First arrival wins ---------------------------------------------------

using DispatcherIntake = DispatcherFixture;

TEST_F(DispatcherIntake, LaterArrivalChangesNothingUntilAScannerTookThePath)
{
    struct Case {
        const char* name;
        std::function<void(const std::string&)> bringTo;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"measured and pending keeps its size",
         [&](const std::string& path) {
             Batch in{path};
             queue.copyItemsToMyItemListFrom(in);
             queue.getItemSizesInMyItemList();
         },
         "5"},
        {"ready stays ready, once",
         [&](const std::string& path) {
             queue.addStringToItemList(path);
             runCycles(1);
         },
         "ready"},
        {"taken by a scanner enters again unmeasured",
         [&](const std::string& path) {
             queue.addStringToItemList(path);
             runCycles(1);
             Batch taken;
             queue.copyFromDispatchToScanner(taken);
             ASSERT_EQ(taken, Batch{path});
         },
         "-1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = file(folder, c.name, 5);
        c.bringTo(path);
        const int32_t readyBefore = queue.scannableCount();
        Batch again{path};
        queue.copyItemsToMyItemListFrom(again);
        EXPECT_TRUE(again.empty());
        EXPECT_EQ(stateOf(path), c.expected);
        EXPECT_EQ(queue.snapshotOfScannableList().size(), static_cast<size_t>(readyBefore));
        queue.abortScans();
    }
}

// --- Readiness ------------------------------------------------------------

using DispatcherReadiness = DispatcherFixture;

TEST_F(DispatcherReadiness, PathSettlesOnlyWhenANonZeroSizeHoldsStill)
{
    using Step = std::function<void(const std::string&)>;
    const Step remove = [](const std::string& path) { ::unlink(path.c_str()); };
    const Step grow = [](const std::string& path) { append(path, 3); };
    const auto link = [&](const std::string& name, const std::string& to) {
        EXPECT_EQ(::symlink(to.c_str(), (folder / name).c_str()), 0);
        return folder / name;
    };
    struct Case {
        const char* name;
        std::function<std::string()> make;
        std::vector<Step> pauses;
        std::vector<std::string> afterEachCycle;
    };
    const std::vector<Case> cases = {
        {"constant file", [&] { return file(folder, "constant", 5); }, {}, {"ready"}},
        {"growing file waits", [&] { return file(folder, "growing", 5); }, {grow}, {"8", "ready"}},
        {"empty file never ready", [&] { return file(folder, "empty", 0); }, {}, {"0", "0", "0"}},
        {"file filled later", [&] { return file(folder, "filled", 0); }, {nullptr, grow}, {"0", "3", "ready"}},
        {"deleted before its first measurement", [&] { return remove(file(folder, "early", 5)), folder / "early"; }, {},
         {"gone"}},
        {"deleted after its first measurement", [&] { return file(folder, "first", 5); }, {remove}, {"gone"}},
        {"deleted after it was marked ready in a first pass", [&] { return file(folder, "marked", 5); },
         {grow,
          [&](const std::string& path) {
              EXPECT_EQ(stateOf(path), "*");
              remove(path);
          }},
         {"8", "gone"}},
        {"folder is dropped", [&] { return folder.path(); }, {}, {"gone"}},
        {"link is measured by its target", [&] { return link("link", file(folder, "target", 5)); },
         {[&](const std::string&) { append(folder / "target", 3); }}, {"8", "ready"}},
        {"dangling link does not exist", [&] { return link("dangling", folder / "nowhere"); }, {}, {"gone"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        subject = c.make();
        pauses = c.pauses;
        cycle = 0;
        queue.addStringToItemList(subject);
        for (const std::string& expected : c.afterEachCycle) {
            runCycles(1);
            EXPECT_EQ(stateOf(subject), expected) << "after cycle " << cycle;
        }
        queue.abortScans();
    }
}

// --- Hand-off -------------------------------------------------------------

using DispatcherHandOff = DispatcherFixture;

TEST_F(DispatcherHandOff, ReadyPathsLeaveInBatchesOfAtMost200)
{
    struct Take {
        size_t appended;
        int32_t countAfter;
    };
    struct Case {
        size_t ready;
        Batch alreadyHeld;
        std::vector<Take> takes;
    };
    const std::vector<Case> cases = {
        {450, {}, {{200, 250}, {200, 50}, {50, 0}}},
        {200, {}, {{200, 0}, {0, 0}}},
        {3, {"/held/a", "/held/b"}, {{3, 0}}},
        {0, {"/held/a"}, {{0, 0}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ready);
        const std::vector<std::string> ready = makeReady(c.ready);
        ASSERT_EQ(queue.scannableCount(), static_cast<int32_t>(c.ready));
        std::set<std::string> handedOut;
        for (const Take& take : c.takes) {
            Batch batch = c.alreadyHeld;
            queue.copyFromDispatchToScanner(batch);
            ASSERT_EQ(batch.size(), c.alreadyHeld.size() + take.appended);
            EXPECT_TRUE(std::equal(c.alreadyHeld.begin(), c.alreadyHeld.end(), batch.begin()));
            EXPECT_EQ(queue.scannableCount(), take.countAfter);
            for (size_t i = c.alreadyHeld.size(); i < batch.size(); ++i)
                EXPECT_TRUE(handedOut.insert(batch[i]).second) << batch[i] << " handed out twice";
        }
        EXPECT_EQ(handedOut, std::set<std::string>(ready.begin(), ready.end()));
    }
}

// --- Abort ----------------------------------------------------------------

using DispatcherAbort = DispatcherFixture;

TEST_F(DispatcherAbort, EmptiesPendingAndReadyButKeepsTheIntakeList)
{
    makeReady(2);
    queue.addStringToItemList(file(folder, "empty", 0));
    runCycles(1);
    const std::string late = file(folder, "late", 4);
    queue.addStringToItemList(late);
    ASSERT_EQ(queue.snapshotOfMyItemList().size(), 1u);
    ASSERT_EQ(queue.scannableCount(), 2);

    queue.abortScans();
    EXPECT_TRUE(queue.snapshotOfMyItemList().empty());
    EXPECT_TRUE(queue.snapshotOfScannableList().empty());
    EXPECT_EQ(queue.scannableCount(), 0);
    EXPECT_EQ(queue.lengthOfBothItemLists(), 1);

    runCycles(1);
    EXPECT_EQ(queue.snapshotOfScannableList(), std::set<std::string>{late});
}

// --- Threads --------------------------------------------------------------

// The dispatcher on its own thread, with a pause that only counts cycles.
class RunningDispatcher {
public:
    RunningDispatcher() : thread_([this] { queue.mainLoop(); }) {}
    ~RunningDispatcher()
    {
        queue.requestStop();
        thread_.join();
    }
    int cycles() const { return cycles_; }
    std::chrono::nanoseconds cpuTime()
    {
        clockid_t clock;
        timespec used{};
        pthread_getcpuclockid(thread_.native_handle(), &clock);
        clock_gettime(clock, &used);
        return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    }
    // Waits until at least `count` cycles have paused.
    void awaitCycles(int count)
    {
        std::unique_lock<std::mutex> held(mutex_);
        paused_.wait(held, [&] { return cycles_ >= count; });
    }
    // The scanner's side: wait while nothing is ready, then take a batch.
    Batch takeBatch(const std::atomic<bool>& done)
    {
        queue.scannerLock().waitUntil([&] { return queue.scannableCount() > 0 || done; });
        Batch batch;
        queue.copyFromDispatchToScanner(batch);
        return batch;
    }

    kv::Dispatcher queue{[this] {
        std::lock_guard<std::mutex> held(mutex_);
        ++cycles_;
        paused_.notify_all();
    }};

private:
    std::mutex mutex_;
    std::condition_variable paused_;
    std::atomic<int> cycles_ = 0;
    std::thread thread_;
};

TEST(DispatcherThreads, ProducersAndTwoScannersLoseNoPathAndRepeatNone)
{
    constexpr int kProducers = 4, kPerProducer = 750, kTotal = kProducers * kPerProducer;
    kvtest::TempDir folder;
    Batch paths;
    for (int i = 0; i < kTotal; ++i)
        paths.push_back(file(folder, std::to_string(i), 1 + i % 7));

    RunningDispatcher running;
    std::mutex seenMutex;
    std::vector<int> seenCount(kTotal, 0);
    std::atomic<int> seen = 0;
    std::atomic<bool> done = false;
    auto scanner = [&] {
        while (!done) {
            const Batch batch = running.takeBatch(done);
            EXPECT_LE(batch.size(), kv::Dispatcher::kBatchLimit);
            std::lock_guard<std::mutex> held(seenMutex);
            for (const std::string& path : batch)
                ++seenCount[std::stoi(path.substr(path.rfind('/') + 1))];
            if ((seen += static_cast<int>(batch.size())) >= kTotal) {
                running.queue.scannerLock().changeAndBroadcast([&] { done = true; });
            }
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(scanner);
    threads.emplace_back(scanner);
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            Batch chunk;
            for (int i = p; i < kTotal; i += kProducers) {
                if (p % 2 == 0) {
                    running.queue.addStringToItemList(paths[i]);
                } else if (chunk.push_back(paths[i]), chunk.size() == 50) {
                    running.queue.addToItemList(chunk);
                }
            }
            running.queue.addToItemList(chunk);
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(seen, kTotal);
    EXPECT_EQ(std::count(seenCount.begin(), seenCount.end(), 1), kTotal);
}

TEST(DispatcherThreads, IdleDispatcherSleepsUntilOneArrivalWakesIt)
{
    kvtest::TempDir folder;
    RunningDispatcher running;
    auto expectIdle = [&] {
        const int cycles = running.cycles();
        const auto cpu = running.cpuTime();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_EQ(running.cycles(), cycles);
        EXPECT_LT(running.cpuTime() - cpu, std::chrono::milliseconds(10));
    };
    expectIdle();

    running.queue.addStringToItemList(file(folder, "one", 5));
    const std::atomic<bool> done = false;
    EXPECT_EQ(running.takeBatch(done), Batch{folder.path() + "/one"});
    expectIdle();
}

} // namespace

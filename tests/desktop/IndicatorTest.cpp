// The activity indicator's frames, pauses and menu states, seen by an
// observer that is also the clock the test controls: the animation runs in
// virtual time, and scans begin and end at virtual instants.

#include "tests/desktop/DesktopTestSupport.h"

#include "scan/ScanActivity.h"
#include "ui/IndicatorClock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;
using std::chrono::microseconds;

// A clock the test controls that also sees what the indicator shows.
// Pauses take no time; each advances the virtual clock and then runs the
// events that have fallen due, on the indicator thread. Of what the
// indicator thread shows, its first busy period is kept: the states around
// it, and each frame with the pause that follows it, as "frame pause".
// Changes the test's own thread makes (the folder entries) are left out.
class VirtualIndicator : public kv::IndicatorClock, public kv::Throbber::Observer {
public:
    bool pause(microseconds duration) override
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (interrupted_)
            return false;
        now_ += duration;
        if (recording() && period_.back().starts_with("scanning"))
            period_.back() = period_.back().substr(8) + " " + std::to_string(duration.count());
        while (!events_.empty() && events_.begin()->first <= now_) {
            std::function<void()> event = std::move(events_.begin()->second);
            events_.erase(events_.begin());
            lock.unlock();
            event();
            lock.lock();
        }
        return !interrupted_;
    }
    void interrupt() override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        interrupted_ = true;
    }
    void imagesShown(const std::string& name) override { record(name); }
    void menuStateShown(kv::MenuState state) override
    {
        if (state == kv::MenuState::Busy && onFirstBusy)
            std::exchange(onFirstBusy, nullptr)();
        record("state " + std::to_string(static_cast<int>(state)));
    }

    // Runs the event once the clock has passed `after` from now.
    void after(microseconds after, std::function<void()> event)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.emplace(now_ + after, std::move(event));
    }
    // Waits (in real time, generously) until the clock has passed `duration`
    // from now; the number of busy states shown by then.
    int busyStatesAfter(microseconds duration)
    {
        auto passed = std::make_shared<std::promise<void>>();
        std::future<void> future = passed->get_future();
        after(duration, [passed] { passed->set_value(); });
        // A busy period would end waiting for work, and time would stand still.
        if (future.wait_for(20s) != std::future_status::ready)
            return -1;
        std::lock_guard<std::mutex> lock(mutex_);
        return busyStates_;
    }
    // Waits (in real time, generously) until the first busy period has
    // ended with the watching image.
    std::vector<std::string> firstBusyPeriod()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, 20s, [this] { return !period_.empty() && period_.back() == "watching"; });
        return period_;
    }
    int busyStates() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return busyStates_;
    }

    // Set before the indicator starts. Runs on the indicator thread before
    // its first frame: events it schedules count from the start of the busy
    // period.
    std::function<void()> onFirstBusy;

private:
    bool recording() const { return busyStates_ == 1 && (period_.empty() || period_.back() != "watching"); }

    void record(const std::string& what)
    {
        if (std::this_thread::get_id() == testThread_)
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        busyStates_ += what == "state 3";
        if (recording())
            period_.push_back(what);
        changed_.notify_all();
    }

    const std::thread::id testThread_ = std::this_thread::get_id();
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    microseconds now_{0};
    std::multimap<microseconds, std::function<void()>> events_;
    bool interrupted_ = false;
    std::vector<std::string> period_;
    int busyStates_ = 0;
};

std::vector<std::string> repeat(const std::vector<std::string>& cycle, int times)
{
    std::vector<std::string> all;
    for (int i = 0; i < times; ++i)
        all.insert(all.end(), cycle.begin(), cycle.end());
    return all;
}

// A frame number and the pause after it, in microseconds. A scan swings
// from frame 1 to 7 and back, resting twice as long on frame 1; an update
// counts down.
const std::vector<std::string> kScanCycle = {"1 200000", "2 100000", "3 100000", "4 100000", "5 100000", "6 100000",
                                             "7 100000", "6 100000", "5 100000", "4 100000", "3 100000", "2 100000"};
const std::vector<std::string> kUpdateCycle = {"7 100000", "6 100000", "5 100000", "4 100000",
                                               "3 100000", "2 100000", "1 100000"};

// Work is counted before anything is watched: the resting indicator looks
// at the count only once watching has begun. Then one busy period shows
// whole cycles until the work is done, and the watching state again.
TEST(Indicator, AnimatesWholeCyclesWhileWorkIsCountedOnceWatching)
{
    struct Case {
        const char* name;
        int scanners;                 // or 0: a definitions update
        std::vector<microseconds> ends; // of each scanner, or of the update, from the first frame
        const std::vector<std::string>& cycle;
        int cycles;
    };
    const Case cases[] = {
        {"a half-second scan", 1, {500ms}, kScanCycle, 1},
        // Cycles end at 1.3, 2.6 and 3.9 seconds; only the third finds no scan.
        {"two scanners, ending at 1 and 3 seconds", 2, {1s, 3s}, kScanCycle, 3},
        // A cycle takes 0.7 seconds: the second one ends after the update did.
        {"an update of one second", 0, {1s}, kUpdateCycle, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VirtualIndicator indicator;
        kvtest::DesktopAgent agent({.showDockIcon = {}, .clock = &indicator});
        kv::ScanActivity& activity = agent.controller->scanActivity();
        std::mutex busyMutex;
        std::vector<std::unique_ptr<kv::ScanActivity::Busy>> busy;
        const auto end = [&] {
            std::lock_guard<std::mutex> held(busyMutex);
            busy.pop_back();
        };
        indicator.onFirstBusy = [&] {
            for (microseconds at : c.ends)
                indicator.after(at, end);
        };
        agent.menu->setObserver(&indicator);
        agent.menu->startIndicator(activity);
        agent.menu->clearMenu();
        {
            std::lock_guard<std::mutex> held(busyMutex);
            for (int i = 0; i < std::max(c.scanners, 1); ++i)
                busy.push_back(std::make_unique<kv::ScanActivity::Busy>(
                    activity, c.scanners ? kv::ScanActivity::Kind::Scan : kv::ScanActivity::Kind::Update));
        }

        EXPECT_EQ(indicator.busyStatesAfter(10s), 0) << "busy while nothing is watched";
        agent.menu->setNumItemsToWatch(1);
        agent.menu->addToMenu(agent.home.path(), "");
        agent.menu->setReady();

        std::vector<std::string> expected = {"state 3"};
        for (const std::string& frame : repeat(c.cycle, c.cycles))
            expected.push_back(frame);
        expected.insert(expected.end(), {"state 2", "watching"});
        EXPECT_EQ(indicator.firstBusyPeriod(), expected);
        EXPECT_EQ(indicator.busyStates(), 1);
    }
}

} // namespace

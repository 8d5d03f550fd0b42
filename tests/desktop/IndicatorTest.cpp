// The activity indicator's frames, pauses and menu states, seen by a
// recording observer on a clock the test controls: the animation runs in
// virtual time, and scans begin and end at virtual instants.

#include "tests/desktop/DesktopTestSupport.h"

#include "ui/IndicatorClock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;
using std::chrono::microseconds;

// Pauses take no time; each advances the virtual clock and then runs the
// events that have fallen due, on the indicator thread.
class VirtualClock : public kv::IndicatorClock {
public:
    bool pause(microseconds duration) override
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (interrupted_)
            return false;
        now_ += duration;
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
    microseconds now() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return now_;
    }
    // Runs the event once the clock has passed `after` from now.
    void after(microseconds after, std::function<void()> event)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.emplace(now_ + after, std::move(event));
    }

private:
    mutable std::mutex mutex_;
    microseconds now_{0};
    std::multimap<microseconds, std::function<void()>> events_;
    bool interrupted_ = false;
};

// What the indicator thread showed, with the virtual time it showed it at.
// Changes the test's own thread makes (the folder entries) are left out.
class Recorder : public kv::Throbber::Observer {
public:
    struct Shown {
        std::string what; // an image name, or "state N"
        microseconds at;
    };
    explicit Recorder(const VirtualClock& clock) : clock_(clock) {}

    void imagesShown(const std::string& name) override { record(name); }
    void menuStateShown(int state) override
    {
        record("state " + std::to_string(state));
        // On the indicator thread, before its first frame: events scheduled
        // here count from the start of the busy period.
        if (state == 3 && onFirstBusy) {
            onFirstBusy();
            onFirstBusy = nullptr;
        }
    }

    std::function<void()> onFirstBusy; // set before the count rises

    // Waits (in real time, generously) until the indicator is back at rest
    // after `count` busy periods.
    bool waitForRestAfterBusy(int count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 20s, [&] { return busyPeriodsEnded_ >= count; });
    }

    // The entries of the first busy period, from "state 3" up to and
    // including "watching".
    std::vector<Shown> firstBusyPeriod() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Shown> period;
        bool inside = false;
        for (const Shown& shown : shown_) {
            inside = inside || shown.what == "state 3";
            if (inside)
                period.push_back(shown);
            if (inside && shown.what == "watching")
                break;
        }
        return period;
    }

    size_t count(const std::string& what) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::count_if(shown_.begin(), shown_.end(), [&](const Shown& s) { return s.what == what; });
    }

private:
    void record(const std::string& what)
    {
        if (std::this_thread::get_id() == testThread_)
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        if (what == "state 3")
            busy_ = true;
        if (what == "watching" && busy_) {
            busy_ = false;
            ++busyPeriodsEnded_;
        }
        shown_.push_back({what, clock_.now()});
        changed_.notify_all();
    }

    const VirtualClock& clock_;
    const std::thread::id testThread_ = std::this_thread::get_id();
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Shown> shown_;
    bool busy_ = false;
    int busyPeriodsEnded_ = 0;
};

class Indicator : public ::testing::Test {
protected:
    Indicator() : agent_({.showDockIcon = {}, .clock = &clock_}), recorder_(clock_)
    {
        agent_.menu->setObserver(&recorder_);
    }

    void startWatching()
    {
        agent_.menu->startIndicator(*agent_.controller);
        agent_.menu->clearMenu();
        agent_.menu->setNumItemsToWatch(1);
        agent_.menu->addToMenu(agent_.home.path(), "");
        agent_.menu->setReady();
    }

    // The frames of a period with the pause that followed each, as "name
    // pause" strings; the last frame's pause runs up to the watching image.
    static std::vector<std::string> framesWithPauses(const std::vector<Recorder::Shown>& period)
    {
        std::vector<std::string> frames;
        for (size_t i = 0; i + 1 < period.size(); ++i) {
            if (period[i].what.starts_with("scanning"))
                frames.push_back(period[i].what.substr(8) + " " +
                                 std::to_string((period[i + 1].at - period[i].at).count()));
        }
        return frames;
    }

    static std::vector<std::string> repeat(const std::vector<std::string>& cycle, int times)
    {
        std::vector<std::string> all;
        for (int i = 0; i < times; ++i)
            all.insert(all.end(), cycle.begin(), cycle.end());
        return all;
    }

    const std::vector<std::string> scanCycle_ = {"1 200000", "2 100000", "3 100000", "4 100000",
                                                 "5 100000", "6 100000", "7 100000", "6 100000",
                                                 "5 100000", "4 100000", "3 100000", "2 100000"};
    const std::vector<std::string> updateCycle_ = {"7 100000", "6 100000", "5 100000", "4 100000",
                                                   "3 100000", "2 100000", "1 100000"};

    VirtualClock clock_;
    kvtest::DesktopAgent agent_;
    Recorder recorder_;
};

TEST_F(Indicator, HalfSecondScanShowsOneFullCycleInOrderThenWatching)
{
    startWatching();
    recorder_.onFirstBusy = [this] { clock_.after(500ms, [this] { agent_.controller->modifyScannerCountBy(-1); }); };
    agent_.controller->modifyScannerCountBy(1);
    ASSERT_TRUE(recorder_.waitForRestAfterBusy(1));

    const std::vector<Recorder::Shown> period = recorder_.firstBusyPeriod();
    EXPECT_EQ(period.front().what, "state 3");
    EXPECT_EQ(framesWithPauses(period), scanCycle_);
    ASSERT_GE(period.size(), 2u);
    EXPECT_EQ(period[period.size() - 2].what, "state 2");
    EXPECT_EQ(period.back().what, "watching");
}

TEST_F(Indicator, TwoBusyScannersGiveOneAnimationThatEndsWhenBothHaveFinished)
{
    startWatching();
    recorder_.onFirstBusy = [this] {
        clock_.after(1s, [this] { agent_.controller->modifyScannerCountBy(-1); });
        clock_.after(3s, [this] { agent_.controller->modifyScannerCountBy(-1); });
    };
    agent_.controller->modifyScannerCountBy(1);
    agent_.controller->modifyScannerCountBy(1);
    ASSERT_TRUE(recorder_.waitForRestAfterBusy(1));

    const std::vector<Recorder::Shown> period = recorder_.firstBusyPeriod();
    const microseconds start = period.front().at;
    // Cycles end at 1.3, 2.6 and 3.9 seconds; only the third finds no scan.
    EXPECT_EQ(framesWithPauses(period), repeat(scanCycle_, 3));
    EXPECT_EQ(period.back().at - start, 3900ms);
    EXPECT_EQ(recorder_.count("state 3"), 1u);
}

TEST_F(Indicator, UpdateShowsFramesSevenDownToOneUntilItStops)
{
    startWatching();
    recorder_.onFirstBusy = [this] { clock_.after(1s, [this] { agent_.menu->stopUpdate(); }); };
    agent_.menu->startUpdate();
    ASSERT_TRUE(recorder_.waitForRestAfterBusy(1));

    const std::vector<Recorder::Shown> period = recorder_.firstBusyPeriod();
    // A cycle takes 0.7 seconds: the second one ends after the update did.
    EXPECT_EQ(framesWithPauses(period), repeat(updateCycle_, 2));
    EXPECT_EQ(agent_.controller->scannerCount(), 0);
    EXPECT_FALSE(agent_.menu->updating());
}

TEST_F(Indicator, RestingIndicatorLooksAtTheCountOnlyOnceWatching)
{
    agent_.menu->startIndicator(*agent_.controller);
    agent_.menu->clearMenu();
    agent_.controller->modifyScannerCountBy(1);
    // Ten rests of a second pass without a busy state while nothing is watched.
    std::mutex mutex;
    std::condition_variable passed;
    bool tenSeconds = false;
    clock_.after(10s, [&] {
        std::lock_guard<std::mutex> lock(mutex);
        tenSeconds = true;
        passed.notify_all();
    });
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(passed.wait_for(lock, 20s, [&] { return tenSeconds; }));
    }
    EXPECT_EQ(recorder_.count("state 3"), 0u);

    recorder_.onFirstBusy = [this] { clock_.after(2s, [this] { agent_.controller->modifyScannerCountBy(-1); }); };
    agent_.menu->setNumItemsToWatch(1);
    agent_.menu->addToMenu(agent_.home.path(), "");
    agent_.menu->setReady();
    ASSERT_TRUE(recorder_.waitForRestAfterBusy(1));
    EXPECT_EQ(framesWithPauses(recorder_.firstBusyPeriod()), repeat(scanCycle_, 2));
}

} // namespace

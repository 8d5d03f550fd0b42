#pragma once

#include "eventhelper/HoldProtocol.h"
#include "platform/UniqueFd.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kv {

class PatientScanner;

// The agent's side of the opens gfslogger's holder keeps waiting until
// their verdict (eventhelper/OpenHolder.h): each held file arrives as a
// read-only descriptor on the hold channel, is scanned at once by that
// descriptor (the engine needs no path, and reading it raises no event of
// its own), several at a time, and answered: allowed (clean, or no verdict
// to be had), or denied (infected), before the finding is acted on like any
// other. An open the holder let go at its deadline is logged once and its
// file scanned as usual (scanLater).
//
// Threads: serve() and counts() from any thread; a reader thread and
// kWorkers scanning threads of its own. The destructor ends them; the
// scanner and scanLater outlive it.
class HeldOpens {
public:
    static constexpr int kWorkers = 4;

    // Opens held and denied since the last resetCounts().
    struct Counts {
        std::uint64_t held = 0;
        std::uint64_t blocked = 0;
    };

    HeldOpens(PatientScanner& scanner, std::function<void(const std::string&)> scanLater);
    ~HeldOpens();
    HeldOpens(const HeldOpens&) = delete;
    HeldOpens& operator=(const HeldOpens&) = delete;

    // The channel of the helper started last; the one before has ended.
    void serve(UniqueFd channel);

    Counts counts() const { return {held_.load(), blocked_.load()}; }
    void resetCounts();

private:
    struct Request {
        std::shared_ptr<const UniqueFd> channel;  // where the answer goes
        gfs::HoldNotice notice;
        UniqueFd file;
    };

    void read();
    void readChannel(const std::shared_ptr<const UniqueFd>& channel);
    void work();

    PatientScanner& scanner_;
    const std::function<void(const std::string&)> scanLater_;
    std::atomic<std::uint64_t> held_{0};
    std::atomic<std::uint64_t> blocked_{0};

    UniqueFd wake_;  // an eventfd: a new channel, or the end
    std::mutex mutex_;
    std::condition_variable work_;             // with mutex_
    std::shared_ptr<const UniqueFd> channel_;  // guarded by mutex_
    std::deque<Request> requests_;             // guarded by mutex_
    bool stopping_ = false;                    // guarded by mutex_
    std::vector<std::thread> threads_;
};

} // namespace kv

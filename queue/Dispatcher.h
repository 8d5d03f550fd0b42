#pragma once

#include "platform/ConditionLock.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <variant>
#include <vector>

namespace kv {

// The scan queue. Paths come in from any thread, wait in a pending map until
// their size holds still between two measurements, and leave in batches of at
// most 200 for the two scanner threads.
//
// Threads:
//   - producers (the event watcher thread, the main thread for mounted
//     volumes) call addStringToItemList() or addToItemList();
//   - the dispatcher thread, started once by the controller, runs mainLoop()
//     and through it every cycle step;
//   - the scanner threads use scannerLock(), scannableCount() and
//     copyFromDispatchToScanner();
//   - the main thread calls abortScans().
// Every public operation is safe to call from any thread.
//
// Locks:
//   - lock4Lists guards itemList, myItemList and scannableList, and every
//     write of scannableCount_. Each operation that touches a collection holds
//     it from start to end, including the file-system queries of a
//     measurement pass, so a producer may wait for a whole pass.
//   - dispatchLock: the dispatcher thread waits on it while itemList and
//     myItemList are both empty; every intake operation signals it once.
//   - scannerLock_: scanners wait on it while scannableCount() is 0; every
//     cycle ends with one signal to it.
//   Order: a condition object before lock4Lists, never the reverse. No
//   operation takes a condition object while it holds lock4Lists.
class Dispatcher {
public:
    // The value a path carries in the pending map. The four kinds never mix:
    // a path is unmeasured, has a measured size, is ready for the scanners,
    // or is a folder to drop without a scan.
    struct Unmeasured {
        bool operator==(const Unmeasured&) const = default;
    };
    struct Ready {
        bool operator==(const Ready&) const = default;
    };
    struct FolderToDrop {
        bool operator==(const FolderToDrop&) const = default;
    };
    using ItemState = std::variant<Unmeasured, std::int64_t, Ready, FolderToDrop>;

    // Called by each cycle between its two measurement passes, holding no
    // lock. The agent's pause is one second; tests pass their own.
    using Pause = std::function<void()>;

    // Most paths a scanner gets from one copyFromDispatchToScanner().
    static constexpr std::size_t kBatchLimit = 200;

    Dispatcher();
    // An empty pause is the agent's one second.
    explicit Dispatcher(Pause pause);
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    // Intake, from any thread. Both append to itemList under lock4Lists, then
    // signal dispatchLock once. addToItemList() empties the caller's list.
    void addStringToItemList(std::string path);
    void addToItemList(std::vector<std::string>& paths);

    // Entries of itemList (duplicates counted) plus paths in myItemList. The
    // ready set is not counted.
    std::int32_t lengthOfBothItemLists() const;

    // Enters every path of the source list that is neither pending nor ready
    // into myItemList as unmeasured, then empties the source list, skipped
    // paths included. The first arrival of a path is the one that counts.
    void copyItemsToMyItemListFrom(std::vector<std::string>& source);

    // One measurement pass over myItemList, and the step that moves ready
    // paths to scannableList, drops stable folders, updates the count and
    // signals scannerLock_. Dispatcher thread only.
    void getItemSizesInMyItemList();
    void moveReadyItemsToScannableList();

    // The body of the dispatcher thread: waits without a time limit while
    // nothing is queued, then runs cycles while anything is pending. In the
    // agent it never returns; it returns only after requestStop().
    void mainLoop();

    // One dispatcher cycle without the idle wait: take in itemList, measure,
    // pause, measure, move. mainLoop() repeats it; tests call it directly.
    void runOneCycle();

    // Makes mainLoop() return once it is idle or has finished its current
    // cycle, so that the thread's owner can join it before destroying the
    // queue (tests, and a controller torn down in tests). While the agent
    // runs, its dispatcher thread never ends and nothing calls this.
    void requestStop();

    // Appends up to kBatchLimit ready paths to the caller's list (never clears
    // it) and removes them from scannableList. Scanner threads.
    void copyFromDispatchToScanner(std::vector<std::string>& batch);

    // Empties myItemList and scannableList and sets the count to 0. Paths in
    // itemList survive and are taken in by the next cycle. Main thread.
    void abortScans();

    // Read by scanners without lock4Lists: the size of scannableList when the
    // queue last changed it.
    std::int32_t scannableCount() const { return scannableCount_.load(); }
    ConditionLock& scannerLock() { return scannerLock_; }

    // Copies of the pending map and the ready set, taken under lock4Lists,
    // so tests can watch a path move through the queue.
    std::map<std::string, ItemState> snapshotOfMyItemList() const;
    std::set<std::string> snapshotOfScannableList() const;

private:
    void signalDispatcher();

    // Guarded by lock4Lists.
    std::vector<std::string> itemList;
    std::unordered_map<std::string, ItemState> myItemList;
    std::unordered_set<std::string> scannableList;

    mutable std::mutex lock4Lists;
    ConditionLock dispatchLock;
    ConditionLock scannerLock_;

    // Written only under lock4Lists; read without it.
    std::atomic<std::int32_t> scannableCount_{0};

    const Pause pause_;
    std::atomic<bool> stopRequested_{false};
};

// A state in short form, for diagnostics and test messages: "-1" when
// unmeasured, the size in decimal, "*" when ready, "-" for a folder to drop.
std::string toString(const Dispatcher::ItemState& state);

} // namespace kv

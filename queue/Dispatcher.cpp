#include "queue/Dispatcher.h"

#include "platform/Log.h"
#include "platform/LongPath.h"
#include "platform/Paths.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <thread>

namespace kv {
namespace {

// What a measurement pass needs to know about one path.
struct Probe {
    bool exists = false;
    bool isFolder = false;
    std::int64_t size = 0;
};

// One stat(2) answers both questions a pass asks, so the existence and the
// size always describe the same object. stat follows symbolic links: a link
// is measured by its target, and a dangling link does not exist. A path
// longer than PATH_MAX is measured like any other.
Probe probe(const std::string& path)
{
    struct stat info{};
    if (statPath(path, &info))
        return {true, S_ISDIR(info.st_mode), static_cast<std::int64_t>(info.st_size)};
    // The object is there but its attributes cannot be reported: it counts as
    // size 0, which keeps it pending without ever making it ready.
    if (errno == EOVERFLOW)
        return {true, false, 0};
    return {};
}

void pauseOneSecond() { std::this_thread::sleep_for(std::chrono::seconds(1)); }

} // namespace

Dispatcher::Dispatcher() : Dispatcher(pauseOneSecond) {}

Dispatcher::Dispatcher(Pause pause) : pause_(pause ? std::move(pause) : Pause(pauseOneSecond)) {}

void Dispatcher::addStringToItemList(std::string path)
{
    {
        std::lock_guard<std::mutex> held(lock4Lists);
        itemList.push_back(std::move(path));
    }
    // Signalled only after lock4Lists is released: the dispatcher holds
    // dispatchLock while it takes lock4Lists, so the other order could
    // deadlock.
    signalDispatcher();
}

void Dispatcher::addToItemList(std::vector<std::string>& paths)
{
    {
        std::lock_guard<std::mutex> held(lock4Lists);
        itemList.reserve(itemList.size() + paths.size());
        std::move(paths.begin(), paths.end(), std::back_inserter(itemList));
        paths.clear();
    }
    signalDispatcher();
}

void Dispatcher::signalDispatcher()
{
    dispatchLock.signal();
}

std::int32_t Dispatcher::lengthOfBothItemLists() const
{
    std::lock_guard<std::mutex> held(lock4Lists);
    return static_cast<std::int32_t>(itemList.size() + myItemList.size());
}

void Dispatcher::copyItemsToMyItemListFrom(std::vector<std::string>& source)
{
    std::lock_guard<std::mutex> held(lock4Lists);
    for (std::string& path : source) {
        try {
            // A path already pending keeps its measurements, and a ready one
            // is already waiting for a scanner: only a first arrival counts.
            if (myItemList.contains(path) || scannableList.contains(path))
                continue;
            // The source is emptied below, so its string can move into the map.
            myItemList.emplace(std::move(path), Unmeasured{});
        } catch (const std::exception& error) {
            // Losing one path must not cost the rest of the list.
            nsLogf("Yikes! We just caught a crash.  Here's why %s", error.what());
        }
    }
    source.clear();
}

void Dispatcher::getItemSizesInMyItemList()
{
    // The lock is held for the whole pass: producers wait rather than see the
    // map half measured. Erasing while iterating leaves the other entries'
    // iterators valid, so the walk needs no copy of the paths.
    std::lock_guard<std::mutex> held(lock4Lists);
    for (auto entry = myItemList.begin(); entry != myItemList.end();) {
        const Probe found = probe(entry->first);
        if (!found.exists) {
            entry = myItemList.erase(entry);
            continue;
        }
        ItemState& state = entry->second;
        if (std::holds_alternative<Unmeasured>(state)) {
            state = found.size;
        } else if (std::int64_t* previous = std::get_if<std::int64_t>(&state)) {
            // An empty file is never ready: the agent waits until it has
            // content that holds still.
            if (found.size != 0 && found.size == *previous) {
                // A mount point is scanned whole; any other folder's own size
                // says nothing about its contents, whose events arrive anyway.
                if (found.isFolder && !isDirectlyUnderVolumeRoot(entry->first))
                    state = FolderToDrop{};
                else
                    state = Ready{};
            } else {
                *previous = found.size;
            }
        }
        ++entry;
    }
}

void Dispatcher::moveReadyItemsToScannableList()
{
    {
        std::lock_guard<std::mutex> held(lock4Lists);
        for (auto entry = myItemList.begin(); entry != myItemList.end();) {
            if (std::holds_alternative<Ready>(entry->second)) {
                // Extracting the node hands its string over without a copy.
                auto node = myItemList.extract(entry++);
                scannableList.insert(std::move(node.key()));
            } else if (std::holds_alternative<FolderToDrop>(entry->second)) {
                entry = myItemList.erase(entry);
            } else {
                ++entry;
            }
        }
        scannableCount_ = static_cast<std::int32_t>(scannableList.size());
    }
    // A waiting scanner tests the ready count itself, under the lock.
    scannerLock_.signal();
}

void Dispatcher::runOneCycle()
{
    copyItemsToMyItemListFrom(itemList);
    getItemSizesInMyItemList();
    // No lock is held here: producers keep adding, and their paths wait in
    // itemList for the next cycle.
    pause_();
    getItemSizesInMyItemList();
    moveReadyItemsToScannableList();
}

void Dispatcher::mainLoop()
{
    for (;;) {
        // The lists are tested with dispatchLock held, so an intake signal
        // sent between the test and the wait is not lost. With nothing queued
        // the thread sleeps here and costs no processor time.
        dispatchLock.waitUntil([this] { return stopRequested_ || lengthOfBothItemLists() > 0; });
        if (stopRequested_)
            return;
        // While anything is pending the next cycle starts at once: a path that
        // changed during the pause gets its next measurement right away.
        runOneCycle();
    }
}

void Dispatcher::requestStop()
{
    dispatchLock.changeAndBroadcast([this] { stopRequested_ = true; });
}

void Dispatcher::copyFromDispatchToScanner(std::vector<std::string>& batch)
{
    std::lock_guard<std::mutex> held(lock4Lists);
    const std::size_t taking = std::min(scannableList.size(), kBatchLimit);
    batch.reserve(batch.size() + taking);
    for (std::size_t taken = 0; taken < taking; ++taken)
        batch.push_back(std::move(scannableList.extract(scannableList.begin()).value()));
    scannableCount_ = static_cast<std::int32_t>(scannableList.size());
}

void Dispatcher::abortScans()
{
    // The dropped paths are freed after the lock is released, so producers
    // and scanners do not wait for the deallocation of a large queue.
    std::unordered_map<std::string, ItemState> droppedPending;
    {
        std::lock_guard<std::mutex> held(lock4Lists);
        droppedPending.swap(myItemList);
    }
    std::unordered_set<std::string> droppedReady;
    {
        std::lock_guard<std::mutex> held(lock4Lists);
        droppedReady.swap(scannableList);
        scannableCount_ = 0;
    }
}

std::map<std::string, Dispatcher::ItemState> Dispatcher::snapshotOfMyItemList() const
{
    std::lock_guard<std::mutex> held(lock4Lists);
    return {myItemList.begin(), myItemList.end()};
}

std::set<std::string> Dispatcher::snapshotOfScannableList() const
{
    std::lock_guard<std::mutex> held(lock4Lists);
    return {scannableList.begin(), scannableList.end()};
}

std::string toString(const Dispatcher::ItemState& state)
{
    if (std::holds_alternative<Dispatcher::Unmeasured>(state))
        return "-1";
    if (const std::int64_t* size = std::get_if<std::int64_t>(&state))
        return std::to_string(*size);
    if (std::holds_alternative<Dispatcher::Ready>(state))
        return "*";
    return "-";
}

} // namespace kv

#pragma once

#include "intake/WalkSchedule.h"
#include "intake/WatchList.h"

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class Dispatcher;
class WatcherHost;

// The agent's file-event intake. Runs the helper gfslogger (from the
// resources folder), tells it on its standard input which folders to watch
// (eventhelper/HelperInput.h: the list at each start of the helper, and
// again whenever setWatchList() changes it), reads the records it prints
// (eventhelper/HelperOutput.h), keeps the paths that lie in the watched
// folders and hands them to the scan queue. A folder moved in from where
// its files were not watched, and the folder above an event the helper
// could not name, are walked and their files queued. The helper is started
// again whenever it ends; when it ends with status 1 (it lacks root's
// rights) the watcher has an administrator make it set-user-ID root,
// through install-gfslogger and pkexec, and asks the controller for a new
// start. A helper that ends because another one watches for the same user
// (an agent in another session of the user) is asked again less and less
// often. When the helper reports that the kernel lost events, every file in
// the watched folders is queued, since nobody knows which of them changed.
// Walks are spaced and capped (WalkSchedule): no neighbour who renames
// folders in a shared watched folder keeps the agent walking.
//
// Threads:
//   - the main thread calls start(), setWatchList(), stopWatching() and
//     isWatching();
//   - each start() runs one watch loop (mainLoop, startWatching,
//     taskDataAvailable and the installation step) on a thread of its own;
//     a loop ends after stopWatching() or after an installation step;
//   - walks run on a walking thread, started when one is asked for and
//     ended when none is left.
// stopWatching() returns only once the helper it ended has been reaped.
// The destructor stops watching and waits for every loop and walk to end.
//
// State below mutex_: current_, scanCheckTask_, runningLoops_, watchList_,
// the walk schedule and the diagnostics already logged.
// Lock order: mutex_ is never held while calling out (queue, controller).
class FSEventWatcher {
public:
    explicit FSEventWatcher(Dispatcher& queue);
    ~FSEventWatcher();
    FSEventWatcher(const FSEventWatcher&) = delete;
    FSEventWatcher& operator=(const FSEventWatcher&) = delete;

    // Main thread. Starts a watch loop for the host, unless one is watching
    // already. The loop filters by the list last handed over.
    void start(WatcherHost& host);

    // Any thread. The watched folders for every chunk read from now on; a
    // running helper is told to watch them.
    void setWatchList(std::shared_ptr<const WatchList> list);
    std::shared_ptr<const WatchList> watchList() const;

    // Ends watching: the loop stops, and a running helper is terminated
    // (SIGTERM, then SIGKILL if it lingers) and reaped before this returns.
    void stopWatching();
    bool isWatching() const;

    // Watcher thread (tests call it directly): one chunk of helper output.
    // Each path in the watched folders goes to the queue, whatever its
    // bytes; a record split between chunks waits for its end. A diagnostic
    // of the helper is logged the first time it is read; the overflow
    // record starts a walk of the watched folders (scanWatchedFoldersWhole),
    // a folder arrival or an unresolved event one of a folder (scanFolderWhole).
    void taskDataAvailable(std::string_view chunk);

    // Queues every file the watch list admits, on the walking thread. An
    // overflow that arrives during a walk makes one more walk follow it, at
    // least WalkSchedule::kWholeSpacing after the last one began.
    enum class WhyWalk { QueueOverflowed, HelperEnded };
    void scanWatchedFoldersWhole(WhyWalk why = WhyWalk::QueueOverflowed);

    // Queues every file the watch list admits below the folder, on the
    // walking thread, when its turn comes (WalkSchedule).
    void scanFolderWhole(const std::string& folder);

    // Whether the walking thread still has folders to walk.
    bool isWalkingFolders() const;

    // True when the path lies inside a Trash folder: the home Trash
    // ($XDG_DATA_HOME/Trash), ~/.Trash, or the <top>/.Trash/<uid> or
    // <top>/.Trash-<uid> folder of the file system mounted at <top> that
    // holds the path.
    static bool isTrashedFileAtPath(const std::string& path);

    // <resources folder>/gfslogger.
    static std::string helperPath();

    // The running helper's process id, or -1. For tests and diagnostics.
    pid_t helperPid() const;

private:
    struct Loop;
    enum class RunEnd { Ended, Installed };

    void mainLoop(const std::shared_ptr<Loop>& loop);
    void handleRecord(std::string_view record, const WatchList& list);
    void handleFields(const WatchList& list);
    void logOnce(const std::string& line);
    void startWalking();
    void endWalking();
    void walkFolders();
    RunEnd startWatching(Loop& loop);
    void installHelper(Loop& loop, const std::string& helper);
    bool pauseBeforeRestart(Loop& loop, int milliseconds);

    Dispatcher& queue_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;           // signalled when scanCheckTask_, runningLoops_ or walksAsked_ change, and at a stop
    std::shared_ptr<Loop> current_;             // guarded by mutex_: the loop a stop ends
    pid_t scanCheckTask_ = -1;                  // guarded by mutex_: the running helper
    int runningLoops_ = 0;                      // guarded by mutex_: watch loops and walks
    bool walking_ = false;                      // guarded by mutex_: the walking thread runs
    WalkSchedule walks_;                        // guarded by mutex_
    std::uint64_t walksAsked_ = 0;              // guarded by mutex_: counts asks, to wake the walking thread
    // Watcher thread only: a record not yet ended, and a record kind that
    // takes fields with the fields read so far.
    std::string partialRecord_;
    std::string fieldsOf_;
    std::vector<std::string> fields_;
    std::set<std::string, std::less<>> diagnosticsLogged_; // guarded by mutex_
    std::shared_ptr<const WatchList> watchList_; // guarded by mutex_
};

} // namespace kv

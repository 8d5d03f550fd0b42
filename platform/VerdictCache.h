#pragma once

#include "platform/FileIdentity.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

struct sqlite3;
struct sqlite3_stmt;

namespace kv {

// The files found clean, kept across runs and shared by every scan of the
// user's: the agent's scanners, `velgarctl scan` and the Korvane
// application's scans. A file whose identity (FileIdentity: device, inode,
// size, and the times of the last change to its contents and to its inode,
// to the nanosecond) and whose definitions are those of a clean verdict is
// not sent to the engine again; any change to either makes it new.
//
// One SQLite database per user, $XDG_DATA_HOME/korvane/verdicts.sqlite
// (~/.local/share when unset), with one row per file (device and inode): a
// changed file replaces its row, so the database grows only with the number
// of files ever scanned, not with the number of scans. Processes meet
// through SQLite's own locks; in WAL mode readers never wait for a writer,
// and a writer waits at most kBusyMilliseconds for another, after which the
// rows wait for the next flush (a cache loses nothing that matters by it).
//
// The database is the user's alone: its folder must be the user's, not a
// symbolic link and not writable by others, and the file is made with mode
// 0600, is never reached through a symbolic link at its own name and must be
// the user's. SQLite opens it by path after these checks; only the user can
// swap it in a folder of the user's own.
//
// A database SQLite finds damaged (not a database, or corrupt) is set aside
// as verdicts.sqlite.damaged-SECONDS (kept, never removed) and made anew,
// with one log line. One that cannot be opened at all (a refused folder, a
// full disk) leaves the cache off for the object's life: every lookup
// misses and nothing is written, after one log line. Scanning goes on
// either way.
//
// Opened at its first use. Thread-safe: one connection per object, used
// under mutex_. Clean verdicts wait in memory (and answer lookups from
// there) until flush(), kBatchRows of them, or the destructor writes them in
// one transaction.
class VerdictCache {
public:
    static constexpr std::size_t kBatchRows = 512;
    static constexpr int kBusyMilliseconds = 1000;

    explicit VerdictCache(std::string path = defaultPath());
    ~VerdictCache();
    VerdictCache(const VerdictCache&) = delete;
    VerdictCache& operator=(const VerdictCache&) = delete;

    static std::string defaultPath();
    const std::string& path() const { return path_; }

    // True when the file, as it is, was found clean under these definitions.
    bool knownClean(const FileIdentity& file, std::string_view definitions);
    // The file, as it was while it was scanned, is clean under these
    // definitions.
    void rememberClean(const FileIdentity& file, std::string_view definitions);
    // Writes the verdicts waiting in memory.
    void flush();

private:
    struct Row {
        FileIdentity file;
        std::string definitions;
    };
    enum class Step { Done, Damaged, Failed };

    // The open database, opening it at the first call; false while the
    // cache is off.
    bool openLocked();
    Step tryOpenLocked(std::string* problem);
    void closeLocked();
    // Renames the damaged database (and its log) aside and opens a new one.
    bool replaceDamagedLocked(const std::string& problem);
    void turnOffLocked(const std::string& problem);
    Step writePendingLocked();
    bool lookupLocked(const FileIdentity& file, std::string_view definitions, Step* step);

    struct CloseDatabase {
        void operator()(sqlite3* database) const;
    };
    struct FinalizeStatement {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

    const std::string path_;
    std::mutex mutex_;
    // guarded by mutex_; the statements go before the database they belong to
    std::unique_ptr<sqlite3, CloseDatabase> database_;
    Statement lookup_, insert_, begin_, commit_;  // guarded by mutex_
    bool tried_ = false;                 // guarded by mutex_: opened once, or found it cannot be
    bool off_ = false;                   // guarded by mutex_
    bool replaced_ = false;              // guarded by mutex_: a damaged database is set aside once per object
    std::map<std::pair<std::uint64_t, std::uint64_t>, Row> pending_;  // guarded by mutex_; by device and inode
};

} // namespace kv

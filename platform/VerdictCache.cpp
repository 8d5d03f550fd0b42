#include "platform/VerdictCache.h"

#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/UniqueFd.h"

#include <sqlite3.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cstdlib>
#include <ctime>

namespace kv {
namespace {

// Rows older than this layout are dropped, not read.
constexpr int kLayoutVersion = 1;

constexpr const char* kCreate =
    "CREATE TABLE IF NOT EXISTS clean_files ("
    " device INTEGER NOT NULL, inode INTEGER NOT NULL,"
    " size INTEGER NOT NULL, modified_ns INTEGER NOT NULL, changed_ns INTEGER NOT NULL,"
    " definitions TEXT NOT NULL,"
    " PRIMARY KEY (device, inode)) WITHOUT ROWID";

// SQLite's integers are signed 64 bits; devices and inodes are unsigned and
// go in as their bit patterns.
sqlite3_int64 asInteger(std::uint64_t value) { return static_cast<sqlite3_int64>(value); }

sqlite3_int64 nanoseconds(std::int64_t seconds, long nanoseconds)
{
    return static_cast<sqlite3_int64>(seconds) * 1000000000 + nanoseconds;
}

bool isDamage(int code)
{
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

std::string folderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Why the database's folder or file is not the user's alone; "" when it is,
// with the file made (mode 0600) when it was missing.
std::string whyNotPrivate(const std::string& path)
{
    const std::string folder = folderOf(path);
    if (!makeDirectories(folder, 0700))
        return "cannot create " + folder + ": " + std::strerror(errno);
    struct stat info{};
    if (::lstat(folder.c_str(), &info) != 0)
        return "cannot examine " + folder + ": " + std::strerror(errno);
    if (!S_ISDIR(info.st_mode))
        return folder + " is not a folder (a symbolic link?)";
    if (info.st_uid != ::geteuid() || (info.st_mode & (S_IWGRP | S_IWOTH)))
        return folder + " belongs to another user or others can write to it";
    // O_NONBLOCK: a FIFO put there must not hold the opening.
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    if (!file)
        return errno == ELOOP ? path + " is a symbolic link" : "cannot open " + path + ": " + std::strerror(errno);
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid())
        return path + " is not a file of the user's own";
    if ((info.st_mode & 077) && ::fchmod(file.get(), 0600) != 0)
        return "cannot make " + path + " private: " + std::strerror(errno);
    return {};
}

} // namespace

void VerdictCache::CloseDatabase::operator()(sqlite3* database) const { sqlite3_close_v2(database); }
void VerdictCache::FinalizeStatement::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

VerdictCache::VerdictCache(std::string path) : path_(std::move(path)) {}

VerdictCache::~VerdictCache() { flush(); }

std::string VerdictCache::defaultPath() { return joinPath(dataHome(), "korvane/verdicts.sqlite"); }

bool VerdictCache::knownClean(const FileIdentity& file, std::string_view definitions)
{
    std::lock_guard<std::mutex> guard(mutex_);
    const auto waiting = pending_.find({file.device, file.inode});
    if (waiting != pending_.end())
        return waiting->second.file == file && waiting->second.definitions == definitions;
    if (!openLocked())
        return false;
    Step step = Step::Done;
    const bool known = lookupLocked(file, definitions, &step);
    if (step == Step::Damaged && replaceDamagedLocked(sqlite3_errmsg(database_.get())))
        return lookupLocked(file, definitions, &step);
    return known;
}

void VerdictCache::rememberClean(const FileIdentity& file, std::string_view definitions)
{
    bool full = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (off_)
            return;
        pending_[{file.device, file.inode}] = Row{file, std::string(definitions)};
        full = pending_.size() >= kBatchRows;
    }
    if (full)
        flush();
}

void VerdictCache::flush()
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (pending_.empty() || !openLocked())
        return;
    Step step = writePendingLocked();
    if (step == Step::Damaged && replaceDamagedLocked(sqlite3_errmsg(database_.get())))
        step = writePendingLocked();
    // A writer that kept the database busy past the limit: the rows wait
    // for the next flush, but never pile up without bound.
    if (step == Step::Done || pending_.size() >= 4 * kBatchRows)
        pending_.clear();
}

bool VerdictCache::lookupLocked(const FileIdentity& file, std::string_view definitions, Step* step)
{
    sqlite3_stmt* lookup = lookup_.get();
    sqlite3_reset(lookup);
    sqlite3_bind_int64(lookup, 1, asInteger(file.device));
    sqlite3_bind_int64(lookup, 2, asInteger(file.inode));
    const int code = sqlite3_step(lookup);
    bool known = false;
    if (code == SQLITE_ROW) {
        const auto text = reinterpret_cast<const char*>(sqlite3_column_text(lookup, 3));
        known = sqlite3_column_int64(lookup, 0) == file.size &&
                sqlite3_column_int64(lookup, 1) == nanoseconds(file.modifiedSeconds, file.modifiedNanoseconds) &&
                sqlite3_column_int64(lookup, 2) == nanoseconds(file.changedSeconds, file.changedNanoseconds) &&
                text && definitions == text;
    }
    *step = code == SQLITE_ROW || code == SQLITE_DONE ? Step::Done : isDamage(code) ? Step::Damaged : Step::Failed;
    sqlite3_reset(lookup);
    return known;
}

VerdictCache::Step VerdictCache::writePendingLocked()
{
    const auto run = [](sqlite3_stmt* statement) {
        const int code = sqlite3_step(statement);
        sqlite3_reset(statement);
        return code == SQLITE_DONE || code == SQLITE_ROW ? Step::Done : isDamage(code) ? Step::Damaged : Step::Failed;
    };
    if (const Step step = run(begin_.get()); step != Step::Done)
        return step;
    Step step = Step::Done;
    for (const auto& [key, row] : pending_) {
        sqlite3_stmt* insert = insert_.get();
        sqlite3_bind_int64(insert, 1, asInteger(row.file.device));
        sqlite3_bind_int64(insert, 2, asInteger(row.file.inode));
        sqlite3_bind_int64(insert, 3, row.file.size);
        sqlite3_bind_int64(insert, 4, nanoseconds(row.file.modifiedSeconds, row.file.modifiedNanoseconds));
        sqlite3_bind_int64(insert, 5, nanoseconds(row.file.changedSeconds, row.file.changedNanoseconds));
        sqlite3_bind_text(insert, 6, row.definitions.data(), static_cast<int>(row.definitions.size()), SQLITE_STATIC);
        step = run(insert);
        sqlite3_clear_bindings(insert);
        if (step != Step::Done)
            break;
    }
    if (step == Step::Done)
        step = run(commit_.get());
    if (step != Step::Done)
        sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    return step;
}

bool VerdictCache::openLocked()
{
    if (tried_)
        return !off_;
    tried_ = true;
    std::string problem;
    const Step step = tryOpenLocked(&problem);
    if (step == Step::Damaged)
        return replaceDamagedLocked(problem);
    if (step == Step::Failed)
        turnOffLocked(problem);
    return !off_;
}

VerdictCache::Step VerdictCache::tryOpenLocked(std::string* problem)
{
    if (*problem = whyNotPrivate(path_); !problem->empty())
        return Step::Failed;
    sqlite3* opened = nullptr;
    const int openCode = sqlite3_open_v2(path_.c_str(), &opened,
                                         SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(opened);
    if (openCode != SQLITE_OK) {
        *problem = opened ? sqlite3_errmsg(opened) : sqlite3_errstr(openCode);
        closeLocked();
        return isDamage(openCode) ? Step::Damaged : Step::Failed;
    }
    sqlite3_busy_timeout(database_.get(), kBusyMilliseconds);
    int version = -1;
    const auto exec = [&](const char* sql) {
        const int code = sqlite3_exec(
            database_.get(), sql,
            [](void* into, int, char** values, char**) {
                if (values[0])
                    *static_cast<int*>(into) = std::atoi(values[0]);
                return 0;
            },
            &version, nullptr);
        return code;
    };
    const auto prepare = [&](const char* sql, Statement* statement) {
        sqlite3_stmt* prepared = nullptr;
        const int code = sqlite3_prepare_v3(database_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
        statement->reset(prepared);
        return code;
    };
    // WAL: the agent and a scan from a terminal read and write at once;
    // NORMAL: a commit waits for no disk, and a crash loses at most the
    // last verdicts, never the database.
    int code = exec("PRAGMA journal_mode=WAL");
    if (code == SQLITE_OK)
        code = exec("PRAGMA synchronous=NORMAL");
    if (code == SQLITE_OK)
        code = exec("PRAGMA user_version");
    if (code == SQLITE_OK && version != kLayoutVersion) {
        code = exec("DROP TABLE IF EXISTS clean_files");
        if (code == SQLITE_OK)
            code = exec(kCreate);
        if (code == SQLITE_OK)
            code = exec(("PRAGMA user_version=" + std::to_string(kLayoutVersion)).c_str());
    }
    if (code == SQLITE_OK)
        code = prepare("SELECT size, modified_ns, changed_ns, definitions FROM clean_files WHERE device = ?1 AND inode = ?2",
                       &lookup_);
    if (code == SQLITE_OK)
        code = prepare("INSERT OR REPLACE INTO clean_files VALUES (?1, ?2, ?3, ?4, ?5, ?6)", &insert_);
    if (code == SQLITE_OK)
        code = prepare("BEGIN IMMEDIATE", &begin_);
    if (code == SQLITE_OK)
        code = prepare("COMMIT", &commit_);
    if (code == SQLITE_OK)
        return Step::Done;
    *problem = sqlite3_errmsg(database_.get());
    closeLocked();
    return isDamage(code) ? Step::Damaged : Step::Failed;
}

void VerdictCache::closeLocked()
{
    lookup_.reset();
    insert_.reset();
    begin_.reset();
    commit_.reset();
    database_.reset();
}

bool VerdictCache::replaceDamagedLocked(const std::string& problem)
{
    closeLocked();
    if (replaced_) {
        turnOffLocked(problem);
        return false;
    }
    replaced_ = true;
    // Kept, not removed: it is the user's file, and may tell what happened.
    const std::string aside = path_ + ".damaged-" + std::to_string(std::time(nullptr));
    if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) != 0) {
        turnOffLocked("the damaged database cannot be set aside: " + std::string(std::strerror(errno)));
        return false;
    }
    ::renameat2(AT_FDCWD, (path_ + "-wal").c_str(), AT_FDCWD, (aside + "-wal").c_str(), RENAME_NOREPLACE);
    ::unlink((path_ + "-shm").c_str());
    nsLogf("The verdict cache %s was damaged (%s); it is kept as %s and a new one is made", path_.c_str(),
           problem.c_str(), aside.c_str());
    std::string again;
    if (tryOpenLocked(&again) == Step::Done)
        return true;
    turnOffLocked(again);
    return false;
}

void VerdictCache::turnOffLocked(const std::string& problem)
{
    closeLocked();
    off_ = true;
    pending_.clear();
    nsLogf("The verdict cache %s cannot be used (%s); files are scanned without it", path_.c_str(), problem.c_str());
}

} // namespace kv

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv {

// One file the agent moved away from where it was found.
struct QuarantineRecord {
    enum class Place { Quarantine, Trash };
    std::string originalPath;   // bytes, as the agent scanned it
    std::string storedPath;     // bytes, where the file lies now
    std::string signature;      // e.g. "Korvane.Test.Eicar-1" (may be empty when unknown)
    std::int64_t movedAt = 0;   // seconds since the epoch
    Place place = Place::Quarantine;
    std::uint64_t device = 0, inode = 0; // of the stored file, taken when it was recorded
};

// The index of the files the agent moved away: $XDG_DATA_HOME/korvane/quarantine.jsonl
// (~/.local/share when unset), one JSON object a line, appended by the agent.
// Paths and signatures are kept percent-encoded, so any bytes a name holds
// (line breaks, bytes that are not UTF-8) come back as they were.
//
// The agent's scanner threads append (record); the korvane application lists,
// restores and deletes. Processes and threads meet at flock(2) on the index:
// an append is one write under LOCK_EX, a listing reads under LOCK_SH, and
// the compaction after a restore or delete rewrites the file in place under
// LOCK_EX (in place, so every lock stays on one inode). A compaction cut
// short leaves old lines behind the new ones; they are duplicates or records
// of files that are gone, and listing drops both.
//
// Only the user can write the index: its folder and the file must be the
// user's and not writable by others, and neither is ever reached through a
// symbolic link at its own name. A record is acted on only while its stored
// file is still the file recorded (same device and inode, a regular file);
// the check is made on a descriptor and the move or removal then names the
// same entry in the same folder descriptor. rename(2) takes names, not
// descriptors, so a window remains between that check and the call: it lies
// inside the quarantine folder or Trash, which are the user's own.
//
// Folders on the way to a path are opened the ordinary way, except for
// paths past PATH_MAX (LongPath.h), which are walked without following any
// link; on a short path a link planted in a sticky world-writable folder is
// refused by the kernel itself (fs.protected_symlinks).
//
// An object holds only its path: any number may be used at once, from any
// thread.
class QuarantineRecords {
public:
    explicit QuarantineRecords(std::string indexPath = defaultIndexPath());
    static std::string defaultIndexPath();
    const std::string& indexPath() const;

    // Agent: takes device and inode from the stored file (lstat, never following a link) and appends one line.
    bool record(QuarantineRecord record, std::string* error);
    // The records whose stored file still is the file that was recorded (same device and inode, a regular file),
    // newest first. A missing index is an empty list; a damaged line is skipped (and counted in *skipped).
    std::vector<QuarantineRecord> current(std::string* error, int* skipped = nullptr) const;
    // Moves the stored file back to originalPath, never over an existing file (renameat2 RENAME_NOREPLACE;
    // across file systems: copy into a new file made with O_EXCL|O_NOFOLLOW, then remove the stored one);
    // for the Trash also removes its info/<name>.trashinfo. Refuses, with a clear *error, when the stored file
    // is no longer the recorded one, when something exists at originalPath, or when its folder is gone.
    // The file keeps its permission bits, but never set-user-ID or set-group-ID.
    bool restore(const QuarantineRecord& record, std::string* error);
    // Removes the stored file for good (and its .trashinfo for the Trash), after the same check.
    bool remove(const QuarantineRecord& record, std::string* error);

private:
    // Drops the lines whose file is gone; false when the index could not be
    // rewritten. Best effort: a record of a file that is gone is never
    // listed anyway.
    bool compact() const;

    std::string indexPath_;
};

} // namespace kv

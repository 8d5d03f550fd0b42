#pragma once

#include "platform/UniqueFd.h"

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
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

// A found file's folder, reached from "/" one name at a time without
// following a symbolic link and held open, and the file's name in it. Move
// to Trash acts on these and never looks the path up again: a folder on the
// way swapped for a link once the walk is done leads nowhere new. path is
// the path that was walked (its names joined by single slashes).
struct WalkedFile {
    UniqueFd folder;
    std::string name;
    std::string path;
};

// Walks to the folder of path. Nothing, with *error, when path is not a full
// path of names ("." and ".." are refused: they would walk somewhere the
// path does not spell), or when a folder on the way is a link, is missing
// or cannot be opened.
std::optional<WalkedFile> walkToFile(const std::string& path, std::string* error);

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
// Folders on the way to a stored file and to the index are opened the
// ordinary way, except for paths past PATH_MAX (LongPath.h), which are
// walked without following any link; on a short path a link planted in a
// sticky world-writable folder is refused by the kernel itself
// (fs.protected_symlinks). The folders on the way to where a file came from
// (the move to the Trash, the restore) are walked without following any
// link, and only their descriptors are acted on.
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
    // Desktop (Move to Trash in the agent's warning windows and the Scan page): moves the regular file file.name
    // of the walked folder into the user's Trash (openTrash, TrashInfo.h) the way moveIntoFolder does
    // (FileWriting.h), writes its .trashinfo by the info folder's descriptor, and records it, both with
    // file.path. Nothing, with *error, when nothing was moved (the name is gone, a link, not a regular file, not
    // the file of only's device and inode when only is given; the Trash is refused). A record when the file
    // was moved; *error then says what could not be written after the move (the .trashinfo, the index), and is
    // empty when nothing went wrong.
    std::optional<QuarantineRecord> moveToTrash(const WalkedFile& file, std::string* error,
                                                std::optional<std::pair<dev_t, ino_t>> only = std::nullopt);
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
    // Appends the record's line as it is.
    bool append(const QuarantineRecord& record, std::string* error);
    // Drops the lines whose file is gone; false when the index could not be
    // rewritten. Best effort: a record of a file that is gone is never
    // listed anyway.
    bool compact() const;

    std::string indexPath_;
};

} // namespace kv

#pragma once

namespace kv::gfs {

// gfslogger's exit statuses. The agent answers status 1, and only status 1,
// by installing the helper set-user-ID root, so no other way out of the
// helper may end with 1.
enum ExitStatus : int {
    kOutputClosed = 0,     // whoever read our output has gone away
    kLacksPrivileges = 1,  // neither root nor set-user-ID root: installing it helps
    kCannotWatch = 2,      // root's rights, yet the kernel would not let us watch
    kAlreadyRunning = 3,   // another helper watches for the same real user (UserLock)
    kOutputUnread = 4,     // nobody took our output for kLongestUnreadOutput (RecordWriter)
};

} // namespace kv::gfs

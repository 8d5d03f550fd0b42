#pragma once

#include "platform/UniqueFd.h"

#include <sys/types.h>

#include <string>

namespace kv::gfs {

// At most one gfslogger per real user. Each helper costs the kernel a queue
// and its marks, and a set-user-ID program that any user could start many
// times over would let one user make every file operation on the machine
// slower. So each helper holds an exclusive flock(2) on
// /run/korvane-velgar/gfslogger-<uid>.lock for its whole life; the kernel
// lets go of it when the process ends, however it ends, and a second helper
// of the same user that finds it held says so and ends.
//
// Only root can make the lock: the helper takes it while it still has root's
// rights, before Privileges drops them, and makes the folder and the file
// as root. Every folder on the way (/, /run, /run/korvane-velgar) must
// belong to root and be writable by nobody else, and no link is followed on
// the way or at the file, so no user can take another user's lock ahead of
// them, nor remove or replace their own to run a second helper.
//
// A helper whose real user is root is not limited and takes no lock: root
// needs no set-user-ID program to mark folders or fill the kernel's queues,
// and root may well run several agents side by side (the test suites run
// theirs as root, several at once on a shared machine).
class UserLock {
public:
    enum class Outcome {
        Held,            // the lock is ours (or, for root, not needed)
        HeldByAnother,   // another helper of the same real user holds it
        Failed,          // the lock could not be made or taken; *message says why
    };

    // Takes the lock of realUid into *held. Runs with root's rights.
    static Outcome take(uid_t realUid, UniqueFd* held, std::string* message);
};

} // namespace kv::gfs

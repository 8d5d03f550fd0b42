#pragma once

#include "eventhelper/OpenHolder.h"
#include "platform/UniqueFd.h"

#include <string>

#include <sys/types.h>
#include <unistd.h>

namespace kv::gfs {

// The rights gfslogger runs with. The helper needs root's power to watch
// every file system, and it gets it either by being started by root or by
// being installed set-user-ID root, in which case it runs for an ordinary
// user who must learn nothing about other users' files from it.
//
// establish() runs first thing in main(), before any other code of ours.
class Privileges {
public:
    enum class Outcome {
        Ready,            // root's rights, reduced to what watching needs
        LacksPrivileges,  // neither root nor set-user-ID root
        Failed,           // set-user-ID root, yet started without its rights, or a
                          // step of the reduction failed
        AlreadyRunning,   // another helper watches for the same real user (UserLock)
    };

    // Checks the rights and, when they suffice, sheds everything a watcher
    // does not need: the environment, inherited descriptors but the three
    // standard ones, signal settings, the set-user-ID identity (the process
    // becomes the real user again) and every capability but CAP_SYS_ADMIN
    // (fanotify) and CAP_DAC_READ_SEARCH (resolving file handles). Those two
    // stay permitted but not effective: they are in force only inside a
    // Raised scope. Before it lets go of root, it takes the real user's
    // UserLock into *userLock, which the caller keeps for its life. When the
    // agent handed us its hold channel (kHoldChannelFd, a SOCK_SEQPACKET
    // socket), the OpenHolder is started first, keeping root's identity, and
    // *holder is the helper's link to it.
    // *message says why when the outcome is not Ready.
    static Outcome establish(std::string* message, UniqueFd* userLock, OpenHolder::Link* holder);

    // The capabilities kept by establish() in force for one scope, around
    // the calls that need them: creating and marking fanotify groups,
    // looking at mount points, and opening objects by file handle.
    // Everything else, above all the reading and writing of paths, runs
    // with the real user's rights alone. Nested scopes are allowed.
    class Raised {
    public:
        Raised();
        ~Raised();
        Raised(const Raised&) = delete;
        Raised& operator=(const Raised&) = delete;

    private:
        bool raised_;
    };

    Privileges() : realUid_(::getuid()) {}

    // Whether the user who started the helper may list the folder, checked
    // with the real user id: the names in a folder that user cannot list
    // are none of their business. Always true for root, and for a folder
    // the user owns and may reach (they may change its mode at any time).
    bool realUserCanList(const std::string& folder) const;
    // Whether that user may pass through the folder to what lies below.
    bool realUserCanSearch(const std::string& folder) const;

    // The same checks for a folder open as folderFd (O_PATH will do), by
    // that folder's own permissions alone: for a folder with no path, whose
    // caller checks the folders above it one by one.
    bool realUserCanList(int folderFd) const;
    bool realUserCanSearch(int folderFd) const;

private:
    bool realUserMay(int dirFd, const char* path, int mode, int flags) const;
    bool realUserOwns(int dirFd, const char* path, int flags) const;

    uid_t realUid_;
};

} // namespace kv::gfs

#pragma once

#include "eventhelper/HoldProtocol.h"
#include "platform/UniqueFd.h"

#include <sys/types.h>

#include <chrono>
#include <string>

namespace kv::gfs {

// gfslogger's holder: a child of the helper that keeps every open (and
// every execution) of a file in the user's watched folders waiting until the
// agent's verdict, and never longer than the agent's deadline.
//
// It is the one part of the helper that keeps root's identity, real user id
// included, so the user it serves can neither stop it nor kill it: a held
// open must be answered by its deadline whatever happens to the agent, to
// the helper or to clamd. It answers every open itself: allowed at once
// where it does not hold, denied or allowed by the agent's verdict, allowed
// at the deadline without one. It ends when the agent's channel or the
// helper's link ends, and the kernel then lets every open still waiting go
// on. One helper a user (UserLock) means one holder a user.
//
// What it holds: opens of regular files with content, in folders the helper
// hands it (the user's own folders among the watched ones, see
// FanotifyWatch), by the user's own processes or of the user's own files,
// when the real user may read the file (checked with the user's file-system
// identity, so permissions and access lists count as for the user). Never:
// the agent and its children (clamdscan), an empty file, another user's
// open of another user's file. A file found clean gets an ignore mark that
// the kernel drops when the file is modified, so opening it again costs
// nothing until it changes. The agent receives the held file as a
// read-only descriptor; it never needs the path, and reading it raises no
// event of its own.
//
// The helper's side talks to it through a Link: folders to mark and unmark,
// and how long to hold.
class OpenHolder {
public:
    // At most this many opens wait at once; past them opens go on at once,
    // and their files are scanned when they are written, as without holding.
    static constexpr std::size_t kMostHeld = 1024;

    // The helper's end of the holder.
    class Link {
    public:
        Link() = default;
        explicit Link(UniqueFd socket) : socket_(std::move(socket)) {}
        bool connected() const { return static_cast<bool>(socket_); }
        int fd() const { return socket_.get(); }

        // Each sends one message; false when the holder has gone.
        bool mark(int folderFd);
        bool unmark(int folderFd);
        bool unmarkAll();
        bool holdFor(std::chrono::seconds seconds);

    private:
        bool send(char kind, const void* data, std::size_t size, int fd);
        UniqueFd socket_;
    };

    // Forks the holder, with root's rights still in force (Privileges calls
    // it before it lets go of them). agentChannel is the agent's end
    // (kHoldChannelFd); user, group and agent are the real user, their
    // group and the agent's process, whose children are never held. The
    // helper gets its Link; nothing when the fork failed (*message says why).
    static Link start(UniqueFd agentChannel, uid_t user, gid_t group, pid_t agent, std::string* message);
};

} // namespace kv::gfs

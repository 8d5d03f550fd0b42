#pragma once

#include <optional>
#include <string>

namespace kv {

// Client for clamd's control socket: one short command over a fresh
// UNIX-domain stream connection, one reply read and discarded.
//
// Stateless; any thread may call it at the same time as others. A call
// blocks for the connect, the write and the read, with no time-out.
// Failure messages go to standard output with a perror() line on standard
// error: both are the scan log.
class ClamdCtrl {
public:
    // The longest socket path that is copied into the address; longer paths
    // are cut there.
    static constexpr size_t kMaxPathBytes = 104;
    static constexpr size_t kMessageBytes = 6;
    static constexpr size_t kReplyBytes = 20;

    // True when the command was written (whatever the reply), and when the
    // path is missing (after a log line asking the user to report it);
    // false when the socket could not be created, connected or written, or
    // when the path or command has no ASCII form.
    bool communicateWithSocket(const std::optional<std::string>& pathToSocket, const std::string& command);

    // The 6-byte message for a command: its ASCII characters, then NUL bytes.
    static std::string messageFor(const std::string& command);
};

} // namespace kv

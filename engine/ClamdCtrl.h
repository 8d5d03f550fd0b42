#pragma once

#include "engine/ClamdConfig.h"

#include <optional>
#include <string>
#include <string_view>

namespace kv {

// Client for clamd's control socket: one short command over a fresh
// UNIX-domain stream connection (or TCP connection, for a daemon on another
// machine), one reply read and discarded.
//
// Only a daemon run by the user, root or the clamav system user is talked
// to: the socket's peer is checked (SO_PEERCRED) before anything is sent,
// so a daemon another user put at the socket's path never learns what is
// scanned nor answers for the engine.
//
// Over TCP, a daemon on another machine is trusted by the address the user
// configured. One on this machine is identified by the connection itself:
// the server's end of the very socket used (see TcpServerEnd.h) must be the
// user's, root's or clamav's, and every exchange below checks the socket it
// then uses, so nothing is sent to whoever took the port while the daemon
// was down.
//
// Stateless; any thread may call it at the same time as others. The
// connect, the write and the read each give up after kTimeLimitSeconds (and
// over TCP so does the look-up of a host name), so a silent server never
// holds a thread. Failure messages go to standard
// output with a perror() line on standard error: both are the scan log.
class ClamdCtrl {
public:
    static constexpr int kTimeLimitSeconds = 5;
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

    // Why the process at the other end of a connected UNIX-domain socket is
    // not trusted with the engine: empty for the user, root and the clamav
    // system user, else a sentence naming the peer's user.
    static std::string untrustedPeer(int socketFd);

    // Before clamdscan connects to the socket by its path: true when no
    // other user could put a socket there (see whyOthersCouldServe()) and
    // the daemon answering there, if any, is trusted (nobody answering is
    // the scan's to report); false, after a log line, otherwise. The
    // folders are checked whether or not a daemon answers now, since
    // clamdscan connects again after this check.
    bool socketPeerTrusted(const std::string& pathToSocket);

    // Why the clamd behind a TCP connection is not to be trusted: on this
    // machine any user may listen on a free port, so the server's end of
    // this very connection must belong to the user, root or clamav, and a
    // connection to an address of this machine whose server end cannot be
    // found is refused too. "" for those and for a server on another
    // machine.
    static std::string untrustedLocalTcpServer(int socketFd);

    // Connects and checks the server as above, sending nothing. True when
    // it is trusted or nothing answers (the scan reports that); false, after
    // a log line, for another user's server on this machine. It says
    // nothing about the next connection (clamdscan's own): see
    // mayBeOnThisMachine().
    bool tcpEnginePeerTrusted(const TcpEngine& engine);

    // True when any address of the engine is this machine's (loopback, the
    // unspecified address, or an address of one of its interfaces, IPv4
    // mapped into IPv6 too), or when its host names cannot be looked up
    // before the time limit. A connection to such an engine is trusted only
    // after it is checked, so only the agent's own checked connections
    // (scanOpenFile()) may carry files to it, never clamdscan's.
    static bool mayBeOnThisMachine(const TcpEngine& engine);

    // True when the socket is served by the system's clamd service (a
    // daemon run by root or the clamav system user, not by the user) and it
    // answers PING with PONG.
    static bool systemServiceAnswers(const std::string& pathToSocket);

    // The daemon's answer to VERSION ("ClamAV 1.4.3/27463/Mon Nov 23 ...":
    // the engine, the definitions' version and their date), after the same
    // trust checks as a scan: the Korvane application's "does the engine
    // answer". Nothing, with *problem set, when it does not answer.
    static std::optional<std::string> askVersion(const std::string& pathToSocket, std::string* problem);
    static std::optional<std::string> askVersion(const TcpEngine& engine, std::string* problem);
    // communicateWithSocket() for a daemon reached over TCP: the engine's
    // addresses are tried in order, as clamdscan tries them. True when the
    // command was written (whatever the reply).
    bool communicateWithTcpEngine(const TcpEngine& engine, const std::string& command);

    // True when the daemon at the TCP engine's address answers PING with
    // PONG; otherwise *problem (when given) says what went wrong.
    static bool tcpEngineAnswers(const TcpEngine& engine, std::string* problem = nullptr);

    // What the daemon said about one file scanned by scanOpenFile().
    struct FileVerdict {
        enum Kind { Clean, Found, Error, Unreachable, Untrusted } kind = Unreachable;
        // Found: the signature. Error: the daemon's reason. Unreachable: the
        // line clamdscan prints for a daemon it cannot reach. Untrusted: why.
        std::string detail;
    };

    // How long a daemon may take over one file before the scan is given up.
    static constexpr int kFileScanLimitSeconds = 600;

    // Scans an open regular file without naming it, so a name of any bytes
    // and any length is scanned as it is: the descriptor itself is passed
    // over the local socket (zFILDES), which also lets a daemon of another
    // user (the system's service) read a file in a private folder; a daemon
    // over TCP gets the contents (zINSTREAM). Nothing is sent to a peer that
    // is not trusted (see untrustedPeer, untrustedLocalTcpServer): the
    // connection checked is the one the file goes over. A readable stopFd
    // (an eventfd, say; -1 for none) ends the wait for the daemon at once,
    // as Unreachable: the caller that stopped it knows why.
    static FileVerdict scanOpenFile(int fileFd, const std::optional<std::string>& pathToSocket,
                                    const std::optional<TcpEngine>& tcpEngine, int stopFd = -1);

    // The verdict in a reply of clamd's NUL-ended protocol: "NAME: OK",
    // "NAME: SIGNATURE FOUND" or "NAME: REASON ERROR".
    static FileVerdict parseVerdict(std::string_view reply);
};

} // namespace kv

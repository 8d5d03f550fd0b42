#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

// Identifiers of the text encodings the configuration reader can report,
// logged as "clamdconfEncoding: %d".
enum ConfigEncoding : int {
    kNoEncoding = 0,
    kAsciiEncoding = 1,
    kUtf8Encoding = 4,
};

struct ClamdConfigText {
    std::string text;
    int encoding = kNoEncoding;  // kNoEncoding when nothing could be read
    std::string error;           // why nothing was read, when so
};

// Reads a clamd configuration file as text. Plain ASCII and UTF-8 files are
// accepted; anything else (or an unreadable file) gives no text and a reason.
ClamdConfigText readClamdConfig(const std::string& path);

// Walks the text's lines (split at "\n" only, nothing trimmed) and returns the
// socket named by the last line that is at least 13 characters long and holds
// "LocalSocket " anywhere: the text after the first occurrence up to the next
// occurrence or the end of the line. Comment lines count like any other.
std::optional<std::string> lastLocalSocket(std::string_view text);

// The values a clamd configuration gives OPTION, read as clamd and clamdscan
// read it: blank lines and lines whose first non-blank character is '#'
// skipped, the option's name first on the line, then blanks, then the value
// (trailing blanks and a carriage return dropped). In file order: for most
// options the last one counts, TCPAddr keeps them all.
std::vector<std::string> clamdOptionValues(std::string_view text, std::string_view option);

// A clamd reached over TCP: the port of TCPSocket and the hosts of TCPAddr,
// tried in order ("any" meaning this machine), as clamdscan tries them.
struct TcpEngine {
    std::vector<std::string> hosts;
    uint16_t port = 0;

    // "HOST:PORT" for the first host, an IPv6 address in brackets.
    std::string describe() const;
    bool operator==(const TcpEngine&) const = default;
};

// The TCP engine a clamd configuration names for clamdscan: a TCPSocket
// with a port from 1 to 65535 and at least one TCPAddr, and no LocalSocket
// (clamdscan would use that instead and never stream). Nothing otherwise.
std::optional<TcpEngine> tcpEngineOf(std::string_view text);

// HOST:PORT as a user gives it to `velgarctl setup --engine`: an IPv4
// address, an IPv6 address in brackets, or a host name (letters, digits and
// hyphens in dot-separated labels), then a port from 1 to 65535 in decimal.
// Nothing, with *error saying why, for anything else.
std::optional<TcpEngine> parseEngineAddress(std::string_view text, std::string* error);

} // namespace kv

#include "engine/ClamdConfig.h"

#include "platform/Utf8.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace kv {

ClamdConfigText readClamdConfig(const std::string& path)
{
    ClamdConfigText result;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        result.error = std::strerror(errno);
        return result;
    }
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) {
        result.error = "read error";
        return result;
    }
    if (!isValidUtf8(bytes)) {
        result.error = "the file is neither ASCII nor UTF-8 text";
        return result;
    }
    // Like the platform reader it stands in for, a readable file reports UTF-8.
    result.encoding = kUtf8Encoding;
    result.text = std::move(bytes);
    return result;
}

std::optional<std::string> lastLocalSocket(std::string_view text)
{
    static constexpr std::string_view kDirective = "LocalSocket ";
    std::optional<std::string> socket;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos)
            end = text.size();
        const std::string_view line = text.substr(start, end - start);
        if (line.size() >= kDirective.size() + 1) {
            const size_t first = line.find(kDirective);
            if (first != std::string_view::npos) {
                const size_t pieceStart = first + kDirective.size();
                const size_t next = line.find(kDirective, pieceStart);
                socket = std::string(line.substr(pieceStart, next == std::string_view::npos ? std::string_view::npos
                                                                                            : next - pieceStart));
            }
        }
        if (end == text.size())
            break;
        start = end + 1;
    }
    return socket;
}

std::vector<std::string> clamdOptionValues(std::string_view text, std::string_view option)
{
    std::vector<std::string> values;
    size_t position = 0;
    while (position < text.size()) {
        size_t end = text.find('\n', position);
        if (end == std::string_view::npos)
            end = text.size();
        std::string_view line = text.substr(position, end - position);
        position = end + 1;

        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        const size_t start = line.find_first_not_of(" \t");
        if (start == std::string_view::npos || line[start] == '#')
            continue;
        line.remove_prefix(start);
        const size_t gap = line.find_first_of(" \t");
        if (gap == std::string_view::npos || line.substr(0, gap) != option)
            continue;
        std::string_view value = line.substr(gap);
        value.remove_prefix(std::min(value.size(), value.find_first_not_of(" \t")));
        while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
            value.remove_suffix(1);
        if (!value.empty())
            values.emplace_back(value);
    }
    return values;
}

namespace {

bool allDigits(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<uint16_t> portNumber(std::string_view text)
{
    if (!allDigits(text) || text.size() > 5)
        return std::nullopt;
    unsigned value = 0;
    for (const char c : text)
        value = value * 10 + static_cast<unsigned>(c - '0');
    if (value < 1 || value > 65535)
        return std::nullopt;
    return static_cast<uint16_t>(value);
}

bool isAddress(int family, const std::string& text)
{
    unsigned char buffer[16];
    return ::inet_pton(family, text.c_str(), buffer) == 1;
}

// Why TEXT is not a host name (RFC 1123 labels) or an IPv4 address; empty
// when it is one.
std::string hostProblem(std::string_view host)
{
    if (host.empty())
        return "no host before the port";
    if (host.size() > 253)
        return "the host name is longer than 253 characters";
    bool lastLabelNumeric = false;
    size_t start = 0;
    while (start <= host.size()) {
        size_t dot = host.find('.', start);
        if (dot == std::string_view::npos)
            dot = host.size();
        const std::string_view label = host.substr(start, dot - start);
        if (label.empty())
            return "the host name has an empty label";
        if (label.size() > 63)
            return "a label of the host name is longer than 63 characters";
        for (const char c : label) {
            const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
            if (!allowed)
                return std::string("the host name holds \"") + c + "\", which is not a letter, digit, hyphen or dot";
        }
        if (label.front() == '-' || label.back() == '-')
            return "a label of the host name begins or ends with a hyphen";
        lastLabelNumeric = allDigits(label);
        start = dot + 1;
    }
    // A name whose last label is a number is an IPv4 address or nothing.
    if (lastLabelNumeric && !isAddress(AF_INET, std::string(host)))
        return "\"" + std::string(host) + "\" is not an IPv4 address";
    return {};
}

} // namespace

std::string TcpEngine::describe() const
{
    const std::string host = hosts.empty() ? std::string("?") : hosts.front();
    const std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    return shown + ":" + std::to_string(port);
}

std::optional<TcpEngine> tcpEngineOf(std::string_view text)
{
    if (!clamdOptionValues(text, "LocalSocket").empty())
        return std::nullopt;
    const std::vector<std::string> ports = clamdOptionValues(text, "TCPSocket");
    if (ports.empty())
        return std::nullopt;
    const std::optional<uint16_t> port = portNumber(ports.back());
    TcpEngine engine{clamdOptionValues(text, "TCPAddr"), port.value_or(0)};
    if (!port || engine.hosts.empty())
        return std::nullopt;
    return engine;
}

std::optional<TcpEngine> parseEngineAddress(std::string_view text, std::string* error)
{
    std::string_view host;
    std::string_view port;
    if (text.starts_with('[')) {
        const size_t close = text.find(']');
        if (close == std::string_view::npos) {
            *error = "an IPv6 address in brackets lacks its \"]\"";
            return std::nullopt;
        }
        host = text.substr(1, close - 1);
        if (!isAddress(AF_INET6, std::string(host))) {
            *error = "\"" + std::string(host) + "\" is not an IPv6 address";
            return std::nullopt;
        }
        if (text.substr(close + 1, 1) != ":") {
            *error = "give a port after the address, as in [::1]:3310";
            return std::nullopt;
        }
        port = text.substr(close + 2);
    } else {
        const size_t colon = text.rfind(':');
        if (colon == std::string_view::npos) {
            *error = "give HOST:PORT, as in scanner.example.com:3310";
            return std::nullopt;
        }
        host = text.substr(0, colon);
        port = text.substr(colon + 1);
        if (host.find(':') != std::string_view::npos) {
            *error = "an IPv6 address goes in brackets, as in [::1]:3310";
            return std::nullopt;
        }
        if (const std::string problem = hostProblem(host); !problem.empty()) {
            *error = problem;
            return std::nullopt;
        }
    }
    const std::optional<uint16_t> number = portNumber(port);
    if (!number) {
        *error = "the port must be a number from 1 to 65535, not \"" + std::string(port) + "\"";
        return std::nullopt;
    }
    return TcpEngine{{std::string(host)}, *number};
}

} // namespace kv

#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kv::gfs {

// How gfslogger's holder and the agent talk about the opens the holder keeps
// waiting until their verdict (OpenHolder.h). The agent hands gfslogger one
// end of a SOCK_SEQPACKET socket pair as descriptor kHoldChannelFd; one
// message is one packet, so no name can run into the next message.
//
// The holder asks: a Request carries the open file itself (SCM_RIGHTS, read
// only), who opened it and its path (the rest of the packet, any bytes; the
// engine never needs it, the log and the alerts do). The agent answers each
// request with a Verdict by its id. The holder tells the agent of a request
// it answered itself at its deadline (TimedOut). The agent decides how long
// the holder waits with each watch list (HelperInput.h, kHoldSeconds).
//
// Messages from the agent are the agent's to choose: the holder takes only a
// Verdict for an id it is waiting on, and only for an open it was allowed to
// hold (OpenHolder.h says which).
inline constexpr int kHoldChannelFd = 3;

enum class HoldMessage : std::uint8_t { Request = 'H', TimedOut = 'T', Verdict = 'V' };

// The verdict on one held open. Clean: the kernel is told to stop asking
// about the file until it changes.
enum class HoldVerdict : std::uint8_t { AllowUnknown = 0, AllowClean = 1, Deny = 2 };

// Who opened the file: the process id and its command name as the kernel
// keeps it (at most 15 bytes).
struct Opener {
    pid_t pid = 0;
    std::string command;
};

// Request and TimedOut: kind, id, pid, 16 bytes of command (NUL-padded), the
// path to the end of the packet.
struct HoldNotice {
    HoldMessage kind = HoldMessage::Request;
    std::uint64_t id = 0;
    Opener opener;
    std::string path;
};

inline constexpr std::size_t kHoldNoticeHeader = 1 + 8 + 4 + 16;
// The longest packet either side sends: a header and a path of PATH_MAX.
inline constexpr std::size_t kLongestHoldPacket = kHoldNoticeHeader + 4096;

inline std::string encodeNotice(const HoldNotice& notice)
{
    std::string packet(kHoldNoticeHeader, '\0');
    packet[0] = static_cast<char>(notice.kind);
    std::memcpy(&packet[1], &notice.id, 8);
    const std::int32_t pid = notice.opener.pid;
    std::memcpy(&packet[9], &pid, 4);
    std::memcpy(&packet[13], notice.opener.command.data(), std::min<std::size_t>(notice.opener.command.size(), 15));
    packet.append(notice.path, 0, kLongestHoldPacket - kHoldNoticeHeader);
    return packet;
}

inline std::optional<HoldNotice> decodeNotice(std::string_view packet)
{
    if (packet.size() < kHoldNoticeHeader)
        return std::nullopt;
    HoldNotice notice;
    notice.kind = static_cast<HoldMessage>(packet[0]);
    if (notice.kind != HoldMessage::Request && notice.kind != HoldMessage::TimedOut)
        return std::nullopt;
    std::memcpy(&notice.id, &packet[1], 8);
    std::int32_t pid = 0;
    std::memcpy(&pid, &packet[9], 4);
    notice.opener.pid = pid;
    const std::string_view command = packet.substr(13, 16);
    notice.opener.command = std::string(command.substr(0, command.find('\0')));
    notice.path = std::string(packet.substr(kHoldNoticeHeader));
    return notice;
}

// Verdict: kind, id, verdict.
inline constexpr std::size_t kVerdictPacket = 1 + 8 + 1;

inline std::string encodeVerdict(std::uint64_t id, HoldVerdict verdict)
{
    std::string packet(kVerdictPacket, '\0');
    packet[0] = static_cast<char>(HoldMessage::Verdict);
    std::memcpy(&packet[1], &id, 8);
    packet[9] = static_cast<char>(verdict);
    return packet;
}

inline std::optional<std::pair<std::uint64_t, HoldVerdict>> decodeVerdict(std::string_view packet)
{
    if (packet.size() != kVerdictPacket || packet[0] != static_cast<char>(HoldMessage::Verdict))
        return std::nullopt;
    std::uint64_t id = 0;
    std::memcpy(&id, &packet[1], 8);
    const auto verdict = static_cast<std::uint8_t>(packet[9]);
    if (verdict > static_cast<std::uint8_t>(HoldVerdict::Deny))
        return std::nullopt;
    return std::pair{id, static_cast<HoldVerdict>(verdict)};
}

} // namespace kv::gfs

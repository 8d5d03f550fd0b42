#include "scan/ClamdscanOutput.h"

#include "platform/Utf8.h"

#include <utility>

namespace kv {

bool listFileCanCarry(std::string_view path)
{
    return path.size() < kLongestListedPath && path.find_first_of("\n\r") == std::string_view::npos &&
           isValidUtf8(path);
}

namespace {

constexpr std::string_view kConnectWarning = "WARNING: Can't connect to clamd.";
constexpr std::string_view kConnectError = "ERROR: Could not connect to clamd on";
constexpr std::string_view kMovedMarker = ": moved to '";

// The summary block after the results: its separators, counts, elapsed
// time and (from ClamAV 1.x) start and end dates.
bool isSummaryLine(std::string_view line)
{
    for (const std::string_view start : {"-----", "Time:", "Infec", "Total errors:", "Start Date:", "End Date:"}) {
        if (line.starts_with(start))
            return true;
    }
    return false;
}

} // namespace

void ClamdscanOutput::feed(std::string_view chunk)
{
    partial_.append(chunk);
    size_t start = 0;
    for (size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1)
        line(std::string_view(partial_).substr(start, end - start));
    partial_.erase(0, start);
    if (partial_.size() >= kLongestLine) {
        line(partial_);
        partial_.clear();
    }
}

void ClamdscanOutput::finish()
{
    if (!partial_.empty())
        line(partial_);
    partial_.clear();
    handOverFound();
}

void ClamdscanOutput::handOverFound()
{
    if (found_)
        reader_.result(*std::exchange(found_, std::nullopt));
}

std::optional<std::string> ClamdscanOutput::askedPathBefore(std::string_view line, std::string_view ending,
                                                           bool lastColonOnly) const
{
    if (!line.ends_with(ending))
        return std::nullopt;
    line.remove_suffix(ending.size());
    // A path may hold ": " itself. A signature never does, so a finding's
    // path is all before the last one; a reason may, so for an error the
    // longest asked path wins.
    for (size_t colon = line.rfind(": "); colon != std::string_view::npos && colon > 0;
         colon = line.rfind(": ", colon - 1)) {
        std::string path(line.substr(0, colon));
        if (asked_.contains(path))
            return path;
        if (lastColonOnly)
            break;
    }
    return std::nullopt;
}

void ClamdscanOutput::line(std::string_view text)
{
    // The move of the file found on the line before.
    if (found_ && text.ends_with("'") && text.starts_with(found_->path) &&
        text.substr(found_->path.size()).starts_with(kMovedMarker) &&
        text.size() > found_->path.size() + kMovedMarker.size() + 1) {
        const size_t start = found_->path.size() + kMovedMarker.size();
        found_->movedTo = std::string(text.substr(start, text.size() - 1 - start));
        handOverFound();
        return;
    }
    handOverFound();

    if (text.empty())
        return;
    if (const std::optional<std::string> path = askedPathBefore(text, " FOUND", true)) {
        const size_t start = path->size() + 2;
        found_ = ScanResult{*path, ScanResult::Verdict::Infected,
                            std::string(text.substr(start, text.size() - start - 6)), std::nullopt};
        return;
    }
    if (text.ends_with(": OK") && asked_.contains(std::string(text.substr(0, text.size() - 4)))) {
        reader_.result(ScanResult{std::string(text.substr(0, text.size() - 4)), ScanResult::Verdict::Clean, {},
                                  std::nullopt});
        return;
    }
    if (const std::optional<std::string> path = askedPathBefore(text, " ERROR", false)) {
        const size_t start = path->size() + 2;
        reader_.result(ScanResult{*path, ScanResult::Verdict::Error,
                                  std::string(text.substr(start, text.size() - start - 6)), std::nullopt});
        return;
    }
    // A result or a move that no asked path explains was spelled by a name.
    if (text.ends_with(" FOUND") || text.ends_with(": OK") ||
        (text.ends_with("'") && text.find(kMovedMarker) != std::string_view::npos)) {
        reader_.unexpected(text);
        return;
    }
    // Current clamdscan reports an unreachable daemon once per file: the
    // first such line of a run stands for them all.
    if (text == kConnectWarning || (text.starts_with(kConnectError) && !std::exchange(sawUnreachable_, true))) {
        reader_.unreachable(text);
        return;
    }
    if (!isSummaryLine(text))
        reader_.message(text);
}

} // namespace kv

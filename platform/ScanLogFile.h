#pragma once

#include "platform/UniqueFd.h"

#include <string>
#include <string_view>

namespace kv {

// The scan log, ~/Library/Logs/KorvaneVelgar-scan.log, for a program other
// than the agent (whose standard streams are the log): the same
// time-stamped lines, "YYYY-MM-DD HH:MM:SS text", appended beside the
// agent's own, so the History page shows them. Each line goes out in one
// write(2) on a descriptor opened for appending, so lines of several
// writers never mix. A log that cannot be opened takes nothing, and
// append() says so.
//
// Any thread may append at the same time as others.
class ScanLogFile {
public:
    explicit ScanLogFile(std::string path = defaultPath());

    // $HOME/Library/Logs/KorvaneVelgar-scan.log.
    static std::string defaultPath();
    const std::string& path() const { return path_; }

    // Writes the text, stamped with the time now, as one line.
    bool append(std::string_view text) const;

private:
    std::string path_;
    UniqueFd log_;
};

} // namespace kv

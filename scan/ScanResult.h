#pragma once

#include <optional>
#include <string>

namespace kv {

// What the engine said about one file the agent asked about: made once,
// from clamdscan's output (ClamdscanOutput) or from clamd's own answer to
// a scan by descriptor, and acted on as it is. Text is made from it only
// for the scan log, the dialogs and the notifications, never read back.
struct ScanResult {
    enum class Verdict { Clean, Infected, Error };

    std::string path;  // the name's bytes, as the scanner asked about it
    Verdict verdict = Verdict::Clean;
    // Infected: the signature. Error: the engine's reason.
    std::string detail;
    // Where the infected file was moved (quarantine folder or Trash).
    std::optional<std::string> movedTo;

    bool infected() const { return verdict == Verdict::Infected; }

    // The result as the scan log shows it, the name with odd bytes escaped:
    // "PATH: OK", "PATH: SIGNATURE FOUND", "PATH: REASON ERROR".
    std::string logLine() const;
    // "PATH: moved to 'DESTINATION'", for a result with movedTo.
    std::string movedLogLine() const;
};

} // namespace kv

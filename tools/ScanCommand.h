#pragma once

#include <string>
#include <vector>

namespace kv {

struct OnDemandSummary;

// `velgarctl scan [--no-subdirs] [--report-only] [--scheduled] PATH...`:
// scans the files and folders now (OnDemandScan) with the engine of the
// user's preferences, as the agent would start it, and handles what it
// finds as the preferences say unless --report-only.
//
// Standard output gets each infected file ("PATH: SIGNATURE FOUND", and
// where it went), each path that could not be read with the reason, each
// path skipped as no regular file, and the summary; names are escaped as in
// the scan log. On a terminal, standard error shows a progress line. The
// program's own diagnostics, and the engine layer's, go to the scan log, as
// the agent's do. SIGINT and SIGTERM stop the scan at once; the summary
// then says how far it got. --scheduled (the scheduled scan's service)
// also tells the outcome as a desktop notification.
//
// Exit status: 0 nothing found, 1 something found, 2 bad input or an error
// that stopped the scan (no engine, the engine gone), 128 + the signal
// when stopped by one. Main thread; needs the QCoreApplication main() made.
class ScanCommand {
public:
    static constexpr int kExitInfected = 1;
    static constexpr int kExitError = 2;

    // arguments: everything after "scan". Returns the exit status.
    int run(const std::vector<std::string>& arguments);

    // The summary block printed at the end.
    static std::string summaryText(const OnDemandSummary& summary);
};

} // namespace kv

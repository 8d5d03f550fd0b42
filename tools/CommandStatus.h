#pragma once

#include <string>

namespace kv {

// velgarctl's exit statuses. Scripts rely on them: 2 always means the
// command line (or a file it names) was refused and nothing was written.
enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailure = 1,
    kExitBadInput = 2,
};

// Print "velgarctl: <message>" as one line on standard error and return
// the matching status.
int reportBadInput(const std::string& message);
int reportFailure(const std::string& message);

// Prints one line on standard output.
void printLine(const std::string& line);
// Prints "velgarctl: warning: <message>" as one line on standard error, for
// a problem that does not stop the command.
void printWarning(const std::string& message);

} // namespace kv

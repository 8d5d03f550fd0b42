#pragma once

#include <string>
#include <vector>

namespace kv {

// velgarctl's command line: picks the command named by the first argument
// and runs it. arguments excludes the program name. Returns the exit status
// (see CommandStatus.h). Commands that use the session bus need a
// QCoreApplication to exist.
int runCommandLine(const std::vector<std::string>& arguments);

// The short usage shown by --help and when no command is given.
const char* usageText();

} // namespace kv

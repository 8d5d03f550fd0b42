#include "tools/CommandStatus.h"

#include <cstdio>

namespace kv {
namespace {

void writeLine(FILE* stream, const std::string& text)
{
    std::string line = text;
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fflush(stream);
}

} // namespace

int reportBadInput(const std::string& message)
{
    writeLine(stderr, "velgarctl: " + message);
    return kExitBadInput;
}

int reportFailure(const std::string& message)
{
    writeLine(stderr, "velgarctl: " + message);
    return kExitFailure;
}

void printLine(const std::string& line) { writeLine(stdout, line); }

void printWarning(const std::string& message) { writeLine(stderr, "velgarctl: warning: " + message); }

} // namespace kv

#include "scan/ScanResult.h"

#include "platform/PathText.h"

namespace kv {

std::string ScanResult::logLine() const
{
    const std::string name = displayText(path);
    switch (verdict) {
    case Verdict::Clean: return name + ": OK";
    case Verdict::Infected: return name + ": " + displayText(detail) + " FOUND";
    case Verdict::Error: break;
    }
    return name + ": " + displayText(detail) + " ERROR";
}

std::string ScanResult::movedLogLine() const
{
    return displayText(path) + ": moved to '" + displayText(movedTo.value_or(std::string())) + "'";
}

} // namespace kv

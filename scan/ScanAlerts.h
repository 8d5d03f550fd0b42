#pragma once

#include <string>

namespace kv {

// The dialogs a scanner raises for its findings, as the core sees them. The
// desktop library loads them from their interface files on the main thread.
//
// Callable from a scanner's thread. Each call returns once the dialog has
// been loaded and brought to the front (never waiting for the user), with
// false when its interface file could not be loaded.
class ScanAlerts {
public:
    virtual ~ScanAlerts() = default;

    // "QuarantinedDialog" with its own text, owned by the named scanner. Its
    // control opens quarantineFolder (hiding the owner's newest quarantine
    // dialog first).
    virtual bool showQuarantinedDialog(const std::string& ownerName, const std::string& quarantineFolder) = 0;

    // "WarningDialog" with the finding's whole output line as its message
    // (as the log shows it, odd bytes escaped), and a FileRemover that
    // carries out the user's choice on foundPath, the file's real name. In a
    // flood, past the few dialogs open at once, the finding is listed in one
    // summary window instead.
    virtual bool showWarningDialog(const std::string& ownerName, const std::string& outputLine,
                                   const std::string& foundPath) = 0;

    // The unreachable-engine dialog: the message, what the user can do
    // about it, a button titled quitTitle that quits the agent and one that
    // closes the dialog. The caller decides how often it is shown (see
    // ScannerHost::engineUnreachableAlertDue()).
    virtual bool showEngineUnreachableDialog(const std::string& ownerName, const std::string& message,
                                             const std::string& quitTitle) = 0;
};

} // namespace kv

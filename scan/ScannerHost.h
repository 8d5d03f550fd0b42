#pragma once

#include "platform/DesktopNotifier.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kv {

class ClamdSupervisor;
class ScanAlerts;

// What a scanning worker needs of the agent around it: the engine link and
// the user's attention. The controller implements it; tests may too. Every
// operation is callable from a scanner's thread.
class ScannerHost {
public:
    virtual ~ScannerHost() = default;

    // The engine link.
    virtual ClamdSupervisor& clamd() = 0;
    // PING; an answer counts as the engine answering again.
    virtual bool clamdStillAlive() = 0;
    // After a run that began with GENERATION lost its daemon: true when the
    // user's own daemon was launched again.
    virtual bool recoverFromCrashedClamd(uint64_t generation) = 0;
    // A run reached the engine, so its next silence is told again.
    virtual void engineAnswered() = 0;
    // A run found no engine answering: logged every time, told to the user
    // (a dialog owned by the named scanner, and a notification) once until
    // the engine answers again.
    virtual void engineUnreachable(const std::string& scannerName) = 0;
    // Tells the user that there is no engine to scan with.
    virtual void noEnginePanic() = 0;

    // The user's attention: a desktop notification and the dialogs (null
    // without a desktop).
    virtual bool displayGrowlDialog(NotificationKind kind, const std::string& description) = 0;
    virtual ScanAlerts* scanAlerts() const = 0;
};

} // namespace kv
